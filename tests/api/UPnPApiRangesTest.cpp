// The flat functions for ranges of ports.

#include "FlatInterface.h"
#include "tavronet/platform/MessageQueue.h"

namespace
{

TEST_F(FlatInterface, RangesAreMappedWhereTheyFitAndDeletedUpToTheLastPort)
{
    unsigned port = 6000;
    EXPECT_EQ(UPnPAddPortMappingRange(nullptr, kLocal, nullptr, 2, "d", nullptr), UPnPNoNetwork);
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(1, {"--refuse", "6001:718"}));
    EXPECT_EQ(UPnPAddPortMappingRange(nullptr, kLocal, &port, 2, "Game %d", nullptr), UPnPSuccess);
    EXPECT_EQ(port, 6002U);
    EXPECT_EQ(gateway->Logged("=Game 2"), 2) << "each attempt counts anew";

    const int before = gateway->Logged("soap ");
    port = 65535;
    EXPECT_EQ(UPnPAddPortMappingRange(nullptr, kLocal, &port, 2, "d", nullptr), UPnPFailed);
    EXPECT_EQ(port, 65535U);
    EXPECT_EQ(UPnPAddPortMappingRange(nullptr, kLocal, nullptr, 2, "d", nullptr), UPnPFailed);
    EXPECT_EQ(UPnPAddPortMappingRange(nullptr, "", &port, 2, "d", nullptr), UPnPNoDevice);
    EXPECT_EQ(gateway->Logged("soap "), before);
    const struct
    {
        unsigned first, count;
        int result, deletes;
    } rows[] = {{6002, 2, UPnPSuccess, 2},  {65534, 2, UPnPSuccess, 2}, {65534, 4000000000, UPnPFailed, 2},
                {70000, 0, UPnPSuccess, 0}, {70000, 1, UPnPFailed, 0},  {0xFFFFFFFF, 2, UPnPFailed, 0}};
    int deletes = gateway->Logged("soap DeletePortMapping");
    for (const auto& row : rows) {
        EXPECT_EQ(UPnPDeletePortMappingRange(nullptr, kLocal, row.first, row.count, "TCP"), row.result);
        EXPECT_EQ(gateway->Logged("soap DeletePortMapping"), deletes += row.deletes) << row.first;
    }

    const auto closes = [](void*) { UPnPClose(); };
    PostThreadCall(CurrentThreadQueue(), closes, nullptr);
    EXPECT_EQ(UPnPDeletePortMappingRange(nullptr, kLocal, 6000, 9, nullptr), UPnPFailed);
    EXPECT_EQ(UPnPDeletePortMappingRange(nullptr, kLocal, 6000, 9, nullptr), UPnPNoNetwork);
}

} // namespace
