// The places of the re-entrancy matrix that need discovery sockets, and the wait of the flat interface.

#include "tavronet/api/UPnPApi.h"
#include "tests/support/GatewayProcess.h"
#include "tests/support/OnPrivateLan.h"
#include "tests/upnp/ReentrantHost.h"

namespace
{

using Host = ReentrantHost;
using tavronet::GatewayProcess;

class LanReentrancy : public tavronet::OnPrivateLan
{
protected:
    GatewayProcess& Gateway()
    {
        if (m_Gateway == nullptr)
            m_Gateway = std::make_unique<GatewayProcess>(Texts{"--address", "10.77.1.1", "--uuid", "lan"},
                                                         GatewayProcess::Place::GatewayOfLan);
        return *m_Gateway;
    }
    using Texts = std::vector<std::string>;

private:
    std::unique_ptr<GatewayProcess> m_Gateway;
};

TEST_F(LanReentrancy, TheHostMayDoAnythingWhereADatagramIsRead)
{
    const Host::Place announced{"Announced", 1U << UPnPEventDeviceNotify, false, [this](auto& host) {
                                    PumpUntil([&] { return host.Find("uuid:lan") != nullptr; });
                                    EXPECT_TRUE(Gateway().Command("alive"));
                                    PumpUntil([&] { return host.happened; });
                                }};
    Gateway();
    Host::MayDoAnythingIn(announced, true);
}

TEST_F(LanReentrancy, TheHostMayDoAnythingWhereAnExpiredDeviceIsSearchedFor)
{
    const Host::Place expired{"Expired", 1U << UPnPEventDeviceRediscover, false, [](auto& host) {
                                  PumpUntil([&] { return host.Find("uuid:lan") != nullptr; });
                                  TestClock::Advance(10001);
                                  host.Find("uuid:lan")->SetMaxAge(-1);
                                  host.network->Tickle();
                              }};
    Gateway();
    Host::MayDoAnythingIn(expired, true);
}

TEST_F(LanReentrancy, TheHostMayDoAnythingInTheWaitForDiscovery)
{
    const Host::Place discovering{"Discovering", 0, false, [](auto& host) {
                                      const struct Closing
                                      {
                                          ~Closing() { UPnPClose(); }
                                      } closing;
                                      InTheWait([&host] {
                                          host.Act(host.Device());
                                          TestClock::Advance(10101);
                                      });
                                      EXPECT_EQ(UPnPDiscover(true, nullptr), UPnPSuccess);
                                  }};
    Host::MayDoAnythingIn(discovering);
}

} // namespace
