// What the functions say before anything is found, about whom they are asked, and of which outputs they want.

#include <tuple>

#include "FlatInterface.h"

namespace
{

struct Outputs
{
    bool* flag;
    char* text;
    int size;
    int* number;
};

/// Functions with outputs: one of each kind by address and by index.
int (*const kFunctions[])(const char* device, int index, const Outputs& out) = {
    [](auto device, int, auto& out) { return UPnPDeviceIsDescriptionComplete(nullptr, device, out.flag); },
    [](auto, int i, auto& out) { return UPnPDeviceIsDescriptionCompleteByIndex(nullptr, i, out.flag); },
    [](auto device, int, auto& out) { return UPnPGetDeviceNATEnabled(nullptr, device, out.flag); },
    [](auto, int i, auto& out) { return UPnPGetDeviceNATEnabledByIndex(nullptr, i, out.flag); },
    [](auto device, int, auto& o) { return UPnPGetExternalIPAddress(nullptr, device, o.text, o.size); },
    [](auto, int i, auto& out) { return UPnPGetExternalIPAddressByIndex(nullptr, i, out.text, out.size); },
    [](auto device, int, auto& out) { return UPnPGetDeviceModelName(device, out.text, out.size); },
    [](auto, int i, auto& out) { return UPnPGetDeviceModelNameByIndex(i, out.text, out.size); },
    [](auto d, int, auto& o) { return UPnPGetLastGatewayError(d, o.number, o.number, o.text, o.size); },
    [](auto, int i, auto& o) {
        return UPnPGetLastGatewayErrorByIndex(i, o.number, o.number, o.text, o.size);
    },
};

/// Each gives `result` and leaves its outputs alone, when there are any.
void ExpectAll(const char* device, int index, int result, bool outputs = true)
{
    bool flag = true;
    char text[] = "before";
    int number = -1;
    const Outputs out =
        outputs ? Outputs{&flag, text, sizeof text, &number} : Outputs{nullptr, nullptr, 8, nullptr};
    for (const auto& function : kFunctions)
        EXPECT_EQ(function(device, index, out), result) << &function - kFunctions;
    EXPECT_TRUE(flag && number == -1);
    EXPECT_STREQ(text, "before");
}

TEST_F(FlatInterface, LivesOnceAtATimeAndWithoutANetworkEverythingSaysSo)
{
    for (const int dialect : {0, 1}) {
        EXPECT_EQ(UPnPDiscoverComplete(), UPnPNoNetwork);
        EXPECT_EQ(UPnPTickle(), UPnPNoNetwork);
        EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 80, "d", nullptr), UPnPNoNetwork);
        EXPECT_EQ(UPnPDeletePortMap(nullptr, kLocal, 80, nullptr), UPnPNoNetwork);
        ExpectAll(kLocal, 0, UPnPNoNetwork);
        EXPECT_EQ(UPnPSetDialect(2), UPnPFailed);
        EXPECT_EQ(UPnPSetDialect(dialect), UPnPSuccess);

        EXPECT_EQ(UPnPDiscover(false, nullptr), UPnPSuccess);
        EXPECT_EQ(UPnPDiscoverStartup(), UPnPNetworkExists);
        EXPECT_EQ(UPnPDiscover(true, nullptr), UPnPNetworkExists) << "and does not wait";
        EXPECT_EQ(UPnPSetDialect(7), UPnPNetworkExists);
        EXPECT_EQ(UPnPDiscoverComplete(), UPnPNotComplete);
        EXPECT_EQ(UPnPTickle(), UPnPSuccess);
        EXPECT_EQ(UPnPClose(), UPnPSuccess);
        EXPECT_EQ(UPnPClose(), UPnPNoNetwork);
    }
}

TEST_F(FlatInterface, AWrongDeviceOrUnusableOutputsFailWithoutTraffic)
{
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(0));
    const std::size_t requests = gateway->Requests().size();
    const std::tuple<const char*, int> strangers[] = {
        {nullptr, -1}, {"", 1}, {"10.77.1.1", 2147483647}, {"10.77.1.20", 2}, {"10.77.1.", 3},
    };
    for (const auto& [device, index] : strangers)
        ExpectAll(device, index, UPnPNoDevice);
    EXPECT_EQ(UPnPAddPortMap(nullptr, "10.77.1.20", 80, "d", nullptr), UPnPNoDevice);

    ExpectAll(kLocal, 0, UPnPFailed, false);
    char text[] = "before";
    for (const int size : {0, -1, -2147483647 - 1}) {
        EXPECT_EQ(UPnPGetExternalIPAddress(nullptr, kLocal, text, size), UPnPFailed) << size;
        EXPECT_EQ(UPnPGetDeviceFriendlyName(kLocal, text, size), UPnPFailed) << size;
    }
    EXPECT_STREQ(text, "before");
    EXPECT_EQ(gateway->Requests().size(), requests);
}

TEST_F(FlatInterface, DescriptionTextsFillTheBufferAndAreCutAtACharacter)
{
    ASSERT_NO_FATAL_FAILURE(
        StartWithGateway(1, {"--friendly-name", "b\xC3\xBCro", "--manufacturer", "Works"}));
    using ByAddress = int (*)(const char*, char*, int);
    using ByIndex = int (*)(int, char*, int);
    const std::tuple<ByAddress, ByIndex, int, std::string> rows[] = {
        {UPnPGetDeviceFriendlyName, UPnPGetDeviceFriendlyNameByIndex, 32, "b\xC3\xBCro"},
        {UPnPGetDeviceFriendlyName, UPnPGetDeviceFriendlyNameByIndex, 5, "b\xC3\xBCr"},
        {UPnPGetDeviceFriendlyName, UPnPGetDeviceFriendlyNameByIndex, 3, "b"},
        {UPnPGetDeviceFriendlyName, UPnPGetDeviceFriendlyNameByIndex, 1, ""},
        {UPnPGetDeviceManufacturer, UPnPGetDeviceManufacturerByIndex, 4, "Wor"},
        {UPnPGetDeviceManufacturerURL, UPnPGetDeviceManufacturerURLByIndex, 32, "http://gateway.example/"},
        {UPnPGetDeviceModelDescription, UPnPGetDeviceModelDescriptionByIndex, 10, "Simulated"},
        {UPnPGetDeviceModelName, UPnPGetDeviceModelNameByIndex, 32, "tavronet-gateway"},
    };
    for (const auto& [byAddress, byIndex, size, text] : rows) {
        std::string expected = text, buffer(33, '#'), again = buffer;
        expected.resize(static_cast<std::size_t>(size));
        expected.resize(buffer.size(), '#');
        EXPECT_EQ(byAddress(kLocal, buffer.data(), size), UPnPSuccess) << text;
        EXPECT_EQ(buffer, expected) << size;
        EXPECT_EQ(byIndex(0, again.data(), size), UPnPSuccess) << text;
        EXPECT_EQ(again, expected) << size << " by index";
    }
}

} // namespace
