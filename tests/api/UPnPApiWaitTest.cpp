// What the host's own handlers do inside the waits of flat functions: closing, starting anew, throwing.

#include <algorithm>
#include <chrono>
#include <ctime>
#include <tuple>

#include "FlatInterface.h"
#include "tavronet/platform/Event.h"
#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/TickCount.h"

namespace
{

DWORD s_StartTick;
std::chrono::steady_clock::time_point s_Begin;

int RealMs()
{
    const auto passed = std::chrono::steady_clock::now() - s_Begin;
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(passed).count());
}

/// Starts a tick counter anywhere that runs faster than real time, so that a discovery period passes in a
/// moment while waits keep the real clock. It stands still at first, so that what a test sets up happens at a
/// known tick.
void StartFastClock(DWORD start = 5000)
{
    s_StartTick = start;
    s_Begin = std::chrono::steady_clock::now();
    SetTickSource([] { return s_StartTick + 20 * static_cast<DWORD>(std::max(0, RealMs() - 150)); });
}

void Close(void* /*context*/)
{
    EXPECT_EQ(UPnPClose(), UPnPSuccess);
}

TEST_F(FlatInterface, DiscoverWaitsOutThePeriodWithoutSpinning)
{
    const HANDLE dead = CreateEventW(nullptr, 1, 0, nullptr);
    CloseHandle(dead);
    const std::tuple<DWORD, HANDLE, const char*> rows[] = {
        {5000, dead, "a handle that cannot be waited for"},
        {0xFFFFFFFF - 10004, nullptr, "the period ends 4 ms before the counter wraps, between two polls"},
    };
    for (const auto& [start, cancel, why] : rows) {
        StartFastClock(start);
        const std::clock_t before = std::clock();
        EXPECT_EQ(UPnPDiscover(true, cancel), UPnPSuccess) << why;
        const auto busyMs = (std::clock() - before) * 1000 / CLOCKS_PER_SEC;
        EXPECT_GE(RealMs(), 600) << why;
        EXPECT_LT(busyMs, RealMs() / 2) << why;
        EXPECT_EQ(UPnPClose(), UPnPSuccess);
    }
}

TEST_F(FlatInterface, HandlersInsideDiscoverDecideWhatItGives)
{
    const HANDLE cancel = CreateEventW(nullptr, 0, 0, nullptr);
    const auto restart = [](void*) {
        EXPECT_EQ(UPnPDiscover(false, nullptr), UPnPNetworkExists);
        EXPECT_EQ(UPnPClose(), UPnPSuccess);
        EXPECT_EQ(UPnPDiscover(false, nullptr), UPnPSuccess);
    };
    const std::tuple<void (*)(void* cancel), int, int> rows[] = {
        {Close, UPnPNoNetwork, UPnPNoNetwork},
        {[](void* event) { SetEvent(static_cast<HANDLE>(event)); }, UPnPCancelled, UPnPNotComplete},
        {[](void*) { tavronet::ThrowMemoryException(); }, UPnPException, UPnPNotComplete},
        {restart, UPnPSuccess, UPnPSuccess}, // the new network is waited for
    };
    for (const auto& [handler, result, discoverComplete] : rows) {
        StartFastClock();
        PostThreadCall(CurrentThreadQueue(), handler, cancel);
        EXPECT_EQ(UPnPDiscover(true, cancel), result);
        EXPECT_EQ(UPnPDiscoverComplete(), discoverComplete) << result;
        UPnPClose();
    }
    CloseHandle(cancel);
}

TEST_F(FlatInterface, DispatchServesWhatIsDueAndWaitsForItNoLongerThanAsked)
{
    StartFastClock();
    EXPECT_EQ(UPnPDispatch(60), UPnPSuccess);
    EXPECT_GE(RealMs(), 60);

    int served = 0;
    const auto count = [](void* counter) { ++*static_cast<int*>(counter); };
    const auto fail = [](void*) { tavronet::ThrowMemoryException(); };
    PostThreadCall(CurrentThreadQueue(), count, &served);
    EXPECT_EQ(UPnPDispatch(60'000), UPnPSuccess);
    EXPECT_EQ(served, 1);
    PostThreadCall(CurrentThreadQueue(), fail, nullptr);
    EXPECT_EQ(UPnPDispatch(0), UPnPException);
}

TEST_F(FlatInterface, ExceptionsOfTheLibraryBecomeAResultOthersPass)
{
    for (const bool ours : {true, false}) {
        ASSERT_NO_FATAL_FAILURE(StartWithGateway(1));
        char address[32] = "before";
        const auto ask = [&] { return UPnPGetExternalIPAddress(nullptr, kLocal, address, sizeof address); };
        const auto throwOurs = [](void*) { tavronet::ThrowMemoryException(); };
        const auto throwTheirs = [](void*) { throw 42; };
        PostThreadCall(CurrentThreadQueue(), ours ? +throwOurs : +throwTheirs, nullptr);
        if (ours)
            EXPECT_EQ(ask(), UPnPException);
        else
            EXPECT_THROW(ask(), int);
        EXPECT_STREQ(address, "before");
        // What was thrown out of is still under way; once it is answered the gateway can be asked again.
        EXPECT_TRUE(tavronet::PumpUntil([&] { return ask() == UPnPSuccess; }));
    }
}

} // namespace
