// What a host may do inside the library: anything, wherever its code runs.

#include <string_view>

#include "tavronet/api/UPnPApi.h"
#include "tavronet/platform/TestSeams.h"
#include "tests/support/Programs.h"
#include "tests/upnp/GatewayRecords.h"

namespace
{

using tavronet::GatewayProcess;
struct Host;

struct Place
{
    const char* name;
    unsigned int events; // inside these (a bit for each code), or, without any, inside a wait
    bool describes;      // runs while the device is described; otherwise it is described before
    std::function<void(Host& host)> run;
};

struct Action
{
    std::string_view name;
    void (*act)(Host& host, CUPnPDevice* concerned); // the device, or a record announced
};

/// A host that does one thing, the first time its code runs in one place of the library.
struct Host : GatewayDevice
{
    Host(const Place& in, const Action& what) : GatewayDevice(&Callback, this), place(in), action(what)
    {
        Announce({.source = "", .usn = "uuid:other"});
        Other()->GetType() = kGatewayType;
        if (!place.describes)
            Register();
    }

    void Announce(const Announced& announced) const
    {
        network->NewUPnPDevice(MakeRecord(network.get(), announced));
    }
    void Register() const
    {
        Announce({.location = server.Url("/d")});
        PumpUntil([&] { return happened || Device()->DiscoverComplete(); });
    }
    CUPnPDevice* Find(const char* usn) const { return network ? network->GetUPnPDevice(usn) : nullptr; }
    CUPnPDevice* Device() const { return Find("uuid:gw-1"); }
    CUPnPDevice* Other() const { return Find("uuid:other"); }
    /// Null before it is described.
    CUPnPService* Service(const char* type = kConnectionService) const
    {
        return Device() != nullptr ? Device()->FindService(type) : nullptr;
    }

    /// A blocking operation; pumps, so that connections close underneath.
    void Operate() const
    {
        if (Device() != nullptr)
            Device()->GetExternalIPAddress(nullptr);
    }

    void Act(CUPnPDevice* concerned)
    {
        if (!std::exchange(happened, true) || action.name == "Throw") // a second time would be another test
            action.act(*this, concerned);
    }
    /// Acts while the answer to the n-th request from now on is waited for.
    void ActInTheWait(int n)
    {
        server.AnswerBy([this, n](const std::string& request) mutable {
            if (--n == 0)
                InTheWait([this] { Act(Device()); });
            return gateway(request);
        });
    }
    static void Callback(void* raw, unsigned int code, CUPnPObject* object)
    {
        auto& self = *static_cast<Host*>(raw);
        if (self.armed && (self.place.events >> code & 1) != 0)
            self.Act(code == UPnPEventDeviceNotify ? static_cast<CUPnPDevice*>(object) : self.Device());
    }

    /// @return whether the exception of the action came out.
    bool ThrowsIn(const auto& step)
    {
        armed = true;
        try {
            step();
            return false;
        } catch (int) {
            return true;
        }
    }

    const Place& place;
    const Action& action;
    bool armed = false, happened = false;
};

const Action kActions[] = {
    {"DeleteNetwork", [](auto& host, auto*) { host.network.reset(); }},
    {"ReleaseDevice", [](auto& host, auto* device) { host.network->ReleaseUPnPDevice(device); }},
    {"ReleaseOther", [](auto& host, auto*) { host.network->ReleaseUPnPDevice(host.Other()); }},
    {"Discover", [](auto& host, auto*) { host.network->Discover(); }},
    {"Tickle", [](auto& host, auto*) { host.network->Tickle(); }},
    {"Register", [](auto& host, auto* device) { host.network->NewUPnPDevice(device); }},
    {"RequestDescription", [](auto&, auto* device) { device->RequestDescription(); }},
    {"SameService", [](auto& host, auto*) { host.Operate(); }},
    {"OtherService",
     [](auto& host, auto*) {
         if (CUPnPService* const other = host.Service(kOtherService))
             other->Command(true, nullptr, "GetStatusInfo", nullptr);
     }},
    {"ReleaseConnection",
     [](auto& host, auto*) {
         host.Operate();
         if (CUPnPService* const service = host.Service())
             service->ReleaseUPnPServiceSocket(true);
     }},
    {"EditPortMaps",
     [](auto& host, auto* device) {
         CUPnPDevice::ReleasePortMaps(device->GetPortMaps());
         device->GetPortMaps().assign(3, nullptr);
         device->AddPortMap(nullptr, 8080, "another", nullptr);
         if (host.Device() != nullptr)
             host.Device()->DeleteIndivPortMaps(nullptr);
     }},
    {"Throw", [](auto&, auto*) { throw 7; }},
};

/// An operation of a device, the host acting during its n-th request.
Place During(const char* name, int n, bool (*operation)(CUPnPDevice& device))
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

/// Something that a gateway on the LAN does, or the network with one that it has found.
Place OnTheLan(const char* name, unsigned int event, void (*step)(Host& host, const GatewayProcess& gateway))
{
    return {name, 1U << event, false, [=](Host& host) {
                const GatewayProcess gateway({"--address", "10.77.1.1", "--uuid", "lan"});
                host.noAdapters.reset();
                host.network->Discover();
                PumpUntil([&] { return host.Find("uuid:lan") != nullptr; });
                step(host, gateway);
            }};
}

PortMapList& Filled(CUPnPDevice& device)
{
    return device.GetPortMaps() = Records({80, 81, 82});
}

const Place kPlaces[] = {
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
    OnTheLan("ADatagramIsRead", UPnPEventDeviceNotify,
             [](auto& host, auto& gateway) {
                 EXPECT_TRUE(gateway.Command("alive"));
                 PumpUntil([&] { return host.happened; });
             }),
    OnTheLan("AnExpiredDeviceIsSearchedFor", UPnPEventDeviceRediscover,
             [](auto& host, auto&) {
                 TestClock::Advance(10001);
                 host.Find("uuid:lan")->SetMaxAge(-1);
                 host.network->Tickle();
             }),
    {"PumpedInTheWaitForDiscovery", 0, false,
     [](auto& host) {
         host.noAdapters.reset();
         const std::unique_ptr<Host, int (*)(Host*)> closing(&host, [](Host*) { return UPnPClose(); });
         InTheWait([&host] {
             host.Act(host.Device());
             TestClock::Advance(10101);
         });
         EXPECT_EQ(UPnPDiscover(true, nullptr), UPnPSuccess);
     }},
};

class Reentrancy : public tavronet::OnPrivateLan, public testing::WithParamInterface<std::size_t>
{};

/// The address sanitizer watches that nothing freed is touched, this that the network is usable afterwards.
TEST_P(Reentrancy, TheHostMayDoAnything)
{
    const tavronet::LivingObjects before = tavronet::CountLivingObjects();
    for (const Action& action : kActions) {
        SCOPED_TRACE(action.name);
        const bool throws = action.name == "Throw", deletes = action.name == "DeleteNetwork";
        Host host(kPlaces[GetParam()], action);
        EXPECT_EQ(host.ThrowsIn([&] { host.place.run(host); }), throws);
        EXPECT_TRUE(host.happened);
        EXPECT_TRUE(!host.ThrowsIn(&tavronet::PumpUntilQuiet) || throws); // connections that outlived it end
        host.armed = false;
        ASSERT_EQ(host.network == nullptr, deletes);
        if (deletes)
            continue;
        if (host.Other() != nullptr)
            host.Other()->SetRelease(true);
        for (int i = 0; i < 8; ++i)
            host.network->Tickle();
        EXPECT_EQ(host.Other(), nullptr) << "upkeep still works";
    }
    EXPECT_EQ(tavronet::CountLivingObjects(), before);
}

INSTANTIATE_TEST_SUITE_P(Matrix, Reentrancy, testing::Range<std::size_t>(0, std::size(kPlaces)),
                         [](const auto& row) { return std::string(kPlaces[row.param].name); });

} // namespace
