#pragma once

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace tavronet
{

/// A program that a test runs beside itself: spoken to over its standard input and output, and ended by its process id.
///
/// It dies with the test, whatever happens to that. None of the calls pumps messages.
class ChildProcess
{
public:
    enum class Place
    {
        Here,         // in the network namespace of the test
        GatewayOfLan, // in the gateway namespace of the private LAN; where there is none the program does not start
    };

    /// Starts `arguments[0]`. A failure shows in AwaitLine and Stop.
    ChildProcess(std::vector<std::string> arguments, Place place)
    {
        const char* const pid = std::getenv("TAVRONET_LAN_GATEWAY_PID");
        if (place == Place::GatewayOfLan)
            arguments.insert(arguments.begin(), {"nsenter", "-n", "-t", pid != nullptr ? pid : "none"});
        arguments.insert(arguments.begin(), {"setpriv", "--pdeathsig", "KILL"});
        std::vector<char*> raw;
        for (std::string& argument : arguments)
            raw.push_back(argument.data());
        raw.push_back(nullptr);

        // A socket and not a pipe: writing to a program that has died must not end the test by a signal.
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
            std::abort();
        m_Channel = ::fdopen(ends[0], "r");
        m_Pid = ::fork();
        if (m_Pid == 0) {
            ::dup2(ends[1], STDIN_FILENO);
            ::dup2(ends[1], STDOUT_FILENO);
            ::execvp(raw[0], raw.data());
            ::_exit(127);
        }
        ::close(ends[1]);
    }
    ~ChildProcess() { Stop(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Waits for the first line of its standard output that contains `text`, for each line before it so long.
    /// @return that line with its end; empty when the program ends before, or is too slow
    std::string AwaitLine(const std::string& text, int timeoutMs) const
    {
        const timeval patience{timeoutMs / 1000, timeoutMs % 1000 * 1000};
        ::setsockopt(::fileno(m_Channel), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        char line[4096] = "";
        while (std::string(line).find(text) == std::string::npos) {
            if (std::fgets(line, sizeof line, m_Channel) == nullptr)
                return "";
        }
        return line;
    }

    /// Writes to its standard input. @return false when it has gone
    [[nodiscard]] bool Write(const std::string& text) const
    {
        return ::send(::fileno(m_Channel), text.data(), text.size(), MSG_NOSIGNAL) != -1;
    }

    /// Sends TERM and waits for the end.
    /// @return the exit status, 128 + the signal when one ended it, -1 when it was not running
    int Stop()
    {
        if (m_Pid <= 0)
            return -1;
        int status = 0;
        ::kill(m_Pid, SIGTERM);
        ::waitpid(std::exchange(m_Pid, -1), &status, 0);
        std::fclose(m_Channel);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t m_Pid;
    std::FILE* m_Channel; // our end of its standard input and output
};

} // namespace tavronet
