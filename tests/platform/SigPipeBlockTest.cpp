#include "tavronet/platform/SigPipeBlock.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace
{

/// Writes to a peer that has gone, as code does that knows nothing of signals. @return errno.
int WriteBlocked()
{
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    close(pair[1]);
    const tavronet::SigPipeBlock block;
    EXPECT_EQ(write(pair[0], "x", 1), -1);
    const int error = errno;
    close(pair[0]);
    errno = error;
    return error;
}

bool IsIn(int (*ask)(sigset_t*))
{
    sigset_t set;
    sigemptyset(&set);
    ask(&set);
    return sigismember(&set, SIGPIPE) == 1;
}

} // namespace

TEST(SigPipeBlock, AWriteToAClosedPeerIsOnlyAnErrorAndWhatTheHostHasBlockedStaysSo)
{
    const auto isBlocked = [] {
        return IsIn([](sigset_t* set) { return pthread_sigmask(SIG_BLOCK, nullptr, set); });
    };
    EXPECT_EQ(WriteBlocked(), EPIPE);
    EXPECT_EQ(errno, EPIPE); // what the write has told is still to be read
    EXPECT_FALSE(isBlocked());

    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    for (const bool hostsOwn : {false, true}) {
        if (hostsOwn)
            raise(SIGPIPE);
        EXPECT_EQ(WriteBlocked(), EPIPE);
        EXPECT_TRUE(isBlocked());
        EXPECT_EQ(IsIn(sigpending), hostsOwn);
    }
    int signal = 0;
    EXPECT_EQ(sigwait(&pipe, &signal), 0);
}
