// What a host may do inside the library: anything, wherever its code runs. Each test puts one kind of host code in one
// place; the address sanitizer watches that nothing freed is touched, the test that the network is usable afterwards.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <tuple>

#include "GatewayRecords.h"
#include "ScriptedServer.h"
#include "tavronet/platform/TestSeams.h"
#include "tavronet/upnp/UPnPService.h"

namespace
{

using Then = ScriptedServer::Then;

enum class Place
{
    DescribedWhileReading, // event 2 and 0, the response ends by its length
    DescribedWhileClosing, // event 2 and 0, the response ends with the connection
    ReleasedByHost,        // event 1
    ReleasedByTickle,
    Announced, // event 3
    PumpedInDeviceOperation,
    PumpedInServiceCommand,
    PumpedInVerification, // inside Tickle
};
enum class Action
{
    DeleteNetwork,
    ReleaseDevice,
    ReleaseOtherDevice,
    Discover,
    Tickle,
    RequestDescription,
    SameService,
    OtherService,
    ReleaseConnection,
    FreePortMaps,
    Throw,
};

const char* const kPlaces[] = {"DescribedWhileReading",
                               "DescribedWhileClosing",
                               "ReleasedByHost",
                               "ReleasedByTickle",
                               "Announced",
                               "PumpedInDeviceOperation",
                               "PumpedInServiceCommand",
                               "PumpedInVerification"};
const char* const kActions[] = {
    "DeleteNetwork", "ReleaseDevice", "ReleaseOtherDevice", "Discover",     "Tickle", "RequestDescription",
    "SameService",   "OtherService",  "ReleaseConnection",  "FreePortMaps", "Throw"};

/// What the gateway answers: its description to a GET, the one mapping to a look-up, success to all else.
std::pair<std::string, Then> Reply(const std::string& request, bool withLength)
{
    if (request.starts_with("GET "))
        return {withLength ? HttpAnswer(Description()) : "HTTP/1.1 200 OK\r\n\r\n" + Description(),
                Then::Close};
    if (request.find("GetSpecificPortMappingEntry") == std::string::npos)
        return {HttpAnswer(""), Then::KeepOpen};
    return {
        HttpAnswer(
            "<NewInternalPort>8080</NewInternalPort>\r\n<NewInternalClient>127.0.0.1</NewInternalClient>\r\n"
            "<NewEnabled>1</NewEnabled>\r\n<NewPortMappingDescription>game</NewPortMappingDescription>\r\n"
            "<NewLeaseDuration>0</NewLeaseDuration>\r\n"),
        Then::KeepOpen};
}

class Reentrancy : public testing::TestWithParam<std::tuple<int, int>>
{
protected:
    Reentrancy() : network(std::make_unique<CUPnPNetwork>(&Callback, this))
    {
        const bool withLength = place != Place::DescribedWhileClosing;
        server.AnswerBy([withLength](const std::string& request) { return Reply(request, withLength); });
        if (place != Place::DescribedWhileReading && place != Place::DescribedWhileClosing)
            Register();
        network->NewUPnPDevice(MakeRecord(network.get(), {.source = "127.0.0.2", .usn = "uuid:other"}));
    }

    ~Reentrancy() override { network.reset(); }

    void Register()
    {
        network->NewUPnPDevice(MakeRecord(network.get(), {.location = server.Url("/d")}));
        EXPECT_TRUE(Pump([&] { return happened || (Device() != nullptr && Device()->DiscoverComplete()); }));
    }

    CUPnPDevice* Device() const { return network != nullptr ? network->GetUPnPDevice("uuid:gw-1") : nullptr; }
    CUPnPService* Service() const
    {
        return Device() != nullptr ? Device()->FindConnectionService() : nullptr;
    }

    /// Pumps; what the host throws comes out here.
    bool Pump(const std::function<bool()>& done)
    {
        try {
            return PumpUntil(done);
        } catch (int) {
            thrown = true;
            return done();
        }
    }

    /// Runs library code out of which the host's exception may come.
    void Guarded(const std::function<void()>& step)
    {
        try {
            step();
        } catch (int) {
            thrown = true;
        }
    }

    static void Callback(void* raw, unsigned int code, CUPnPObject* object)
    {
        auto& self = *static_cast<Reentrancy*>(raw);
        const bool described = code == UPnPEventServiceDescribed || code == UPnPEventDeviceDescribed;
        const bool here =
            self.place == Place::DescribedWhileReading || self.place == Place::DescribedWhileClosing
                ? described
            : self.place == Place::Announced ? code == UPnPEventDeviceNotify
                                             : code == UPnPEventDeviceReleased;
        if (here && self.armed)
            self.Act(object);
    }

    void ActInTheWait()
    {
        PostThreadCall(
            CurrentThreadQueue(), [](void* self) { static_cast<Reentrancy*>(self)->Act(nullptr); }, this);
    }

    void Act(CUPnPObject* object)
    {
        const bool first = !happened;
        happened = true;
        if (!first && action != Action::Throw) // once is enough, and a second time would be another test
            return;
        CUPnPDevice* device = Device();
        if (place == Place::Announced)
            device = static_cast<CUPnPDevice*>(object);
        switch (action) {
        case Action::DeleteNetwork: network.reset(); break;
        case Action::ReleaseDevice: network->ReleaseUPnPDevice(device); break;
        case Action::ReleaseOtherDevice:
            network->ReleaseUPnPDevice(network->GetUPnPDevice("uuid:other"));
            break;
        case Action::Discover: network->Discover(); break;
        case Action::Tickle:
            TestClock::Advance(31000);
            network->Tickle();
            break;
        case Action::RequestDescription: device->RequestDescription(); break;
        case Action::SameService: Operate(); break;
        case Action::OtherService: OperateElsewhere(); break;
        case Action::ReleaseConnection:
            if (Service() != nullptr) {
                Service()->ReleaseUPnPServiceSocket(true);
                Service()->ReleaseCommandQueue();
            }
            break;
        case Action::FreePortMaps:
            if (device != nullptr) {
                CUPnPDevice::ReleasePortMaps(device->GetPortMaps());
                device->DeleteIndivPortMaps(nullptr);
            }
            break;
        case Action::Throw: throw 7;
        }
    }

    /// A blocking operation; pumps, so that connections close underneath.
    void Operate()
    {
        if (Device() == nullptr)
            return;
        CString address;
        Device()->GetExternalIPAddress(nullptr, address);
    }

    void OperateElsewhere()
    {
        CUPnPDevice elsewhere;
        CUPnPService service(&elsewhere);
        const std::string block =
            "<service>\r\n<controlURL>" + server.Url("/else") + "</controlURL>\r\n</service>\r\n";
        const char* position = block.c_str();
        int remaining = static_cast<int>(block.size());
        service.BuildService(position, remaining);
        service.Command(true, nullptr, "Else", nullptr);
    }

    void Run()
    {
        CString address;
        switch (place) {
        case Place::DescribedWhileReading:
        case Place::DescribedWhileClosing:
            armed = true;
            Register();
            break;
        case Place::ReleasedByHost:
            armed = true;
            Guarded([&] { network->ReleaseUPnPDevice(Device()); });
            break;
        case Place::ReleasedByTickle:
            armed = true;
            Device()->SetRelease(true);
            Guarded([&] { network->Tickle(); });
            break;
        case Place::Announced:
            armed = true;
            Guarded([&] {
                network->Notify(
                    MakeRecord(network.get(), {.source = "127.0.0.3", .usn = "uuid:n", .nts = "ssdp:alive"}));
            });
            break;
        case Place::PumpedInDeviceOperation:
            ActInTheWait();
            Guarded([&] { Device()->GetExternalIPAddress(nullptr, address); });
            break;
        case Place::PumpedInServiceCommand:
            ActInTheWait();
            Guarded([&] { Service()->Command(true, nullptr, "A", nullptr); });
            break;
        case Place::PumpedInVerification:
            Device()->AddPortMap(nullptr, 8080, "game", nullptr);
            for (int i = 0; i < 3 && !happened; ++i) { // the range list has its turn first
                TestClock::Advance(10001);
                ActInTheWait();
                Guarded([&] { network->Tickle(); });
            }
            break;
        }
    }

    /// The network does its work as if nothing had been.
    void ExpectUsable()
    {
        CUPnPDevice* const fresh = MakeRecord(network.get(), {.source = "127.0.0.9", .usn = "uuid:fresh"});
        network->NewUPnPDevice(fresh);
        fresh->SetRelease(true);
        for (std::size_t i = 0; i < 8 && network->GetUPnPDevice("uuid:fresh") != nullptr; ++i)
            Guarded([&] { network->Tickle(); });
        EXPECT_EQ(network->GetUPnPDevice("uuid:fresh"), nullptr) << "upkeep still works";
    }

    const Place place = static_cast<Place>(std::get<0>(GetParam()));
    const Action action = static_cast<Action>(std::get<1>(GetParam()));
    bool armed = false;
    bool happened = false;
    bool thrown = false;
    TestClock clock;
    NoAdapters noAdapters;
    ScriptedServer server;
    std::unique_ptr<CUPnPNetwork> network;
};

TEST_P(Reentrancy, TheHostMayDoAnything)
{
    Run();
    EXPECT_TRUE(happened);
    EXPECT_EQ(thrown, action == Action::Throw);
    try {
        PumpBriefly(); // connections that outlived it come to their end
    } catch (int) {
    }
    armed = false;
    EXPECT_EQ(network == nullptr, action == Action::DeleteNetwork);
    if (network != nullptr)
        ExpectUsable();
    network.reset();
    EXPECT_EQ(tavronet::CountLivingObjects(), (tavronet::LivingObjects{0, 0}));
}

INSTANTIATE_TEST_SUITE_P(Matrix, Reentrancy,
                         testing::Combine(testing::Range(0, int(std::size(kPlaces))),
                                          testing::Range(0, int(std::size(kActions)))),
                         [](const auto& cell) {
                             return std::string(kPlaces[std::get<0>(cell.param)]) + "_" +
                                    kActions[std::get<1>(cell.param)];
                         });

} // namespace
