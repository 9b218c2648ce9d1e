// The whole road of a request, step by step, against gateways of every kind.

#include <algorithm>

#include "LanNetwork.h"
#include "tavronet/platform/TickCount.h"

namespace
{

using Texts = std::vector<std::string>;

struct Kind
{
    const char* name;
    int dialect;
    Texts options;
    const char* service; // what the type of the connection service ends in
    const char* gateway = "10.77.1.1";
    const char* local = "10.77.1.2";
};

std::ostream& operator<<(std::ostream& out, const Kind& kind)
{
    return out << kind.name;
}

const Kind kKinds[] = {
    {"Classic", UPnPDialectClassic, {}, "WANIPConnection:1"},
    {"ClassicPPP", UPnPDialectClassic, {"--description", "ppp"}, "WANPPPConnection:1"},
    {"ClassicUntilClose",
     UPnPDialectClassic,
     {"--transfer", "close", "--line-end", "lf"},
     "WANIPConnection:1"},
    {"Modern", UPnPDialectModern, {}, "WANIPConnection:1"},
    {"ModernOneLineVersion2",
     UPnPDialectModern,
     {"--description", "one-line,version2,prefixed", "--soap-style", "one-line,prefixed,typed"},
     "WANIPConnection:2"},
    {"ModernEntitiesChunked",
     UPnPDialectModern,
     {"--description", "entities", "--soap-style", "entities", "--transfer", "chunked", "--chunk-bytes", "7"},
     "WANIPConnection:1"},
    {"ModernDslForumPPP", UPnPDialectModern, {"--description", "dsl-forum,ppp,cdata"}, "WANPPPConnection:1"},
    {"ModernTwoConnections", UPnPDialectModern, {"--description", "two-connections"}, "WANIPConnection:1"},
    {"ModernIPv6", UPnPDialectModern, {}, "WANIPConnection:1", "fd77:1::1", "fd77:1::2"},
};

/// The real clock, moved on at will.
class MovedClock
{
public:
    MovedClock()
    {
        s_Moved = 0;
        SetTickSource(nullptr);
        s_Real = GetTickCount();
        SetTickSource([] { return s_Real + s_Moved; });
    }
    ~MovedClock() { SetTickSource(nullptr); }
    MovedClock(const MovedClock&) = delete;
    MovedClock& operator=(const MovedClock&) = delete;

    void Advance(DWORD milliseconds) { s_Moved += milliseconds; }

private:
    inline static DWORD s_Real, s_Moved;
};

class RequestRoad : public LanNetwork, public testing::WithParamInterface<Kind>
{};

TEST_P(RequestRoad, FromTheSearchToTheDeletion)
{
    const Kind& kind = GetParam();
    Texts options = kind.options;
    options.insert(options.end(), {"--external-ip", "203.0.113.9"});
    const auto& gateway = StartGateway(kind.gateway, options);

    Search(kind.dialect);
    CUPnPDevice* const device = AwaitDevice(kind.local);
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(network->NumDevices(), 1U);
    EXPECT_EQ(Utf8(device->GetDescURL()), gateway.Url());
    EXPECT_EQ(Utf8(device->GetFriendlyName()), "Simulated gateway");
    CUPnPService* const service = device->FindConnectionService();
    ASSERT_NE(service, nullptr);
    EXPECT_TRUE(Utf8(service->GetType()).ends_with(kind.service)) << Utf8(service->GetType());
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back(), std::make_pair(unsigned{UPnPEventDeviceDescribed}, 0)) << "the root comes last";

    CString address;
    EXPECT_TRUE(device->GetExternalIPAddress(nullptr, address));
    EXPECT_EQ(Utf8(address), "203.0.113.9");
    bool translates = false;
    EXPECT_TRUE(device->GetNATEnabled(nullptr, translates));
    EXPECT_TRUE(translates);

    ASSERT_TRUE(device->AddPortMap(nullptr, 8080, "game", nullptr));
    EXPECT_EQ(device->GetCmndRespCode(), 200);
    ASSERT_TRUE(device->AddPortMap(nullptr, 8080, "game", "UDP"));
    const std::string target = std::string(" 8080 ") + kind.local + ":8080 game";
    PortMapList table, emptied;
    ASSERT_TRUE(device->GetPortMaps(nullptr, table.list));
    EXPECT_EQ(table.Lines(), (Texts{"TCP" + target, "UDP" + target}));
    PortMapList entry;
    entry.list.push_back(device->GetPortSpecificPortMap(nullptr, *table.list[1]));
    ASSERT_NE(entry.list[0], nullptr);
    EXPECT_EQ(entry.Lines(), (Texts{"UDP" + target}));

    EXPECT_TRUE(device->DeletePortMap(nullptr, 8080, nullptr));
    EXPECT_TRUE(device->DeletePortMap(nullptr, 8080, "UDP"));
    EXPECT_EQ(device->GetCmndRespCode(), 200);
    ASSERT_TRUE(device->GetPortMaps(nullptr, emptied.list));
    EXPECT_EQ(emptied.Lines(), Texts());
}

INSTANTIATE_TEST_SUITE_P(Gateways, RequestRoad, testing::ValuesIn(kKinds),
                         [](const auto& row) { return row.param.name; });

TEST_F(LanNetwork, UpkeepVerifiesAMappingAndDropsTheGatewayThatLostIt)
{
    MovedClock clock;
    auto& gateway = StartGateway("10.77.1.1");
    Search(UPnPDialectModern);
    CUPnPDevice* const device = AwaitDevice("10.77.1.2");
    ASSERT_NE(device, nullptr);
    ASSERT_TRUE(device->AddPortMap(nullptr, 8080, "game", nullptr));

    const auto upkeep = [&] {
        clock.Advance(10001);
        network->Tickle();
    };
    const auto verifications = [&] { return gateway.Logged("soap GetSpecificPortMappingEntry"); };
    for (int turn = 0; turn < 4 && verifications() < 2; ++turn)
        upkeep();
    EXPECT_EQ(verifications(), 2);
    EXPECT_EQ(network->NumDevices(), 1U);

    events.clear();
    ASSERT_TRUE(gateway.Command("clear"));
    for (int turn = 0; turn < 4 && network->NumDevices() > 0; ++turn)
        upkeep();
    EXPECT_EQ(network->NumDevices(), 0U);
    const auto released = std::make_pair(unsigned{UPnPEventDeviceReleased}, 0);
    EXPECT_EQ(std::ranges::count(events, released), 1);

    EXPECT_NE(AwaitDevice("10.77.1.2"), nullptr) << "dropping it searches again";
}

TEST_F(LanNetwork, AGatewayThatSaysGoodbyeIsReleasedByTheNextUpkeep)
{
    auto& gateway = StartGateway("10.77.1.1");
    Search(UPnPDialectModern);
    ASSERT_NE(AwaitDevice("10.77.1.2"), nullptr);
    events.clear();

    ASSERT_TRUE(gateway.Command("byebye"));
    ASSERT_TRUE(tavronet::PumpUntil([&] { return !events.empty(); }));
    EXPECT_EQ(events[0].first, unsigned{UPnPEventDeviceNotify});
    EXPECT_EQ(network->NumDevices(), 1U);
    network->Tickle();
    EXPECT_EQ(network->NumDevices(), 0U);
}

// A reader of lines sees one line: what the description says first is lost, and with it the connection
// service.
TEST_F(LanNetwork, TheClassicDialectLosesServicesOfAOneLineDescription)
{
    StartGateway("10.77.1.1", {"--description", "one-line"});
    Search(UPnPDialectClassic);
    CUPnPDevice* const device = AwaitDevice("10.77.1.2");
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->FindConnectionService(), nullptr);
    bool translates = true;
    EXPECT_FALSE(device->GetNATEnabled(nullptr, translates));
    EXPECT_FALSE(device->AddPortMap(nullptr, 8080, "game", nullptr));
    EXPECT_TRUE(device->DeletePortMap(nullptr, 8080, nullptr)) << "nothing to delete";
}

} // namespace
