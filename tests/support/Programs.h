#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <vector>

namespace tavronet
{

/// A program that a test runs beside itself: spoken to over its standard input and output, ended by its process id.
///
/// It dies with the test, whatever happens to that. None of the calls pumps messages.
class ChildProcess
{
public:
    /// Starts `arguments[0]`. A failure shows in AwaitLine and Stop.
    explicit ChildProcess(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), {"setpriv", "--pdeathsig", "KILL"});
        std::vector<char*> raw;
        for (std::string& argument : arguments)
            raw.push_back(argument.data());
        raw.push_back(nullptr);

        // A socket and not a pipe: writing to a program that has died must not end the test by a signal.
        int ends[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        m_Channel.reset(::fdopen(ends[0], "r"));
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

    /// Waits for the first line of its standard output that contains `text`, for each line before it so long.
    /// @return that line with its end; empty when the program ends before, or is too slow
    std::string AwaitLine(const std::string& text, int timeoutMs) const
    {
        const timeval patience{timeoutMs / 1000, timeoutMs % 1000 * 1000};
        ::setsockopt(::fileno(m_Channel.get()), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        char line[4096] = "";
        while (std::string(line).find(text) == std::string::npos) {
            if (std::fgets(line, sizeof line, m_Channel.get()) == nullptr)
                return "";
        }
        return line;
    }

    /// Writes to its standard input. @return false when it has gone
    [[nodiscard]] bool Write(const std::string& text) const
    {
        return ::send(::fileno(m_Channel.get()), text.data(), text.size(), MSG_NOSIGNAL) != -1;
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
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t m_Pid;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> m_Channel{nullptr,
                                                              std::fclose}; // its standard input and output
};

/// A test that searches: skips itself anywhere but on a private LAN, so that no other network sees its multicast.
class OnPrivateLan : public testing::Test
{
protected:
    void SetUp() override
    {
        if (std::getenv("TAVRONET_LAN_GATEWAY_PID") == nullptr)
            GTEST_SKIP() << "searches only on a private LAN; run under scripts/with-lan";
    }
};

/// Runs a program in the gateway namespace of the private LAN; where there is none it does not start.
inline constexpr char kInGatewayNamespace[] = TAVRONET_TEST_SOURCE_DIR "/tests/support/in-gateway-namespace";

/// A simulated gateway (tavronet-gateway) on the private LAN that lives as long as this object. One that does not start,
/// or ends otherwise than well, by a sanitizer's finding for instance, is a failure of the test.
///
/// The constructor returns when the gateway listens. No call pumps messages: pump first, then ask what the gateway saw.
class GatewayProcess
{
public:
    /// @param arguments of the program, --address among them. Its log, its record of requests and the command input are
    ///        set up here.
    explicit GatewayProcess(const std::vector<std::string>& arguments) : m_Process(CommandLine(arguments))
    {
        std::istringstream words(m_Process.AwaitLine("ready", kTimeoutMs));
        m_ReadyWords.assign(std::istream_iterator<std::string>(words), {});
        EXPECT_FALSE(m_ReadyWords.empty()) << "the gateway did not start";
    }
    ~GatewayProcess()
    {
        EXPECT_EQ(m_Process.Stop(), 0) << "how the gateway ended";
        std::filesystem::remove_all(m_Folder);
    }

    /// URL of the description, for the n-th --address.
    [[nodiscard]] std::string Url(std::size_t n = 0) const { return m_ReadyWords.at(2 + n); }

    /// Sends one command line ("byebye", "clear", "fault delay soap:500" ...) and waits until it is obeyed.
    /// @return false when the gateway does not
    bool Command(const std::string& line) const
    {
        const int before = Logged("command " + line);
        EXPECT_TRUE(m_Process.Write(line + "\n"));
        for (int waitedMs = 0; Logged("command " + line) == before; waitedMs += 5) {
            if (waitedMs > kTimeoutMs)
                return false;
            ::usleep(5000);
        }
        return true;
    }
    /// How many lines of the log contain `text`.
    [[nodiscard]] int Logged(const std::string& text) const
    {
        int count = 0;
        std::ifstream log(m_Folder + "/log");
        for (std::string line; std::getline(log, line);)
            count += line.find(text) != std::string::npos;
        return count;
    }

    /// Every request and datagram that was sent to the gateway so far, byte for byte, in order of arrival.
    [[nodiscard]] std::vector<std::string> Requests() const
    {
        // Each stands behind a line "=== KIND PEER LENGTH" and is followed by a line feed.
        std::vector<std::string> requests;
        std::ifstream file(m_Folder + "/requests", std::ios::binary);
        std::size_t length = 0;
        for (std::string mark, kind, peer; file >> mark >> kind >> peer >> length;) {
            std::string bytes(length, 0);
            if (file.ignore().read(bytes.data(), std::ssize(bytes))) // not of one that is just being written
                requests.push_back(bytes);
        }
        return requests;
    }

private:
    static constexpr int kTimeoutMs = 20000; // a sanitized program on a busy machine

    std::vector<std::string> CommandLine(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(),
                         {kInGatewayNamespace, TAVRONET_TEST_BINARY_DIR "/bin/tavronet-gateway"});
        arguments.insert(arguments.end(), {"--commands", "--log", m_Folder + "/log", "--log-requests"});
        arguments.push_back(m_Folder + "/requests");
        return arguments;
    }

    std::string m_Pattern = testing::TempDir() + "tavronet-gateway.XXXXXX";
    const std::string m_Folder = ::mkdtemp(m_Pattern.data()); // removed at the end
    ChildProcess m_Process;
    std::vector<std::string> m_ReadyWords; // "tavronet-gateway ready URL ..."
};

/// A gateway daemon that people really use, in the gateway namespace of the private LAN (scripts/real-gateway).
/// It serves http://10.77.1.1:5555/rootDesc.xml, its address outside is 44.128.0.7, ports 1 to 1023 are refused
/// with 606, a port that another client has with 718; a mapping may lead to any client.
class RealGateway
{
public:
    /// Returns when the daemon serves its description, or cannot. @param version of the device: 1 or 2
    explicit RealGateway(int version)
        : m_Process({kInGatewayNamespace, TAVRONET_TEST_SOURCE_DIR "/scripts/real-gateway", "--any-client",
                     "--igd", std::to_string(version)}),
          m_Available(!m_Process.AwaitLine("ready", 10000).empty())
    {
    }

    /// False where the daemon is not installed, or there is no private LAN: skip the test then.
    [[nodiscard]] bool Available() const { return m_Available; }
    [[nodiscard]] std::string Url() const { return "http://10.77.1.1:5555/rootDesc.xml"; }

private:
    ChildProcess m_Process;
    const bool m_Available;
};

} // namespace tavronet
