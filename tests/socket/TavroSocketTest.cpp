#include <gtest/gtest.h>

#include <tuple>

#include "ScriptedSocket.h"
#include "tavronet/net/AddressText.h"

namespace
{

bool LacksIPv6()
{
    return tavronet::PlainSocket::Listening(AF_INET6).Port() == 0;
}

TEST(TavroSocketCreate, BindsToTheAddressOrTheWildcardOrLeavesNoHandle)
{
    const std::tuple<const wchar_t*, int, const wchar_t*> rows[] = {
        {L"127.0.0.1", AF_UNSPEC, L"127.0.0.1"},
        {nullptr, AF_UNSPEC, L"0.0.0.0"},
        {L"", AF_INET6, L"::"},
        {L"localhost", AF_UNSPEC, L""},
        {L"127.0.0.1", AF_INET6, L""},
        {L"192.0.2.1", AF_UNSPEC, L""}, // not an address of this machine
    };
    for (const auto& [address, family, expected] : rows) {
        if (family == AF_INET6 && LacksIPv6())
            continue;
        CTavroSocket socket;
        const bool fails = *expected == L'\0';
        CStringW bound;
        UINT port = 0;
        EXPECT_EQ(socket.Create(0, SOCK_STREAM, FD_ALL, address, family), fails ? 0 : 1)
            << CStringA(expected);
        EXPECT_EQ(socket.GetSocket() == INVALID_SOCKET, fails);
        EXPECT_NE(socket.GetSockName(bound, port), fails);
        EXPECT_EQ(bound, expected);
    }
    const auto taken = tavronet::PlainSocket::Listening();
    CTavroSocket socket;
    EXPECT_EQ(socket.Create(taken.Port(), SOCK_STREAM, FD_ALL, L"127.0.0.1", AF_INET), 0);
    EXPECT_EQ(WSAGetLastError(), WSAEADDRINUSE);
    EXPECT_EQ(socket.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", AF_INET), 1) << "usable again";
}

TEST(TavroSocketDatagrams, TravelByAddressTextInBothFamilies)
{
    for (const wchar_t* address : {L"127.0.0.1", L"::1"}) {
        if (AddressFamily(address) == AF_INET6 && LacksIPv6())
            continue;
        CTavroSocket sender, receiver;
        ASSERT_EQ(sender.Create(0, SOCK_DGRAM, FD_ALL, address, AF_UNSPEC), 1);
        ASSERT_EQ(receiver.Create(0, SOCK_DGRAM, FD_ALL, address, AF_UNSPEC), 1);
        CStringW own, from;
        UINT senderPort = 0, receiverPort = 0, port = 0;
        EXPECT_TRUE(sender.GetSockName(own, senderPort) && receiver.GetSockName(own, receiverPort));
        EXPECT_EQ(sender.SendTo("ping", 4, receiverPort, address, 0), 4);
        EXPECT_EQ(sender.SendTo("ping", 4, receiverPort, L"localhost", 0), 0) << "no names";

        char buffer[4] = {};
        EXPECT_EQ(receiver.ReceiveFrom(buffer, 3, from, port, 0), 3) << "a longer datagram is cut";
        EXPECT_STREQ(buffer, "pin");
        EXPECT_EQ(receiver.ReceiveFrom(buffer, 3, from, port, 0), -1);
        EXPECT_EQ(from, address) << "unchanged by the failure";
        EXPECT_EQ(port, senderPort);

        EXPECT_NE(sender.Connect(address, receiverPort), 0) << "a datagram socket connects at once";
        EXPECT_TRUE(sender.GetConnected() && !sender.GetConnecting());
    }
}

} // namespace
