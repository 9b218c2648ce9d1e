// Ranges of ports against a simulated gateway: where they end up, and what host code in the middle does to them.

#include <gtest/gtest.h>

#include <functional>

#include "GatewayRecords.h"
#include "tavronet/platform/Event.h"
#include "tests/support/GatewayProcess.h"

namespace
{

struct DescribedGateway
{
    explicit DescribedGateway(const std::vector<std::string>& arguments) : gateway(arguments)
    {
        device.reset(MakeRecord(&network, {.location = gateway.Url()}));
        device->RequestDescription();
        EXPECT_TRUE(PumpUntil([&] { return device->DiscoverComplete(); }));
    }
    int Asked(const std::string& action) const { return gateway.Logged("soap " + action); }

    NoAdapters noAdapters;
    CUPnPNetwork network{nullptr, nullptr};
    tavronet::GatewayProcess gateway;
    std::unique_ptr<CUPnPDevice> device;
};

TEST(PortRanges, AreMappedWhereTheGatewayHasRoom)
{
    const struct
    {
        const char* why;
        std::vector<std::string> gateway;
        unsigned taken, first, count, at; // at: where the range ends up; 0: the call fails
        int looks, adds;
        std::size_t kept, inTable; // records, mappings
    } rows[] = {
        {"free", {}, 0, 60, 3, 60, 3, 3, 3, 3},
        {"right above", {}, 61, 60, 2, 62, 4, 3, 2, 3},
        {"refused", {"--refuse", "71:718"}, 0, 70, 2, 72, 4, 4, 2, 2},
        {"four refusals, one port", {"--refuse", "70-73:606"}, 0, 70, 1, 74, 5, 5, 1, 1},
        {"five refusals", {"--refuse", "70-79:606"}, 0, 70, 2, 0, 10, 10, 0, 0},
        {"beyond the last", {}, 0, 65534, 3, 0, 0, 0, 0, 0},
        {"pushed beyond it", {}, 65533, 65533, 3, 0, 1, 1, 0, 1},
        {"no port", {}, 0, 60, 0, 0, 0, 0, 0, 0},
        {"the sum wraps", {}, 0, 0xFFFFFFFF, 2, 0, 0, 0, 0, 0},
        {"no look", {"--close-early", "GetSpecificPortMappingEntry:0"}, 0, 80, 2, 80, 1, 2, 2, 2},
        {"no answer to an add", {"--close-early", "AddPortMapping:0:1"}, 0, 80, 3, 0, 3, 1, 3, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        DescribedGateway g(row.gateway);
        EXPECT_TRUE(row.taken == 0 || g.device->AddPortMap(nullptr, row.taken, "old", nullptr));
        std::vector<CUPnPPortMap*> list;
        EXPECT_EQ(g.device->AddPortMaps(nullptr, row.first, row.count, "%d", list, "UDP"), row.at != 0);
        EXPECT_EQ(g.Asked("GetSpecificPortMappingEntry"), row.looks);
        EXPECT_EQ(g.Asked("AddPortMapping"), row.adds);
        ASSERT_EQ(list.size(), row.kept);
        EXPECT_TRUE(row.at == 0 || list[0]->ExternalPort() == row.at);
        EXPECT_TRUE(g.device->GetPortMaps(nullptr, list));
        EXPECT_EQ(list.size() - row.kept, row.inTable) << "nothing else is left";
        CUPnPDevice::ReleasePortMaps(list);
    }
}

TEST(PortRanges, SurviveWhateverHappensInTheirWaits)
{
    const HANDLE cancel = CreateEventW(nullptr, /*manualReset*/ 0, 0, nullptr); // reset once it was seen
    const auto cancels = [&](auto&) { SetEvent(cancel); };
    const auto deletesDevice = [](auto& device) { device.reset(); };
    const auto freesAll = [](auto& device) { CUPnPDevice::ReleasePortMaps(device->GetPortMaps()); };
    const struct
    {
        const char* during;
        std::function<void(std::unique_ptr<CUPnPDevice>&)> disturb;
        int adds;      // six: done
        unsigned span; // from the lowest to the highest port that is kept
    } rows[] = {{"GetSpecificPortMappingEntry", cancels, 0, 0},
                {"GetSpecificPortMappingEntry", deletesDevice, 0, 0},
                {"AddPortMapping", cancels, 1, 2},
                {"AddPortMapping", deletesDevice, 1, 0},
                {"AddPortMapping", freesAll, 1, 0},
                {"DeletePortMapping", cancels, 3, 0},
                {"DeletePortMapping", deletesDevice, 3, 0},
                {"DeletePortMapping", freesAll, 6, 2}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.during << ", row " << &row - rows);
        DescribedGateway g({"--refuse", "7001:718", "--delay", std::string(row.during) + ":100:1"});
        std::function<void()> hook = [&, done = false]() mutable {
            if (!done && g.Asked(row.during) > 0)
                row.disturb(g.device), done = true;
        };
        SetWaitHook([](void* call) { (*static_cast<std::function<void()>*>(call))(); }, &hook);
        EXPECT_EQ(g.device->AddPortMaps(cancel, 7000, 3, "%d", nullptr), row.adds == 6);
        SetWaitHook(nullptr, nullptr);
        EXPECT_EQ(g.Asked("AddPortMapping"), row.adds);
        unsigned start = 0, end = 0;
        if (g.device != nullptr)
            g.device->GetStartEndPorts(start, end);
        EXPECT_EQ(end - start, row.span);
    }
    CloseHandle(cancel);
}

} // namespace
