// The flat interface on a private LAN, with a simulated gateway.

#include "tavronet/api/UPnPApi.h"

#include <chrono>
#include <ctime>
#include <functional>
#include <optional>

#include "tavronet/platform/Event.h"
#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/TestSeams.h"
#include "tavronet/platform/TickCount.h"
#include "tests/support/PlainSocket.h"
#include "tests/support/Programs.h"

namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr char kLocal[] = "10.77.1.2"; // of this machine on the private LAN

// What the host's own handlers do inside waits.
using Handler = void (*)(void* event);
const Handler kNothing = [](void*) {};
const Handler kClose = [](void*) { EXPECT_EQ(UPnPClose(), UPnPSuccess); };
const Handler kThrow = [](void*) { tavronet::ThrowMemoryException(); };
const Handler kCancel = [](void* event) { SetEvent(event); };

class FlatInterface : public tavronet::OnPrivateLan
{
protected:
    void TearDown() override
    {
        UPnPClose();
        CloseHandle(cancel);
        SetTickSource(nullptr);
        EXPECT_EQ(tavronet::CountLivingObjects(), (tavronet::LivingObjects{0, 0}));
    }

    /// Starts a gateway instead of an earlier one, and the interface; waits until the gateway is described.
    void StartWithGateway(int dialect, std::vector<std::string> arguments = {})
    {
        UPnPClose();
        arguments.insert(arguments.end(), {"--address", "10.77.1.1"});
        gateway.emplace(arguments);
        ASSERT_EQ(UPnPSetDialect(dialect), UPnPSuccess);
        ASSERT_EQ(UPnPDiscoverStartup(), UPnPSuccess);
        ASSERT_TRUE(tavronet::PumpUntil([] {
            bool complete = false;
            return UPnPDeviceIsDescriptionComplete(nullptr, kLocal, &complete) == UPnPSuccess && complete;
        }));
    }

    std::optional<tavronet::GatewayProcess> gateway;
    const HANDLE cancel = CreateEventW(nullptr, 0, 0, nullptr);
};

TEST_F(FlatInterface, LivesOnceAtATimeAndWithoutANetworkEverythingSaysSo)
{
    EXPECT_EQ(UPnPDiscoverComplete(), UPnPNoNetwork);
    EXPECT_EQ(UPnPTickle(), UPnPNoNetwork);
    EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 80, "d", nullptr), UPnPNoNetwork);
    EXPECT_EQ(UPnPSetDialect(2), UPnPFailed);
    EXPECT_EQ(UPnPDiscover(false, nullptr), UPnPSuccess);
    EXPECT_EQ(UPnPDiscoverStartup(), UPnPNetworkExists);
    EXPECT_EQ(UPnPDiscover(true, nullptr), UPnPNetworkExists) << "and does not wait";
    EXPECT_EQ(UPnPSetDialect(1), UPnPNetworkExists);
    EXPECT_EQ(UPnPDiscoverComplete(), UPnPNotComplete);
    EXPECT_EQ(UPnPTickle(), UPnPSuccess);
    EXPECT_EQ(UPnPClose(), UPnPSuccess);
    EXPECT_EQ(UPnPClose(), UPnPNoNetwork);
}

TEST_F(FlatInterface, AWrongDeviceOrUnusableOutputsFailWithoutTraffic)
{
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(0));
    const int traffic = gateway->Logged("connection");
    char text[] = "before";
    for (const char* const stranger : {"", "10.77.1.1", "10.77.1.20", "10.77.1."})
        EXPECT_EQ(UPnPGetExternalIPAddress(nullptr, stranger, text, 7), UPnPNoDevice) << stranger;
    for (const int index : {-1, 1, 2147483647})
        EXPECT_EQ(UPnPGetExternalIPAddressByIndex(nullptr, index, text, 7), UPnPNoDevice) << index;
    EXPECT_EQ(UPnPDeletePortMap(nullptr, nullptr, 80, nullptr), UPnPNoDevice);

    for (const int size : {0, -1, -2147483647 - 1})
        EXPECT_EQ(UPnPGetExternalIPAddress(nullptr, kLocal, text, size), UPnPFailed) << size;
    EXPECT_EQ(UPnPGetDeviceModelName(kLocal, nullptr, 7), UPnPFailed);
    EXPECT_EQ(UPnPGetLastGatewayError(kLocal, nullptr, nullptr, text, 7), UPnPFailed);
    EXPECT_EQ(UPnPGetDeviceNATEnabled(nullptr, kLocal, nullptr), UPnPFailed);
    EXPECT_EQ(UPnPDeviceIsDescriptionCompleteByIndex(nullptr, 0, nullptr), UPnPFailed);
    EXPECT_EQ(UPnPAddPortMappingRange(nullptr, kLocal, nullptr, 2, "d", nullptr), UPnPFailed);
    EXPECT_STREQ(text, "before");
    EXPECT_EQ(gateway->Logged("connection"), traffic);
}

TEST_F(FlatInterface, DescriptionTextsFillTheBufferAndAreCutAtACharacter)
{
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(1, {"--friendly-name", "b\xC3\xBCro"}));
    const std::tuple<int (*)(const char*, char*, int), int (*)(int, char*, int), int, std::string> rows[] = {
        {UPnPGetDeviceFriendlyName, UPnPGetDeviceFriendlyNameByIndex, 32, "b\xC3\xBCro"},
        {UPnPGetDeviceFriendlyName, UPnPGetDeviceFriendlyNameByIndex, 3, "b"},
        {UPnPGetDeviceManufacturer, UPnPGetDeviceManufacturerByIndex, 5, "Tavr"},
        {UPnPGetDeviceManufacturerURL, UPnPGetDeviceManufacturerURLByIndex, 32, "http://gateway.example/"},
        {UPnPGetDeviceModelDescription, UPnPGetDeviceModelDescriptionByIndex, 10, "Simulated"},
        {UPnPGetDeviceModelName, UPnPGetDeviceModelNameByIndex, 32, "tavronet-gateway"},
    };
    for (const auto& [byAddress, byIndex, size, text] : rows) {
        std::string expected = text, buffer(33, '#'), again = buffer;
        expected.resize(static_cast<std::size_t>(size));
        expected.resize(buffer.size(), '#');
        EXPECT_EQ(byAddress(kLocal, buffer.data(), size), UPnPSuccess) << text;
        EXPECT_EQ(byIndex(0, again.data(), size), UPnPSuccess) << text;
        EXPECT_TRUE(buffer == expected && again == expected) << buffer << "|" << again;
    }
}

/// "500 718 ConflictInMappingEntry".
std::string LastGatewayError(int textSize = 64)
{
    int status = -1, code = -1;
    char text[64];
    EXPECT_EQ(UPnPGetLastGatewayErrorByIndex(0, &status, &code, text, textSize), UPnPSuccess);
    return std::to_string(status) + " " + std::to_string(code) + " " + text;
}

TEST_F(FlatInterface, AsksAddsAndDeletes)
{
    for (const int dialect : {0, 1}) {
        SCOPED_TRACE(dialect);
        const int refused = dialect == 1 ? UPnPFailed : UPnPSuccess; // classic: the gateway has answered
        ASSERT_NO_FATAL_FAILURE(StartWithGateway(dialect, {"--refuse", "80:606", "--nat", "0"}));
        char address[32] = "";
        EXPECT_EQ(UPnPGetExternalIPAddress(nullptr, kLocal, address, sizeof address), UPnPSuccess);
        EXPECT_STREQ(address, "203.0.113.7");
        EXPECT_EQ(UPnPGetExternalIPAddressByIndex(nullptr, 0, address, 4), UPnPSuccess);
        EXPECT_STREQ(address, "203");
        bool enabled = true;
        EXPECT_EQ(UPnPGetDeviceNATEnabled(nullptr, kLocal, &enabled), UPnPSuccess);
        EXPECT_TRUE(!enabled && gateway->Command("nat 1"));
        EXPECT_EQ(UPnPGetDeviceNATEnabledByIndex(nullptr, 0, &enabled), UPnPSuccess);
        EXPECT_TRUE(enabled);

        EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 80, "game", nullptr), refused);
        EXPECT_EQ(LastGatewayError(4), "500 606 Act");
        EXPECT_EQ(UPnPDeletePortMap(nullptr, kLocal, 80, nullptr), UPnPSuccess)
            << "answered, whatever it said";
        EXPECT_EQ(LastGatewayError(), "500 714 NoSuchEntryInArray");
        EXPECT_EQ(UPnPAddPortMap(nullptr, kLocal, 8080, nullptr, "UDP"), UPnPSuccess);
        EXPECT_EQ(LastGatewayError(), "200 0 ") << "the reason of the earlier refusal is gone";

        // While another operation is under way an add is sent behind it, and nobody learns what becomes of it.
        static int s_Nested;
        const Handler add = [](void*) { s_Nested = UPnPAddPortMap(nullptr, kLocal, 81, "game", nullptr); };
        PostThreadCall(CurrentThreadQueue(), add, nullptr);
        EXPECT_EQ(UPnPDeletePortMap(nullptr, kLocal, 8080, "UDP"), UPnPSuccess);
        EXPECT_EQ(s_Nested, refused) << "accepted in no dialect that tells";
        EXPECT_TRUE(tavronet::PumpUntil([&] { return gateway->Logged("ExternalPort=81 ") == 1; })) << "sent";
    }
}

// None sits out the 10 s for an answer, which would take longer than a test may.
TEST_F(FlatInterface, AnOperationThatGetsNoAnswerFailsAndLeavesItsOutputs)
{
    char address[] = "before";
    bool enabled = true;
    const std::function<int()> operations[] = {
        [&] { return UPnPGetDeviceNATEnabled(cancel, kLocal, &enabled); },
        [&] { return UPnPGetExternalIPAddress(cancel, kLocal, address, sizeof address); },
        [&] { return UPnPAddPortMap(cancel, kLocal, 8080, "d", nullptr); },
        [&] { return UPnPDeletePortMap(cancel, kLocal, 8080, nullptr); },
    };
    const std::tuple<std::string, Handler, int, int, bool> rows[] = {
        // the gateway's fault, what a handler does, what the operation and the next tick give, NAT as told
        {"--never-answer=soap", kClose, UPnPFailed, UPnPNoNetwork, true},
        {"--never-answer=soap", kThrow, UPnPException, UPnPSuccess, true},
        {"--never-answer=soap", kCancel, UPnPFailed, UPnPSuccess, false},
        {"--close-early=soap:20", kNothing, UPnPFailed, UPnPSuccess, false},
    };
    for (const auto& [fault, handler, result, tickled, toldEnabled] : rows)
        for (const auto& operation : operations) {
            SCOPED_TRACE(&operation - operations);
            ASSERT_NO_FATAL_FAILURE(StartWithGateway(1, {fault}));
            enabled = true;
            PostThreadCall(CurrentThreadQueue(), handler, cancel);
            EXPECT_EQ(operation(), result) << fault;
            EXPECT_EQ(UPnPTickle(), tickled);
            EXPECT_EQ(enabled, toldEnabled || &operation != operations);
            EXPECT_STREQ(address, "before");
        }
}

TEST_F(FlatInterface, RangesAreMappedWhereTheyFitAndDeletedUpToTheLastPort)
{
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(1, {"--refuse", "6001:718"}));
    unsigned port = 6000;
    EXPECT_EQ(UPnPAddPortMappingRange(nullptr, kLocal, &port, 2, "Game %d", nullptr), UPnPSuccess);
    EXPECT_EQ(port, 6002U);
    EXPECT_EQ(gateway->Logged("=Game 2"), 2) << "each attempt counts anew";
    port = 65535;
    EXPECT_EQ(UPnPAddPortMappingRange(nullptr, kLocal, &port, 2, "d", nullptr), UPnPFailed);
    EXPECT_EQ(port, 65535U);

    const std::tuple<unsigned, unsigned, Handler, int, int> rows[] = {
        // the first port, how many, what a handler does, what is returned, how many are asked for
        {6002, 2, kNothing, UPnPSuccess, 2},
        {65534, 2, kNothing, UPnPSuccess, 2}, // refused: an answer
        {65534, 4000000000, kNothing, UPnPFailed, 2},
        {0xFFFFFFFF, 2, kNothing, UPnPFailed, 0},
        {6000, 9, kClose, UPnPFailed, 0},
    };
    const HANDLE cancelled = CreateEventW(nullptr, 1, 1, nullptr);
    const auto start = Clock::now();
    EXPECT_EQ(UPnPDeletePortMappingRange(cancelled, kLocal, 1, 65535, "TCP"), UPnPFailed);
    EXPECT_LT(Clock::now() - start, 2s) << "no connection for each of the other ports";
    CloseHandle(cancelled);
    for (const auto& [first, count, handler, result, deletes] : rows) {
        const int before = gateway->Logged("soap DeletePortMapping");
        PostThreadCall(CurrentThreadQueue(), handler, nullptr);
        EXPECT_EQ(UPnPDeletePortMappingRange(nullptr, kLocal, first, count, "TCP"), result) << first;
        EXPECT_EQ(gateway->Logged("soap DeletePortMapping") - before, deletes) << first;
    }
}

TEST_F(FlatInterface, DiscoverWaitsOutThePeriodWithoutSpinningUnlessAHandlerEndsIt)
{
    // The tick jumps on by 2 s every 100 ms, so that a period passes in a moment while waits keep the real clock.
    static DWORD s_Start;
    static Clock::time_point s_Begin;
    SetTickSource([] { return s_Start + 2000 * static_cast<DWORD>((Clock::now() - s_Begin) / 100ms); });
    const HANDLE dead = CreateEventW(nullptr, 1, 0, nullptr);
    CloseHandle(dead);
    const Handler restart = [](void*) {
        EXPECT_EQ(UPnPDiscover(false, nullptr), UPnPNetworkExists);
        kClose(nullptr);
        EXPECT_EQ(UPnPDiscover(false, nullptr), UPnPSuccess);
    };
    const std::tuple<const char*, DWORD, HANDLE, Handler, int, int> rows[] = {
        // why, the tick at the start, the cancel event, and what Discover and then DiscoverComplete give
        {"cannot be waited for", 5000, dead, kNothing, UPnPSuccess, UPnPSuccess},
        {"over 4 ms before the wrap", 0xFFFFFFFF - 10004, nullptr, kNothing, UPnPSuccess, UPnPNotComplete},
        {"the new one is waited for", 5000, cancel, restart, UPnPSuccess, UPnPSuccess},
        {"closed", 5000, cancel, kClose, UPnPNoNetwork, UPnPNoNetwork},
        {"cancelled", 5000, cancel, kCancel, UPnPCancelled, UPnPNotComplete},
        {"thrown", 5000, cancel, kThrow, UPnPException, UPnPNotComplete},
    };
    for (const auto& [why, start, handle, handler, result, complete] : rows) {
        s_Start = start;
        s_Begin = Clock::now();
        const std::clock_t busy = std::clock();
        PostThreadCall(CurrentThreadQueue(), handler, handle);
        EXPECT_EQ(UPnPDiscover(true, handle), result) << why;
        EXPECT_TRUE(result != UPnPSuccess || Clock::now() - s_Begin >= 500ms) << why;
        EXPECT_LT(std::clock() - busy, CLOCKS_PER_SEC / 4) << why;
        EXPECT_EQ(UPnPDiscoverComplete(), complete) << why;
        UPnPClose();
    }
}

TEST_F(FlatInterface, DispatchServesWhatIsDueAndWaitsForItNoLongerThanAsked)
{
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(UPnPDispatch(60), UPnPSuccess);
    EXPECT_GE(Clock::now() - begin, 60ms);
    PostThreadCall(CurrentThreadQueue(), kThrow, nullptr);
    EXPECT_EQ(UPnPDispatch(60'000), UPnPException);
    PostThreadCall(CurrentThreadQueue(), Handler([](void*) { throw 42; }), nullptr);
    EXPECT_THROW(UPnPDispatch(0), int) << "the host's own exceptions pass";
}

} // namespace
