#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "GatewayRecords.h"
#include "tavronet/platform/TestSeams.h"

/// A host that does one thing, the first time its code runs in one place of the library.
struct ReentrantHost
{
    struct Place
    {
        const char* name;
        unsigned int events; // inside these (a bit for each code), or, without any, inside a wait
        bool describes;      // runs while the device is described; otherwise it is described before
        std::function<void(ReentrantHost& host)> run;
    };
    struct Action
    {
        std::string_view name;
        void (*act)(ReentrantHost& host, CUPnPDevice* concerned); // the device, or a record announced
    };
    static const Action kActions[14];

    ReentrantHost(const Place& in, const Action& what, bool search = false)
        : place(in),
          action(what),
          network(std::make_unique<CUPnPNetwork>(&Callback, this, UPnPDialectClassic, search))
    {
        server.AnswerBy([this](const std::string& request) { return Reply(request); });
        network->NewUPnPDevice(
            MakeRecord(network.get(), {.source = "", .location = server.Url("/2"), .usn = "uuid:gw-2"}));
        PumpUntil([this] { return Other()->DiscoverComplete(); });
    }

    ScriptedServer::Reply Reply(const std::string& request) const
    {
        std::string description = Description();
        description.insert(description.find("</serviceList>"),
                           "<service>\r\n<serviceType>urn:schemas-upnp-org:service:WANPPPConnection:1"
                           "</serviceType>\r\n<controlURL>/ppp</controlURL>\r\n</service>\r\n");
        if (request.starts_with("GET /2"))
            description.replace(description.find("gw-1"), 4, "gw-2");
        if (request.starts_with("GET "))
            return {untilClose ? "HTTP/1.1 200 OK\r\n\r\n" + description : HttpAnswer(description), kClose};
        if (request.find("GetSpecificPortMappingEntry") == std::string::npos)
            return {HttpAnswer(""), false};
        return {HttpAnswer("<NewInternalPort>8080</NewInternalPort>\r\n<NewInternalClient>127.0.0.1"
                           "</NewInternalClient>\r\n<NewEnabled>1</NewEnabled>\r\n"),
                false};
    }

    void Register()
    {
        network->NewUPnPDevice(MakeRecord(network.get(), {.location = server.Url("/1")}));
        PumpUntil([&] { return happened || Device()->DiscoverComplete(); });
    }
    CUPnPDevice* Find(const char* usn) const
    {
        return network != nullptr ? network->GetUPnPDevice(usn) : nullptr;
    }
    CUPnPDevice* Device() const { return Find("uuid:gw-1"); }
    CUPnPDevice* Other() const { return Find("uuid:gw-2"); }
    /// Null before it is described.
    CUPnPService* Service(const char* type = kConnectionService) const
    {
        return Device() != nullptr ? Device()->FindService(type) : nullptr;
    }

    /// A blocking operation; pumps, so that connections close underneath.
    void Operate() const
    {
        CString address;
        if (Device() != nullptr)
            Device()->GetExternalIPAddress(nullptr, address);
    }

    void Act(CUPnPDevice* concerned)
    {
        if (!std::exchange(happened, true) || action.name == "Throw") // a second time would be another test
            action.act(*this, concerned);
    }
    static void Callback(void* raw, unsigned int code, CUPnPObject* object)
    {
        auto& self = *static_cast<ReentrantHost*>(raw);
        if (self.armed && (self.place.events >> code & 1) != 0)
            self.Act(code == UPnPEventDeviceNotify ? static_cast<CUPnPDevice*>(object) : self.Device());
    }

    /// Runs every action in the place. The address sanitizer watches that nothing freed is touched, this that
    /// the network is usable afterwards.
    static void MayDoAnythingIn(const Place& place, bool search = false)
    {
        const tavronet::LivingObjects before = tavronet::CountLivingObjects();
        for (const Action& action : kActions) {
            SCOPED_TRACE(action.name);
            ReentrantHost(place, action, search).RunAndLookBack();
            EXPECT_EQ(tavronet::CountLivingObjects(), before);
        }
    }

    const Place& place;
    const Action& action;
    bool armed = false, happened = false, untilClose = false;
    TestClock clock;
    ScriptedServer server;
    std::unique_ptr<CUPnPNetwork> network;

private:
    void RunAndLookBack()
    {
        const bool throws = action.name == "Throw", deletes = action.name == "DeleteNetwork";
        if (!place.describes)
            Register();
        armed = true;
        const auto throwsIn = [](const auto& step) {
            try {
                step();
                return false;
            } catch (int) {
                return true;
            }
        };
        EXPECT_EQ(throwsIn([this] { place.run(*this); }), throws);
        EXPECT_TRUE(happened);
        EXPECT_TRUE(!throwsIn([] { PumpBriefly(); }) || throws); // connections that outlived it end
        armed = false;
        ASSERT_EQ(network == nullptr, deletes);
        if (deletes)
            return;
        CUPnPDevice* const fresh = MakeRecord(network.get(), {.source = "127.0.0.9", .usn = "uuid:fresh"});
        network->NewUPnPDevice(fresh);
        fresh->SetRelease(true);
        for (int i = 0; i < 8 && Find("uuid:fresh") != nullptr; ++i)
            network->Tickle();
        EXPECT_EQ(Find("uuid:fresh"), nullptr) << "upkeep still works";
    }
};

inline const ReentrantHost::Action ReentrantHost::kActions[] = {
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
         if (CUPnPService* const other = host.Service("urn:schemas-upnp-org:service:WANPPPConnection:1"))
             other->Command(true, nullptr, "GetStatusInfo", nullptr);
     }},
    {"ReleaseConnection",
     [](auto& host, auto*) {
         if (host.Service() != nullptr)
             host.Service()->ReleaseUPnPServiceSocket(true);
     }},
    {"ReleaseQueue",
     [](auto& host, auto*) {
         host.Operate();
         if (host.Service() != nullptr)
             host.Service()->ReleaseCommandQueue();
     }},
    {"FreePortMaps",
     [](auto&, auto* device) {
         CUPnPDevice::ReleasePortMaps(device->GetPortMaps());
         device->DeleteIndivPortMaps(nullptr);
     }},
    {"EditPortMaps",
     [](auto& host, auto* device) {
         device->GetPortMaps().assign(3, nullptr);
         device->AddPortMap(nullptr, 8080, "another", nullptr);
         if (host.Device() != nullptr)
             host.Device()->GetPortMaps().clear();
     }},
    {"Throw", [](auto&, auto*) { throw 7; }},
};
