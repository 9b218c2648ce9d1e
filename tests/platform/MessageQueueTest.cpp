#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <thread>

#include "RecordingSocket.h"
#include "tavronet/platform/Event.h"
#include "tavronet/platform/TestSeams.h"
#include "tavronet/platform/TickCount.h"

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

TEST(PostedCalls, RunInOrderOnTheQueuesThread)
{
    struct Call
    {
        std::vector<int>* order;
        std::thread::id thread;
        int number;
        static void Run(void* argument)
        {
            const std::unique_ptr<Call> call(static_cast<Call*>(argument));
            EXPECT_EQ(std::this_thread::get_id(), call->thread);
            call->order->push_back(call->number);
        }
    };
    constexpr int kCalls = 1000;
    std::vector<int> order;
    const ThreadQueue queue = CurrentThreadQueue();
    const auto self = std::this_thread::get_id();
    std::thread poster([&] {
        for (int i = 0; i < kCalls; ++i)
            PostThreadCall(queue, &Call::Run, new Call{&order, self, i});
    });
    EXPECT_TRUE(PumpUntil([&] { return order.size() == kCalls; }));
    poster.join();
    EXPECT_TRUE(std::ranges::is_sorted(order));
}

int g_SelfPosts = 0;
void PostAgain(void*)
{
    if (++g_SelfPosts < 1000000)
        PostThreadCall(CurrentThreadQueue(), &PostAgain, nullptr);
}

TEST(PostedCalls, OneThatPostsItselfForEverKeepsNoWaitFromEnding)
{
    PostThreadCall(CurrentThreadQueue(), &PostAgain, nullptr);
    const HANDLE never = CreateEventW(nullptr, 1, 0, nullptr);
    const auto start = Clock::now();
    while (Clock::now() - start < milliseconds(100))
        if (MsgWaitForMultipleObjectsEx(1, &never, 50, kWakeOnAnyInput, 0) == 1)
            DispatchPending();
    EXPECT_LT(Clock::now() - start, milliseconds(200));
    EXPECT_GT(g_SelfPosts, 64);
    g_SelfPosts = 1000000;
    DispatchPending();
    CloseHandle(never);
}

TEST(PostedCalls, AThrowLeavesTheRestDue)
{
    static int ran;
    ran = 0;
    const ThreadQueue queue = CurrentThreadQueue();
    PostThreadCall(
        queue, [](void*) { throw 7; }, nullptr);
    PostThreadCall(
        queue, [](void*) { ++ran; }, nullptr);
    EXPECT_THROW(DispatchPending(), int);
    EXPECT_EQ(ran, 0);
    DispatchPending();
    EXPECT_EQ(ran, 1);
}

// A host that only knows the descriptor: it polls, and runs one round for each time it is readable.
TEST(QueueDescriptor, IsReadableExactlyWhileSomethingIsDue)
{
    const auto readable = [](int timeoutMs) {
        pollfd poll{QueueDescriptor(), POLLIN, 0};
        return ::poll(&poll, 1, timeoutMs) == 1;
    };
    while (readable(0))
        DispatchRound();

    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const PlainSocket peer(ends[1]);
    RecordingSocket socket;
    ASSERT_TRUE(socket.Attach(static_cast<SOCKET>(ends[0]), FD_ALL));
    peer.Write("abc");
    socket.onNotification[FD_READ] = [&] {
        socket.ReceiveText(1);
    }; // the rest makes it due without the system
    std::string log;
    int rounds = 0;
    for (; readable(20); ++rounds)
        DispatchRound();
    EXPECT_EQ(socket.TakeLog(), "WRITE READ READ READ");
    EXPECT_LE(rounds, 8);

    std::thread([queue = CurrentThreadQueue()] {
        PostThreadCall(
            queue, [](void*) {}, nullptr);
    }).join();
    EXPECT_TRUE(readable(1000));
    DispatchRound();
    EXPECT_FALSE(readable(0));
    socket.RequestRead(); // from outside any dispatch
    EXPECT_TRUE(readable(0));
    while (readable(0))
        DispatchRound();
}

TEST(MessageLoop, RunsUntilQuitAndNests)
{
    static std::string order;
    order.clear();
    const ThreadQueue queue = CurrentThreadQueue();
    PostThreadCall(
        queue,
        [](void*) {
            PostThreadCall(
                CurrentThreadQueue(),
                [](void*) {
                    order += "inner ";
                    QuitMessageLoop(2);
                },
                nullptr);
            EXPECT_EQ(RunMessageLoop(), 2);
            order += "outer ";
            QuitMessageLoop(1);
        },
        nullptr);
    EXPECT_EQ(RunMessageLoop(), 1);
    EXPECT_EQ(order, "inner outer ");
}

TEST(Wait, TellsHandlesBeforeTheQueueBeforeTheClock)
{
    const HANDLE manual = CreateEventW(nullptr, 1, 0, nullptr);
    const HANDLE automatic = CreateEventW(nullptr, 0, 1, nullptr);
    const HANDLE both[] = {manual, automatic};
    const auto wait = [&](DWORD ms) { return MsgWaitForMultipleObjectsEx(2, both, ms, kWakeOnAnyInput, 0); };

    PostThreadCall(
        CurrentThreadQueue(), [](void*) {}, nullptr);
    EXPECT_EQ(wait(0), 1u);
    EXPECT_EQ(wait(0), 2u) << "the automatic event was reset by the wait; the queue is left";
    EXPECT_EQ(wait(0), 2u) << "what was not taken stays due";
    EXPECT_TRUE(SetEvent(manual));
    EXPECT_EQ(wait(0), 0u);
    EXPECT_EQ(wait(0), 0u) << "manual reset";
    EXPECT_TRUE(ResetEvent(manual));
    DispatchPending();
    EXPECT_EQ(wait(0), WAIT_TIMEOUT);

    const auto start = Clock::now();
    EXPECT_EQ(wait(30), WAIT_TIMEOUT);
    EXPECT_GE(Clock::now() - start, milliseconds(30));

    EXPECT_TRUE(CloseHandle(automatic));
    EXPECT_EQ(wait(1000), WAIT_FAILED);
    EXPECT_EQ(WSAGetLastError(), 6);
    const HANDLE next = CreateEventW(nullptr, 0, 1, nullptr);
    EXPECT_EQ(wait(0), WAIT_FAILED) << "a closed handle never means a newer event";
    EXPECT_FALSE(SetEvent(automatic));
    EXPECT_FALSE(CloseHandle(nullptr));
    CloseHandle(next);
    CloseHandle(manual);
}

TEST(Wait, IsEndedByOtherThreads)
{
    const HANDLE event = CreateEventW(nullptr, 1, 0, nullptr);
    const HANDLE closed = CreateEventW(nullptr, 1, 0, nullptr);
    const auto start = Clock::now();
    std::thread other([&] {
        std::this_thread::sleep_for(milliseconds(20));
        SetEvent(event);
        std::this_thread::sleep_for(milliseconds(20));
        CloseHandle(closed);
    });
    EXPECT_EQ(MsgWaitForMultipleObjectsEx(1, &event, 5000, kWakeOnAnyInput, 0), 0u);
    EXPECT_EQ(MsgWaitForMultipleObjectsEx(1, &closed, 5000, kWakeOnAnyInput, 0), WAIT_FAILED);
    EXPECT_LT(Clock::now() - start, milliseconds(2000));
    other.join();
    CloseHandle(event);
}

TEST(Wait, LetsTheHostsLoopRun)
{
    int passes = 0;
    SetWaitHook([](void* argument) { ++*static_cast<int*>(argument); }, &passes);
    EXPECT_EQ(MsgWaitForMultipleObjectsEx(0, nullptr, 60, kWakeOnAnyInput, 0), WAIT_TIMEOUT);
    SetWaitHook(nullptr, nullptr);
    EXPECT_GE(passes, 4);
}

TEST(Events, NeedNoDescriptorsAndLeaveNothingBehind)
{
    const tavronet::LivingObjects before = tavronet::CountLivingObjects();
    std::vector<HANDLE> many;
    for (int i = 0; i < 100000; ++i)
        many.push_back(CreateEventW(nullptr, 1, 0, nullptr));
    EXPECT_EQ(std::ranges::count(many, nullptr), 0);
    for (const HANDLE event : many)
        EXPECT_TRUE(CloseHandle(event));
    EXPECT_EQ(tavronet::CountLivingObjects(), before);
}

TEST(TickCount, IsNeverZeroAndDiffersRightAcrossTheWrap)
{
    static DWORD now;
    SetTickSource([] { return now; });
    now = 0;
    EXPECT_EQ(GetTickCount(), 1u);
    now = 0xFFFFFFF0u;
    const DWORD then = GetTickCount();
    now += 0x20;
    EXPECT_EQ(ElapsedMs(GetTickCount(), then), 0x20u);
    SetTickSource(nullptr);
    const DWORD first = GetTickCount();
    std::this_thread::sleep_for(milliseconds(5));
    EXPECT_GE(ElapsedMs(GetTickCount(), first), 4u);
}

} // namespace
