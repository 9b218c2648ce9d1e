// What the upkeep answers in each state of a device, what it checks and what it closes, on both sides of the wrap of
// the tick.

#include "GatewayRecords.h"
#include "tavronet/platform/Event.h"
#include "tavronet/upnp/DescriptionBuilder.h"
#include "tavronet/upnp/UPnPDialect.h"

namespace
{

constexpr DWORD kSomeTick = 1000000, kWrapIn1s = 0 - 1000U;

/// A device of a gateway in the test's own thread, in a network that searches nowhere.
class Upkeep : public testing::Test
{
protected:
    Upkeep()
    {
        server.AnswerBy([this](const std::string& request) { return Reply(request); });
    }

    ScriptedServer::Reply Reply(const std::string& request)
    {
        if (request.starts_with("GET "))
            return {keepsOpen ? "" : HttpAnswer(Description()), !keepsOpen};
        if (request.find("#GetSpecificPortMappingEntry") == std::string::npos)
            return {keepsOpen ? "" : HttpAnswer(""), !keepsOpen};
        lookedUp = Between(request, "<NewExternalPort>", "<");
        return {HttpAnswer(MapEntry(internalPort.empty() ? lookedUp : internalPort, client, enabled), status),
                kClose};
    }
    void Ask(const std::string& location)
    {
        device.reset(MakeRecord(&network, {.location = location}));
        device->RequestDescription();
    }
    void Describe()
    {
        Ask(server.Url("/d"));
        ASSERT_TRUE(PumpUntil([&] { return device->DiscoverComplete(); }));
    }
    /// Upkeep after `milliseconds`. @return which port it looked up, "gone" when it gives the device up
    std::string TickleAfter(DWORD milliseconds)
    {
        TestClock::Advance(milliseconds);
        lookedUp.clear();
        return device->Tickle() ? lookedUp : "gone";
    }

    /// Leaves the connection of a description open, or that of an action for which another waits. @return which
    std::size_t LeaveOpen(bool action)
    {
        keepsOpen = false;
        if (action)
            Describe();
        keepsOpen = true;
        const std::size_t requests = server.Requests().size();
        if (!action)
            Ask(server.Url("/d"));
        for (int i = 0; i < 2 && action; ++i)
            EXPECT_TRUE(device->FindConnectionService()->Command(false, nullptr, "Act", nullptr));
        EXPECT_TRUE(PumpUntil([&] { return server.Requests().size() > requests; }));
        device->GetType() = kGatewayType;
        return server.Connections() - 1;
    }
    void SearchInVain(int times) const
    {
        device->SetMaxAge(-1);
        for (int i = 0; i < times; ++i)
            device->SetIssuedRediscover(true);
    }

    NoAdapters noAdapters;
    TestClock clock;
    ScriptedServer server;
    bool keepsOpen = false; // takes requests and says nothing
    std::string lookedUp, internalPort, client = "127.0.0.1", enabled = "1", status = "200 OK";
    CUPnPNetwork network{nullptr, nullptr};
    std::unique_ptr<CUPnPDevice> device;
};

TEST_F(Upkeep, WhatItAnswersInEachState)
{
    const std::string undescribed = server.Url("/d"), nowhere = "http://127.0.0.1:0/";
    const auto read = [&](const std::string& embedded) {
        Ask(nowhere);
        network.Dialect().ReadDescription(*device, "<device>\n<deviceType>" + std::string(kGatewayType) +
                                                       "</deviceType>\n<deviceList>\n<device>\n" + embedded +
                                                       "</device>\n</deviceList>\n</device>\n");
    };
    const auto embedded = [&] {
        return dynamic_cast<CUPnPDevice*>(tavronet::DescriptionBuilder::ChildrenOf(*device)[0]);
    };
    const std::string type = "<deviceType>urn:schemas-upnp-org:device:WANDevice:1</deviceType>\n";
    const struct
    {
        const char* why;
        DWORD start, afterMs;
        bool keeps;
        std::function<void()> arrange;
    } rows[] = {
        {"described", kSomeTick, 0, true, [&] { Describe(); }},
        {"to be released", kSomeTick, 0, false, [&] { Describe(), device->SetRelease(true); }},
        {"not described yet", kSomeTick, 30000, true, [&] { Ask(undescribed); }},
        {"not described in time", kSomeTick, 30001, false, [&] { Ask(undescribed); }},
        {"the sum has wrapped, the tick has not", kWrapIn1s, 1, true, [&] { Ask(undescribed); }},
        {"not yet, across the wrap", kWrapIn1s, 30000, true, [&] { Ask(undescribed); }},
        {"not in time, across the wrap", kWrapIn1s, 30001, false, [&] { Ask(undescribed); }},
        {"asked for nowhere", kSomeTick, 0, false, [&] { Ask(nowhere); }},
        {"asked for nowhere, right after the wrap", 20000, 10000, true, [&] { Ask(nowhere); }},
        {"expired and searched for", kSomeTick, 0, true, [&] { Describe(), SearchInVain(3); }},
        {"in vain", kSomeTick, 0, false, [&] { Describe(), SearchInVain(4); }},
        {"heard from again in between", kSomeTick, 0, true,
         [&] { Describe(), SearchInVain(4), device->SetMaxAge(0), SearchInVain(0); }},
        {"with an embedded device", kSomeTick, 0, true, [&] { read(type); }},
        {"that has no type", kSomeTick, 0, false, [&] { read(""); }},
        {"that is to be released", kSomeTick, 0, false, [&] { read(type), embedded()->SetRelease(true); }},
        {"a described root is above both", kSomeTick, 0, true,
         [&] { read(type), embedded()->SetMaxAge(-1); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        TestClock::s_Now = row.start;
        row.arrange();
        TestClock::Advance(row.afterMs);
        EXPECT_EQ(device->Tickle(), row.keeps);
    }
}

TEST_F(Upkeep, ConnectionsAreClosedThatAreIdleOrOld)
{
    // Idle time is a sum and not a difference, which near the wrap is early or late; age bounds it.
    const struct
    {
        const char* why;
        DWORD start, afterMs;
        bool closes;
    } rows[] = {
        {"not idle yet", kSomeTick, 30000, false},          {"idle", kSomeTick, 30001, true},
        {"the sum has wrapped", kWrapIn1s, 1, true},        {"both have", kWrapIn1s, 30000, false},
        {"the tick has wrapped", 0 - 30001U, 60000, false}, {"too old", 0 - 30001U, 60001, true},
    };
    for (const auto& row : rows) {
        for (const bool action : {false, true}) {
            SCOPED_TRACE(row.why + std::string(action ? ", action" : ", description"));
            TestClock::s_Now = row.start;
            const std::size_t connection = LeaveOpen(action);
            TestClock::Advance(row.afterMs);
            EXPECT_TRUE(device->Tickle()) << "it is described";
            EXPECT_EQ(server.ClosedByClient(connection), row.closes);
            tavronet::PumpUntilQuiet();
            EXPECT_EQ(server.Connections() > connection + 1, row.closes && action) << "the next action";
        }
    }
}

TEST_F(Upkeep, MappingsAreCheckedOneAtATimeListByList)
{
    TestClock::s_Now = 0 - 45000U; // the wrap comes between the checks
    Describe();
    EXPECT_EQ(TickleAfter(20000), "") << "no action has succeeded yet";
    for (const unsigned port : {70U, 71U})
        device->GetPortMaps().push_back(new CUPnPPortMap(port, "TCP", "127.0.0.1", ""));
    ASSERT_TRUE(device->AddPortMap(nullptr, 8080, "", nullptr) &&
                device->AddPortMap(nullptr, 8081, "", nullptr));
    for (const char* const next : {"70", "71", "8080", "8081", "70", "71", "8080", "8081", "70", "71"}) {
        EXPECT_EQ(TickleAfter(10000), "") << next;
        EXPECT_EQ(TickleAfter(1), next);
    }
    EXPECT_TRUE(device->GetExternalIPAddress(nullptr));
    EXPECT_EQ(TickleAfter(10001), "70") << "an answer starts it over";
    EXPECT_TRUE(device->DeletePortMap(nullptr, 8081, nullptr));
    CUPnPDevice::ReleasePortMaps(device->GetPortMaps());
    EXPECT_EQ(TickleAfter(10001) + TickleAfter(10001), "80808080") << "an empty list takes no time";

    CUPnPService* const service = device->FindConnectionService();
    TestClock::Advance(10001);
    InTheWait([&] { EXPECT_EQ(TickleAfter(0), "") << "waits behind an action of the host: no failure"; });
    EXPECT_TRUE(service->Command(true, nullptr, "Own", nullptr));
    EXPECT_TRUE(PumpUntil([&] { return !lookedUp.empty(); }));
}

TEST_F(Upkeep, AMappingThatIsNotAsItWasMadeGivesTheDeviceUp)
{
    const HANDLE cancelled = CreateEventW(nullptr, 1, 1, nullptr);
    const struct
    {
        const char* why;
        std::string* text;
        const char* changed;
    } rows[] = {{"leads to another port", &internalPort, "81"},
                {"leads to another machine", &client, "127.0.0.2"},
                {"is switched off", &enabled, "0"},
                {"says so otherwise", &enabled, "true"},
                {"is not there", &status, "500 No"},
                {"was not asked for", nullptr, ""}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        Describe();
        ASSERT_TRUE(device->AddPortMap(nullptr, 8080, "", nullptr));
        std::string unused;
        std::string& text = row.text != nullptr ? *row.text : unused;
        const std::string as = std::exchange(text, row.changed);
        network.SetCancelEvent(row.text != nullptr ? nullptr : cancelled);
        EXPECT_EQ(TickleAfter(10001), "gone");
        network.SetCancelEvent(nullptr);
        text = as;
        EXPECT_EQ(device->Tickle(), row.text != nullptr) << "a failed exchange is told again";
        EXPECT_EQ(TickleAfter(20000), "") << "no check until the next answer";
        EXPECT_TRUE(device->GetExternalIPAddress(nullptr));
        EXPECT_EQ(TickleAfter(10001), "8080");
    }
    CloseHandle(cancelled);
}

TEST_F(Upkeep, PeriodsOnBothSidesOfTheWrap)
{
    const struct
    {
        DWORD start, afterMs;
        bool complete, issued; // discovery; the search on a device's behalf still counts
    } rows[] = {{kSomeTick, 10000, false, true},  {kSomeTick, 10001, true, false},
                {kWrapIn1s, 1, true, true}, // early: this one is a comparison with a sum
                {kWrapIn1s, 10000, false, true},  {kWrapIn1s, 10001, true, false},
                {0 - 10001U, 10000, false, true}, {0 - 10001U, 300000, false, false}}; // late
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.afterMs << " after " << row.start);
        TestClock::s_Now = row.start;
        CUPnPNetwork searching(nullptr, nullptr);
        device.reset(MakeRecord(&searching, {}));
        device->SetIssuedRediscover(true);
        TestClock::Advance(row.afterMs);
        EXPECT_EQ(searching.DiscoverComplete(), row.complete);
        EXPECT_EQ(device->GetIssuedRediscover(), row.issued);
        device.reset();
        searching.Tickle();
        EXPECT_EQ(searching.GetDiscoverTick(), row.start);
        TestClock::Advance(300001 - row.afterMs);
        searching.Tickle();
        EXPECT_EQ(searching.GetDiscoverTick(), GetTickCount()) << "a full discovery ends every wait";
    }
}

} // namespace
