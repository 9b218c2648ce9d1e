// The flat functions and what a gateway says to them.

#include <functional>
#include <thread>

#include "FlatInterface.h"
#include "tavronet/platform/Event.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/TickCount.h"

namespace
{

/// "500 718 ConflictInMappingEntry".
std::string LastGatewayError(int textSize = 64)
{
    int status = -1, code = -1;
    std::string text(64, '#');
    EXPECT_EQ(UPnPGetLastGatewayErrorByIndex(0, &status, &code, text.data(), textSize), UPnPSuccess);
    EXPECT_EQ(UPnPGetLastGatewayError(kLocal, &status, &code, text.data(), textSize), UPnPSuccess);
    return std::to_string(status) + " " + std::to_string(code) + " " + text.c_str();
}

class FlatInterfaceInDialect : public FlatInterface, public testing::WithParamInterface<int>
{
protected:
    const int refused = GetParam() == 1 ? UPnPFailed : UPnPSuccess; // classic: the gateway has answered
};

TEST_P(FlatInterfaceInDialect, AsksAddsAndDeletes)
{
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(
        GetParam(), {"--external-ip", "203.0.113.9", "--refuse", "6000:718", "--lowest-port", "1024"}));
    EXPECT_EQ(LastGatewayError(), "0 0 ");

    char address[32] = "";
    EXPECT_EQ(UPnPGetExternalIPAddress(nullptr, kLocal, address, sizeof address), UPnPSuccess);
    EXPECT_STREQ(address, "203.0.113.9");
    EXPECT_EQ(UPnPGetExternalIPAddressByIndex(nullptr, 0, address, 4), UPnPSuccess);
    EXPECT_STREQ(address, "203");
    bool enabled = false;
    EXPECT_EQ(UPnPGetDeviceNATEnabled(nullptr, kLocal, &enabled), UPnPSuccess);
    EXPECT_TRUE(enabled);
    ASSERT_TRUE(gateway->Command("nat 0"));
    EXPECT_EQ(UPnPGetDeviceNATEnabledByIndex(nullptr, 0, &enabled), UPnPSuccess);
    EXPECT_FALSE(enabled);

    EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 80, "game", nullptr), refused);
    EXPECT_EQ(LastGatewayError(4).substr(0, 8), "500 606 ");
    EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 6000, "game", nullptr), refused);
    EXPECT_EQ(LastGatewayError(), "500 718 ConflictInMappingEntry");
    EXPECT_EQ(LastGatewayError(4), "500 718 Con");
    EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 8080, nullptr, "UDP"), UPnPSuccess);
    EXPECT_EQ(LastGatewayError(), "200 0 ") << "the reason of the earlier refusal is gone";

    EXPECT_EQ(UPnPDeletePortMap(nullptr, kLocal, 8080, nullptr), UPnPSuccess) << "answered, whatever it said";
    EXPECT_EQ(LastGatewayError(), "500 714 NoSuchEntryInArray");
    EXPECT_EQ(UPnPDeletePortMap(nullptr, kLocal, 8080, "UDP"), UPnPSuccess);
    EXPECT_EQ(LastGatewayError(), "200 0 ");
}

TEST_P(FlatInterfaceInDialect, AnOperationThatGetsNoAnswerFailsAndLeavesItsOutputs)
{
    char address[8] = "before";
    bool enabled = true;
    const std::pair<const char*, std::function<int(HANDLE)>> operations[] = {
        {"GetExternalIPAddress", [&](HANDLE c) { return UPnPGetExternalIPAddress(c, kLocal, address, 8); }},
        {"GetNATRSIPStatus", [&](HANDLE c) { return UPnPGetDeviceNATEnabled(c, kLocal, &enabled); }},
        {"AddPortMapping", [](HANDLE c) { return UPnPAddPortMap(c, kLocal, 8080, "d", nullptr); }},
        {"DeletePortMapping", [](HANDLE c) { return UPnPDeletePortMap(c, kLocal, 8080, nullptr); }},
    };
    const HANDLE cancel = CreateEventW(nullptr, 0, 0, nullptr);
    for (const std::string_view end : {"closed", "broken", "cancelled"})
        for (const auto& [action, call] : operations) {
            SCOPED_TRACE(std::string(action) + " " + end.data());
            const char* const fault = end == "broken" ? "--close-early=soap:20" : "--never-answer=soap";
            ASSERT_NO_FATAL_FAILURE(StartWithGateway(GetParam(), {fault}));
            const DWORD start = GetTickCount();
            std::thread ends([&, queue = CurrentThreadQueue()] {
                EXPECT_TRUE(gateway->WaitForLog(std::string("soap ") + action));
                if (end == "closed")
                    PostThreadCall(
                        queue, [](void*) { EXPECT_EQ(UPnPClose(), UPnPSuccess); }, nullptr);
                else if (end == "cancelled")
                    SetEvent(cancel);
            });
            EXPECT_EQ(call(cancel), UPnPFailed);
            ends.join();
            EXPECT_EQ(UPnPTickle(), end == "closed" ? UPnPNoNetwork : UPnPSuccess);
            EXPECT_LT(ElapsedMs(GetTickCount(), start), 8000U) << "does not sit out the wait for the answer";
            EXPECT_TRUE(enabled || end != "closed") << "false only when the gateway was asked in vain";
        }
    CloseHandle(cancel);
    EXPECT_STREQ(address, "before");
    EXPECT_FALSE(enabled);
}

// Another operation is under way: the add is sent behind it, and nobody learns what becomes of it.
TEST_P(FlatInterfaceInDialect, AnAddInsideAnotherOperationCountsAsAcceptedInNoDialectThatTells)
{
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(GetParam()));
    EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 8079, "d", nullptr), UPnPSuccess) << "leaves a status of 200";
    int nested = -1;
    const auto add = [](void* result) {
        *static_cast<int*>(result) = UPnPAddPortMap(nullptr, kLocal, 8080, "d", nullptr);
    };
    PostThreadCall(CurrentThreadQueue(), add, &nested);
    char address[32];
    EXPECT_EQ(UPnPGetExternalIPAddress(nullptr, kLocal, address, sizeof address), UPnPSuccess);
    EXPECT_EQ(nested, refused);
    EXPECT_TRUE(tavronet::PumpUntil([&] { return gateway->Logged("soap AddPortMapping") == 2; })) << "sent";
}

INSTANTIATE_TEST_SUITE_P(Dialects, FlatInterfaceInDialect, testing::Values(0, 1),
                         [](const auto& row) { return row.param == 0 ? "Classic" : "Modern"; });

} // namespace
