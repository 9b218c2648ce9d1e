// What a host may do inside the library: anything, wherever its code runs. Here without a LAN; what needs one is
// in tests/host.

#include "ReentrantHost.h"

namespace
{

using Host = ReentrantHost;

const Host::Place kPlaces[] = {
    {"DescribedWhileReading", 1U << UPnPEventServiceDescribed, true, &Host::Register},
    {"DescribedWhileClosing", 1U << UPnPEventDeviceDescribed, true, // the embedded device
     [](auto& host) {
         host.untilClose = host.network->SetDialect(UPnPDialectModern);
         host.Register();
     }},
    {"ReleasedByHost", 1U << UPnPEventDeviceReleased, false,
     [](auto& host) { host.network->ReleaseUPnPDevice(host.Device()); }},
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
    {"PumpedInDeviceOperation", 0, false,
     [](auto& host) {
         InTheWait([&host] { host.Act(host.Device()); });
         host.Operate();
     }},
    {"PumpedInDirectCommand", 0, false,
     [](auto& host) {
         InTheWait([&host] { host.Act(host.Device()); });
         host.Service()->Command(true, nullptr, "GetStatusInfo", nullptr);
     }},
    {"PumpedInVerification", 0, false,
     [](auto& host) {
         host.Device()->AddPortMap(nullptr, 8080, "game", nullptr);
         for (int i = 0; i < 3 && !host.happened; ++i) { // the range list has its turn first
             TestClock::Advance(10001);
             InTheWait([&host] { host.Act(host.Device()); });
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
