// The registry of a network: who is the same device, who comes and who goes.

#include "tavronet/upnp/UPnPNetwork.h"

#include "GatewayRecords.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/UPnPDialect.h"

namespace
{

/// A network without adapters, and what it told its host.
class UPnPNetwork : public testing::Test
{
protected:
    static void Note(void* self, unsigned int code, CUPnPObject* object)
    {
        auto& test = *static_cast<UPnPNetwork*>(self);
        test.events.emplace_back(code, object);
        for (int i = 0; i < test.registrations; ++i)
            test.network.NewUPnPDevice(static_cast<CUPnPDevice*>(object));
    }

    /// Hands in a search answer. @return the device registered last.
    CUPnPDevice* Answer(const Announced& announced)
    {
        network.NewUPnPDevice(MakeRecord(&network, announced));
        return network.GetUPnPDevice(static_cast<int>(network.NumDevices()) - 1);
    }

    TestClock clock;
    NoAdapters noAdapters;
    std::vector<std::pair<unsigned int, CUPnPObject*>> events;
    int registrations = 0; // of what the host is shown
    CUPnPNetwork network{&Note, this};
};

TEST_F(UPnPNetwork, WhichAnswersAreTheSameDevice)
{
    const char* const url = "http://10.0.0.1:5000/d";
    const std::tuple<const char*, const char*, const char*, std::size_t> rows[] = {
        {"10.0.0.2", "http://b/", "UUID:one::URN:X", 1},
        {"10.0.0.2", "http://b/", "uuid:One::urn:y", 1}, // its UUID with another type
        {"10.0.0.1", "http://b/", "uuid:2", 1},
        {"10.0.0.2", url, "uuid:2", 1},
        {"10.0.0.2", "HTTP://10.0.0.1:5000/d", "uuid:2", 2},
        {"10.0.0.2", "http://b/", "uuid:2", 2},
    };
    for (const auto& [source, location, usn, devices] : rows) {
        network.ReleaseUPnPDevice(network.GetUPnPDevice(1));
        network.ReleaseUPnPDevice(network.GetUPnPDevice(0));
        CUPnPDevice* const first = Answer({.source = "10.0.0.1", .location = url, .usn = "uuid:One::urn:x"});
        Answer({.source = source, .location = location, .usn = usn, .cacheControl = "max-age=6"});
        EXPECT_EQ(network.NumDevices(), devices) << source << location << usn;
        EXPECT_EQ(first->GetMaxAge(), devices == 1 ? 6 : 1800) << "refreshed";
        EXPECT_EQ(first->GetUSN(), L"uuid:One::urn:x");
    }
}

TEST_F(UPnPNetwork, TheRegistryIsBounded)
{
    const auto answers = [&](int count, bool described) {
        for (int i = 0; i < count; ++i)
            Answer({.source = "10.0.0." + std::to_string(i), .usn = "uuid:" + std::to_string(i)})->GetType() =
                described ? kGatewayType : "";
        return network.NumDevices();
    };
    EXPECT_EQ(answers(40, false), tavronet::kMaxUndescribedDevices) << "nobody vouches for them";
    EXPECT_EQ(answers(200, true), tavronet::kMaxDevices);
    Answer({.source = "10.0.0.0", .cacheControl = "max-age=7"});
    EXPECT_EQ(network.GetUPnPDevice(0)->GetMaxAge(), 7) << "a full registry still refreshes";
}

TEST_F(UPnPNetwork, AnAnnouncementIsShownToTheHostAndThenActedOn)
{
    registrations = 2; // the host may register what it is shown
    CUPnPDevice* const record = MakeRecord(&network, {.localAddress = "10.0.0.9", .nts = "ssdp:alive"});
    network.Notify(record);
    registrations = 0;
    EXPECT_EQ(network.GetUPnPDevice(0), record);
    EXPECT_EQ(network.FindDevice("10.0.0.9"), record);
    EXPECT_EQ(network.FindDevice(""), nullptr);
    network.Notify(MakeRecord(&network, {.nts = "ssdp:alive", .cacheControl = "max-age=5"}));
    EXPECT_EQ(record->GetMaxAge(), 5);
    network.Notify(MakeRecord(&network, {.source = "10.0.0.7", .usn = "uuid:7", .nts = "ssdp:update"}));
    network.Notify(MakeRecord(&network, {.source = "10.0.0.8", .usn = "uuid:8", .nts = "ssdp:byebye"}));
    EXPECT_EQ(network.NumDevices(), 1U);
    EXPECT_EQ(events.size(), 4U);

    Answer({.source = "10.0.0.6", .usn = "uuid:6"})->SetRelease(true); // undescribed: goes silently
    record->GetType() = kGatewayType;
    network.Notify(MakeRecord(&network, {.nts = "ssdp:byebye"}));
    EXPECT_EQ(network.NumDevices(), 2U);
    network.Tickle();
    EXPECT_EQ(network.NumDevices(), 1U) << "one device per upkeep";
    network.Tickle();
    EXPECT_EQ(network.NumDevices(), 0U);
    ASSERT_EQ(events.size(), 6U);
    EXPECT_EQ(events[5], (std::pair<unsigned int, CUPnPObject*>(UPnPEventDeviceReleased, record)));
}

TEST_F(UPnPNetwork, ADeviceIsFoundByItsNameOrThatOfAnEmbeddedDevice)
{
    network.Dialect().ReadDescription(*Answer({.usn = "uuid:Root::urn:x"}), Description());
    for (const char* const usn : {"UUID:ROOT::URN:X", "uuid:root::urn:y", "uuid:GW-1", "uuid:wan::urn:y"})
        EXPECT_EQ(network.GetUPnPDevice(usn), network.GetUPnPDevice(0)) << usn;
    for (const char* const usn : {"uuid:wan5", "uuid:wan ::urn:other", "urn:x", ""})
        EXPECT_EQ(network.GetUPnPDevice(usn), nullptr) << usn;
}

} // namespace
