// The flat and the class interface against a gateway daemon that people really use.

#include <gmock/gmock.h>

#include "LanNetwork.h"
#include "tests/support/RealGateway.h"

namespace
{

constexpr char kLocal[] = "10.77.1.2";

class AgainstRealGateway : public LanNetwork, public testing::WithParamInterface<int> // version of the device
{};

/// What the gateway said to a refused add.
int UPnPCodeOfAdd(unsigned port)
{
    int status = 0, code = 0;
    char text[64];
    EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, port, "game", nullptr), UPnPFailed) << port;
    EXPECT_EQ(UPnPGetLastGatewayError(kLocal, &status, &code, text, sizeof text), UPnPSuccess);
    EXPECT_EQ(status, 500);
    return code;
}

TEST_P(AgainstRealGateway, ClassesAndFlatFunctionsServeIt)
{
    const tavronet::RealGateway daemon(GetParam());
    if (!daemon.Available())
        GTEST_SKIP() << "no real gateway daemon here (Debian: miniupnpd-nftables)";
    Search(UPnPDialectModern);
    CUPnPDevice* const device = AwaitDevice(kLocal);
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(Utf8(device->GetDescURL()), daemon.Url());
    const std::string version = std::to_string(GetParam());
    EXPECT_TRUE(Utf8(device->FindConnectionService()->GetType()).ends_with("WANIPConnection:" + version));
    CUPnPPortMap ofAnother(6000, "TCP", "10.77.1.99", "taken");
    ASSERT_TRUE(device->AddPortMap(nullptr, &ofAnother));
    EXPECT_TRUE(ofAnother.GetAdded());

    ASSERT_NO_FATAL_FAILURE(StartFlat({kLocal}));
    char address[32];
    EXPECT_EQ(UPnPGetExternalIPAddress(nullptr, kLocal, address, sizeof address), UPnPSuccess);
    EXPECT_STREQ(address, "44.128.0.7");
    bool translates = false;
    EXPECT_EQ(UPnPGetDeviceNATEnabled(nullptr, kLocal, &translates), UPnPSuccess);
    EXPECT_TRUE(translates);
    EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 8080, "a game & <more>", nullptr), UPnPSuccess);
    EXPECT_EQ(UPnPCodeOfAdd(80), 606);
    EXPECT_EQ(UPnPCodeOfAdd(6000), 718);

    EXPECT_THAT(Table(*device), testing::UnorderedElementsAre("TCP 8080 10.77.1.2:8080 a game & <more>",
                                                              "TCP 6000 10.77.1.99:6000 taken"));

    EXPECT_EQ(UPnPDeletePortMap(nullptr, kLocal, 8080, nullptr), UPnPSuccess);
    EXPECT_EQ(UPnPDeletePortMap(nullptr, kLocal, 6000, nullptr), UPnPSuccess);
    EXPECT_TRUE(Table(*device).empty());
}

INSTANTIATE_TEST_SUITE_P(Versions, AgainstRealGateway, testing::Values(1, 2),
                         testing::PrintToStringParamName());

} // namespace
