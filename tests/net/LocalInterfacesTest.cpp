#include "tavronet/net/LocalInterfaces.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "tavronet/net/AddressRanges.h"
#include "tavronet/platform/SocketCalls.h"
#include "tavronet/platform/TextConversion.h"
#include "tests/net/AdapterTable.h"

namespace
{

using List = std::vector<CStringW>;
using tavronet::InterfaceQuery;

void FillTable(AdapterTable& table)
{
    table.AddAdapter(1, true);
    table.AddAddress("127.0.0.1");
    table.AddAddress("::1");
    table.AddAdapter(2, false);
    table.AddAddress("10.0.0.2");
    table.AddAdapter(7, true);
    table.AddUnprintableAddress();
    table.AddAddress("192.168.1.5");
    table.AddAddress("fd00::5");
    table.AddAddress("fd00::6%3");
    table.AddAdapter(9, true);
    table.AddAddress("fd00::5");
}

TEST(LocalInterfaces, ListsAddressesOfAdaptersThatAreUp)
{
    AdapterTable table;
    FillTable(table);
    const struct
    {
        int family;
        bool clearFirst;
        List expected;
        const char* why;
    } rows[] = {
        {AF_INET,
         true,
         {L"127.0.0.1", L"192.168.1.5"},
         "by adapter; those down and those without text left out"},
        {AF_INET6, false, {L"old", L"::1", L"fd00::5", L"fd00::6%3", L"fd00::5"}, "appended"},
        {AF_UNSPEC,
         true,
         {L"127.0.0.1", L"::1", L"192.168.1.5", L"fd00::5", L"fd00::6%3", L"fd00::5"},
         "both"},
        {23, true, {}, "no such family here"},
    };
    for (const auto& row : rows) {
        List list{L"old"};
        EXPECT_EQ(GetLocalAddresses(list, row.family, row.clearFirst),
                  static_cast<long long>(row.expected.size()));
        EXPECT_EQ(list, row.expected) << row.why;
    }

    List list{L"old"};
    EXPECT_EQ(GetLocalAddresses(list), 6);
    EXPECT_EQ(list, (List{L"127.0.0.1", L"192.168.1.5", L"::1", L"fd00::5", L"fd00::6%3", L"fd00::5"}));
}

constexpr InterfaceQuery kFailures[] = {InterfaceQuery::NoLibrary, InterfaceQuery::NoEntry,
                                        InterfaceQuery::Failed};

TEST(LocalInterfaces, FallBackToLoopbackWhenTheAdaptersCannotBeListed)
{
    for (const InterfaceQuery outcome : kFailures) {
        const AdapterTable table(outcome);
        List list{L"old"};
        EXPECT_EQ(GetLocalIPv6Addresses(list, false), 2);
        EXPECT_EQ(list, (List{L"old", L"::1"})) << "appended";
        EXPECT_EQ(GetLocalAddresses(list, AF_UNSPEC, false), 2) << "nothing for both families";
        EXPECT_EQ(GetLocalAddresses(list, AF_UNSPEC, true), 0) << "but cleared";
        EXPECT_EQ(GetIPv6InterfaceIndex("::1"), -1);
        EXPECT_EQ(IPExists("::1"), 1);
    }
}

void CheckHostNameFallback()
{
    for (const InterfaceQuery outcome : kFailures) {
        const AdapterTable table(outcome);
        List list{L"old"};
        EXPECT_EQ(GetLocalIPv4Addresses(list, false), 2);
        EXPECT_EQ(list, (List{L"10.0.0.1", L"127.0.0.1"})) << "replaced although it was not to be cleared";
    }
}

TEST(LocalInterfaces, FallBackToTheHostNameWhenTheAdaptersCannotBeListed)
{
    bool isNamed = false;
    std::thread([&isNamed] {
        // A host name of this thread's own, and one that no name server is asked for.
        const std::string name = "10.1";
        isNamed = ::unshare(CLONE_NEWUTS) == 0 && ::sethostname(name.data(), name.size()) == 0;
        if (isNamed)
            CheckHostNameFallback();
    }).join();
    if (!isNamed)
        GTEST_SKIP() << "needs the right to give itself another host name";
}

TEST(LocalInterfaces, OwnAddressesAreIPv4ByTextAndIPv6ByValue)
{
    AdapterTable table;
    FillTable(table);
    const struct
    {
        const char* address;
        int exists;
        int index;
        const char* why;
    } rows[] = {
        {"192.168.1.5", 1, -1, "IPv4"},
        {"192.168.1.005", 0, -1, "another form of it"},
        {"10.0.0.2", 0, -1, "on an adapter that is down"},
        {"fd00::5", 1, 7, "IPv6, the first adapter of two"},
        {"FD00:0::0005", 1, -1, "another form: exists, but the index goes by text"},
        {"fd00::6%3", 1, 7, "with its scope"},
        {"fd00::6", 1, -1, "without: the scope counts for the index only"},
        {"fd00::7", 0, -1, "not here"},
        {"::1", 1, 1, "loopback"},
        {"localhost", 0, -1, "a name"},
        {"", 0, -1, "the wildcard is nobody's"},
        {nullptr, 0, -1, "no text"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(IPExists(row.address), row.exists) << row.why;
        EXPECT_EQ(GetIPv6InterfaceIndex(row.address), row.index) << row.why;
        const tavronet::WideText wide(row.address);
        EXPECT_EQ(IPExists(wide), row.exists) << row.why;
        EXPECT_EQ(GetIPv6InterfaceIndex(wide), row.index) << row.why;
    }
}

// A connection over loopback of one family.
class Connection
{
public:
    explicit Connection(int family)
        : listener(::socket(family, SOCK_STREAM, 0)), client(::socket(family, SOCK_STREAM, 0))
    {
        sockaddr_storage_xp address;
        int length = 0;
        GetSockAddr(family == AF_INET ? "127.0.0.1" : "::1", address, length, family);
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        isConnected = platform::bind(Handle(listener), generic, length) == 0 &&
                      platform::listen(Handle(listener), 1) == 0 &&
                      platform::getsockname(Handle(listener), generic, &length) == 0 &&
                      ::connect(client, generic, static_cast<socklen_t>(length)) == 0;
        port = ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
    }
    ~Connection()
    {
        ::close(client);
        ::close(listener);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    static SOCKET Handle(int descriptor) { return static_cast<SOCKET>(descriptor); }

    int listener;
    int client;
    bool isConnected = false;
    UINT port = 0;
};

TEST(LocalInterfaces, NamesOfConnectedSockets)
{
    for (const int family : {AF_INET, AF_INET6}) {
        const Connection connection(family);
        if (!connection.isConnected)
            GTEST_SKIP() << "no loopback of family " << family;

        CStringW address, ownAddress;
        UINT port = 0, ownPort = 0;
        EXPECT_TRUE(GetPeerName(Connection::Handle(connection.client), address, port));
        EXPECT_EQ(address, family == AF_INET ? L"127.0.0.1" : L"::1");
        EXPECT_EQ(port, connection.port);
        EXPECT_TRUE(GetSockName(Connection::Handle(connection.client), ownAddress, ownPort));
        EXPECT_EQ(ownAddress, address);
        EXPECT_NE(ownPort, port);

        EXPECT_FALSE(GetPeerName(Connection::Handle(connection.listener), address, ownPort))
            << "not connected";
        EXPECT_FALSE(GetSockName(INVALID_SOCKET, address, port));
        EXPECT_EQ(port, connection.port) << "outputs stay on failure";
    }

    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    CStringW address(L"kept");
    UINT port = 5;
    EXPECT_FALSE(GetSockName(Connection::Handle(pair[0]), address, port)) << "no internet address";
    EXPECT_EQ(address, L"kept");
    ::close(pair[0]);
    ::close(pair[1]);
}

bool Run(const char* command)
{
    return std::system((std::string(command) + " 2>/dev/null").c_str()) == 0;
}

bool WaitUntilOwn(const char* address)
{
    using namespace std::chrono_literals;
    for (int attempt = 0; attempt < 300; ++attempt) {
        if (IPExists(address) == 1)
            return true;
        std::this_thread::sleep_for(10ms); // the kernel reports the carrier a moment later
    }
    return false;
}

// Runs in a network of its own; true when the interfaces could be made.
bool MakeInterfaces()
{
    return Run("ip link add second type veth peer name far") && Run("ip addr add 10.9.1.1/20 dev second") &&
           Run("ip addr add fd09::1/64 dev second nodad") &&
           Run("ip addr add 10.9.1.2/20 dev second label second:x") && Run("ip link set second up");
}

void CheckRealAdapters()
{
    List list;
    EXPECT_EQ(GetLocalAddresses(list), 0) << "a new network has loopback only, and that is down";

    EXPECT_TRUE(Run("ip link set lo up"));
    EXPECT_EQ(GetLocalAddresses(list), 2);
    EXPECT_EQ(list, (List{L"127.0.0.1", L"::1"}));
    EXPECT_EQ(GetIPv6InterfaceIndex("::1"), 1);

    EXPECT_EQ(IPExists("10.9.1.1"), 0) << "set up, but its other end is down";
    EXPECT_TRUE(Run("ip link set far up"));
    EXPECT_TRUE(WaitUntilOwn("10.9.1.1"));
    GetLocalIPv4Addresses(list, true);
    EXPECT_EQ(list, (List{L"127.0.0.1", L"10.9.1.1", L"10.9.1.2"}))
        << "an address with a label belongs to its link";
    EXPECT_EQ(IPExists("FD09::0001"), 1);
    EXPECT_EQ(GetIPv6InterfaceIndex("fd09::1"), static_cast<int>(if_nametoindex("second")));

    char mask[16];
    EXPECT_EQ(GetSubnetMask("10.9.1.2", mask, sizeof mask), 0);
    EXPECT_STREQ(mask, "255.255.240.0");
}

TEST(LocalInterfaces, RealAdaptersComeAndGo)
{
    bool isMade = false;
    std::thread([&isMade] {
        // Only this thread moves to the new network, and the commands it starts.
        isMade = ::unshare(CLONE_NEWNET) == 0 && MakeInterfaces();
        if (isMade)
            CheckRealAdapters();
    }).join();
    if (!isMade)
        GTEST_SKIP() << "needs the right to make a network namespace, and the ip command";
}

} // namespace
