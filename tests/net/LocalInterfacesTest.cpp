#include "tavronet/net/LocalInterfaces.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>
#include <tuple>

#include "tavronet/net/AddressRanges.h"
#include "tavronet/net/AddressText.h"
#include "tavronet/platform/InterfaceTables.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/TextConversion.h"
#include "tests/support/PlainSocket.h"

namespace
{

using List = std::vector<CStringW>;
using tavronet::InterfaceQuery;
using tavronet::PlainSocket;

InterfaceQuery MadeUpAdapters(int family, std::vector<tavronet::InterfaceEntry>& adapters)
{
    const std::tuple<int, bool, const char*, DWORD> rows[] = {
        {1, true, "127.0.0.1", 0xFF000000}, {1, true, "::1", 0},
        {2, false, "10.0.0.2", 0xFFFFFF00}, {2, false, "10.0.0.2", 0xFFFF0000},
        {7, true, "10.0.0.2", 0xFF000000},  {7, true, "fd00::5", 0},
        {7, true, "fd00::6%3", 0},          {9, true, "fd00::5", 0}};
    for (const auto& [index, isUp, address, mask] : rows) {
        tavronet::InterfaceAddress entry{.mask = htonl(mask)};
        GetSockAddr(address, entry.address, entry.length, AF_UNSPEC);
        if (adapters.empty() || adapters.back().index != index)
            adapters.push_back({"made-up", index, isUp, {}});
        if (family == AF_UNSPEC || family == entry.address.ss_family)
            adapters.back().addresses.push_back(entry);
    }
    return InterfaceQuery::Done;
}

TEST(LocalInterfaces, ListFindAndDescribeAddresses)
{
    tavronet::SetInterfaceTableSource(MadeUpAdapters);
    List list{L"old"};
    EXPECT_EQ(GetLocalAddresses(list, AF_UNSPEC, false), 7);
    EXPECT_EQ(list, (List{L"old", L"127.0.0.1", L"::1", L"10.0.0.2", L"fd00::5", L"fd00::6%3", L"fd00::5"}));
    EXPECT_EQ(GetLocalAddresses(list), 6);
    EXPECT_EQ(list[1], L"10.0.0.2") << "IPv4 first";
    // IPv4 is found by its text. Indices, too, and with their scope: that of the first adapter of two.
    const std::tuple<const char*, int, int> indices[] = {
        {"10.0.0.2", 1, -1}, {"10.0.0.002", 0, -1}, {"localhost", 0, -1}, {nullptr, 0, -1},
        {"fd00::5", 1, 7},   {"fd00::0005", 1, -1}, {"fd00::6", 1, -1},
    };
    for (const auto& [address, exists, index] : indices) {
        EXPECT_EQ(IPExists(address), exists) << address;
        EXPECT_EQ(GetIPv6InterfaceIndex(tavronet::WideText(address)), index) << address;
    }
    // The first entry counts, also that of an adapter that is down.
    const std::tuple<const char*, int, LONG, const char*> masks[] = {
        {"10.0.0.2", 9, 0, "255.255."},
        {"10.0.0.2", 0, 1, "################"},
        {"10.0.0.2", 16, 0, "255.255.255.0"},
        {"10.0.0.002", 16, ERROR_NOT_FOUND, ""},
    };
    for (const auto& [address, size, status, expected] : masks) {
        char mask[] = "################";
        EXPECT_EQ(GetSubnetMask(address, mask, size), status) << expected;
        EXPECT_STREQ(mask, expected);
    }
    tavronet::SetInterfaceTableSource([](int, auto&) { return InterfaceQuery::NoLibrary; });
    EXPECT_EQ(GetSubnetMask("10.0.0.2", std::vector<char>(16).data(), 16), 2);
    tavronet::SetInterfaceTableSource(nullptr);
}

TEST(LocalInterfaces, NamesOfConnectedSockets)
{
    const auto listener = PlainSocket::Listening();
    const auto client = PlainSocket::ConnectedTo(tavronet::BindToLoopback(listener.Handle()));
    CStringW address;
    UINT port = 0;
    EXPECT_TRUE(GetSockName(client.Handle(), address, port) && port == client.Port());
    EXPECT_TRUE(GetPeerName(client.Handle(), address, port) &&
                !GetPeerName(listener.Handle(), address, port));
    EXPECT_TRUE(port == listener.Port() && address == L"127.0.0.1") << "outputs stay on failure";
}

TEST(LocalInterfaces, AreTheRealOnesOrWhatTheHostNameStandsForWhenTheyCannotBeListed)
{
    bool isMade = false;
    std::thread([&isMade] {
        // Only this thread moves to the new network, and the commands it starts. Nobody is asked for that name.
        isMade =
            ::unshare(CLONE_NEWNET | CLONE_NEWUTS) == 0 && ::sethostname("10.1", 4) == 0 &&
            std::system("ip link add second type veth peer name far && ip link set second up && "
                        "ip addr add 10.9.1.1/20 dev second && ip addr add fd09::1/64 dev second nodad && "
                        "ip addr add 10.9.1.2/20 dev second label second:x") == 0;
        if (!isMade)
            return;
        List list;
        EXPECT_EQ(GetLocalAddresses(list), 0) << "a new network has loopback only, and that is down";
        EXPECT_EQ(std::system("ip link set lo up"), 0);
        EXPECT_EQ(GetLocalAddresses(list), 2) << "the other is set up, but its far end is down";
        EXPECT_EQ(std::system("ip link set far up"), 0);
        // The kernel reports the carrier a moment later.
        EXPECT_TRUE(tavronet::PumpUntil([] { return IPExists("10.9.1.1") == 1; }));
        GetLocalIPv4Addresses(list, true);
        EXPECT_EQ(list, (List{L"127.0.0.1", L"10.9.1.1", L"10.9.1.2"})) << "one with a label is its link's";
        EXPECT_EQ(GetIPv6InterfaceIndex("fd09::1"), static_cast<int>(if_nametoindex("second")));

        tavronet::SetInterfaceTableSource([](int, auto&) { return InterfaceQuery::Failed; });
        EXPECT_EQ(GetSubnetMask("10.9.1.1", std::vector<char>(16).data(), 16), 1);
        EXPECT_EQ(GetLocalIPv6Addresses(list, false), 4);
        EXPECT_EQ(list.back(), L"::1") << "appended";
        EXPECT_EQ(GetLocalAddresses(list, AF_UNSPEC, false), 4) << "nothing for both families";
        EXPECT_EQ(GetLocalIPv4Addresses(list, false), 2);
        EXPECT_EQ(list, (List{L"10.0.0.1", L"127.0.0.1"})) << "replaced although it was not to be cleared";
        tavronet::SetInterfaceTableSource(nullptr);
    }).join();
    if (!isMade)
        GTEST_SKIP() << "needs the right to make a network namespace, and the ip command";
}

} // namespace
