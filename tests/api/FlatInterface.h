#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tavronet/api/UPnPApi.h"
#include "tavronet/platform/TestSeams.h"
#include "tavronet/platform/TickCount.h"
#include "tests/support/GatewayProcess.h"
#include "tests/support/LoopbackPair.h"

inline constexpr char kLocal[] = "10.77.1.2"; // of this machine on the private LAN
inline constexpr char kGateway[] = "10.77.1.1";

/// A tick counter that starts anywhere and runs faster than real time, so that a discovery period passes in a
/// moment while waits keep the real clock. It stands still at first, so that what a test sets up happens at a
/// known tick.
class FastClock
{
public:
    explicit FastClock(DWORD start, int factor = 50)
    {
        s_Start = start;
        s_Factor = factor;
        s_Begin = std::chrono::steady_clock::now();
        SetTickSource(&Tick);
    }
    ~FastClock() { SetTickSource(nullptr); }
    FastClock(const FastClock&) = delete;
    FastClock& operator=(const FastClock&) = delete;

    static int RealMs()
    {
        const auto passed = std::chrono::steady_clock::now() - s_Begin;
        return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(passed).count());
    }

private:
    static constexpr int kStandsStillMs = 150;

    static DWORD Tick()
    {
        return s_Start + static_cast<DWORD>(std::max(0, RealMs() - kStandsStillMs) * s_Factor);
    }

    inline static DWORD s_Start;
    inline static int s_Factor;
    inline static std::chrono::steady_clock::time_point s_Begin;
};

/// The flat interface on a private LAN, started and ended by each test.
class FlatInterface : public testing::Test
{
protected:
    void SetUp() override
    {
        const char* const lan = std::getenv("TAVRONET_LAN");
        if (lan == nullptr || std::string_view(lan) != "private")
            GTEST_SKIP() << "searches only on a private LAN; run under scripts/with-lan";
    }

    void TearDown() override
    {
        UPnPClose();
        UPnPSetDialect(0);
        EXPECT_EQ(tavronet::CountLivingObjects(), (tavronet::LivingObjects{0, 0}));
    }

    /// Starts a simulated gateway and the flat interface, and waits until that one is described.
    void StartWithGateway(int dialect, std::vector<std::string> arguments = {})
    {
        arguments.insert(arguments.end(), {"--address", kGateway});
        gateway = std::make_unique<tavronet::GatewayProcess>(arguments,
                                                             tavronet::GatewayProcess::Place::GatewayOfLan);
        ASSERT_EQ(UPnPSetDialect(dialect), UPnPSuccess);
        ASSERT_EQ(UPnPDiscoverStartup(), UPnPSuccess);
        ASSERT_TRUE(tavronet::PumpUntil([] {
            bool complete = false;
            return UPnPDeviceIsDescriptionComplete(nullptr, kLocal, &complete) == UPnPSuccess && complete;
        }));
    }

    std::unique_ptr<tavronet::GatewayProcess> gateway;
};
