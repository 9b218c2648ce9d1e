// The places of the re-entrancy matrix that need discovery sockets, and the wait of the flat interface.

#include "tavronet/api/UPnPApi.h"
#include "tests/support/Programs.h"
#include "tests/upnp/ReentrantHost.h"

namespace
{

using Host = ReentrantHost;
using tavronet::GatewayProcess;

using LanReentrancy = tavronet::OnPrivateLan;

TEST_F(LanReentrancy, TheHostMayDoAnything)
{
    GatewayProcess gateway({"--address", "10.77.1.1", "--uuid", "lan"});
    const Host::Place places[] = {
        {"ADatagramIsRead", 1U << UPnPEventDeviceNotify, false,
         [&](auto& host) {
             PumpUntil([&] { return host.Find("uuid:lan") != nullptr; });
             EXPECT_TRUE(gateway.Command("alive"));
             PumpUntil([&] { return host.happened; });
         }},
        {"AnExpiredDeviceIsSearchedFor", 1U << UPnPEventDeviceRediscover, false,
         [](auto& host) {
             PumpUntil([&] { return host.Find("uuid:lan") != nullptr; });
             TestClock::Advance(10001);
             host.Find("uuid:lan")->SetMaxAge(-1);
             host.network->Tickle();
         }},
        {"PumpedInTheWaitForDiscovery", 0, false,
         [](auto& host) {
             const std::unique_ptr<Host, int (*)(Host*)> closing(&host, [](Host*) { return UPnPClose(); });
             InTheWait([&host] {
                 host.Act(host.Device());
                 TestClock::Advance(10101);
             });
             EXPECT_EQ(UPnPDiscover(true, nullptr), UPnPSuccess);
         }},
    };
    for (const Host::Place& place : places) {
        SCOPED_TRACE(place.name);
        Host::MayDoAnythingIn(place, true);
    }
}

} // namespace
