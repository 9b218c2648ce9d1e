#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <thread>

namespace tavronet
{

namespace
{

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kStopTimeout{10000};

/// Where there is no private LAN, a path that cannot be entered: the program must not run elsewhere instead.
std::string NamespacePath(ChildProcess::Place place)
{
    const char* const pid = std::getenv("TAVRONET_LAN_GATEWAY_PID");
    if (place == ChildProcess::Place::Here)
        return "";
    return "/proc/" + std::string(pid != nullptr ? pid : "none") + "/ns/net";
}

/// In the child, between fork and exec: only calls that are safe there.
[[noreturn]] void BecomeProgram(char** arguments, int input, int output, const char* networkNamespace)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    if (*networkNamespace != '\0') {
        const int descriptor = ::open(networkNamespace, O_RDONLY | O_CLOEXEC);
        if (descriptor < 0 || ::setns(descriptor, CLONE_NEWNET) != 0)
            ::_exit(126);
    }
    ::execv(arguments[0], arguments);
    ::_exit(127);
}

} // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments, Place place)
{
    const std::string networkNamespace = NamespacePath(place);
    std::vector<char*> raw;
    for (const std::string& argument : arguments)
        raw.push_back(const_cast<char*>(argument.c_str()));
    raw.push_back(nullptr);

    // A socket and not a pipe: writing to a program that has died must not end the test by a signal.
    int input[2], output[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input) != 0)
        return;
    m_Input = input[1];
    if (::pipe2(output, O_CLOEXEC) == 0) {
        m_Output = output[0];
        m_Pid = ::fork();
        if (m_Pid == 0)
            BecomeProgram(raw.data(), input[0], output[1], networkNamespace.c_str());
        ::close(output[1]);
    }
    ::close(input[0]);
}

std::string ChildProcess::AwaitLine(const std::string& text, int timeoutMs)
{
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    std::string line;
    while (Running()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd waiting{m_Output, POLLIN, 0};
        char c = 0;
        if (left <= 0 || ::poll(&waiting, 1, static_cast<int>(left)) <= 0 || ::read(m_Output, &c, 1) != 1)
            return "";
        if (c != '\n')
            line += c;
        else if (line.find(text) != std::string::npos)
            return line;
        else
            line.clear();
    }
    return "";
}

bool ChildProcess::Write(const std::string& text) const
{
    return ::send(m_Input, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

int ChildProcess::Stop()
{
    int status = -1;
    if (Running()) {
        ::kill(m_Pid, SIGTERM);
        const auto end = Clock::now() + kStopTimeout;
        while (::waitpid(m_Pid, &status, WNOHANG) == 0) {
            if (Clock::now() > end)
                ::kill(m_Pid, SIGKILL);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    for (const int descriptor : {m_Input, m_Output}) {
        if (descriptor >= 0)
            ::close(descriptor);
    }
    m_Pid = m_Input = m_Output = -1;
    return status;
}

} // namespace tavronet
