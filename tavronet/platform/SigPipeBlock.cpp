#include "tavronet/platform/SigPipeBlock.h"

#include <cerrno>
#include <csignal>
#include <ctime>

namespace tavronet
{
namespace
{

sigset_t OnlySigPipe()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

bool IsPending()
{
    sigset_t pending;
    return sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
}

} // namespace

SigPipeBlock::SigPipeBlock()
{
    const sigset_t pipe = OnlySigPipe();
    sigset_t before;
    sigemptyset(&before);
    pthread_sigmask(SIG_BLOCK, &pipe, &before);
    m_WasBlocked = sigismember(&before, SIGPIPE) == 1;
    m_WasPending = m_WasBlocked && IsPending(); // unblocked it would have been delivered
}

SigPipeBlock::~SigPipeBlock()
{
    const int error = errno; // of the write
    const sigset_t pipe = OnlySigPipe();
    const timespec now{};
    while (!m_WasPending && sigtimedwait(&pipe, nullptr, &now) < 0 && errno == EINTR)
        continue;
    if (!m_WasBlocked)
        pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
    errno = error;
}

} // namespace tavronet
