#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "tests/support/ChildProcess.h"

namespace tavronet
{

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

/// One request as the simulated gateway received it, byte for byte.
struct GatewayRequest
{
    std::string peer; // "127.0.0.1:40000"
    std::string bytes;
};

/// A simulated gateway (tavronet-gateway) that lives as long as this object. One that does not start, or ends otherwise
/// than well, by a sanitizer's finding for instance, is a failure of the test.
///
/// The constructor returns when the gateway listens. No call pumps messages: pump first, then ask what the gateway saw.
class GatewayProcess
{
public:
    using Place = ChildProcess::Place;

    /// @param arguments of the program. Without --address it serves HTTP only, on 127.0.0.1 at a free port. Its log, its record of requests and the command input are set up here.
    explicit GatewayProcess(std::vector<std::string> arguments = {}, Place place = Place::Here)
        : m_Process(CommandLine(std::move(arguments)), place)
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

    /// Everything that was sent to the gateway so far, in order of arrival.
    [[nodiscard]] std::vector<GatewayRequest> Requests() const
    {
        // Each stands behind a line "=== KIND PEER LENGTH" and is followed by a line feed.
        std::vector<GatewayRequest> requests;
        std::ifstream file(m_Folder + "/requests", std::ios::binary);
        std::size_t length = 0;
        for (std::string mark, kind, peer; file >> mark >> kind >> peer >> length;) {
            std::string bytes(length, 0);
            if (file.ignore().read(bytes.data(), std::ssize(bytes))) // not of one that is just being written
                requests.push_back({peer, bytes});
        }
        return requests;
    }

private:
    static constexpr int kTimeoutMs = 20000; // a sanitized program on a busy machine

    std::vector<std::string> CommandLine(std::vector<std::string> arguments) const
    {
        if (std::ranges::find(arguments, "--address") == arguments.end())
            arguments.insert(arguments.end(), {"--address", "127.0.0.1", "--no-ssdp"});
        arguments.insert(arguments.begin(), TAVRONET_TEST_BINARY_DIR "/bin/tavronet-gateway");
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
        : m_Process({TAVRONET_TEST_SOURCE_DIR "/scripts/real-gateway", "--any-client", "--igd",
                     std::to_string(version)},
                    ChildProcess::Place::GatewayOfLan),
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
