#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tavronet
{

/// A program that a test runs beside itself: started with pipes, spoken to, and ended by its process id.
///
/// It dies with the test, whatever happens to that. None of the calls pumps messages.
class ChildProcess
{
public:
    enum class Place
    {
        Here,         // in the network namespace of the test
        GatewayOfLan, // in the gateway namespace of the private LAN; the test runs in its client namespace
    };

    /// Starts `arguments[0]`, a path. A failure shows in AwaitLine and Stop.
    ChildProcess(const std::vector<std::string>& arguments, Place place);
    ~ChildProcess() { Stop(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    [[nodiscard]] bool Running() const { return m_Pid > 0; }

    /// Waits for the first line of its standard output that contains `text`.
    /// @return that line; empty when the program ends before, or is too slow
    std::string AwaitLine(const std::string& text, int timeoutMs);
    /// Writes to its standard input. @return false when it has gone
    [[nodiscard]] bool Write(const std::string& text) const;

    /// Sends TERM, after 10 s KILL, and waits for the end.
    /// @return the exit status, 128 + the signal when one ended it, -1 when it was not running
    int Stop();

private:
    pid_t m_Pid = -1;
    int m_Input = -1, m_Output = -1; // our ends of its standard input and output
};

} // namespace tavronet
