#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>

#include "ScriptedSocket.h"
#include "tavronet/net/AddressRanges.h"
#include "tavronet/net/AddressText.h"
#include "tavronet/net/LocalInterfaces.h"
#include "tavronet/platform/LastError.h"
#include "tests/support/LoopbackPair.h"

namespace
{

using Pair = tavronet::LoopbackPair<ScriptedSocket>;

CStringW OwnAddress(const CTavroSocket& socket)
{
    CStringW address;
    UINT port = 0;
    socket.GetSockName(address, port);
    return address;
}

UINT OwnPort(const CTavroSocket& socket)
{
    CStringW address;
    UINT port = 0;
    socket.GetSockName(address, port);
    return port;
}

bool HasIPv6()
{
    return tavronet::PlainListener(AF_INET6).Listens();
}

TEST(TavroSocketCreate, BindsToTheAddressOrTheWildcard)
{
    struct
    {
        const char* why;
        const wchar_t* address;
        int family;
        const wchar_t* bound; // empty: creation fails
    } const rows[] = {
        {"one address", L"127.0.0.1", AF_UNSPEC, L"127.0.0.1"},
        {"none", nullptr, AF_UNSPEC, L"0.0.0.0"},
        {"empty text is none", L"", AF_INET, L"0.0.0.0"},
        {"empty text, IPv6", L"", AF_INET6, L"::"},
        {"IPv6", L"::1", AF_UNSPEC, L"::1"},
        {"a name is no address", L"localhost", AF_UNSPEC, L""},
        {"text of the other family", L"127.0.0.1", AF_INET6, L""},
        {"not an address of this machine", L"192.0.2.1", AF_UNSPEC, L""},
    };
    for (const auto& row : rows) {
        for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
            SCOPED_TRACE(row.why);
            const CStringW bound(row.bound);
            if (bound.Find(L':') >= 0 && !HasIPv6())
                continue;
            CTavroSocket socket;
            EXPECT_EQ(socket.Create(0, type, FD_ALL, row.address, row.family), bound.IsEmpty() ? 0 : 1);
            EXPECT_EQ(socket.GetSocket() == INVALID_SOCKET, bound.IsEmpty());
            EXPECT_EQ(OwnAddress(socket), bound);
            EXPECT_EQ(socket.GetPort(), 0U) << "what was asked for, not what the system chose";
        }
    }
}

TEST(TavroSocketCreate, AFailedBindLeavesNoHandleAndItsError)
{
    class ForgetfulSocket : public CTavroSocket
    {
        void Close() override
        {
            CTavroSocket::Close();
            WSASetLastError(0);
        }
    };
    const tavronet::PlainListener taken(AF_INET);
    ForgetfulSocket socket;
    EXPECT_EQ(socket.Create(taken.Port(), SOCK_STREAM, FD_ALL, L"127.0.0.1", AF_INET), 0);
    EXPECT_EQ(WSAGetLastError(), WSAEADDRINUSE);
    EXPECT_EQ(socket.GetSocket(), INVALID_SOCKET);
    EXPECT_EQ(socket.GetPort(), taken.Port());
    EXPECT_EQ(socket.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", AF_INET), 1)
        << "the object can be used again";
}

TEST(TavroSocketCreate, BindTakesANumericAddressOfAnUnboundHandle)
{
    CTavroSocket socket;
    ASSERT_TRUE(socket.Socket(SOCK_DGRAM, FD_ALL, 0, AF_INET));
    EXPECT_EQ(socket.Bind(0, L"localhost", AF_INET), 0);
    EXPECT_EQ(socket.Bind(0, L"127.0.0.1", AF_INET), 1);
    EXPECT_EQ(OwnAddress(socket), L"127.0.0.1");
}

TEST(TavroSocketConnect, TheFlagsFollowTheConnection)
{
    for (const int family : {AF_INET, AF_INET6}) {
        Pair pair(family);
        if (!pair.listener.Listens())
            continue; // a machine without IPv6
        EXPECT_TRUE(pair.socket->GetConnecting());
        EXPECT_FALSE(pair.socket->GetConnected());

        ASSERT_TRUE(pair.PumpUntilConnected());
        EXPECT_FALSE(pair.socket->GetConnecting());
        CStringW peerAddress;
        UINT peerPort = 0;
        EXPECT_TRUE(pair.socket->GetPeerName(peerAddress, peerPort));
        EXPECT_EQ(peerAddress, pair.listener.Address());
        EXPECT_EQ(peerPort, pair.listener.Port());

        pair.peer.Closes();
        EXPECT_TRUE(tavronet::PumpUntil([&] { return !pair.socket->GetConnected(); }));
        EXPECT_NE(pair.socket->GetSocket(), INVALID_SOCKET);
    }
}

TEST(TavroSocketConnect, FailuresAreToldByTheErrorOrTheNotification)
{
    UINT closedPort = 0;
    {
        const tavronet::PlainListener gone(AF_INET);
        closedPort = gone.Port();
    }
    struct
    {
        const char* why;
        const wchar_t* address;
        UINT port;
        int family;
        int error;
    } const rows[] = {
        {"nobody listens", L"127.0.0.1", closedPort, AF_INET, WSAEWOULDBLOCK},
        {"the wildcard is nobody", L"", closedPort, AF_UNSPEC, WSAEADDRNOTAVAIL},
        {"no such port", L"127.0.0.1", 70000, AF_UNSPEC, WSATYPE_NOT_FOUND},
        {"another family than the socket's", L"::1", closedPort, AF_UNSPEC, WSAEAFNOSUPPORT},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        CTavroSocket socket;
        ASSERT_EQ(socket.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", AF_INET), 1);
        EXPECT_EQ(socket.Connect(row.address, row.port, row.family), 0);
        EXPECT_EQ(WSAGetLastError(), row.error);
        EXPECT_EQ(socket.GetConnecting(), row.error == WSAEWOULDBLOCK);
        EXPECT_TRUE(tavronet::PumpUntil([&] { return !socket.GetConnecting(); }));
        EXPECT_FALSE(socket.GetConnected());
    }
}

TEST(TavroSocketDatagrams, TravelByAddressTextInBothFamilies)
{
    for (const wchar_t* address : {L"127.0.0.1", L"::1"}) {
        if (AddressFamily(address) == AF_INET6 && !HasIPv6())
            continue;
        CTavroSocket sender, receiver;
        ASSERT_EQ(sender.Create(0, SOCK_DGRAM, FD_ALL, address, AF_UNSPEC), 1);
        ASSERT_EQ(receiver.Create(0, SOCK_DGRAM, FD_ALL, address, AF_UNSPEC), 1);
        EXPECT_EQ(sender.SendTo("ping", 4, OwnPort(receiver), address, 0), 4);

        char buffer[3] = {};
        CStringW from;
        UINT port = 0;
        EXPECT_EQ(receiver.ReceiveFrom(buffer, 3, from, port, 0), 3) << "a longer datagram is cut";
        EXPECT_EQ(std::string(buffer, 3), "pin");
        EXPECT_EQ(from, address);
        EXPECT_EQ(port, OwnPort(sender));

        EXPECT_EQ(receiver.ReceiveFrom(buffer, 3, from = L"same", port = 7, 0), -1);
        EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
        EXPECT_EQ(from, L"same");
        EXPECT_EQ(port, 7U);
        EXPECT_EQ(sender.SendTo("ping", 4, OwnPort(receiver), L"localhost", 0), 0) << "no names";

        EXPECT_NE(sender.Connect(address, OwnPort(receiver)), 0) << "a datagram socket connects at once";
        EXPECT_TRUE(sender.GetConnected());
        EXPECT_FALSE(sender.GetConnecting());
    }
}

TEST(TavroSocketAddresses, AreTheOwnOneOrThoseOfTheMachine)
{
    std::vector<CStringW> machine;
    GetLocalIPv4Addresses(machine, true);
    std::erase_if(machine, [](const CStringW& address) { return IsLoopbackIP(address); });
    std::vector<CStringW> machinePrivate = machine;
    std::erase_if(machinePrivate, [](const CStringW& address) { return IsPrivateIP(address) == 0; });
    struct
    {
        const char* why;
        const wchar_t* bound;
        bool privateOnly;
        std::vector<CStringW> expected;
    } const rows[] = {
        {"bound to one", L"127.0.0.1", false, {L"127.0.0.1"}},
        {"bound to one that is not private", L"127.0.0.2", true, {}},
        {"bound to all", L"0.0.0.0", false, machine},
        {"bound to all, private only", L"0.0.0.0", true, machinePrivate},
        {"no handle counts as all", nullptr, false, machine},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        CTavroSocket socket;
        if (row.bound != nullptr) {
            ASSERT_EQ(socket.Create(0, SOCK_DGRAM, FD_ALL, row.bound, AF_INET), 1);
        }
        std::vector<CStringW> addresses{L"left from before"};
        EXPECT_EQ(socket.GetIPAddresses(addresses, row.privateOnly), static_cast<int>(row.expected.size()));
        EXPECT_EQ(addresses, row.expected);
    }
}

} // namespace
