#include "tavronet/upnp/UPnPSSDPSocket.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <set>
#include <string>

#include "GatewayRecords.h"
#include "LanGateway.h"
#include "ScriptedServer.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/SocketCalls.h"

namespace
{

constexpr const char* kOurAddress = "10.77.1.2";
constexpr const char* kGatewayAddress = "10.77.1.1";
constexpr const char* kOurIPv6Address = "fd77:1::2";

/// One discovery socket of a network that makes none of its own.
class UPnPSSDPSocket : public testing::Test
{
protected:
    void SetUp() override
    {
        REQUIRE_PRIVATE_LAN();
        network.emplace(&Note, this, UPnPDialectClassic, false);
    }

    static void Note(void* self, unsigned int code, CUPnPObject*)
    {
        ++static_cast<UPnPSSDPSocket*>(self)->events[code];
    }

    /// Searches once and answers each of the given texts to the socket that searched.
    void SearchAndHear(CUPnPSSDPSocket& socket, LanGateway& gateway, const std::vector<std::string>& texts)
    {
        EXPECT_TRUE(socket.Discover());
        const std::vector<Search> heard = gateway.Heard();
        ASSERT_FALSE(heard.empty());
        for (const std::string& text : texts) {
            gateway.Say(heard[0], text);
            PumpBriefly(25);
        }
    }

    std::optional<CUPnPNetwork> network;
    std::map<unsigned int, int> events;
};

TEST_F(UPnPSSDPSocket, TheClassicSearchIsTwoEqualDatagramsToTheByte)
{
    LanGateway gateway;
    CUPnPSSDPSocket socket(kOurAddress, 0, &*network);
    ASSERT_TRUE(socket.GetCreated());
    EXPECT_TRUE(socket.Discover());

    const std::vector<Search> heard = gateway.Heard();
    ASSERT_EQ(heard.size(), 2U);
    for (const Search& search : heard)
        EXPECT_EQ(search.text, "M-SEARCH * HTTP/1.1\r\n"
                               "ST: urn:schemas-upnp-org:device:WANConnectionDevice:1\r\n"
                               "MX: 5\r\n"
                               "MAN: \"ssdp:discover\"\r\n"
                               "HOST: 239.255.255.250:1900\r\n\r\n");
    EXPECT_NE(socket.GetTick(), 0U);
}

TEST_F(UPnPSSDPSocket, TheModernSearchFindsEveryKindOfGatewayWithoutFlooding)
{
    network->SetDialect(UPnPDialectModern);
    LanGateway gateway;
    CUPnPSSDPSocket socket(kOurAddress, 0, &*network);
    EXPECT_TRUE(socket.Discover());

    std::set<std::string> targets;
    const std::vector<Search> heard = gateway.Heard();
    for (const Search& search : heard) {
        const std::size_t begin = search.text.find("\r\nST: ") + 6;
        targets.insert(search.text.substr(begin, search.text.find("\r\n", begin) - begin));
    }
    EXPECT_EQ(targets.size(), heard.size()) << "each target once";
    EXPECT_LE(heard.size(), 8U);
    for (const char* const target : {"urn:schemas-upnp-org:device:InternetGatewayDevice:1",
                                     "urn:schemas-upnp-org:device:InternetGatewayDevice:2"})
        EXPECT_TRUE(targets.contains(target)) << target;
}

TEST_F(UPnPSSDPSocket, SearchesOverIPv6OnTheInterfaceOfItsAddress)
{
    LanGateway gateway(AF_INET6);
    CUPnPSSDPSocket socket(kOurIPv6Address, 0, &*network);
    ASSERT_TRUE(socket.GetCreated());
    for (const int dialect : {UPnPDialectClassic, UPnPDialectModern}) {
        network->SetDialect(dialect);
        EXPECT_TRUE(socket.Discover());
        const std::vector<Search> heard = gateway.Heard();
        ASSERT_FALSE(heard.empty());
        const char* const host =
            dialect == UPnPDialectClassic ? "HOST: ff02::c:1900\r\n" : "HOST: [ff02::c]:1900\r\n";
        EXPECT_NE(heard[0].text.find(host), std::string::npos) << heard[0].text;
    }
}

struct DatagramRow
{
    const char* why;
    std::string text;
    std::size_t devices;
    int notifies;
};

TEST_F(UPnPSSDPSocket, WhatBecomesOfADatagram)
{
    const std::string usn = "USN: uuid:x::urn:schemas-upnp-org:device:";
    const std::string wan = usn + "WANConnectionDevice:1\r\n\r\n",
                      root = usn + "InternetGatewayDevice:1\r\n\r\n";
    const DatagramRow rows[] = {
        {"a search answer, whatever its type", "HTTP/1.1 200 OK\r\n" + root, 1, 0},
        {"letter case does not count", "http/1.1 200 ok\r\n" + root, 1, 0},
        {"the prefix stands at the very beginning", " HTTP/1.1 200 OK\r\n" + root, 0, 0},
        {"another host's search", "M-SEARCH * HTTP/1.1\r\n\r\n", 0, 0},
        {"an announcement of a gateway", "NOTIFY * HTTP/1.1\r\nNTS: ssdp:alive\r\n" + wan, 1, 1},
        {"its type in other letters",
         "notify * http/1.1\r\nNTS: ssdp:alive\r\nUSN: "
         "uuid:x::URN:Schemas-upnp-org:device:wanconnectiondevice:1\r\n\r\n",
         1, 1},
        {"an announcement of anything else", "NOTIFY * HTTP/1.1\r\nNTS: ssdp:alive\r\n" + root, 0, 0},
        {"a byebye of anything", "NOTIFY * HTTP/1.1\r\nNTS: ssdp:byebye\r\n" + root, 0, 1},
        {"nothing in it", "", 0, 0},
        {"longer than what is read", "HTTP/1.1 200 OK\r\n" + std::string(5000, 'x'), 1, 0},
    };
    LanGateway gateway;
    for (const DatagramRow& row : rows) {
        SCOPED_TRACE(row.why);
        network.emplace(&Note, this, UPnPDialectClassic, false);
        events.clear();
        CUPnPSSDPSocket socket(kOurAddress, 0, &*network);
        SearchAndHear(socket, gateway, {row.text});
        EXPECT_EQ(network->NumDevices(), row.devices);
        EXPECT_EQ(events[UPnPEventDeviceNotify], row.notifies);
    }
}

TEST_F(UPnPSSDPSocket, ARecordKnowsWhereItWasHeard)
{
    LanGateway gateway;
    CUPnPSSDPSocket socket(kOurAddress, 0, &*network);
    SearchAndHear(socket, gateway, {"HTTP/1.1 200 OK\r\nUSN: uuid:x\r\nCACHE-CONTROL: max-age=60\r\n\r\n"});
    ASSERT_EQ(network->NumDevices(), 1U);
    CUPnPDevice* const device = network->GetUPnPDevice(0);
    EXPECT_EQ(device->GetIpAddr(), CString(kOurAddress));
    EXPECT_EQ(device->GetDeviceAddr(), CString(kGatewayAddress));
    EXPECT_NE(device->GetDevicePort(), 1900U) << "answered from a port of its own";
    EXPECT_EQ(device->GetUPnPNetwork(), &*network);
}

TEST_F(UPnPSSDPSocket, WithoutANetworkItSendsAndKeepsNothing)
{
    LanGateway gateway;
    CUPnPSSDPSocket silent(kOurAddress, 0, nullptr);
    EXPECT_FALSE(silent.Discover());
    EXPECT_TRUE(gateway.Heard().empty());

    CUPnPSSDPSocket socket(kOurAddress, 0, &*network);
    EXPECT_TRUE(socket.Discover());
    Search toSilent = gateway.Heard().at(0);
    CStringW address;
    UINT port = 0;
    ASSERT_TRUE(silent.GetSockName(address, port));
    reinterpret_cast<sockaddr_in&>(toSilent.sender).sin_port = htons(static_cast<std::uint16_t>(port));
    gateway.Say(toSilent, "HTTP/1.1 200 OK\r\n\r\n");
    PumpBriefly();
    EXPECT_EQ(network->NumDevices(), 0U);
    UINT waiting = 1;
    EXPECT_TRUE(platform::WaitingBytes(silent.GetSocket(), waiting));
    EXPECT_EQ(waiting, 0U) << "the datagram was taken";
}

TEST_F(UPnPSSDPSocket, AnAddressOfAnotherMachineGivesNoSocket)
{
    const CUPnPSSDPSocket socket("10.77.1.99", 0, &*network);
    EXPECT_FALSE(socket.GetCreated());
    EXPECT_EQ(WSAGetLastError(), WSAEADDRNOTAVAIL);
    EXPECT_EQ(socket.GetSocket(), INVALID_SOCKET);
    EXPECT_TRUE(socket.GetErrorState());
}

TEST_F(UPnPSSDPSocket, AnExplicitPortCanBeShared)
{
    const CUPnPSSDPSocket first(kOurAddress, 0, &*network);
    CStringW address;
    UINT port = 0;
    ASSERT_TRUE(first.GetSockName(address, port));
    const CUPnPSSDPSocket second(kOurAddress, port, &*network);
    EXPECT_TRUE(second.GetCreated());
}

TEST_F(UPnPSSDPSocket, ALinkLocalGatewayIsReachedOnTheInterfaceItWasHeardOn)
{
    network->SetDialect(UPnPDialectModern);
    LanGateway gateway(AF_INET6);
    const std::unique_ptr<ScriptedServer> http(ScriptedServer::On(gateway.Listen()));
    http->Answer(HttpAnswer(Description()), ScriptedServer::Then::Close);

    CUPnPSSDPSocket socket(kOurIPv6Address, 0, &*network);
    const std::string url =
        "http://[" + gateway.LinkLocalAddress() + "]:" + std::to_string(http->Port()) + "/d";
    SearchAndHear(socket, gateway, {"HTTP/1.1 200 OK\r\nLOCATION: " + url + "\r\nUSN: uuid:gw-1\r\n\r\n"});
    ASSERT_EQ(network->NumDevices(), 1U);
    EXPECT_TRUE(PumpUntil([&] { return network->GetUPnPDevice(0)->DiscoverComplete(); }));
}

} // namespace
