// The class interface against gateways on private LANs: simulated ones of every kind, and a daemon that
// people really use.

#include <gmock/gmock.h>

#include <optional>

#include "tests/support/Programs.h"
#include "tests/upnp/GatewayRecords.h"

namespace
{

using Texts = std::vector<std::string>;
using tavronet::GatewayProcess;

/// "TCP 8080 10.77.1.2:8080 game".
std::string Line(const CUPnPPortMap& map)
{
    return Text(map.GetProtocol()) + " " + Text(map.GetExternalPort()) + " " + Text(map.GetInternalClient()) +
           ":" + Text(map.GetInternalPort()) + " " + Text(map.GetPortMappingDescription());
}

/// The lines of a gateway's table, which must be readable.
Texts Table(CUPnPDevice& device)
{
    std::vector<CUPnPPortMap*> list;
    EXPECT_TRUE(device.GetPortMaps(nullptr, list));
    Texts lines;
    for (const CUPnPPortMap* const map : list)
        lines.push_back(Line(*map));
    CUPnPDevice::ReleasePortMaps(list);
    return lines;
}

/// Pumps until the device reached from that address of this machine is described. @return null when none is.
CUPnPDevice* AwaitDevice(const CUPnPNetwork& network, const char* local)
{
    CUPnPDevice* device = nullptr;
    const auto described = [&] {
        return (device = network.FindDevice(local)) != nullptr && device->DiscoverComplete();
    };
    return PumpUntil(described) ? device : nullptr;
}

struct Kind
{
    friend std::ostream& operator<<(std::ostream& out, const Kind& kind) { return out << kind.name; }

    const char* name;
    int dialect;
    Texts options;
    const wchar_t* service; // what the type of the connection service ends in
    const char* gateway = "10.77.1.1";
    const char* local = "10.77.1.2";
    int realVersion = 0; // the daemon as a device of this version
};

const Texts kUntilClose{"--transfer", "close", "--line-end", "lf"};
const Texts kOneLine{"--description", "one-line,version2,prefixed", "--soap-style",
                     "one-line,prefixed,typed"};
const Texts kChunked{"--description", "entities,two-connections",
                     "--soap-style",  "entities",
                     "--transfer",    "chunked",
                     "--chunk-bytes", "7"};
const Kind kKinds[] = {
    {"ClassicPPP", UPnPDialectClassic, {"--description", "ppp"}, L"WANPPPConnection:1"},
    {"ClassicUntilClose", UPnPDialectClassic, kUntilClose, L"WANIPConnection:1"},
    {"ModernOneLine", UPnPDialectModern, kOneLine, L"WANIPConnection:2"},
    {"ModernChunked", UPnPDialectModern, kChunked, L"WANIPConnection:1"},
    {"ModernDslForum", UPnPDialectModern, {"--description", "dsl-forum,ppp,cdata"}, L"WANPPPConnection:1"},
    {"ModernIPv6", UPnPDialectModern, {}, L"WANIPConnection:1", "fd77:1::1", "fd77:1::2"},
    {"Real1", UPnPDialectModern, {}, L"WANIPConnection:1", "10.77.1.1", "10.77.1.2", 1},
    {"Real2", UPnPDialectModern, {}, L"WANIPConnection:2", "10.77.1.1", "10.77.1.2", 2},
};

class Gateways : public tavronet::OnPrivateLan, public testing::WithParamInterface<Kind>
{};

TEST_P(Gateways, AreServedFromTheSearchToTheDeletion)
{
    const Kind& kind = GetParam();
    std::optional<tavronet::RealGateway> real;
    std::optional<GatewayProcess> simulated;
    if (kind.realVersion != 0 && !real.emplace(kind.realVersion).Available())
        GTEST_SKIP() << "no real gateway daemon here (Debian: miniupnpd-nftables)";
    if (kind.realVersion == 0) {
        Texts options{"--address", kind.gateway, "--external-ip", "44.128.0.7", "--lowest-port", "1024"};
        options.insert(options.end(), kind.options.begin(), kind.options.end());
        simulated.emplace(options);
    }
    const CUPnPNetwork network(nullptr, nullptr, kind.dialect);
    CUPnPDevice* const device = AwaitDevice(network, kind.local);
    ASSERT_NE(device, nullptr);
    EXPECT_TRUE(real || network.NumDevices() == 1)
        << "the daemon answers with a name for each embedded device";
    EXPECT_EQ(Text(device->GetDescURL()), real ? real->Url() : simulated->Url());
    ASSERT_NE(device->FindConnectionService(), nullptr);
    EXPECT_GT(device->FindConnectionService()->GetType().Find(kind.service), 0);

    CString address;
    EXPECT_TRUE(device->GetExternalIPAddress(nullptr, address));
    EXPECT_EQ(address, L"44.128.0.7");
    bool translates = false;
    EXPECT_TRUE(device->GetNATEnabled(nullptr, translates));
    EXPECT_TRUE(translates);

    const std::string text = kind.dialect == UPnPDialectModern ? "a game &amp; <more>" : "a game";
    CUPnPPortMap ofAnother(6000, "TCP", "10.77.1.99", "taken");
    ASSERT_TRUE(device->AddPortMap(nullptr, &ofAnother));
    EXPECT_TRUE(ofAnother.GetAdded());
    for (const auto& [port, code] : {std::pair(80U, L"606"), std::pair(6000U, L"718")}) {
        EXPECT_TRUE(device->AddPortMap(nullptr, port, text.c_str(), nullptr)) << "an answer";
        EXPECT_EQ(device->GetCmndRespCode(), 500);
        EXPECT_EQ(device->GetCmndErrorCode(), code);
    }
    ASSERT_TRUE(device->AddPortMap(nullptr, 8080, text.c_str(), nullptr));
    ASSERT_TRUE(device->AddPortMap(nullptr, 8080, text.c_str(), "UDP"));
    EXPECT_EQ(device->GetCmndRespCode(), 200);
    const std::string target = std::string(" 8080 ") + kind.local + ":8080 " + text;
    EXPECT_THAT(Table(*device), testing::UnorderedElementsAre("TCP" + target, "UDP" + target,
                                                              "TCP 6000 10.77.1.99:6000 taken"));
    const CUPnPPortMap asked(8080, "UDP", kind.local, "");
    const std::unique_ptr<CUPnPPortMap> entry(device->GetPortSpecificPortMap(nullptr, asked));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(Line(*entry), "UDP" + target);

    for (const auto& [port, protocol] : {std::pair(8080U, "TCP"), {8080U, "UDP"}, {6000U, "TCP"}})
        EXPECT_TRUE(device->DeletePortMap(nullptr, port, protocol));
    EXPECT_EQ(Table(*device), Texts());
}

INSTANTIATE_TEST_SUITE_P(Kinds, Gateways, testing::ValuesIn(kKinds),
                         [](const auto& row) { return row.param.name; });

using TwoGateways = tavronet::OnPrivateLan;

TEST_F(TwoGateways, AreKeptApart)
{
    const GatewayProcess first({"--address", "10.77.1.1", "--uuid", "1"});
    const GatewayProcess second({"--address", "10.77.2.1", "--uuid", "2"});
    CUPnPNetwork network(nullptr, nullptr, UPnPDialectModern);
    CUPnPDevice* const two = AwaitDevice(network, "10.77.2.2");
    ASSERT_NE(AwaitDevice(network, "10.77.1.2"), nullptr);
    ASSERT_NE(two, nullptr);
    EXPECT_TRUE(two->AddPortMap(nullptr, 8081, "game", nullptr));
    EXPECT_EQ(second.Logged("NewInternalClient=10.77.2.2"), 1);
    EXPECT_EQ(first.Logged("soap"), 0);
    network.ReleaseUPnPDevice(two);
    EXPECT_EQ(network.FindDevice("10.77.2.2"), nullptr);
    EXPECT_NE(network.FindDevice("10.77.1.2"), nullptr);
}

} // namespace
