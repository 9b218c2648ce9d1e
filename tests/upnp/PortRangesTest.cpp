// Ranges of ports against a simulated gateway: where they end up, and what host code in the middle does to them.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "GatewayRecords.h"
#include "tavronet/platform/Event.h"
#include "tavronet/platform/TextConversion.h"
#include "tavronet/upnp/UPnPService.h"
#include "tests/support/GatewayProcess.h"

namespace
{

using PortMapList = std::vector<CUPnPPortMap*>;

/// A described gateway, and the list that a host gives.
struct Fixture
{
    explicit Fixture(const std::vector<std::string>& arguments) : gateway(arguments)
    {
        device.reset(MakeRecord(&network, {.location = gateway.Url()}));
        device->RequestDescription();
        EXPECT_TRUE(PumpUntil([&] { return device->DiscoverComplete(); }));
    }
    ~Fixture()
    {
        SetWaitHook(nullptr, nullptr);
        CUPnPDevice::ReleasePortMaps(list);
        device.reset();
        CloseHandle(cancel);
    }

    int Asked(const char* action) const { return gateway.Logged(std::string("soap ") + action); }

    /// The records of a list, "6000 TCP Game 1, ...".
    static std::string Text(const PortMapList& records)
    {
        CString text;
        for (const CUPnPPortMap* record : records)
            text += CString(text.IsEmpty() ? L"" : L", ") + record->GetExternalPort() + L" " +
                    record->GetProtocol() + L" " + record->GetPortMappingDescription();
        return std::string(Narrow(text).View());
    }
    std::string Table() const
    {
        PortMapList entries;
        EXPECT_TRUE(device->GetPortMaps(nullptr, entries));
        const std::string text = Text(entries);
        CUPnPDevice::ReleasePortMaps(entries);
        return text;
    }

    NoAdapters noAdapters;
    const HANDLE cancel =
        CreateEventW(nullptr, /*manualReset*/ 0, 0, nullptr); // leaves no trace when it was seen
    CUPnPNetwork network{nullptr, nullptr};
    tavronet::GatewayProcess gateway;
    std::unique_ptr<CUPnPDevice> device;
    PortMapList list;
};

TEST(PortRanges, AreMappedWhereTheGatewayHasRoom)
{
    const struct
    {
        const char* why;
        std::vector<std::string> gateway;
        unsigned taken, first, count;
        const char* protocol;
        std::string mapped; // empty: the call fails
        std::size_t kept;   // records in the list
        int looks, adds;    // exchanges
    } rows[] = {
        {"free", {}, 9, 6000, 3, nullptr, "6000 TCP Game 1, 6001 TCP Game 2, 6002 TCP Game 3", 3, 3, 3},
        {"taken: right above", {}, 6001, 6000, 2, "UDP", "6002 UDP Game 1, 6003 UDP Game 2", 2, 4, 2},
        {"refused", {"--refuse", "7001:718"}, 9, 7000, 2, "TCP", "7002 TCP Game 1, 7003 TCP Game 2", 2, 4, 4},
        {"four refusals", {"--refuse", "700-703:606"}, 9, 700, 1, "TCP", "704 TCP Game 1", 1, 5, 5},
        {"five refusals", {"--refuse", "700-709:606"}, 9, 700, 2, "TCP", "", 0, 10, 10},
        {"one port, the last", {}, 9, 65535, 1, "TCP", "65535 TCP Game 1", 1, 1, 1},
        {"beyond the last", {}, 9, 65534, 3, "TCP", "", 0, 0, 0},
        {"pushed beyond", {}, 65533, 65533, 3, "TCP", "", 0, 1, 0},
        {"no port", {}, 9, 6000, 0, "TCP", "", 0, 0, 0},
        {"the sum wraps", {}, 9, 0xFFFFFFFF, 2, "TCP", "", 0, 0, 0},
        {"no answer to a look: the adds decide",
         {"--close-early", "GetSpecificPortMappingEntry:0"},
         9,
         80,
         2,
         "TCP",
         "80 TCP Game 1, 81 TCP Game 2",
         2,
         1,
         2},
        {"no answer to an add", {"--close-early", "AddPortMapping:0:1"}, 0, 80, 3, "TCP", "", 3, 3, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        Fixture f(row.gateway);
        EXPECT_TRUE(row.taken == 0 || f.device->AddPortMap(nullptr, row.taken, "taken", nullptr));
        const int addsBefore = row.taken != 0;
        EXPECT_EQ(f.device->AddPortMaps(f.cancel, row.first, row.count, "Game %d", f.list, row.protocol),
                  !row.mapped.empty());
        EXPECT_EQ(f.Asked("GetSpecificPortMappingEntry"), row.looks);
        EXPECT_EQ(f.Asked("AddPortMapping") - addsBefore, row.adds);
        EXPECT_EQ(f.list.size(), row.kept);
        if (row.mapped.empty())
            continue;
        EXPECT_EQ(Fixture::Text(f.list), row.mapped);
        EXPECT_EQ(f.Table(), std::to_string(row.taken) + " TCP taken, " + row.mapped)
            << "nothing else is left";
    }
}

TEST(PortRanges, InTheDevicesOwnListShareTheirFate)
{
    Fixture f({"--refuse", "8001:718"});
    CUPnPDevice& device = *f.device;
    unsigned start = 1, end = 1;
    device.GetStartEndPorts(start, end);
    EXPECT_EQ(start + end, 0U);
    EXPECT_TRUE(device.AddPortMaps(f.cancel, 6000, 3, "a", nullptr));
    EXPECT_TRUE(device.AddPortMaps(f.cancel, 5000, 2, "100%%", nullptr));
    device.GetStartEndPorts(start, end);
    EXPECT_EQ(std::pair(start, end), std::pair(5000U, 6002U));
    EXPECT_TRUE(device.AddPortMaps(f.cancel, 8000, 2, "%c", nullptr));
    EXPECT_EQ(device.NumPortMaps(), 2U) << "the refusal has ended the earlier ranges";
    EXPECT_TRUE(device.DeletePortMaps(f.cancel));
    EXPECT_EQ(f.Table(), "");
}

/// What host code does while an exchange of the operation is under way.
using Disturbance = void (*)(Fixture& f);

TEST(PortRanges, SurviveWhateverHappensInTheirWaits)
{
    const Disturbance cancels = [](Fixture& f) { SetEvent(f.cancel); };
    const Disturbance deletesDevice = [](Fixture& f) { f.device.reset(); };
    const Disturbance freesAll = [](Fixture& f) {
        CUPnPDevice::ReleasePortMaps(f.list);
        CUPnPDevice::ReleasePortMaps(f.device->GetPortMaps());
    };
    const Disturbance takesOne = [](Fixture& f) {
        PortMapList& list = f.list.empty() ? f.device->GetPortMaps() : f.list;
        delete list.back();
        list.back() = nullptr;
    };
    const char *const look = "GetSpecificPortMappingEntry", *const add = "AddPortMapping",
                      *const remove = "DeletePortMapping";
    const struct
    {
        const char* why;
        const char* during;
        Disturbance disturb;
        bool result;
        int adds; // exchanges
    } rows[] = {
        {"cancelled while looking", look, cancels, false, 0},
        {"cancelled while adding", add, cancels, false, 1},
        {"cancelled while taking back", remove, cancels, false, 3},
        {"deleted while looking", look, deletesDevice, false, 0},
        {"deleted while adding", add, deletesDevice, false, 1},
        {"deleted while taking back", remove, deletesDevice, false, 3},
        {"emptied while looking", look, freesAll, true, 6},
        {"emptied while adding", add, freesAll, false, 1},
        {"emptied while taking back", remove, freesAll, true, 6},
        {"one taken while adding", add, takesOne, false, 2},
    };
    for (const bool own : {false, true}) {
        for (const auto& row : rows) {
            SCOPED_TRACE(std::string(row.why) + (own ? " to the own list" : ""));
            Fixture f({"--refuse", "7001:718", "--delay", std::string(row.during) + ":100:1"});
            std::function<void()> hook = [&, done = false]() mutable {
                if (!done && f.Asked(row.during) > 0) {
                    done = true;
                    row.disturb(f);
                }
            };
            SetWaitHook([](void* call) { (*static_cast<std::function<void()>*>(call))(); }, &hook);
            CUPnPDevice& device = *f.device;
            EXPECT_EQ(own ? device.AddPortMaps(f.cancel, 7000, 3, "%d", nullptr)
                          : device.AddPortMaps(f.cancel, 7000, 3, "%d", f.list, nullptr),
                      row.result);
            SetWaitHook(nullptr, nullptr);
            EXPECT_EQ(f.Asked("AddPortMapping"), row.adds);
            EXPECT_EQ(f.device == nullptr, row.disturb == deletesDevice);
        }
    }
}

} // namespace
