#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "GatewayRecords.h"
#include "LanGateway.h"
#include "ScriptedServer.h"
#include "tavronet/platform/TestSeams.h"
#include "tavronet/upnp/UPnPService.h"

namespace
{

/// A network that searches the private LAN, under the test's clock.
class UPnPNetworkOnALan : public testing::Test
{
protected:
    void SetUp() override
    {
        REQUIRE_PRIVATE_LAN();
        gateway = std::make_unique<LanGateway>();
        network = std::make_unique<CUPnPNetwork>(&Callback, this);
        first = gateway->Heard();
    }

    void TearDown() override
    {
        network.reset();
        EXPECT_EQ(tavronet::CountLivingObjects(), (tavronet::LivingObjects{0, 0}));
    }

    static void Callback(void* raw, unsigned int code, CUPnPObject*)
    {
        auto& self = *static_cast<UPnPNetworkOnALan*>(raw);
        self.codes.push_back(code);
        if (code == self.actOn) {
            const auto act = self.action; // the action may end everything it was stored with
            act();
        }
    }

    std::size_t SearchesAfterTickle(DWORD passedMs)
    {
        clock.Advance(passedMs);
        network->Tickle();
        return gateway->Heard().size();
    }

    /// Registers an undescribed device through a datagram.
    void Hear(const std::string& headers, const std::string& start = "HTTP/1.1 200 OK")
    {
        gateway->Say(first.at(0), start + "\r\n" + headers + "\r\n\r\n");
        PumpBriefly(25);
    }

    TestClock clock;
    std::unique_ptr<LanGateway> gateway;
    std::unique_ptr<CUPnPNetwork> network;
    std::vector<Search> first; // what the constructor sent
    std::vector<unsigned int> codes;
    unsigned int actOn = ~0U;
    std::function<void()> action;
};

TEST_F(UPnPNetworkOnALan, SearchesAtOnceThenOnceASecondThenAfterFiveMinutes)
{
    EXPECT_EQ(first.size(), 2U) << "a pair, from the constructor";
    EXPECT_EQ(SearchesAfterTickle(500), 0U);
    EXPECT_EQ(SearchesAfterTickle(500), 2U) << "exactly a second after the last";
    EXPECT_EQ(SearchesAfterTickle(999), 0U);
    EXPECT_EQ(SearchesAfterTickle(7000), 2U);
    EXPECT_EQ(SearchesAfterTickle(1001), 0U) << "the period is over";
    EXPECT_EQ(SearchesAfterTickle(290000), 0U) << "exactly five minutes";

    EXPECT_EQ(SearchesAfterTickle(1), 2U) << "a full discovery";
    EXPECT_EQ(SearchesAfterTickle(1000), 2U) << "opens a new period";
}

TEST_F(UPnPNetworkOnALan, TheCadenceHoldsAcrossTheWrapOfTheCounter)
{
    TestClock::s_Now = 0xFFFFFFFFu - 500;
    network->Discover();
    gateway->Heard();
    EXPECT_EQ(SearchesAfterTickle(999), 0U);
    EXPECT_EQ(SearchesAfterTickle(1), 2U);
    EXPECT_EQ(SearchesAfterTickle(9000), 0U);
    EXPECT_EQ(SearchesAfterTickle(290001), 2U);
}

TEST_F(UPnPNetworkOnALan, AnExpiredDeviceIsSearchedForOnItsInterface)
{
    Hear("USN: uuid:x\r\nCACHE-CONTROL: max-age=-1");
    CUPnPDevice* const device = network->GetUPnPDevice(0);
    ASSERT_NE(device, nullptr);
    device->GetType() = kGatewayType; // described, so that the upkeep keeps it

    clock.Advance(10001);
    EXPECT_TRUE(network->DiscoverComplete());
    EXPECT_EQ(SearchesAfterTickle(0), 2U);
    EXPECT_EQ(codes, (std::vector<unsigned int>{UPnPEventDeviceRediscover}));
    EXPECT_EQ(device->GetRediscoverAttempt(), 1U);
    EXPECT_FALSE(network->DiscoverComplete()) << "which opens a new period";
    EXPECT_EQ(codes.size(), 1U);

    Hear("USN: uuid:x\r\nCACHE-CONTROL: max-age=60");
    EXPECT_EQ(device->GetRediscoverAttempt(), 0U) << "heard from again";
    clock.Advance(20000);
    EXPECT_EQ(SearchesAfterTickle(0), 0U);
}

TEST_F(UPnPNetworkOnALan, AReleaseByUpkeepSearchesAgain)
{
    Hear("USN: uuid:x");
    clock.Advance(20000);
    network->GetUPnPDevice(0)->SetRelease(true);
    EXPECT_EQ(SearchesAfterTickle(0), 2U);
    EXPECT_EQ(network->NumDevices(), 0U);
    EXPECT_TRUE(codes.empty());
}

TEST_F(UPnPNetworkOnALan, ChoosingAnotherDialectSearchesAgain)
{
    EXPECT_TRUE(network->SetDialect(UPnPDialectModern));
    EXPECT_GT(gateway->Heard().size(), 2U);
    EXPECT_TRUE(network->SetDialect(UPnPDialectModern));
    EXPECT_TRUE(gateway->Heard().empty());
}

TEST_F(UPnPNetworkOnALan, FindsDescribesAndAsksAGateway)
{
    const std::unique_ptr<ScriptedServer> http(ScriptedServer::On(gateway->Listen()));
    http->Answer(HttpAnswer(Description()), ScriptedServer::Then::Close);
    http->Answer(HttpAnswer("<NewExternalIPAddress>203.0.113.7</NewExternalIPAddress>"));
    Hear("LOCATION: http://10.77.1.1:" + std::to_string(http->Port()) + "/d\r\nUSN: uuid:gw-1");
    ASSERT_EQ(network->NumDevices(), 1U);
    EXPECT_TRUE(PumpUntil([&] { return network->FindService("10.77.1.2", kConnectionService) != nullptr; }));

    CString address;
    EXPECT_TRUE(network->FindDevice("10.77.1.2")->GetExternalIPAddress(nullptr, address));
    EXPECT_EQ(address, L"203.0.113.7");
}

// --- Host code inside a datagram's notification, and inside the event of a search for one device

TEST_F(UPnPNetworkOnALan, TheHostMayDoAnythingInsideADatagramAndAnExpiry)
{
    const struct
    {
        const char* name;
        std::function<void()> act;
        bool throws;
    } actions[] = {
        {"delete the network", [this] { network.reset(); }, false},
        {"discover, which replaces the socket", [this] { network->Discover(); }, false},
        {"tickle into a full discovery",
         [this] {
             clock.Advance(400000);
             network->Tickle();
         },
         false},
        {"release the device", [this] { network->ReleaseUPnPDevice(network->GetUPnPDevice(0)); }, false},
        {"dispatch", [] { PumpBriefly(10); }, false},
        {"throw", [] { throw 7; }, true},
    };
    for (const auto& row : actions) {
        for (const unsigned int event : {UPnPEventDeviceNotify, UPnPEventDeviceRediscover}) {
            SCOPED_TRACE(std::string(row.name) + " in event " + std::to_string(event));
            gateway->Heard();
            network = std::make_unique<CUPnPNetwork>(&Callback, this);
            first = gateway->Heard();
            Hear("USN: uuid:x\r\nCACHE-CONTROL: max-age=-1");
            network->GetUPnPDevice(0)->GetType() = kGatewayType;
            action = row.act;
            codes.clear();
            actOn = event;
            bool thrown = false;
            try {
                if (event == UPnPEventDeviceNotify)
                    for (int i = 0; i < 3; ++i) // datagrams behind the first find whatever it left
                        Hear("NTS: ssdp:alive\r\nUSN: "
                             "uuid:y::urn:schemas-upnp-org:device:WANConnectionDevice:1",
                             "NOTIFY * HTTP/1.1");
                clock.Advance(10001);
                if (network != nullptr)
                    network->Tickle();
            } catch (int) {
                thrown = true;
            }
            EXPECT_EQ(std::ranges::count(codes, event) > 0, true);
            EXPECT_EQ(thrown, row.throws);
            actOn = ~0U;
            if (network == nullptr)
                continue;

            Hear("USN: uuid:fresh"); // perhaps to a socket that is gone
            clock.Advance(400000);
            network->Tickle();
            EXPECT_FALSE(gateway->Heard().empty()) << "upkeep still works";
        }
    }
}

} // namespace
