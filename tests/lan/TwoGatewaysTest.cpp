// Two gateways behind two interfaces.

#include "LanNetwork.h"

namespace
{

TEST_F(LanNetwork, TwoGatewaysAreKeptApart)
{
    const auto& first = StartGateway("10.77.1.1", {"--uuid", "first", "--friendly-name", "one"});
    const auto& second =
        StartGateway("10.77.2.1", {"--uuid", "second", "--friendly-name", "two", "--refuse", "8080:718"});
    Search(UPnPDialectModern);
    CUPnPDevice* const two = AwaitDevice("10.77.2.2");
    ASSERT_NE(two, nullptr);
    ASSERT_NE(AwaitDevice("10.77.1.2"), nullptr);
    EXPECT_EQ(network->NumDevices(), 2U);
    EXPECT_TRUE(two->AddPortMap(nullptr, 8081, "game", nullptr));
    EXPECT_EQ(second.Logged("NewInternalClient=10.77.2.2"), 1);
    EXPECT_EQ(first.Logged("soap"), 0);
    network->ReleaseUPnPDevice(two);
    EXPECT_EQ(network->FindDevice("10.77.2.2"), nullptr);
    EXPECT_NE(network->FindDevice("10.77.1.2"), nullptr);

    // The flat functions name each by its local address.
    ASSERT_NO_FATAL_FAILURE(StartFlat({"10.77.1.2", "10.77.2.2"}));
    char name[8];
    EXPECT_EQ(UPnPGetDeviceFriendlyName("10.77.1.2", name, sizeof name), UPnPSuccess);
    EXPECT_STREQ(name, "one");
    EXPECT_EQ(UPnPGetDeviceFriendlyName("10.77.2.2", name, sizeof name), UPnPSuccess);
    EXPECT_STREQ(name, "two");
    EXPECT_EQ(UPnPAddPortMap(nullptr, "10.77.1.2", 8080, "game", nullptr), UPnPSuccess);
    EXPECT_EQ(UPnPAddPortMap(nullptr, "10.77.2.2", 8080, "game", nullptr), UPnPFailed);
}

} // namespace
