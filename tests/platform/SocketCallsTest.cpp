#include "tavronet/platform/SocketCalls.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "tavronet/platform/LastError.h"

namespace
{

// A system socket for the length of a test.
class PlainSocket
{
public:
    PlainSocket(int family, int type) : m_Descriptor(::socket(family, type, 0)) {}
    ~PlainSocket() { ::close(m_Descriptor); }
    PlainSocket(const PlainSocket&) = delete;
    PlainSocket& operator=(const PlainSocket&) = delete;

    SOCKET Handle() const { return static_cast<SOCKET>(m_Descriptor); }
    int Descriptor() const { return m_Descriptor; }

private:
    int m_Descriptor;
};

sockaddr_in BindToLoopback(SOCKET handle)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(platform::bind(handle, generic, length), 0);
    EXPECT_EQ(platform::getsockname(handle, generic, &length), 0);
    EXPECT_EQ(length, int{sizeof address});
    return address;
}

TEST(SocketCalls, ResolverTakesDatagramsAndRefusesPortsItWouldCut)
{
    const struct
    {
        const char* host;
        const char* service;
        int family;
        int type;
        int code;
        const char* why;
    } rows[] = {
        {"10.1.2.3", "80", AF_UNSPEC, SOCK_STREAM, 0, "stream"},
        {"10.1.2.3", "80", AF_UNSPEC, SOCK_DGRAM, 0, "the system refuses datagrams with a TCP hint"},
        {"", "80", AF_INET, SOCK_STREAM, 0, "empty text is no host, which the system refuses"},
        {nullptr, "65535", AF_INET6, SOCK_DGRAM, 0, "the last port"},
        {"10.1.2.3", "65536", AF_UNSPEC, SOCK_STREAM, 10109, "would become port 0"},
        {"10.1.2.3", "-1", AF_UNSPEC, SOCK_STREAM, 10109, "negative"},
        {"10.1.2.3", "99999999999999", AF_UNSPEC, SOCK_STREAM, 10109, "beyond 32 bits"},
        {"localhost", "80", AF_UNSPEC, SOCK_STREAM, 11001, "a name"},
        {"::1", "80", AF_INET, SOCK_STREAM, 11001, "text of the other family"},
        {"[::1]", "80", AF_UNSPEC, SOCK_STREAM, 11001, "brackets"},
        {"10.1.2.3", "80", 23, SOCK_STREAM, 10047, "a family that is none here"},
        {"10.1.2.3", "80", AF_UNSPEC, 99, 10044, "a type that is none"},
    };
    WSASetLastError(77);
    for (const auto& row : rows) {
        addrinfo hints{};
        hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST;
        hints.ai_family = row.family;
        hints.ai_socktype = row.type;
        hints.ai_protocol = IPPROTO_TCP;
        addrinfo* result = nullptr;
        EXPECT_EQ(platform::getaddrinfo(row.host, row.service, &hints, &result), row.code) << row.why;
        EXPECT_EQ(result != nullptr, row.code == 0) << row.why;
        platform::freeaddrinfo(result);
    }
    EXPECT_EQ(WSAGetLastError(), 77) << "the resolver returns its code and stores nothing";
}

TEST(SocketCalls, NumericPrintingRefusesShortLengthsAndOtherFamilies)
{
    sockaddr_storage record{};
    record.ss_family = AF_INET6;
    char text[NI_MAXHOST] = "kept";
    const auto print = [&](int length) {
        const auto* const address = reinterpret_cast<const sockaddr*>(&record);
        return platform::getnameinfo(address, length, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    };
    EXPECT_EQ(print(0), WSAEAFNOSUPPORT);
    EXPECT_EQ(print(16), WSAEAFNOSUPPORT);
    record.ss_family = AF_UNIX;
    EXPECT_NE(print(28), 0);
    EXPECT_STREQ(text, "kept");
    record.ss_family = AF_INET6;
    EXPECT_EQ(print(28), 0);
    EXPECT_STREQ(text, "::");
}

TEST(SocketCalls, CountsWaitingBytesOfStreamsAndOfTheFirstDatagram)
{
    const PlainSocket receiver(AF_INET, SOCK_DGRAM);
    const sockaddr_in address = BindToLoopback(receiver.Handle());
    UINT count = 99;
    EXPECT_TRUE(platform::WaitingBytes(receiver.Handle(), count));
    EXPECT_EQ(count, 0U);

    const PlainSocket sender(AF_INET, SOCK_DGRAM);
    for (const std::string datagram : {"seven b", "two"})
        ::sendto(sender.Descriptor(), datagram.data(), datagram.size(), 0,
                 reinterpret_cast<const sockaddr*>(&address), sizeof address);
    EXPECT_TRUE(platform::WaitingBytes(receiver.Handle(), count));
    EXPECT_EQ(count, 7U);

    const PlainSocket listener(AF_INET, SOCK_STREAM);
    BindToLoopback(listener.Handle());
    EXPECT_EQ(platform::listen(listener.Handle(), 1), 0);
    EXPECT_FALSE(platform::WaitingBytes(listener.Handle(), count));
    EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
    EXPECT_EQ(count, 7U) << "unchanged when the system cannot tell";
}

TEST(SocketCalls, FailuresStoreTheirCode)
{
    const PlainSocket socket(AF_INET, SOCK_STREAM);
    const sockaddr_in address = BindToLoopback(socket.Handle());
    const PlainSocket second(AF_INET, SOCK_STREAM);
    const auto* const taken = reinterpret_cast<const sockaddr*>(&address);
    sockaddr_storage record{};
    int length = sizeof record;
    const SOCKET wideGarbage = (SOCKET{1} << 32) + socket.Handle();

    EXPECT_EQ(platform::getpeername(socket.Handle(), reinterpret_cast<sockaddr*>(&record), &length), -1);
    EXPECT_EQ(WSAGetLastError(), WSAENOTCONN);
    EXPECT_EQ(platform::bind(second.Handle(), taken, sizeof address), -1);
    EXPECT_EQ(WSAGetLastError(), WSAEADDRINUSE);
    EXPECT_EQ(platform::setsockopt(socket.Handle(), IPPROTO_TCP, 4711, &length, sizeof length), -1);
    EXPECT_EQ(WSAGetLastError(), WSAENOPROTOOPT);
    EXPECT_EQ(platform::listen(wideGarbage, 1), -1) << "a handle is not cut to its lower half";
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
    EXPECT_EQ(length, int{sizeof record}) << "an output stays on failure";
}

TEST(SocketCalls, OptionsAreReadBack)
{
    const PlainSocket socket(AF_INET, SOCK_DGRAM);
    const int loop = 0;
    EXPECT_EQ(platform::setsockopt(socket.Handle(), IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop), 0);
    int value = 99;
    int length = sizeof value;
    EXPECT_EQ(platform::getsockopt(socket.Handle(), IPPROTO_IP, IP_MULTICAST_LOOP, &value, &length), 0);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(length, 4);
}

TEST(SocketCalls, HostNamesGiveIPv4Lists)
{
    // Numeric text needs no name server.
    const hostent* const host = platform::gethostbyname("10.1");
    ASSERT_NE(host, nullptr);
    ASSERT_NE(host->h_addr_list[0], nullptr);
    EXPECT_EQ(std::memcmp(host->h_addr_list[0], "\x0A\x00\x00\x01", 4), 0);
    EXPECT_EQ(host->h_addr_list[1], nullptr);
}

TEST(SocketCalls, InetAddrReadsUpToWhiteSpace)
{
    EXPECT_EQ(platform::inet_addr("10.0.0.1"), htonl(0x0A000001));
    EXPECT_EQ(platform::inet_addr("10.0.0.1 x"), htonl(0x0A000001));
    EXPECT_EQ(platform::inet_addr("::1"), 0xFFFFFFFFU);
    EXPECT_EQ(platform::inet_addr(nullptr), 0xFFFFFFFFU);
}

} // namespace
