#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tavronet/api/UPnPApi.h"
#include "tavronet/platform/TestSeams.h"
#include "tavronet/platform/TickCount.h"
#include "tests/support/GatewayProcess.h"
#include "tests/support/LoopbackPair.h"
#include "tests/support/OnPrivateLan.h"

inline constexpr char kLocal[] = "10.77.1.2"; // of this machine on the private LAN

/// The flat interface on a private LAN, started and ended by each test.
class FlatInterface : public tavronet::OnPrivateLan
{
protected:
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
