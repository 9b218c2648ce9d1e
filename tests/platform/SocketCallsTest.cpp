#include "tavronet/platform/SocketCalls.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "tavronet/platform/LastError.h"
#include "tests/support/PlainSocket.h"

using tavronet::PlainSocket;

TEST(SocketCalls, ResolverTakesDatagramsAndRefusesPortsItWouldCut)
{
    const std::tuple<const char*, const char*, int, int, int> rows[] = {
        {"10.1.2.3", "80", AF_UNSPEC, SOCK_DGRAM, 0}, // the system refuses datagrams with a TCP hint
        {"", "80", AF_INET, SOCK_STREAM, 0},          // and empty text
        {nullptr, "65535", AF_INET6, SOCK_DGRAM, 0},
        {"10.1.2.3", "65536", AF_UNSPEC, SOCK_STREAM, 10109}, // would become port 0
        {"10.1.2.3", "-1", AF_UNSPEC, SOCK_STREAM, 10109},
        {"localhost", "80", AF_UNSPEC, SOCK_STREAM, 11001},
        {"::1", "80", AF_INET, SOCK_STREAM, 11001},
        {"10.1.2.3", "80", 23, SOCK_STREAM, 10047},
    };
    for (const auto& [host, service, family, type, code] : rows) {
        addrinfo hints{};
        hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST;
        hints.ai_family = family;
        hints.ai_socktype = type;
        hints.ai_protocol = IPPROTO_TCP;
        addrinfo* result = nullptr;
        EXPECT_EQ(platform::getaddrinfo(host, service, &hints, &result), code) << service;
        EXPECT_EQ(result != nullptr, code == 0) << service;
        platform::freeaddrinfo(result);
    }
}

TEST(SocketCalls, WaitingBytesAreOfTheFirstDatagramAndUnchangedOnFailure)
{
    const PlainSocket receiver(::socket(AF_INET, SOCK_DGRAM, 0));
    const auto sender = PlainSocket::ConnectedTo(tavronet::BindToLoopback(receiver.Handle()), SOCK_DGRAM);
    UINT count = 99;
    EXPECT_TRUE(platform::WaitingBytes(receiver.Handle(), count) && count == 0) << count;
    sender.Writes("seven b");
    sender.Writes("two");
    EXPECT_TRUE(platform::WaitingBytes(receiver.Handle(), count) && count == 7) << count;

    EXPECT_FALSE(platform::WaitingBytes(PlainSocket::Listening().Handle(), count));
    EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
    EXPECT_EQ(count, 7U);
    EXPECT_EQ(platform::listen((SOCKET{1} << 32) + receiver.Handle(), 1), -1) << "a handle is not cut";
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
}

TEST(SocketCalls, InetAddrReadsUpToWhiteSpace)
{
    EXPECT_EQ(platform::inet_addr("10.0.0.1 x"), htonl(0x0A000001));
    EXPECT_EQ(platform::inet_addr(nullptr), 0xFFFFFFFFU);
}
