#include "tavronet/net/LocalInterfaces.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <tuple>

#include "tavronet/platform/TextConversion.h"
#include "tests/net/AdapterTable.h"
#include "tests/support/PlainSocket.h"

namespace
{

using List = std::vector<CStringW>;
using tavronet::PlainSocket;

struct FilledTable : AdapterTable
{
    FilledTable()
    {
        Add(1, true, {{"127.0.0.1", ""}, {"::1", ""}});
        Add(2, false, {{"10.0.0.2", ""}});
        Add(7, true, {{nullptr, ""}, {"192.168.1.5", ""}, {"fd00::5", ""}, {"fd00::6%3", ""}});
        Add(9, true, {{"fd00::5", ""}});
    }
};

TEST(LocalInterfaces, ListsAddressesOfAdaptersThatAreUp)
{
    const FilledTable table;
    const std::tuple<int, bool, List> rows[] = {
        {AF_INET, true, {L"127.0.0.1", L"192.168.1.5"}},
        {AF_INET6, false, {L"old", L"::1", L"fd00::5", L"fd00::6%3", L"fd00::5"}},
        {AF_UNSPEC, true, {L"127.0.0.1", L"::1", L"192.168.1.5", L"fd00::5", L"fd00::6%3", L"fd00::5"}},
        {23, true, {}},
    };
    for (const auto& [family, clearFirst, expected] : rows) {
        List list{L"old"};
        EXPECT_EQ(GetLocalAddresses(list, family, clearFirst), static_cast<long long>(expected.size()));
        EXPECT_EQ(list, expected) << family;
    }
}

TEST(LocalInterfaces, FallBackToLoopbackAndTheHostNameWhenTheAdaptersCannotBeListed)
{
    AdapterTable table;
    table.outcome = tavronet::InterfaceQuery::Failed;
    List list{L"old"};
    EXPECT_EQ(GetLocalIPv6Addresses(list, false), 2);
    EXPECT_EQ(list, (List{L"old", L"::1"})) << "appended";
    EXPECT_EQ(GetLocalAddresses(list, AF_UNSPEC, false), 2) << "nothing for both families";
    EXPECT_EQ(IPExists("::1"), 1);
    EXPECT_EQ(GetIPv6InterfaceIndex("::1"), -1);

    std::thread([&list] {
        // A host name of this thread's own, and one that no name server is asked for.
        if (::unshare(CLONE_NEWUTS) != 0 || ::sethostname("10.1", 4) != 0)
            return;
        EXPECT_EQ(GetLocalIPv4Addresses(list, false), 2);
        EXPECT_EQ(list, (List{L"10.0.0.1", L"127.0.0.1"})) << "replaced although it was not to be cleared";
    }).join();
}

TEST(LocalInterfaces, OwnAddressesAreIPv4ByTextAndIPv6ByValue)
{
    const FilledTable table;
    const std::tuple<const char*, int, int> rows[] = {
        {"192.168.1.5", 1, -1},  {"192.168.1.005", 0, -1}, {"10.0.0.2", 0, -1}, // on an adapter that is down
        {"fd00::5", 1, 7},                                                      // the first adapter of two
        {"FD00:0::0005", 1, -1},                                                // the index goes by text
        {"fd00::6%3", 1, 7},     {"fd00::6", 1, -1}, // the scope counts for the index only
        {"localhost", 0, -1},    {nullptr, 0, -1},
    };
    for (const auto& [address, exists, index] : rows) {
        EXPECT_EQ(IPExists(address), exists) << address;
        EXPECT_EQ(GetIPv6InterfaceIndex(tavronet::WideText(address)), index) << address;
    }
}

TEST(LocalInterfaces, NamesOfConnectedSockets)
{
    const auto listener = PlainSocket::Listening();
    const auto client = PlainSocket::ConnectedTo(tavronet::AddressOf(static_cast<int>(listener.Handle())));
    CStringW address;
    UINT port = 0;
    EXPECT_TRUE(GetSockName(client.Handle(), address, port));
    EXPECT_EQ(port, client.Port());
    EXPECT_TRUE(GetPeerName(client.Handle(), address, port));
    EXPECT_FALSE(GetPeerName(listener.Handle(), address, port)) << "not connected";
    EXPECT_EQ(port, listener.Port()) << "outputs stay on failure";
    EXPECT_EQ(address, L"127.0.0.1");
}

bool Shell(const char* commands)
{
    return std::system((std::string("{ ") + commands + "; } 2>/dev/null").c_str()) == 0;
}

void CheckRealAdapters()
{
    List list;
    EXPECT_EQ(GetLocalAddresses(list), 0) << "a new network has loopback only, and that is down";
    EXPECT_TRUE(Shell("ip link set lo up"));
    EXPECT_EQ(GetLocalAddresses(list), 2);
    EXPECT_EQ(IPExists("10.9.1.1"), 0) << "set up, but its other end is down";
    EXPECT_TRUE(Shell("ip link set far up"));
    // The kernel reports the carrier a moment later.
    EXPECT_TRUE(tavronet::PumpUntil([] { return IPExists("10.9.1.1") == 1; }));
    GetLocalIPv4Addresses(list, true);
    EXPECT_EQ(list, (List{L"127.0.0.1", L"10.9.1.1", L"10.9.1.2"})) << "one with a label is its link's";
    EXPECT_EQ(GetIPv6InterfaceIndex("fd09::1"), static_cast<int>(if_nametoindex("second")));
}

TEST(LocalInterfaces, RealAdaptersComeAndGo)
{
    bool isMade = false;
    std::thread([&isMade] {
        // Only this thread moves to the new network, and the commands it starts.
        const char* const makeInterfaces =
            "ip link add second type veth peer name far && ip addr add 10.9.1.1/20 dev second && "
            "ip addr add fd09::1/64 dev second nodad && "
            "ip addr add 10.9.1.2/20 dev second label second:x && ip link set second up";
        isMade = ::unshare(CLONE_NEWNET) == 0 && Shell(makeInterfaces);
        if (isMade)
            CheckRealAdapters();
    }).join();
    if (!isMade)
        GTEST_SKIP() << "needs the right to make a network namespace, and the ip command";
}

} // namespace
