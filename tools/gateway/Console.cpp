#include "Console.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

namespace gateway
{

namespace
{

constexpr std::size_t kLongestLine = 4096;

} // namespace

Console::Console(EventLoop& loop, EventLog& log, Gateway& gateway)
    : m_Loop(loop), m_Log(log), m_Gateway(gateway)
{
}

Console::~Console()
{
    m_Loop.Unwatch(m_Signals.Get());
    m_Loop.Unwatch(STDIN_FILENO);
}

void Console::WatchSignals()
{
    sigset_t wanted;
    ::sigemptyset(&wanted);
    for (const int signal : {SIGTERM, SIGINT, SIGUSR1, SIGUSR2})
        ::sigaddset(&wanted, signal);
    ::sigprocmask(SIG_BLOCK, &wanted, nullptr);
    m_Signals = Descriptor(::signalfd(-1, &wanted, SFD_NONBLOCK | SFD_CLOEXEC));
    m_Loop.Watch(m_Signals.Get(), POLLIN, [this] { TakeSignal(); });
}

void Console::WatchCommands()
{
    m_Loop.Watch(STDIN_FILENO, POLLIN, [this] { TakeInput(); });
}

void Console::TakeSignal()
{
    signalfd_siginfo info;
    if (::read(m_Signals.Get(), &info, sizeof info) != sizeof info)
        return;
    if (info.ssi_signo == SIGUSR1)
        m_Gateway.Announce("ssdp:byebye");
    else if (info.ssi_signo == SIGUSR2)
        m_Gateway.Announce("ssdp:alive");
    else
        m_Loop.Stop();
}

void Console::TakeInput()
{
    char buffer[1024];
    const ssize_t got = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (got <= 0 || m_Input.size() > kLongestLine) {
        m_Loop.Stop();
        return;
    }
    m_Input.append(buffer, static_cast<std::size_t>(got));
    for (std::size_t end = m_Input.find('\n'); end != std::string::npos; end = m_Input.find('\n')) {
        const std::string line = m_Input.substr(0, end);
        m_Input.erase(0, end + 1);
        m_Log.Event((m_Gateway.Command(line) ? "command " : "command not understood: ") + line);
    }
}

} // namespace gateway
