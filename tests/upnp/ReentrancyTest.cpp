// What a host may do inside the library: anything, wherever its code runs. Here without a LAN; what needs one is
// in tests/host.

#include "ReentrantHost.h"

namespace
{

using Host = ReentrantHost;

/// An operation of a device, the host acting during its n-th request.
Host::Place During(const char* name, int n, bool (*operation)(CUPnPDevice& device))
{
    return {name, 0, false, [=](Host& host) {
                host.gateway.refused = {"71"};
                host.gateway.table["1"] = {"1", "127.0.0.1", "1"};
                host.ActInTheWait(n);
                const CUPnPDevice* const device = host.Device();
                const bool result = operation(*host.Device());
                EXPECT_TRUE(!result || host.Device() == device);
            }};
}

PortMapList& Filled(CUPnPDevice& device)
{
    return device.GetPortMaps() = Records({80, 81, 82});
}

const Host::Place kPlaces[] = {
    During("Address", 1,
           [](auto& device) { return device.GetExternalIPAddress(nullptr, std::string(9, ' ').data(), 9); }),
    During("NAT", 1, [](auto& device) { return device.GetNATEnabled(nullptr, *std::make_unique<bool>()); }),
    During("AddPort", 1, [](auto& device) { return device.AddPortMap(nullptr, 7, "d", nullptr); }),
    During("AddList", 2, [](auto& device) { return device.AddPortMaps(nullptr, Filled(device)); }),
    During("RangeLooks", 2, [](auto& device) { return device.AddPortMaps(nullptr, 70, 3, "", nullptr); }),
    During("RangeAdds", 5, [](auto& device) { return device.AddPortMaps(nullptr, 70, 3, "", nullptr); }),
    During("RangeDeletes", 8, [](auto& device) { return device.AddPortMaps(nullptr, 70, 3, "", nullptr); }),
    During("DeletePort", 1, [](auto& device) { return device.DeletePortMap(nullptr, 7, "UDP"); }),
    During("DeleteList", 2, [](auto& device) { return device.DeletePortMaps(nullptr, Filled(device)); }),
    During("DeleteOwn", 3, [](auto& device) { return Filled(device)[0] && device.DeletePortMaps(nullptr); }),
    During(
        "List", 2,
        [](auto& device) { return Filled(device)[0] && device.GetPortMaps(nullptr, device.GetPortMaps()); }),
    {"DescribedWhileReading", 1U << UPnPEventServiceDescribed, true, &Host::Register},
    {"DescribedWhileClosing", 1U << UPnPEventDeviceDescribed, true, // the embedded device
     [](auto& host) {
         host.gateway.untilClose = host.network->SetDialect(UPnPDialectModern);
         host.Register();
     }},
    {"ReleasedByTickle", 1U << UPnPEventDeviceReleased, false,
     [](auto& host) {
         host.Device()->SetRelease(true);
         host.network->Tickle();
     }},
    {"Announced", 1U << UPnPEventDeviceNotify, false,
     [](auto& host) {
         host.network->Notify(
             MakeRecord(host.network.get(), {.source = "127.0.0.3", .usn = "uuid:n", .nts = "ssdp:alive"}));
     }},
    {"PumpedInVerification", 0, false,
     [](auto& host) {
         host.Device()->AddPortMap(nullptr, 8080, "game", nullptr);
         host.ActInTheWait(1);
         for (int i = 0; i < 3 && !host.happened; ++i) { // the range list has its turn first
             TestClock::Advance(10001);
             host.network->Tickle();
         }
     }},
};

class Reentrancy : public testing::TestWithParam<std::size_t>
{};

TEST_P(Reentrancy, TheHostMayDoAnything)
{
    const NoAdapters noAdapters;
    Host::MayDoAnythingIn(kPlaces[GetParam()]);
}

INSTANTIATE_TEST_SUITE_P(Matrix, Reentrancy, testing::Range<std::size_t>(0, std::size(kPlaces)),
                         [](const auto& row) { return std::string(kPlaces[row.param].name); });

} // namespace
