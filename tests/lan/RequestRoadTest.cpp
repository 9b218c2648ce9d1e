// The whole road of a request, step by step, against gateways of every kind.

#include "LanNetwork.h"

namespace
{

using Texts = std::vector<std::string>;

struct Kind
{
    const char* name;
    int dialect;
    const char* description; // --description
    Texts framing;
    const char* service; // what the type of the connection service ends in
    const char* gateway = "10.77.1.1";
    const char* local = "10.77.1.2";
};

std::ostream& operator<<(std::ostream& out, const Kind& kind)
{
    return out << kind.name;
}

const Texts kUntilClose{"--transfer", "close", "--line-end", "lf"};
const Texts kOneLine{"--soap-style", "one-line,prefixed,typed"};
const Texts kChunked{"--soap-style", "entities", "--transfer", "chunked", "--chunk-bytes", "7"};
const Kind kKinds[] = {
    {"ClassicPPP", UPnPDialectClassic, "ppp", {}, "WANPPPConnection:1"},
    {"ClassicUntilClose", UPnPDialectClassic, "classic", kUntilClose, "WANIPConnection:1"},
    {"ModernOneLine", UPnPDialectModern, "one-line,version2,prefixed", kOneLine, "WANIPConnection:2"},
    {"ModernChunked", UPnPDialectModern, "entities,two-connections", kChunked, "WANIPConnection:1"},
    {"ModernDslForumPPP", UPnPDialectModern, "dsl-forum,ppp,cdata", {}, "WANPPPConnection:1"},
    {"ModernIPv6", UPnPDialectModern, "classic", {}, "WANIPConnection:1", "fd77:1::1", "fd77:1::2"},
};

class RequestRoad : public LanNetwork, public testing::WithParamInterface<Kind>
{};

TEST_P(RequestRoad, FromTheSearchToTheDeletion)
{
    const Kind& kind = GetParam();
    Texts options = kind.framing;
    options.insert(options.end(), {"--external-ip", "203.0.113.9", "--description", kind.description});
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
    EXPECT_EQ(Table(*device), (Texts{"TCP" + target, "UDP" + target}));
    const CUPnPPortMap asked(8080, "UDP", kind.local, "game");
    const std::unique_ptr<CUPnPPortMap> entry(device->GetPortSpecificPortMap(nullptr, asked));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(Line(*entry), "UDP" + target);

    EXPECT_TRUE(device->DeletePortMap(nullptr, 8080, nullptr));
    EXPECT_TRUE(device->DeletePortMap(nullptr, 8080, "UDP"));
    EXPECT_EQ(device->GetCmndRespCode(), 200);
    EXPECT_EQ(Table(*device), Texts());
}

INSTANTIATE_TEST_SUITE_P(Gateways, RequestRoad, testing::ValuesIn(kKinds),
                         [](const auto& row) { return row.param.name; });

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
