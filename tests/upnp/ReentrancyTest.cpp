// What a host may do inside the library: anything, wherever its code runs. Each test puts one kind of host code in one
// place; the address sanitizer watches that nothing freed is touched, the test that the network is usable afterwards.

#include <tuple>

#include "GatewayRecords.h"
#include "tavronet/platform/TestSeams.h"

namespace
{

struct Host;

/// A place where host code runs: inside events (a bit for each code), or, without any, inside a wait.
struct Place
{
    const char* name;
    unsigned int events;
    void (*run)(Host& host);
};

struct Action
{
    std::string_view name;
    void (*act)(Host& host, CUPnPDevice* device);
};

/// A host with a device that is described by a server here.
struct Host
{
    Host(const Place& in, const Action& what) : place(in), action(what)
    {
        server.AnswerBy([this](const std::string& request) { return Reply(request); });
    }

    ScriptedServer::Reply Reply(const std::string& request) const
    {
        if (request.starts_with("GET "))
            return {untilClose ? "HTTP/1.1 200 OK\r\n\r\n" + Description() : HttpAnswer(Description()),
                    kClose};
        if (request.find("GetSpecificPortMappingEntry") == std::string::npos)
            return {HttpAnswer(""), false};
        return {HttpAnswer("<NewInternalPort>8080</NewInternalPort>\r\n<NewInternalClient>127.0.0.1"
                           "</NewInternalClient>\r\n<NewEnabled>1</NewEnabled>\r\n"),
                false};
    }

    void Register()
    {
        network->NewUPnPDevice(MakeRecord(network.get(), {.location = server.Url("/d")}));
        PumpUntil([&] { return happened || Device()->DiscoverComplete(); });
    }
    CUPnPDevice* Device() const { return network != nullptr ? network->GetUPnPDevice("uuid:gw-1") : nullptr; }

    /// A blocking operation; pumps, so that connections close underneath.
    void Operate() const
    {
        CString address;
        if (Device() != nullptr)
            Device()->GetExternalIPAddress(nullptr, address);
    }

    void Act(CUPnPDevice* device)
    {
        if (std::exchange(happened, true) && action.name != "Throw")
            return; // once is enough, and a second time would be another test
        action.act(*this, device);
    }
    static void Callback(void* raw, unsigned int code, CUPnPObject* object)
    {
        auto& self = *static_cast<Host*>(raw);
        if (self.armed && (self.place.events >> code & 1) != 0)
            self.Act(code == UPnPEventDeviceNotify ? static_cast<CUPnPDevice*>(object) : self.Device());
    }

    const Place& place;
    const Action& action;
    bool armed = false, happened = false, untilClose = false;
    TestClock clock;
    NoAdapters noAdapters;
    ScriptedServer server;
    std::unique_ptr<CUPnPNetwork> network = std::make_unique<CUPnPNetwork>(&Callback, this);
};

const Place kPlaces[] = {
    {"DescribedWhileReading", 1U << UPnPEventServiceDescribed, [](auto& host) { host.Register(); }},
    {"DescribedWhileClosing", 1U << UPnPEventDeviceDescribed, // the embedded device
     [](auto& host) {
         host.untilClose = host.network->SetDialect(UPnPDialectModern);
         host.Register();
     }},
    {"ReleasedByHost", 1U << UPnPEventDeviceReleased,
     [](auto& host) { host.network->ReleaseUPnPDevice(host.Device()); }},
    {"ReleasedByTickle", 1U << UPnPEventDeviceReleased,
     [](auto& host) {
         host.Device()->SetRelease(true);
         host.network->Tickle();
     }},
    {"Announced", 1U << UPnPEventDeviceNotify,
     [](auto& host) {
         host.network->Notify(
             MakeRecord(host.network.get(), {.source = "127.0.0.3", .usn = "uuid:n", .nts = "ssdp:alive"}));
     }},
    {"PumpedInDeviceOperation", 0,
     [](auto& host) {
         InTheWait([&host] { host.Act(host.Device()); });
         host.Operate();
     }},
    {"PumpedInVerification", 0,
     [](auto& host) {
         host.Device()->AddPortMap(nullptr, 8080, "game", nullptr);
         for (int i = 0; i < 3 && !host.happened; ++i) { // the range list has its turn first
             TestClock::Advance(10001);
             InTheWait([&host] { host.Act(host.Device()); });
             host.network->Tickle();
         }
     }},
};

const Action kActions[] = {
    {"DeleteNetwork", [](auto& host, auto*) { host.network.reset(); }},
    {"ReleaseDevice", [](auto& host, auto* device) { host.network->ReleaseUPnPDevice(device); }},
    {"Discover", [](auto& host, auto*) { host.network->Discover(); }},
    {"Tickle", [](auto& host, auto*) { host.network->Tickle(); }},
    {"RequestDescription", [](auto&, auto* device) { device->RequestDescription(); }},
    {"SameService", [](auto& host, auto*) { host.Operate(); }},
    {"ReleaseConnection",
     [](auto& host, auto*) {
         if (host.Device() != nullptr && host.Device()->FindConnectionService() != nullptr)
             host.Device()->FindConnectionService()->ReleaseUPnPServiceSocket(true);
     }},
    {"FreePortMaps",
     [](auto&, auto* device) {
         CUPnPDevice::ReleasePortMaps(device->GetPortMaps());
         device->DeleteIndivPortMaps(nullptr);
     }},
    {"Throw", [](auto&, auto*) { throw 7; }},
};

class Reentrancy : public testing::TestWithParam<std::tuple<std::size_t, std::size_t>>
{};

TEST_P(Reentrancy, TheHostMayDoAnything)
{
    const Place& place = kPlaces[std::get<0>(GetParam())];
    const Action& action = kActions[std::get<1>(GetParam())];
    const bool throws = action.name == "Throw", deletes = action.name == "DeleteNetwork";
    {
        Host host(place, action);
        if (!std::string_view(place.name).starts_with("Described"))
            host.Register();
        host.armed = true;
        const auto throwsIn = [](const auto& step) {
            try {
                step();
                return false;
            } catch (int) {
                return true;
            }
        };
        EXPECT_EQ(throwsIn([&] { place.run(host); }), throws);
        EXPECT_TRUE(host.happened);
        EXPECT_TRUE(!throwsIn([] { PumpBriefly(); }) || throws); // connections that outlived it end
        host.armed = false;
        ASSERT_EQ(host.network == nullptr, deletes);
        if (!deletes) {
            CUPnPDevice* const fresh =
                MakeRecord(host.network.get(), {.source = "127.0.0.9", .usn = "uuid:fresh"});
            host.network->NewUPnPDevice(fresh);
            fresh->SetRelease(true);
            for (int i = 0; i < 8 && host.network->GetUPnPDevice("uuid:fresh") != nullptr; ++i)
                host.network->Tickle();
            EXPECT_EQ(host.network->GetUPnPDevice("uuid:fresh"), nullptr) << "upkeep still works";
        }
    }
    EXPECT_EQ(tavronet::CountLivingObjects(), (tavronet::LivingObjects{0, 0}));
}

INSTANTIATE_TEST_SUITE_P(Matrix, Reentrancy,
                         testing::Combine(testing::Range<std::size_t>(0, std::size(kPlaces)),
                                          testing::Range<std::size_t>(0, std::size(kActions))),
                         [](const auto& cell) {
                             const std::string action(kActions[std::get<1>(cell.param)].name);
                             return kPlaces[std::get<0>(cell.param)].name + ("_" + action);
                         });

} // namespace
