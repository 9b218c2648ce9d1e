#pragma once

#include <string_view>

#include "GatewayRecords.h"
#include "tavronet/platform/TestSeams.h"

/// A host that does one thing, the first time its code runs in one place of the library.
struct ReentrantHost : GatewayDevice
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
    static const Action kActions[12];

    ReentrantHost(const Place& in, const Action& what, bool search)
        : GatewayDevice(&Callback, this, search), place(in), action(what)
    {
        network->NewUPnPDevice(MakeRecord(network.get(), {.source = "", .usn = "uuid:other"}));
        Other()->GetType() = kGatewayType;
    }

    void Register()
    {
        network->NewUPnPDevice(MakeRecord(network.get(), {.location = server.Url("/d")}));
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
    bool armed = false, happened = false;

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
        EXPECT_TRUE(!throwsIn(&tavronet::PumpUntilQuiet) || throws); // connections that outlived it end
        armed = false;
        ASSERT_EQ(network == nullptr, deletes);
        if (deletes)
            return;
        if (Other() != nullptr)
            Other()->SetRelease(true);
        for (int i = 0; i < 8; ++i)
            network->Tickle();
        EXPECT_EQ(Other(), nullptr) << "upkeep still works";
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
