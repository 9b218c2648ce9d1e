#include "tavronet/upnp/UPnPNetwork.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "GatewayRecords.h"
#include "ScriptedServer.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/UPnPService.h"

namespace
{

/// A network without adapters, and what it told its host.
class UPnPNetwork : public testing::Test
{
protected:
    struct Event
    {
        unsigned int code;
        CUPnPObject* object;
        bool operator==(const Event&) const = default;
    };

    static void Note(void* self, unsigned int code, CUPnPObject* object)
    {
        static_cast<UPnPNetwork*>(self)->events.push_back({code, object});
    }

    static void RegisterTwice(void* self, unsigned int, CUPnPObject* record)
    {
        static_cast<UPnPNetwork*>(self)->network.NewUPnPDevice(static_cast<CUPnPDevice*>(record));
        static_cast<UPnPNetwork*>(self)->network.NewUPnPDevice(static_cast<CUPnPDevice*>(record));
    }

    /// Hands in a search answer. @return the device registered last.
    CUPnPDevice* Answer(const Announced& announced)
    {
        network.NewUPnPDevice(MakeRecord(&network, announced));
        return network.GetUPnPDevice(static_cast<int>(network.NumDevices()) - 1);
    }

    void Describe(const Announced& announced)
    {
        server.Answer(HttpAnswer(Description()), ScriptedServer::Then::Close);
        CUPnPDevice* const device = Answer(announced);
        ASSERT_TRUE(PumpUntil([&] { return device->DiscoverComplete(); }));
    }

    std::vector<unsigned int> Codes() const
    {
        std::vector<unsigned int> codes;
        for (const Event& event : events)
            codes.push_back(event.code);
        return codes;
    }

    TestClock clock;
    NoAdapters noAdapters;
    ScriptedServer server;
    std::vector<Event> events;
    CUPnPNetwork network{&Note, this};
};

TEST_F(UPnPNetwork, TheDiscoveryPeriodIsASumOfTicks)
{
    const struct
    {
        DWORD start, passed;
        bool complete;
        const char* why;
    } rows[] = {
        {1000000, 0, false, "just started"},
        {1000000, 10000, false, "exactly the period"},
        {1000000, 10001, true, "one more"},
        {0xFFFFFFFFu - 5000, 1, true, "the sum has wrapped and the counter has not"},
        {0xFFFFFFFFu - 5000, 10000, false, "both have wrapped"},
        {0xFFFFFFFFu - 5000, 10002, true, "both have wrapped, and the period is over"},
    };
    for (const auto& row : rows) {
        TestClock::s_Now = row.start;
        network.Discover();
        clock.Advance(row.passed);
        EXPECT_EQ(network.DiscoverComplete(), row.complete) << row.why;
    }
}

struct IdentityRow
{
    const char* why;
    Announced second;
    bool same;
};

TEST_F(UPnPNetwork, WhichAnswersAreTheSameDevice)
{
    const Announced first{
        .source = "10.0.0.1", .location = "http://10.0.0.1:5000/d", .usn = "uuid:One::urn:x"};
    const IdentityRow rows[] = {
        {"the same answer again", first, true},
        {"the USN in other letters",
         {.source = "10.0.0.2", .location = "http://b/", .usn = "UUID:one::URN:X"},
         true},
        {"the UUID with another type",
         {.source = "10.0.0.2", .location = "http://b/", .usn = "uuid:One::urn:y"},
         true},
        {"the same source, all else differs",
         {.source = "10.0.0.1", .location = "http://b/", .usn = "uuid:2"},
         true},
        {"the same URL", {.source = "10.0.0.2", .location = "http://10.0.0.1:5000/d", .usn = "uuid:2"}, true},
        {"the URL in other letters",
         {.source = "10.0.0.2", .location = "HTTP://10.0.0.1:5000/d", .usn = "uuid:2"},
         false},
        {"nothing in common", {.source = "10.0.0.2", .location = "http://b/", .usn = "uuid:2"}, false},
    };
    for (const IdentityRow& row : rows) {
        CUPnPNetwork other;
        other.NewUPnPDevice(MakeRecord(&other, first));
        other.NewUPnPDevice(MakeRecord(&other, row.second));
        EXPECT_EQ(other.NumDevices(), row.same ? 1U : 2U) << row.why;
    }
}

TEST_F(UPnPNetwork, ASecondAnswerRefreshesTheFirst)
{
    CUPnPDevice* const device = Answer({.source = "10.0.0.1", .cacheControl = "max-age=-1"});
    device->SetIssuedRediscover(true);
    EXPECT_EQ(Answer({.source = "10.0.0.1", .usn = "uuid:other", .cacheControl = "max-age=60"}), device);
    EXPECT_EQ(device->GetMaxAge(), 60);
    EXPECT_EQ(device->GetRediscoverAttempt(), 0U);
    EXPECT_EQ(device->GetUSN(), L"uuid:gw-1::urn:schemas-upnp-org:device:WANConnectionDevice:1");
}

TEST_F(UPnPNetwork, LooksUpByIndexNameAndLocalAddress)
{
    CUPnPDevice* const one = Answer({.localAddress = "10.0.0.9", .source = "10.0.0.1", .usn = "uuid:1"});
    CUPnPDevice* const two = Answer({.localAddress = "10.0.1.9", .source = "10.0.1.1", .usn = "uuid:2"});
    Answer({.localAddress = "10.0.1.9", .source = "10.0.1.2", .usn = "uuid:3"});

    EXPECT_EQ(network.GetUPnPDevice(-1), nullptr);
    EXPECT_EQ(network.GetUPnPDevice(3), nullptr);
    EXPECT_EQ(network.GetUPnPDevice(0), one);
    EXPECT_EQ(network.GetUPnPDevice("UUID:2::urn:whatever"), two);
    EXPECT_EQ(network.GetUPnPDevice("uuid:4"), nullptr);
    EXPECT_EQ(network.FindDevice("10.0.1.9"), two) << "the first registered";
    EXPECT_EQ(network.FindDevice("10.0.01.9"), nullptr);
    EXPECT_EQ(network.FindDevice(""), nullptr);
    EXPECT_EQ(network.FindDevice(nullptr), nullptr);
    EXPECT_EQ(network.FindService("10.0.1.9", kConnectionService), nullptr);
}

TEST_F(UPnPNetwork, TheRegistryIsBounded)
{
    for (int i = 0; i < 40; ++i)
        Answer({.source = "10.0.0." + std::to_string(i), .usn = "uuid:" + std::to_string(i)});
    EXPECT_EQ(network.NumDevices(), tavronet::kMaxUndescribedDevices) << "answers that nobody vouches for";

    CUPnPDevice* const first = network.GetUPnPDevice(0);
    Answer({.source = "10.0.0.0", .cacheControl = "max-age=7"});
    EXPECT_EQ(first->GetMaxAge(), 7) << "a full registry still refreshes";

    for (std::size_t i = 0; i < tavronet::kMaxDevices; ++i) {
        const std::size_t last = network.NumDevices() - 1;
        network.GetUPnPDevice(static_cast<int>(last))->GetType() = kGatewayType; // as if described
        network.GetUPnPDevice(0)->GetType() = kGatewayType;
        for (std::size_t j = 0; j < last; ++j)
            network.GetUPnPDevice(static_cast<int>(j))->GetType() = kGatewayType;
        Answer({.source = "10.1.0." + std::to_string(i), .usn = "uuid:b" + std::to_string(i)});
    }
    EXPECT_EQ(network.NumDevices(), tavronet::kMaxDevices);
}

TEST_F(UPnPNetwork, AnAnnouncementIsShownToTheHostAndThenActedOn)
{
    CUPnPDevice* const record = MakeRecord(&network, {.source = "10.0.0.1", .nts = "ssdp:alive"});
    network.Notify(record);
    EXPECT_EQ(events, (std::vector<Event>{{UPnPEventDeviceNotify, record}}));
    EXPECT_EQ(network.GetUPnPDevice(0), record) << "an unknown device that is alive is registered";

    network.Notify(
        MakeRecord(&network, {.source = "10.0.0.1", .nts = "ssdp:alive", .cacheControl = "max-age=5"}));
    EXPECT_EQ(network.NumDevices(), 1U);
    EXPECT_EQ(record->GetMaxAge(), 5);

    network.Notify(MakeRecord(&network, {.source = "10.0.0.7", .usn = "uuid:7", .nts = "ssdp:update"}));
    network.Notify(MakeRecord(&network, {.source = "10.0.0.8", .usn = "uuid:8", .nts = "ssdp:byebye"}));
    EXPECT_EQ(network.NumDevices(), 1U);
    EXPECT_EQ(Codes(), std::vector<unsigned int>(4, UPnPEventDeviceNotify));
}

TEST_F(UPnPNetwork, TheHostMayRegisterTheRecordItIsShown)
{
    network.SetUPnPEventCallback(&RegisterTwice);
    CUPnPDevice* const record = MakeRecord(&network, {.nts = "ssdp:alive"});
    network.Notify(record);
    EXPECT_EQ(network.NumDevices(), 1U);
    EXPECT_EQ(network.GetUPnPDevice(0), record);
}

TEST_F(UPnPNetwork, AByeByeReleasesTheDeviceAtTheNextTickle)
{
    Describe({.location = server.Url("/d")});
    CUPnPDevice* const device = network.GetUPnPDevice(0);
    events.clear();
    network.Notify(MakeRecord(&network, {.nts = "ssdp:byebye"}));
    EXPECT_EQ(network.NumDevices(), 1U);
    network.Tickle();
    EXPECT_EQ(network.NumDevices(), 0U);
    ASSERT_EQ(Codes(), (std::vector<unsigned int>{UPnPEventDeviceNotify, UPnPEventDeviceReleased}));
    EXPECT_EQ(events[1].object, device);
}

TEST_F(UPnPNetwork, OneDeviceIsDroppedPerTickle)
{
    for (const char* const source : {"10.0.0.1", "10.0.0.2", "10.0.0.3"})
        Answer({.source = source, .usn = std::string("uuid:") + source})->SetRelease(true);
    network.Tickle();
    EXPECT_EQ(network.NumDevices(), 2U);
    EXPECT_TRUE(events.empty()) << "devices without a description go silently";
}

TEST_F(UPnPNetwork, ADescribedDeviceRaisesItsEventsInnermostFirst)
{
    Describe({.location = server.Url("/d")});
    EXPECT_EQ(Codes(), (std::vector<unsigned int>{UPnPEventServiceDescribed, UPnPEventDeviceDescribed,
                                                  UPnPEventDeviceDescribed}));
    EXPECT_EQ(events.back().object, network.GetUPnPDevice(0));
    const CUPnPObject* const service = network.FindService("127.0.0.1", kConnectionService);
    EXPECT_EQ(service, events.front().object);
    EXPECT_EQ(network.FindService("127.0.0.1", "urn:other"), nullptr);
}

TEST_F(UPnPNetwork, ReleaseIgnoresWhatIsNotRegistered)
{
    Answer({});
    network.ReleaseUPnPDevice(nullptr);
    CUPnPDevice stranger;
    network.ReleaseUPnPDevice(&stranger);
    EXPECT_EQ(network.NumDevices(), 1U);
    EXPECT_EQ(network.GetUPnPDevice(&stranger), network.GetUPnPDevice(0))
        << "a record that names nothing matches a device that has no name yet";
}

TEST_F(UPnPNetwork, TheCallbackCanBeReplacedAndSilenced)
{
    network.SetUPnPEventCallback(nullptr);
    network.UPnPEvent(UPnPEventDeviceNotify, nullptr);
    EXPECT_TRUE(events.empty());
    network.SetUPnPEventCallback(&Note);
    network.UPnPEvent(UPnPEventDeviceNotify, nullptr);
    EXPECT_EQ(events.size(), 1U) << "with the context of the constructor";
}

TEST_F(UPnPNetwork, HasTwoDialects)
{
    EXPECT_EQ(network.GetDialect(), UPnPDialectClassic);
    EXPECT_FALSE(network.SetDialect(2));
    EXPECT_TRUE(network.SetDialect(UPnPDialectModern));
    EXPECT_EQ(network.GetDialect(), UPnPDialectModern);
}

TEST_F(UPnPNetwork, TheModernDialectReachesAGatewayByItsIPv6Address)
{
    ScriptedServer gateway(AF_INET6);
    gateway.Answer(HttpAnswer(Description()), ScriptedServer::Then::Close);
    gateway.Answer(HttpAnswer("<NewExternalIPAddress>203.0.113.7</NewExternalIPAddress>"));
    network.SetDialect(UPnPDialectModern);
    const std::string url = "http://[::1]:" + std::to_string(gateway.Port()) + "/d";
    CUPnPDevice* const device = Answer({.source = "::1", .location = url});
    ASSERT_TRUE(PumpUntil([&] { return device->DiscoverComplete(); }));
    CString address;
    EXPECT_TRUE(device->GetExternalIPAddress(nullptr, address));
    EXPECT_EQ(address, L"203.0.113.7");
    ASSERT_EQ(gateway.Requests().size(), 2U);
    for (const std::string& request : gateway.Requests())
        EXPECT_NE(request.find(": [::1]:" + std::to_string(gateway.Port()) + "\r\n"), std::string::npos)
            << request;
}

} // namespace
