#include "FlatInterface.h"
#include "tavronet/platform/MessageQueue.h"

TEST_F(FlatInterface, RangesAreMappedWhereTheyFitAndDeletedUpToTheLastPort)
{
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(1, {"--refuse", "6001:718"}));
    unsigned port = 6000;
    EXPECT_EQ(UPnPAddPortMappingRange(nullptr, kLocal, &port, 2, "Game %d", nullptr), UPnPSuccess);
    EXPECT_EQ(port, 6002U);
    EXPECT_EQ(gateway->Logged("=Game 2"), 2) << "each attempt counts anew";

    port = 65535;
    const int before = gateway->Logged("soap ");
    EXPECT_EQ(UPnPAddPortMappingRange(nullptr, kLocal, &port, 2, "d", nullptr), UPnPFailed);
    EXPECT_EQ(UPnPAddPortMappingRange(nullptr, kLocal, nullptr, 2, "d", nullptr), UPnPFailed);
    EXPECT_EQ(port + static_cast<unsigned>(gateway->Logged("soap ") - before), 65535U) << "no traffic";

    const auto deletes = [&](unsigned first, unsigned count, int result) {
        const int asked = gateway->Logged("soap DeletePortMapping");
        EXPECT_EQ(UPnPDeletePortMappingRange(nullptr, kLocal, first, count, "TCP"), result) << first;
        return gateway->Logged("soap DeletePortMapping") - asked;
    };
    EXPECT_EQ(deletes(6002, 2, UPnPSuccess), 2);
    EXPECT_EQ(deletes(65534, 2, UPnPSuccess), 2) << "refused, which is an answer";
    EXPECT_EQ(deletes(65534, 4000000000, UPnPFailed), 2);
    EXPECT_EQ(deletes(0xFFFFFFFF, 2, UPnPFailed), 0);
    EXPECT_EQ(deletes(70000, 0, UPnPSuccess), 0);

    PostThreadCall(
        CurrentThreadQueue(), [](void*) { UPnPClose(); }, nullptr);
    EXPECT_LE(deletes(6000, 9, UPnPFailed), 1) << "without a device";
}
