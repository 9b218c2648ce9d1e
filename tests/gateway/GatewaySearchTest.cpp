#include "tests/support/GatewayProcess.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

using tavronet::GatewayProcess;

namespace
{

const std::string kWanted = "urn:schemas-upnp-org:device:WANConnectionDevice:1";

/// A datagram socket on an address of the client's side of the private LAN.
class Searcher
{
public:
    explicit Searcher(const std::string& address)
        : m_IsIPv6(address.find(':') != std::string::npos),
          m_Socket(::socket(m_IsIPv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        socklen_t length = 0;
        const sockaddr_storage own = Address(address, 0, length);
        EXPECT_EQ(::bind(m_Socket, reinterpret_cast<const sockaddr*>(&own), length), 0) << address;
    }
    ~Searcher() { ::close(m_Socket); }

    void Search(const std::string& target, const std::string& to = "")
    {
        const std::string group = m_IsIPv6 ? "ff02::c" : "239.255.255.250";
        SendText("M-SEARCH * HTTP/1.1\r\nST: " + target +
                     "\r\nMX: 5\r\nMAN: \"ssdp:discover\"\r\nHOST: " + group + ":1900\r\n\r\n",
                 to.empty() ? group : to);
    }
    void SendText(const std::string& text, const std::string& to)
    {
        socklen_t length = 0;
        const sockaddr_storage address = Address(to, 1900, length);
        ::sendto(m_Socket, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&address), length);
    }

    /// The next datagram and who sent it; empty when none comes in time.
    std::string Receive(std::string& from, int timeoutMs = 3000)
    {
        char buffer[4096], host[INET6_ADDRSTRLEN] = "";
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        pollfd waiting{m_Socket, POLLIN, 0};
        if (::poll(&waiting, 1, timeoutMs) <= 0)
            return "";
        const ssize_t got =
            ::recvfrom(m_Socket, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&address), &length);
        const void* const raw =
            m_IsIPv6 ? static_cast<const void*>(&reinterpret_cast<sockaddr_in6*>(&address)->sin6_addr)
                     : &reinterpret_cast<sockaddr_in*>(&address)->sin_addr;
        from = ::inet_ntop(address.ss_family, raw, host, sizeof host);
        return std::string(buffer, static_cast<std::size_t>(got));
    }

private:
    sockaddr_storage Address(const std::string& text, std::uint16_t port, socklen_t& length) const
    {
        sockaddr_storage result{};
        result.ss_family = m_IsIPv6 ? AF_INET6 : AF_INET;
        auto* const ipv6 = reinterpret_cast<sockaddr_in6*>(&result);
        auto* const ipv4 = reinterpret_cast<sockaddr_in*>(&result);
        EXPECT_EQ(::inet_pton(result.ss_family, text.c_str(),
                              m_IsIPv6 ? static_cast<void*>(&ipv6->sin6_addr) : &ipv4->sin_addr),
                  1);
        ipv4->sin_port = htons(port);
        if (m_IsIPv6 && text.starts_with("ff02"))
            ipv6->sin6_scope_id = ::if_nametoindex("c1");
        length = m_IsIPv6 ? sizeof *ipv6 : sizeof *ipv4;
        return result;
    }

    bool m_IsIPv6;
    int m_Socket;
};

TEST(GatewaySearch, AnswersComeFromTheAddressThatIsAskedAndNameItsDescription)
{
    GatewayProcess gateway({"--address", "10.77.1.1", "--address", "fd77:1::1"},
                           GatewayProcess::Place::GatewayOfLan);
    ASSERT_TRUE(gateway.Started());
    const std::pair<std::string, std::string> rows[] = {{"10.77.1.2", "10.77.1.1"},
                                                        {"fd77:1::2", "fd77:1::1"}};
    for (std::size_t i = 0; i < 2; ++i) {
        Searcher searcher(rows[i].first);
        std::string from;
        searcher.Search(kWanted);
        const std::string answer = searcher.Receive(from);
        EXPECT_EQ(from, rows[i].second);
        EXPECT_TRUE(answer.starts_with("HTTP/1.1 200 OK\r\n")) << answer;
        EXPECT_NE(answer.find("\r\nLOCATION: " + gateway.Url(i) + "\r\n"), std::string::npos) << answer;
        EXPECT_NE(answer.find("\r\nST: " + kWanted + "\r\n"), std::string::npos) << answer;
        EXPECT_NE(answer.find("::" + kWanted + "\r\n\r\n"), std::string::npos) << answer;
    }
    EXPECT_EQ(gateway.Url(1).substr(0, 19), "http://[fd77:1::1]:");
}

TEST(GatewaySearch, OnlySearchesForThisGatewayAreAnswered)
{
    GatewayProcess gateway({"--address", "10.77.1.1"}, GatewayProcess::Place::GatewayOfLan);
    Searcher searcher("10.77.1.2");
    std::string from;
    searcher.Search("urn:schemas-upnp-org:device:MediaServer:1");
    searcher.Search("urn:schemas-upnp-org:device:WANConnectionDevice:2");
    searcher.SendText("M-SEARCH * HTTP/1.1\r\nST: " + kWanted + "\r\n\r\n", "239.255.255.250");
    searcher.SendText("", "10.77.1.1");
    searcher.Search("ssdp:all", "10.77.1.1"); // straight to the gateway

    EXPECT_NE(searcher.Receive(from).find("\r\nST: upnp:rootdevice\r\n"), std::string::npos);
    EXPECT_EQ(searcher.Receive(from, 200), "");
    EXPECT_TRUE(gateway.WaitForLog("datagram ignored", 3));
}

TEST(GatewaySearch, AnnouncementsReachThoseWhoHaveSearched)
{
    GatewayProcess gateway({"--address", "10.77.1.1", "--uuid", "abc", "--embedded-usn"},
                           GatewayProcess::Place::GatewayOfLan);
    Searcher first("10.77.1.2"), second("10.77.1.2"), silent("10.77.1.2");
    std::string from;
    for (Searcher* const searcher : {&first, &second}) {
        searcher->Search(kWanted);
        ASSERT_NE(searcher->Receive(from), "");
    }
    gateway.Signal(SIGUSR1);
    for (Searcher* const searcher : {&first, &second})
        EXPECT_NE(searcher->Receive(from).find("\r\nNTS: ssdp:byebye\r\n"), std::string::npos);
    EXPECT_EQ(silent.Receive(from, 100), "");

    EXPECT_TRUE(gateway.Command("alive"));
    const std::string alive = first.Receive(from);
    EXPECT_TRUE(alive.starts_with("NOTIFY * HTTP/1.1\r\n")) << alive;
    EXPECT_NE(alive.find("\r\nLOCATION: " + gateway.Url() + "\r\n"), std::string::npos) << alive;
    EXPECT_NE(alive.find("\r\nNT: " + kWanted + "\r\nNTS: ssdp:alive\r\nUSN: uuid:abc-2::"),
              std::string::npos)
        << alive;
}

} // namespace
