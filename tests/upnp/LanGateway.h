#ifndef TESTS_UPNP_LANGATEWAY_H
#define TESTS_UPNP_LANGATEWAY_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

/// For tests that search: skips them where there is no private LAN around them.
#define REQUIRE_PRIVATE_LAN()                                 \
    if (const char* const lan = std::getenv("TAVRONET_LAN");  \
        lan == nullptr || std::string_view(lan) != "private") \
    GTEST_SKIP() << "searches only on a private LAN; run under scripts/with-lan"

/// Runs a step in the network namespace of the LAN's gateway.
inline void InGatewayNamespace(const std::function<void()>& step)
{
    const std::string path = "/proc/" + std::string(std::getenv("TAVRONET_LAN_GATEWAY_PID")) + "/ns/net";
    const int ours = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    const int theirs = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(setns(theirs, CLONE_NEWNET), 0);
    step();
    ASSERT_EQ(setns(ours, CLONE_NEWNET), 0);
    close(ours);
    close(theirs);
}

/// A search as the gateway heard it.
struct Search
{
    std::string text;
    sockaddr_storage sender;
    socklen_t senderLength;
};

/// The ears and the voice of a gateway on the private LAN: plain sockets in its namespace.
class LanGateway
{
public:
    explicit LanGateway(int family = AF_INET) : m_Family(family)
    {
        InGatewayNamespace([&] {
            m_Descriptor = socket(family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            m_Voice = socket(family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            m_Interface = if_nametoindex("g1");
            family == AF_INET ? JoinIPv4() : JoinIPv6();
        });
    }

    ~LanGateway()
    {
        close(m_Descriptor);
        close(m_Voice);
    }

    LanGateway(const LanGateway&) = delete;
    LanGateway& operator=(const LanGateway&) = delete;

    /// The searches heard since the last call, until it has been quiet for a moment.
    std::vector<Search> Heard()
    {
        std::vector<Search> heard;
        for (;;) {
            char block[2048];
            Search search{};
            search.senderLength = sizeof search.sender;
            pollfd readable{m_Descriptor, POLLIN, 0};
            poll(&readable, 1, 20);
            const ssize_t got = recvfrom(m_Descriptor, block, sizeof block, 0,
                                         reinterpret_cast<sockaddr*>(&search.sender), &search.senderLength);
            if (got < 0)
                return heard;
            search.text.assign(block, static_cast<std::size_t>(got));
            heard.push_back(search);
        }
    }

    /// Answers from a port of its own, as most gateways do.
    void Say(const Search& to, const std::string& text) const
    {
        EXPECT_EQ(sendto(m_Voice, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to.sender),
                         to.senderLength),
                  static_cast<ssize_t>(text.size()));
    }

    /// A listener on every address of the gateway.
    int Listen() const
    {
        int listener = -1;
        InGatewayNamespace([&] {
            listener = socket(m_Family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            EXPECT_EQ(listen(listener, 16), 0);
        });
        return listener;
    }

    /// The gateway's link-local address on the cable, without its scope.
    std::string LinkLocalAddress() const
    {
        std::string found;
        InGatewayNamespace([&] {
            FILE* const table = std::fopen("/proc/net/if_inet6", "re");
            char address[33], name[64];
            unsigned index, prefix, scope, flags;
            while (table != nullptr && std::fscanf(table, "%32s %x %x %x %x %63s", address, &index, &prefix,
                                                   &scope, &flags, name) == 6)
            {
                if (scope != 0x20 || std::string_view(name) != "g1")
                    continue;
                for (int i = 0; i < 32; i += 4)
                    found += (i > 0 ? ":" : "") + std::string(address + i, 4);
            }
            if (table != nullptr)
                std::fclose(table);
        });
        return found;
    }

private:
    void JoinIPv4()
    {
        const sockaddr_in any{AF_INET, htons(1900), {}, {}};
        EXPECT_EQ(bind(m_Descriptor, reinterpret_cast<const sockaddr*>(&any), sizeof any), 0);
        ip_mreqn group{};
        group.imr_multiaddr.s_addr = inet_addr("239.255.255.250");
        group.imr_ifindex = static_cast<int>(m_Interface);
        EXPECT_EQ(setsockopt(m_Descriptor, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group), 0);
    }

    void JoinIPv6()
    {
        sockaddr_in6 any{};
        any.sin6_family = AF_INET6;
        any.sin6_port = htons(1900);
        EXPECT_EQ(bind(m_Descriptor, reinterpret_cast<const sockaddr*>(&any), sizeof any), 0);
        ipv6_mreq group{};
        inet_pton(AF_INET6, "ff02::c", &group.ipv6mr_multiaddr);
        group.ipv6mr_interface = m_Interface;
        EXPECT_EQ(setsockopt(m_Descriptor, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &group, sizeof group), 0);
    }

    const int m_Family;
    int m_Descriptor = -1; // hears
    int m_Voice = -1;
    unsigned m_Interface = 0;
};

#endif
