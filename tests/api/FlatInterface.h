#pragma once

#include <gtest/gtest.h>

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
        SetTickSource(nullptr);
        EXPECT_EQ(tavronet::CountLivingObjects(), (tavronet::LivingObjects{0, 0}));
    }

    /// Starts a simulated gateway instead of an earlier one, and the flat interface; waits until the gateway
    /// is described.
    void StartWithGateway(int dialect, std::vector<std::string> arguments = {})
    {
        UPnPClose();
        gateway.reset();
        arguments.insert(arguments.end(), {"--address", "10.77.1.1"});
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
