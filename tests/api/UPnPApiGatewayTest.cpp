// The flat functions and what a gateway says to them.

#include "FlatInterface.h"
#include "tavronet/platform/Event.h"
#include "tavronet/platform/MessageQueue.h"

namespace
{

struct GatewayError
{
    int httpStatus = -1, upnpCode = -1;
    std::string text;
    bool operator==(const GatewayError&) const = default;
};

std::ostream& operator<<(std::ostream& out, const GatewayError& error)
{
    return out << error.httpStatus << " " << error.upnpCode << " '" << error.text << "'";
}

GatewayError LastGatewayError()
{
    GatewayError error, byIndex;
    char text[64] = "";
    EXPECT_EQ(UPnPGetLastGatewayErrorByIndex(0, &byIndex.httpStatus, &byIndex.upnpCode, text, sizeof text),
              UPnPSuccess);
    byIndex.text = text;
    EXPECT_EQ(UPnPGetLastGatewayError(kLocal, &error.httpStatus, &error.upnpCode, text, sizeof text),
              UPnPSuccess);
    error.text = text;
    EXPECT_EQ(error, byIndex);
    return error;
}

const GatewayError kNothingSaid{0, 0, ""};
const GatewayError kAccepted{200, 0, ""};

class FlatInterfaceInDialect : public FlatInterface, public testing::WithParamInterface<int>
{};

TEST_P(FlatInterfaceInDialect, AsksAddsAndDeletes)
{
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(GetParam(), {"--external-ip", "203.0.113.9"}));
    EXPECT_EQ(LastGatewayError(), kNothingSaid);

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

    EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 8080, "game", nullptr), UPnPSuccess);
    EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 8080, nullptr, "UDP"), UPnPSuccess);
    EXPECT_EQ(LastGatewayError(), kAccepted);
    EXPECT_EQ(UPnPDeletePortMap(nullptr, kLocal, 8080, nullptr), UPnPSuccess);
    EXPECT_EQ(UPnPDeletePortMap(nullptr, kLocal, 8080, "UDP"), UPnPSuccess);
    EXPECT_EQ(LastGatewayError(), kAccepted);
    EXPECT_EQ(gateway->Logged("soap AddPortMapping"), 2);
    EXPECT_EQ(gateway->Logged("soap DeletePortMapping"), 2);

    EXPECT_EQ(UPnPDeletePortMap(nullptr, kLocal, 8080, nullptr), UPnPSuccess) << "answered, whatever it said";
    EXPECT_EQ(LastGatewayError(), (GatewayError{500, 714, "NoSuchEntryInArray"}));
}

TEST_P(FlatInterfaceInDialect, ARefusedAddGivesItsReason)
{
    const int refused = GetParam() == 1 ? UPnPFailed : UPnPSuccess; // classic: the gateway has answered
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(GetParam(), {"--refuse", "6000:718", "--lowest-port", "1024"}));

    EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 80, "d", "TCP"), refused);
    EXPECT_EQ(LastGatewayError().upnpCode, 606);
    EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 6000, "d", "TCP"), refused);
    EXPECT_EQ(LastGatewayError(), (GatewayError{500, 718, "ConflictInMappingEntry"}));
    EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 6001, "d", "TCP"), UPnPSuccess);
    EXPECT_EQ(LastGatewayError(), kAccepted) << "the reason of the earlier refusal is gone";

    char text[4];
    int status = 0, code = 0;
    EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 6000, "d", "TCP"), refused);
    EXPECT_EQ(UPnPGetLastGatewayError(kLocal, &status, &code, text, sizeof text), UPnPSuccess);
    EXPECT_STREQ(text, "Con");
}

TEST_P(FlatInterfaceInDialect, ABrokenAnswerFailsAndLeavesOutputs)
{
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(GetParam(), {"--close-early", "soap:20"}));
    char address[8] = "before";
    bool enabled = true;
    EXPECT_EQ(UPnPGetExternalIPAddress(nullptr, kLocal, address, sizeof address), UPnPFailed);
    EXPECT_STREQ(address, "before");
    EXPECT_EQ(UPnPGetDeviceNATEnabled(nullptr, kLocal, &enabled), UPnPFailed);
    EXPECT_FALSE(enabled) << "false whenever the gateway was asked in vain";
    EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 8080, "d", nullptr), UPnPFailed);
    EXPECT_EQ(UPnPDeletePortMap(nullptr, kLocal, 8080, nullptr), UPnPFailed);
}

// Another operation is under way: the add is sent behind it, and nobody learns what becomes of it.
TEST_P(FlatInterfaceInDialect, AnAddInsideAnotherOperationCountsAsAcceptedInNoDialectThatTells)
{
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(GetParam()));
    EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 8079, "d", nullptr), UPnPSuccess) << "leaves a status of 200";
    int nested = -1;
    PostThreadCall(
        CurrentThreadQueue(),
        [](void* result) {
            *static_cast<int*>(result) = UPnPAddPortMap(nullptr, kLocal, 8080, "d", nullptr);
        },
        &nested);

    char address[32];
    EXPECT_EQ(UPnPGetExternalIPAddress(nullptr, kLocal, address, sizeof address), UPnPSuccess);
    EXPECT_EQ(nested, GetParam() == 1 ? UPnPFailed : UPnPSuccess);
    EXPECT_TRUE(tavronet::PumpUntil([&] { return gateway->Logged("soap AddPortMapping") == 2; }))
        << "it is sent";
}

TEST_P(FlatInterfaceInDialect, ACancelEventEndsAnOperation)
{
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(GetParam(), {"--never-answer", "soap"}));
    const HANDLE cancel = CreateEventW(nullptr, 1, 1, nullptr);
    const DWORD start = GetTickCount();
    char address[8] = "before";
    EXPECT_EQ(UPnPGetExternalIPAddress(cancel, kLocal, address, sizeof address), UPnPFailed);
    EXPECT_STREQ(address, "before");
    EXPECT_EQ(UPnPAddPortMap(cancel, kLocal, 8080, "d", nullptr), UPnPFailed);
    EXPECT_LT(ElapsedMs(GetTickCount(), start), 5000U);
    CloseHandle(cancel);
}

INSTANTIATE_TEST_SUITE_P(Dialects, FlatInterfaceInDialect, testing::Values(0, 1),
                         [](const auto& row) { return row.param == 0 ? "Classic" : "Modern"; });

} // namespace
