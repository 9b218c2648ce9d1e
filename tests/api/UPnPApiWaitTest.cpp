// What the host's own handlers do inside the waits of flat functions: closing, starting anew, throwing.

#include <ctime>
#include <functional>
#include <thread>

#include "FlatInterface.h"
#include "tavronet/platform/Event.h"
#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/MessageQueue.h"

namespace
{

void RunCall(void* call)
{
    (*static_cast<std::function<void()>*>(call))();
}

/// Has `call` run inside the wait that follows.
void Post(std::function<void()>& call)
{
    PostThreadCall(CurrentThreadQueue(), RunCall, &call);
}

TEST_F(FlatInterface, DiscoverWaitsOutThePeriod)
{
    const struct
    {
        DWORD start;
        const char* why;
    } rows[] = {
        {5000, "anywhere"},
        {0xFFFFFFFF - 10004, "the period ends 4 ms before the counter wraps: no poll falls between the two"},
    };
    for (const auto& row : rows) {
        FastClock clock(row.start);
        EXPECT_EQ(UPnPDiscover(true, nullptr), UPnPSuccess) << row.why;
        EXPECT_GE(FastClock::RealMs(), 350) << row.why;
        EXPECT_EQ(UPnPDiscoverStartup(), UPnPNetworkExists) << row.why;
        EXPECT_EQ(UPnPClose(), UPnPSuccess);
    }
}

TEST_F(FlatInterface, DiscoverEndsWhenCancelledAndTheNetworkStays)
{
    const HANDLE cancel = CreateEventW(nullptr, 1, 1, nullptr);
    const DWORD start = GetTickCount();
    EXPECT_EQ(UPnPDiscover(true, cancel), UPnPCancelled) << "signalled before the call";
    EXPECT_EQ(UPnPDiscoverStartup(), UPnPNetworkExists);
    EXPECT_EQ(UPnPClose(), UPnPSuccess);

    ResetEvent(cancel);
    std::function<void()> signal = [cancel] { SetEvent(cancel); };
    Post(signal);
    EXPECT_EQ(UPnPDiscover(true, cancel), UPnPCancelled) << "signalled by a handler";
    EXPECT_EQ(UPnPDiscoverComplete(), UPnPNotComplete);
    EXPECT_LT(ElapsedMs(GetTickCount(), start), 5000U);
    CloseHandle(cancel);
}

TEST_F(FlatInterface, DiscoverSleepsOutThePeriodWhenTheCancelHandleIsDead)
{
    const HANDLE dead = CreateEventW(nullptr, 1, 0, nullptr);
    CloseHandle(dead);
    FastClock clock(5000, 20);
    const std::clock_t before = std::clock();
    EXPECT_EQ(UPnPDiscover(true, dead), UPnPSuccess);
    const auto busyMs = (std::clock() - before) * 1000 / CLOCKS_PER_SEC;
    EXPECT_LT(busyMs, FastClock::RealMs() / 2) << "it must not spin";
}

TEST_F(FlatInterface, DiscoverEndsWhenAHandlerClosesTheNetwork)
{
    std::function<void()> close = [] { EXPECT_EQ(UPnPClose(), UPnPSuccess); };
    Post(close);
    EXPECT_EQ(UPnPDiscover(true, nullptr), UPnPNoNetwork);
    EXPECT_EQ(UPnPDiscoverStartup(), UPnPSuccess) << "nothing is left behind";
}

TEST_F(FlatInterface, DiscoverGoesOnWithANetworkThatAHandlerStartedInstead)
{
    FastClock clock(5000);
    std::function<void()> restart = [] {
        EXPECT_EQ(UPnPDiscover(false, nullptr), UPnPNetworkExists);
        EXPECT_EQ(UPnPClose(), UPnPSuccess);
        EXPECT_EQ(UPnPDiscover(false, nullptr), UPnPSuccess);
    };
    Post(restart);
    EXPECT_EQ(UPnPDiscover(true, nullptr), UPnPSuccess);
    EXPECT_EQ(UPnPDiscoverComplete(), UPnPSuccess);
}

TEST_F(FlatInterface, ExceptionsOfTheLibraryBecomeAResultOthersPass)
{
    std::function<void()> throwOurs = [] { tavronet::ThrowMemoryException(); };
    std::function<void()> throwTheirs = [] { throw 42; };
    Post(throwOurs);
    EXPECT_EQ(UPnPDiscover(true, nullptr), UPnPException);
    EXPECT_EQ(UPnPDiscoverComplete(), UPnPNotComplete) << "the network stays";
    EXPECT_EQ(UPnPClose(), UPnPSuccess);
    Post(throwTheirs);
    EXPECT_THROW(UPnPDiscover(true, nullptr), int);
    EXPECT_EQ(UPnPClose(), UPnPSuccess);

    for (const bool ours : {true, false}) {
        ASSERT_NO_FATAL_FAILURE(StartWithGateway(1));
        char address[32] = "before";
        const auto ask = [&] { return UPnPGetExternalIPAddress(nullptr, kLocal, address, sizeof address); };
        Post(ours ? throwOurs : throwTheirs);
        if (ours)
            EXPECT_EQ(ask(), UPnPException);
        else
            EXPECT_THROW(ask(), int);
        EXPECT_STREQ(address, "before");
        // What was thrown out of is still under way; once it is answered the gateway can be asked again.
        EXPECT_TRUE(tavronet::PumpUntil([&] { return ask() == UPnPSuccess; }));
        EXPECT_EQ(UPnPClose(), UPnPSuccess);
        gateway.reset();
    }
}

/// An operation whose gateway has got the request and is silent.
struct Operation
{
    const char* name;
    const char* action;
    int (*call)();
};

char s_Text[8];
bool s_Flag;

const Operation kOperations[] = {
    {"ExternalIPAddress", "GetExternalIPAddress",
     [] { return UPnPGetExternalIPAddress(nullptr, kLocal, s_Text, sizeof s_Text); }},
    {"ExternalIPAddressByIndex", "GetExternalIPAddress",
     [] { return UPnPGetExternalIPAddressByIndex(nullptr, 0, s_Text, sizeof s_Text); }},
    {"NATEnabled", "GetNATRSIPStatus", [] { return UPnPGetDeviceNATEnabled(nullptr, kLocal, &s_Flag); }},
    {"AddPortMap", "AddPortMapping", [] { return UPnPAddPortMap(nullptr, kLocal, 8080, "d", nullptr); }},
    {"DeletePortMap", "DeletePortMapping", [] { return UPnPDeletePortMap(nullptr, kLocal, 8080, nullptr); }},
};

class FlatInterfaceClosed : public FlatInterface, public testing::WithParamInterface<Operation>
{};

TEST_P(FlatInterfaceClosed, InsideAnOperationLeavesItsOutputs)
{
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(1, {"--never-answer", "soap"}));
    std::string("before").copy(s_Text, sizeof s_Text);
    s_Flag = true;

    const DWORD start = GetTickCount();
    std::function<void()> close = [] { EXPECT_EQ(UPnPClose(), UPnPSuccess); };
    std::thread closer([&, queue = CurrentThreadQueue()] {
        EXPECT_TRUE(gateway->WaitForLog(std::string("soap ") + GetParam().action));
        PostThreadCall(queue, RunCall, &close);
    });
    EXPECT_EQ(GetParam().call(), UPnPFailed);
    closer.join();

    EXPECT_STREQ(s_Text, "before");
    EXPECT_TRUE(s_Flag);
    EXPECT_EQ(UPnPTickle(), UPnPNoNetwork);
    EXPECT_LT(ElapsedMs(GetTickCount(), start), 8000U) << "does not sit out the wait for the answer";
}

INSTANTIATE_TEST_SUITE_P(Operations, FlatInterfaceClosed, testing::ValuesIn(kOperations),
                         [](const auto& row) { return row.param.name; });

TEST_F(FlatInterface, ClosedInsideTheVerificationOfATickle)
{
    FastClock clock(5000);
    ASSERT_NO_FATAL_FAILURE(StartWithGateway(1, {"--never-answer", "GetSpecificPortMappingEntry"}));
    ASSERT_EQ(UPnPAddPortMap(nullptr, kLocal, 8080, "d", nullptr), UPnPSuccess);

    std::function<void()> close = [] { EXPECT_EQ(UPnPClose(), UPnPSuccess); };
    std::thread closer([&, queue = CurrentThreadQueue()] {
        EXPECT_TRUE(gateway->WaitForLog("soap GetSpecificPortMappingEntry"));
        PostThreadCall(queue, RunCall, &close);
    });
    EXPECT_TRUE(tavronet::PumpUntil([] { return UPnPTickle() == UPnPNoNetwork; }));
    closer.join();
}

} // namespace
