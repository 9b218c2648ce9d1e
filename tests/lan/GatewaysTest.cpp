// The class interface against gateways on private LANs: simulated ones of every kind, and a daemon that
// people really use.

#include <gmock/gmock.h>

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

struct Kind
{
    friend std::ostream& operator<<(std::ostream& out, const Kind& kind) { return out << kind.name; }

    const char* name;
    int dialect;
    const char* options;            // of a simulated gateway; null: the daemon
    const wchar_t* service;         // what the type of the connection service ends in
    const char* cable = "10.77.1."; // where gateways have 1 and this machine 2
};

const Kind kKinds[] = {
    {"ClassicPPP", UPnPDialectClassic, "--description ppp", L"WANPPPConnection:1"},
    {"ClassicUntilClose", UPnPDialectClassic, "--transfer close --line-end lf", L"WANIPConnection:1"},
    {"ModernOneLine", UPnPDialectModern,
     "--description one-line,version2,prefixed --soap-style one-line,prefixed,typed", L"WANIPConnection:2"},
    {"ModernChunked", UPnPDialectModern,
     "--description entities,two-connections --soap-style entities --transfer chunked --chunk-bytes 7",
     L"WANIPConnection:1"},
    {"ModernDslForum", UPnPDialectModern, "--description dsl-forum,ppp,cdata", L"WANPPPConnection:1"},
    {"ModernIPv6", UPnPDialectModern, "", L"WANIPConnection:1", "fd77:1::"},
    {"Real1", UPnPDialectModern, nullptr, L"WANIPConnection:1"},
    {"Real2", UPnPDialectModern, nullptr, L"WANIPConnection:2"},
};

class Gateways : public tavronet::OnPrivateLan, public testing::WithParamInterface<Kind>
{};

TEST_P(Gateways, AreServedFromTheSearchToTheDeletion)
{
    const Kind& kind = GetParam();
    const std::string local = std::string(kind.cable) + "2";
    std::optional<tavronet::RealGateway> real;
    std::optional<GatewayProcess> simulated, other;
    if (kind.options == nullptr) {
        if (!real.emplace(kind.name[4] - '0').Available())
            GTEST_SKIP() << "no real gateway daemon here (Debian: miniupnpd-nftables)";
    } else {
        std::istringstream words(std::string(kind.options) + " --address " + kind.cable +
                                 "1 --external-ip 44.128.0.7 --lowest-port 1024");
        simulated.emplace(Texts{std::istream_iterator<std::string>(words), {}});
        other.emplace(Texts{"--address", "10.77.2.1", "--uuid", "other"});
    }
    const CUPnPNetwork network(nullptr, nullptr, kind.dialect);
    const auto described = [&](const char* from) {
        CUPnPDevice* const device = network.FindDevice(from);
        return device != nullptr && device->DiscoverComplete();
    };
    ASSERT_TRUE(PumpUntil([&] { return described(local.c_str()) && (real || described("10.77.2.2")); }));
    CUPnPDevice* const device = network.FindDevice(local.c_str());
    EXPECT_TRUE(real || network.NumDevices() == 2)
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
    const std::string target = " 8080 " + local + ":8080 " + text;
    EXPECT_THAT(Table(*device), testing::UnorderedElementsAre("TCP" + target, "UDP" + target,
                                                              "TCP 6000 10.77.1.99:6000 taken"));
    const CUPnPPortMap asked(8080, "UDP", local.c_str(), "");
    const std::unique_ptr<CUPnPPortMap> entry(device->GetPortSpecificPortMap(nullptr, asked));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(Line(*entry), "UDP" + target);

    for (const auto& [port, protocol] : {std::pair(8080U, "TCP"), {8080U, "UDP"}, {6000U, "TCP"}})
        EXPECT_TRUE(device->DeletePortMap(nullptr, port, protocol));
    EXPECT_EQ(Table(*device), Texts());
    EXPECT_TRUE(real || other->Logged("soap") == 0) << "the gateways are kept apart";
}

INSTANTIATE_TEST_SUITE_P(Kinds, Gateways, testing::ValuesIn(kKinds),
                         [](const auto& row) { return row.param.name; });

} // namespace
