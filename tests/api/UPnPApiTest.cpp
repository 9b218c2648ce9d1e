// What the functions say before anything is found, about whom they are asked, and of which outputs they want.

#include <cstring>
#include <functional>

#include "FlatInterface.h"

namespace
{

/// Every function with a device, called with outputs that tell when they were touched.
struct Outputs
{
    bool flag = true;
    char text[16];
    int status = -1, code = -1;

    Outputs() { std::memset(text, '#', sizeof text); }
    bool operator==(const Outputs& other) const
    {
        return flag == other.flag && status == other.status && code == other.code &&
               std::memcmp(text, other.text, sizeof text) == 0;
    }
};

struct DeviceFunction
{
    const char* name;
    std::function<int(const char* device, Outputs&)> byAddress;
    std::function<int(int index, Outputs&)> byIndex; // none for operations on mappings
};

DeviceFunction TextFunction(const char* name, int (*byAddress)(const char*, char*, int),
                            int (*byIndex)(int, char*, int))
{
    return {name,
            [=](const char* device, Outputs& out) { return byAddress(device, out.text, sizeof out.text); },
            [=](int index, Outputs& out) { return byIndex(index, out.text, sizeof out.text); }};
}

std::vector<DeviceFunction> DeviceFunctions()
{
    return {
        {"IsDescriptionComplete",
         [](const char* d, Outputs& out) { return UPnPDeviceIsDescriptionComplete(nullptr, d, &out.flag); },
         [](int i, Outputs& out) { return UPnPDeviceIsDescriptionCompleteByIndex(nullptr, i, &out.flag); }},
        {"ExternalIPAddress",
         [](const char* d, Outputs& out) { return UPnPGetExternalIPAddress(nullptr, d, out.text, 16); },
         [](int i, Outputs& out) { return UPnPGetExternalIPAddressByIndex(nullptr, i, out.text, 16); }},
        {"NATEnabled",
         [](const char* d, Outputs& out) { return UPnPGetDeviceNATEnabled(nullptr, d, &out.flag); },
         [](int i, Outputs& out) { return UPnPGetDeviceNATEnabledByIndex(nullptr, i, &out.flag); }},
        {"LastGatewayError",
         [](const char* d, Outputs& out) {
             return UPnPGetLastGatewayError(d, &out.status, &out.code, out.text, 16);
         },
         [](int i, Outputs& out) {
             return UPnPGetLastGatewayErrorByIndex(i, &out.status, &out.code, out.text, 16);
         }},
        {"AddPortMap",
         [](const char* d, Outputs&) { return UPnPAddPortMap(nullptr, d, 80, "d", nullptr); },
         {}},
        {"DeletePortMap",
         [](const char* d, Outputs&) { return UPnPDeletePortMap(nullptr, d, 80, nullptr); },
         {}},
        TextFunction("FriendlyName", UPnPGetDeviceFriendlyName, UPnPGetDeviceFriendlyNameByIndex),
        TextFunction("Manufacturer", UPnPGetDeviceManufacturer, UPnPGetDeviceManufacturerByIndex),
        TextFunction("ManufacturerURL", UPnPGetDeviceManufacturerURL, UPnPGetDeviceManufacturerURLByIndex),
        TextFunction("ModelDescription", UPnPGetDeviceModelDescription, UPnPGetDeviceModelDescriptionByIndex),
        TextFunction("ModelName", UPnPGetDeviceModelName, UPnPGetDeviceModelNameByIndex),
    };
}

void ExpectAll(const char* device, int index, int result)
{
    for (const DeviceFunction& function : DeviceFunctions()) {
        Outputs outputs;
        EXPECT_EQ(function.byAddress(device, outputs), result)
            << function.name << " of " << (device != nullptr ? device : "null");
        if (function.byIndex) {
            EXPECT_EQ(function.byIndex(index, outputs), result) << function.name << " at " << index;
        }
        EXPECT_EQ(outputs, Outputs()) << function.name << " touched an output";
    }
}

TEST_F(FlatInterface, WithoutANetworkEverythingButStartingSaysSo)
{
    EXPECT_EQ(UPnPDiscoverComplete(), UPnPNoNetwork);
    EXPECT_EQ(UPnPTickle(), UPnPNoNetwork);
    EXPECT_EQ(UPnPClose(), UPnPNoNetwork);
    ExpectAll(kLocal, 0, UPnPNoNetwork);
    EXPECT_EQ(UPnPGetDeviceModelName(kLocal, nullptr, 0), UPnPNoNetwork)
        << "comes before the outputs are looked at";
}

TEST_F(FlatInterface, LivesOnceAtATime)
{
    EXPECT_EQ(UPnPDiscoverStartup(), UPnPSuccess);
    EXPECT_EQ(UPnPDiscoverStartup(), UPnPNetworkExists);
    EXPECT_EQ(UPnPDiscover(false, nullptr), UPnPNetworkExists);
    EXPECT_EQ(UPnPDiscover(true, nullptr), UPnPNetworkExists) << "and does not wait";
    EXPECT_EQ(UPnPSetDialect(1), UPnPNetworkExists);
    EXPECT_EQ(UPnPSetDialect(7), UPnPNetworkExists);
    EXPECT_EQ(UPnPTickle(), UPnPSuccess);

    EXPECT_EQ(UPnPClose(), UPnPSuccess);
    EXPECT_EQ(UPnPClose(), UPnPNoNetwork);
    EXPECT_EQ(UPnPSetDialect(2), UPnPFailed);
    EXPECT_EQ(UPnPSetDialect(-1), UPnPFailed);
    EXPECT_EQ(UPnPSetDialect(1), UPnPSuccess);
    EXPECT_EQ(UPnPDiscover(false, nullptr), UPnPSuccess);
    EXPECT_EQ(UPnPClose(), UPnPSuccess);
}

TEST_F(FlatInterface, DiscoveryIsCompleteAfterItsPeriod)
{
    FastClock clock(1000);
    ASSERT_EQ(UPnPDiscoverStartup(), UPnPSuccess);
    EXPECT_EQ(UPnPDiscoverComplete(), UPnPNotComplete);
    EXPECT_TRUE(tavronet::PumpUntil([] { return UPnPDiscoverComplete() == UPnPSuccess; }));
}

TEST_F(FlatInterface, OnlyTheExactLocalAddressAndAnIndexInTheListNameADevice)
{
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(0));
    const struct
    {
        const char* device;
        int index;
        const char* why;
    } rows[] = {
        {nullptr, -1, "null, a negative index"},
        {"", 1, "empty, the number of devices"},
        {kGateway, 2147483647, "the gateway's own address"},
        {"10.77.1.20", -2147483647, "only begins with it"},
        {"10.77.1.", 2, "only the beginning of it"},
        {"10.77.001.2", 3, "written otherwise"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        ExpectAll(row.device, row.index, UPnPNoDevice);
    }
    EXPECT_EQ(UPnPGetDeviceModelName(nullptr, nullptr, 0), UPnPNoDevice)
        << "comes before the outputs are looked at";
}

TEST_F(FlatInterface, UnusableOutputsFailWithoutTraffic)
{
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(0));
    const std::size_t requests = gateway->Requests().size();
    char text[8] = "before";
    int number = 5;

    EXPECT_EQ(UPnPDeviceIsDescriptionComplete(nullptr, kLocal, nullptr), UPnPFailed);
    EXPECT_EQ(UPnPGetDeviceNATEnabledByIndex(nullptr, 0, nullptr), UPnPFailed);
    for (const int size : {0, -1, -2147483647 - 1}) {
        EXPECT_EQ(UPnPGetExternalIPAddress(nullptr, kLocal, text, size), UPnPFailed) << size;
        EXPECT_EQ(UPnPGetDeviceFriendlyName(kLocal, text, size), UPnPFailed) << size;
        EXPECT_EQ(UPnPGetLastGatewayError(kLocal, &number, &number, text, size), UPnPFailed) << size;
    }
    EXPECT_EQ(UPnPGetExternalIPAddressByIndex(nullptr, 0, nullptr, 8), UPnPFailed);
    EXPECT_EQ(UPnPGetDeviceModelNameByIndex(0, nullptr, 8), UPnPFailed);
    EXPECT_EQ(UPnPGetLastGatewayError(kLocal, nullptr, &number, text, 8), UPnPFailed);
    EXPECT_EQ(UPnPGetLastGatewayErrorByIndex(0, &number, nullptr, text, 8), UPnPFailed);

    EXPECT_STREQ(text, "before");
    EXPECT_EQ(number, 5);
    EXPECT_EQ(gateway->Requests().size(), requests);
}

TEST_F(FlatInterface, DescriptionTextsFillTheBufferAndAreCutAtACharacter)
{
    ASSERT_NO_FATAL_FAILURE(
        StartWithGateway(1, {"--friendly-name", "b\xC3\xBCro", "--manufacturer", "Tavro Works"}));
    const std::string zeros(32, '\0');
    const struct
    {
        int (*byAddress)(const char*, char*, int);
        int (*byIndex)(int, char*, int);
        int size;
        std::string text;
    } rows[] = {
        {UPnPGetDeviceFriendlyName, UPnPGetDeviceFriendlyNameByIndex, 32, "b\xC3\xBCro"},
        {UPnPGetDeviceFriendlyName, UPnPGetDeviceFriendlyNameByIndex, 6, "b\xC3\xBCro"},
        {UPnPGetDeviceFriendlyName, UPnPGetDeviceFriendlyNameByIndex, 5, "b\xC3\xBCr"},
        {UPnPGetDeviceFriendlyName, UPnPGetDeviceFriendlyNameByIndex, 3, "b"},
        {UPnPGetDeviceFriendlyName, UPnPGetDeviceFriendlyNameByIndex, 1, ""},
        {UPnPGetDeviceManufacturer, UPnPGetDeviceManufacturerByIndex, 4, "Tav"},
        {UPnPGetDeviceManufacturerURL, UPnPGetDeviceManufacturerURLByIndex, 32, "http://gateway.example/"},
        {UPnPGetDeviceModelDescription, UPnPGetDeviceModelDescriptionByIndex, 10, "Simulated"},
        {UPnPGetDeviceModelName, UPnPGetDeviceModelNameByIndex, 32, "tavronet-gateway"},
    };
    for (const auto& row : rows) {
        const auto size = static_cast<std::size_t>(row.size);
        const std::string expected = row.text + zeros.substr(0, size - row.text.size()) + "#";
        std::string buffer(size + 1, '#');
        EXPECT_EQ(row.byAddress(kLocal, buffer.data(), row.size), UPnPSuccess) << row.text;
        EXPECT_EQ(buffer, expected) << row.size;

        buffer.assign(size + 1, '#');
        EXPECT_EQ(row.byIndex(0, buffer.data(), row.size), UPnPSuccess) << row.text;
        EXPECT_EQ(buffer, expected) << row.size << " by index";
    }
}

} // namespace
