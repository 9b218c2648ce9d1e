#include "InterruptEvent.h"

#include <tavronet/platform/Event.h>

#include <csignal>

namespace command
{

namespace
{

sigset_t InterruptSignals()
{
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        ::sigaddset(&signals, signal);
    return signals;
}

} // namespace

InterruptEvent::InterruptEvent() : m_hEvent(::CreateEventW(nullptr, 1, 0, nullptr))
{
    const sigset_t signals = InterruptSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    m_Waiter = std::thread([signals, event = m_hEvent] {
        int signal = 0;
        ::sigwait(&signals, &signal);
        ::SetEvent(event);
    });
}

InterruptEvent::~InterruptEvent()
{
    ::pthread_kill(m_Waiter.native_handle(), SIGTERM); // ends the wait, if nothing has
    m_Waiter.join();
    ::CloseHandle(m_hEvent);
}

} // namespace command
