// What the upkeep answers in each state of a device, what it checks and what it closes, on both sides of the wrap of
// the tick.

#include "GatewayRecords.h"
#include "tavronet/platform/Event.h"
#include "tavronet/upnp/DescriptionBuilder.h"

namespace
{

constexpr DWORD kSomeTick = 1000000, kWrapIn1s = 0 - 1000U;

struct Upkeep : testing::Test, GatewayDevice
{
    /// Upkeep after `milliseconds`. @return which port it looked up, "gone" when it gives the device up
    std::string TickleAfter(DWORD milliseconds)
    {
        TestClock::Advance(milliseconds);
        gateway.lookUps = {""};
        return device->Tickle() ? gateway.lookUps.back() : "gone";
    }
};

TEST_F(Upkeep, WhatItAnswersInEachState)
{
    const auto described = [&]() -> CUPnPDevice& { return Describe(), *device; };
    const auto embedded = [&]() -> CUPnPDevice& {
        return dynamic_cast<CUPnPDevice&>(*tavronet::DescriptionBuilder::ChildrenOf(described())[0]);
    };
    const auto searchedInVain = [&](int times) -> CUPnPDevice& {
        described().SetMaxAge(-1);
        for (int i = 0; i < times; ++i)
            device->SetIssuedRediscover(true);
        return *device;
    };
    const auto asked = [&] { Ask({.location = server.Url("/d")}); };
    const std::tuple<const char*, DWORD, DWORD, bool, std::function<void()>> rows[] = {
        {"described", kSomeTick, 40000, true, described},
        {"to be released", kSomeTick, 0, false, [&] { described().SetRelease(true); }},
        {"not described yet", kSomeTick, 30000, true, asked},
        {"not described in time", kSomeTick, 30001, false, asked},
        {"not yet, across the wrap", kWrapIn1s, 30000, true, asked},
        {"not in time, across the wrap", kWrapIn1s, 30001, false, asked},
        {"asked for nowhere", kSomeTick, 0, false, [&] { Ask({.location = "http://127.0.0.1:0/"}); }},
        {"the same right after the wrap", 20000, 10000, true,
         [&] { Ask({.location = "http://127.0.0.1:0/"}); }},
        {"expired and searched for", kSomeTick, 0, true, [&] { searchedInVain(3); }},
        {"in vain", kSomeTick, 0, false, [&] { searchedInVain(4); }},
        {"again", kSomeTick, 0, true, [&] { searchedInVain(4).SetMaxAge(0), device->SetMaxAge(-1); }},
        {"with an embedded device that has no type", kSomeTick, 0, false, [&] { embedded().GetType() = ""; }},
        {"that is to be released", kSomeTick, 0, false, [&] { embedded().SetRelease(true); }},
        {"that is expired below a root that is not", kSomeTick, 0, true, [&] { embedded().SetMaxAge(-1); }},
        {"thrown out of an action", kSomeTick, 0, false,
         [&] {
             described();
             InTheWait([] { throw 7; });
             EXPECT_THROW(device->GetExternalIPAddress(nullptr), int);
         }},
    };
    for (const auto& [why, start, afterMs, keeps, arrange] : rows) {
        TestClock::s_Now = start;
        arrange();
        TestClock::Advance(afterMs);
        EXPECT_EQ(device->Tickle(), keeps) << why;
    }
}

TEST_F(Upkeep, ConnectionsAreClosedThatAreIdleOrOld)
{
    // Idle time is a sum and not a difference, which near the wrap is early or late; age bounds it.
    const std::tuple<const char*, DWORD, DWORD, bool> rows[] = {
        {"not idle yet", kSomeTick, 30000, false},          {"idle", kSomeTick, 30001, true},
        {"the sum has wrapped", kWrapIn1s, 1, true},        {"both have", kWrapIn1s, 30000, false},
        {"the tick has wrapped", 0 - 30001U, 60000, false}, {"too old", 0 - 30001U, 60001, true},
    };
    for (const auto& [why, start, afterMs, closes] : rows) {
        SCOPED_TRACE(why);
        TestClock::s_Now = start;
        gateway.silent = false;
        Describe();
        gateway.silent = true;
        const std::size_t asked = server.Connections(), acted = asked + 1;
        device->RequestDescription();
        EXPECT_TRUE(device->FindConnectionService()->Command(false, nullptr, "Act", nullptr));
        EXPECT_TRUE(PumpUntil([&] { return server.Requests().size() > acted; }));
        TestClock::Advance(afterMs);
        EXPECT_TRUE(device->Tickle());
        EXPECT_TRUE(server.ClosedByClient(asked) == closes && server.ClosedByClient(acted) == closes);
    }
}

TEST_F(Upkeep, MappingsAreCheckedOneAtATimeListByList)
{
    TestClock::s_Now = 0 - 45000U; // the wrap comes between the checks
    Describe();
    EXPECT_EQ(TickleAfter(20000), "") << "no action has succeeded yet";
    EXPECT_TRUE(device->AddPortMaps(nullptr, 70, 2, "", nullptr));
    EXPECT_TRUE(device->AddPortMap(nullptr, 8080, "", nullptr) &&
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
    TestClock::Advance(10001);
    InTheWait([&] { EXPECT_EQ(TickleAfter(0), "") << "waits behind an action of the host: no failure"; });
    EXPECT_TRUE(device->FindConnectionService()->Command(true, nullptr, "Own", nullptr));
    EXPECT_TRUE(PumpUntil([&] { return gateway.lookUps.back() == "8080"; }));
}

TEST_F(Upkeep, AMappingThatIsNotAsItWasMadeGivesTheDeviceUp)
{
    const HANDLE cancelled = CreateEventW(nullptr, 1, 1, nullptr);
    const std::tuple<const char*, ToyGateway::Mapping, HANDLE> rows[] = {
        {"leads to another port", {"81", "127.0.0.1", "1"}, nullptr},
        {"leads to another machine", {"8080", "127.0.0.2", "1"}, nullptr},
        {"is switched off", {"8080", "127.0.0.1", "0"}, nullptr},
        {"says so otherwise", {"8080", "127.0.0.1", "true"}, nullptr},
        {"was not asked for", {"8080", "127.0.0.1", "1"}, cancelled},
    };
    for (const auto& [why, found, cancel] : rows) {
        SCOPED_TRACE(why);
        Describe();
        EXPECT_TRUE(device->AddPortMap(nullptr, 8080, "", nullptr));
        const ToyGateway::Mapping made = std::exchange(gateway.table["8080"], found);
        network->SetCancelEvent(cancel);
        EXPECT_EQ(TickleAfter(10001), "gone");
        network->SetCancelEvent(nullptr);
        gateway.table["8080"] = made;
        EXPECT_EQ(device->Tickle(), cancel == nullptr) << "a failed exchange is told again";
        EXPECT_EQ(TickleAfter(20000), "") << "no check until the next answer";
        EXPECT_TRUE(device->GetExternalIPAddress(nullptr));
        EXPECT_EQ(TickleAfter(10001), "8080");
    }
    CloseHandle(cancelled);
}

} // namespace
