// Two gateways behind two interfaces.

#include "LanNetwork.h"
#include "tavronet/api/UPnPApi.h"

namespace
{

TEST_F(LanNetwork, TwoGatewaysAreKeptApart)
{
    const auto& first = StartGateway("10.77.1.1", {"--uuid", "first", "--external-ip", "203.0.113.1"});
    const auto& second = StartGateway("10.77.2.1", {"--uuid", "second", "--external-ip", "203.0.113.2"});
    Search(UPnPDialectModern);
    CUPnPDevice* const one = AwaitDevice("10.77.1.2");
    CUPnPDevice* const two = AwaitDevice("10.77.2.2");
    ASSERT_NE(one, nullptr);
    ASSERT_NE(two, nullptr);
    EXPECT_EQ(network->NumDevices(), 2U);

    CString address;
    EXPECT_TRUE(two->GetExternalIPAddress(nullptr, address));
    EXPECT_EQ(Utf8(address), "203.0.113.2");
    EXPECT_TRUE(two->AddPortMap(nullptr, 8080, "game", nullptr));
    EXPECT_EQ(second.Logged("NewInternalClient=10.77.2.2"), 1);
    EXPECT_EQ(first.Logged("soap"), 0);

    network->ReleaseUPnPDevice(two);
    EXPECT_EQ(network->FindDevice("10.77.2.2"), nullptr);
    EXPECT_TRUE(one->GetExternalIPAddress(nullptr, address));
    EXPECT_EQ(Utf8(address), "203.0.113.1");
}

TEST_F(LanNetwork, TheFlatInterfaceNamesEachByItsLocalAddress)
{
    StartGateway("10.77.1.1", {"--uuid", "first", "--friendly-name", "one"});
    StartGateway("10.77.2.1", {"--uuid", "second", "--friendly-name", "two", "--refuse", "8080:718"});
    UPnPSetDialect(1);
    ASSERT_EQ(UPnPDiscoverStartup(), UPnPSuccess);
    const auto described = [](const char* local) {
        bool complete = false;
        return UPnPDeviceIsDescriptionComplete(nullptr, local, &complete) == UPnPSuccess && complete;
    };
    ASSERT_TRUE(tavronet::PumpUntil([&] { return described("10.77.1.2") && described("10.77.2.2"); }));

    char name[8];
    EXPECT_EQ(UPnPGetDeviceFriendlyName("10.77.1.2", name, sizeof name), UPnPSuccess);
    EXPECT_STREQ(name, "one");
    EXPECT_EQ(UPnPGetDeviceFriendlyName("10.77.2.2", name, sizeof name), UPnPSuccess);
    EXPECT_STREQ(name, "two");
    std::string byIndex;
    for (int index = 0; UPnPGetDeviceFriendlyNameByIndex(index, name, sizeof name) == UPnPSuccess; ++index)
        byIndex += name;
    EXPECT_TRUE(byIndex == "onetwo" || byIndex == "twoone") << byIndex;

    EXPECT_EQ(UPnPAddPortMap(nullptr, "10.77.1.2", 8080, "game", nullptr), UPnPSuccess);
    EXPECT_EQ(UPnPAddPortMap(nullptr, "10.77.2.2", 8080, "game", nullptr), UPnPFailed);
    UPnPClose();
    UPnPSetDialect(0);
}

} // namespace
