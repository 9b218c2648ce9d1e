#include "tavronet/platform/SigPipeBlock.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

using tavronet::SigPipeBlock;

namespace
{

/// Writes as a library would that knows nothing of signals. @return errno.
int WriteToClosedPeer()
{
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    close(pair[1]);
    const ssize_t written = write(pair[0], "x", 1);
    const int error = written < 0 ? errno : 0;
    close(pair[0]);
    return error;
}

bool IsIn(int (*ask)(sigset_t*))
{
    sigset_t set;
    sigemptyset(&set);
    ask(&set);
    return sigismember(&set, SIGPIPE) == 1;
}

bool IsBlocked()
{
    return IsIn([](sigset_t* set) { return pthread_sigmask(SIG_BLOCK, nullptr, set); });
}

} // namespace

TEST(SigPipeBlock, AWriteToAClosedPeerIsOnlyAnError)
{
    {
        const SigPipeBlock block;
        EXPECT_EQ(WriteToClosedPeer(), EPIPE);
        EXPECT_TRUE(IsIn(sigpending));
        errno = EPIPE;
    }
    EXPECT_EQ(errno, EPIPE); // what the write has told is still to be read
    EXPECT_FALSE(IsBlocked());
    EXPECT_FALSE(IsIn(sigpending));
}

TEST(SigPipeBlock, AHostThatBlocksTheSignalKeepsItsMaskAndItsPendingSignal)
{
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    for (const bool hostsOwn : {false, true}) {
        if (hostsOwn)
            raise(SIGPIPE);
        {
            const SigPipeBlock block;
            EXPECT_EQ(WriteToClosedPeer(), EPIPE);
        }
        EXPECT_TRUE(IsBlocked());
        EXPECT_EQ(IsIn(sigpending), hostsOwn);
    }
    int signal = 0;
    EXPECT_EQ(sigwait(&pipe, &signal), 0);
}
