#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "RecordingSocket.h"
#include "tavronet/platform/Event.h"
#include "tavronet/platform/TestSeams.h"

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

void Post(std::function<void()> call, const ThreadQueue& queue = CurrentThreadQueue())
{
    const auto run = [](void* argument) {
        const std::unique_ptr<std::function<void()>> owned(static_cast<std::function<void()>*>(argument));
        (*owned)();
    };
    PostThreadCall(queue, run, new std::function<void()>(std::move(call)));
}

DWORD WaitFor(const std::vector<HANDLE>& handles, DWORD timeoutMs)
{
    const auto count = static_cast<DWORD>(handles.size());
    return MsgWaitForMultipleObjectsEx(count, handles.data(), timeoutMs, kWakeOnAnyInput, 0);
}

TEST(PostedCalls, RunInOrderOnTheQueuesThreadAndAThrowLeavesTheRestDue)
{
    std::vector<int> order;
    std::thread poster([&order, queue = CurrentThreadQueue(), self = std::this_thread::get_id()] {
        for (int i = 0; i < 1000; ++i) {
            const auto call = [&order, self, i] {
                EXPECT_EQ(std::this_thread::get_id(), self);
                order.push_back(i);
            };
            Post(call, queue);
        }
    });
    EXPECT_TRUE(PumpUntil([&] { return order.size() == 1000; }));
    poster.join();
    EXPECT_TRUE(std::ranges::is_sorted(order));

    Post([] { throw 7; });
    Post([&] { order.clear(); });
    EXPECT_THROW(DispatchPending(), int);
    EXPECT_FALSE(order.empty());
    DispatchPending();
    EXPECT_TRUE(order.empty());
}

TEST(PostedCalls, OneThatPostsItselfForEverKeepsNoWaitFromEnding)
{
    int posts = 0;
    bool on = true;
    const std::function<void()> again = [&] {
        if (++posts; on && posts < 1'000'000)
            Post(again);
    };
    Post(again);
    const HANDLE never = CreateEventW(nullptr, 1, 0, nullptr);
    const auto start = Clock::now();
    while (Clock::now() - start < milliseconds(100)) {
        if (WaitFor({never}, 50) == 1)
            DispatchPending();
    }
    EXPECT_LT(Clock::now() - start, milliseconds(1000));
    EXPECT_GT(posts, 64);
    on = false;
    DispatchPending();
    CloseHandle(never);
}

// A host that only knows the descriptor: it polls, and runs one round for each time it is readable.
TEST(QueueDescriptor, IsReadableExactlyWhileSomethingIsDue)
{
    const auto readable = [](int timeoutMs) {
        pollfd poll{QueueDescriptor(), POLLIN, 0};
        return ::poll(&poll, 1, timeoutMs) == 1;
    };
    PumpUntilQuiet();

    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const PlainSocket peer(ends[1]);
    RecordingSocket socket;
    ASSERT_TRUE(socket.Attach(static_cast<SOCKET>(ends[0]), FD_ALL));
    peer.Writes("abc");
    socket.onNotification[FD_READ] = [&] { socket.ReceiveText(1); }; // the rest is due without the system
    int rounds = 0;
    for (; readable(20); ++rounds)
        DispatchRound();
    EXPECT_EQ(socket.TakeLog(), "WRITE READ READ READ");
    EXPECT_LE(rounds, 8);

    std::thread([queue = CurrentThreadQueue()] { Post([] {}, queue); }).join();
    EXPECT_TRUE(readable(1000));
    DispatchRound();
    EXPECT_FALSE(readable(0));
    socket.RequestRead(); // from outside any dispatch
    EXPECT_TRUE(readable(0));
    while (readable(0))
        DispatchRound();

    peer.Writes("x");
    EXPECT_EQ(MsgWaitForMultipleObjectsEx(0, nullptr, 1000, kWakeOnAnyInput, 0), 0u);
    EXPECT_TRUE(readable(0)) << "a wait has heard of it, but nothing has been dispatched";
    DispatchPending();
}

TEST(MessageLoop, RunsUntilQuitAndNests)
{
    std::string order;
    Post([&] {
        Post([&] {
            order += "inner ";
            QuitMessageLoop(2);
        });
        EXPECT_EQ(RunMessageLoop(), 2);
        order += "outer ";
        QuitMessageLoop(1);
    });
    EXPECT_EQ(RunMessageLoop(), 1);
    EXPECT_EQ(order, "inner outer ");
}

TEST(Wait, TellsHandlesBeforeTheQueueBeforeTheClock)
{
    const HANDLE manual = CreateEventW(nullptr, 1, 0, nullptr);
    const HANDLE automatic = CreateEventW(nullptr, 0, 1, nullptr);
    const std::vector<HANDLE> both{manual, automatic};
    Post([] {});
    EXPECT_EQ(WaitFor(both, 0), 1u);
    EXPECT_EQ(WaitFor(both, 0), 2u) << "the automatic event was reset by the wait; the queue is left";
    EXPECT_EQ(WaitFor(both, 0), 2u) << "what was not taken stays due";
    EXPECT_TRUE(SetEvent(manual));
    EXPECT_EQ(WaitFor(both, 0), 0u);
    EXPECT_EQ(WaitFor(both, 0), 0u) << "manual reset";
    EXPECT_TRUE(ResetEvent(manual));
    DispatchPending();
    const auto start = Clock::now();
    EXPECT_EQ(WaitFor(both, 30), WAIT_TIMEOUT);
    EXPECT_GE(Clock::now() - start, milliseconds(30));

    EXPECT_TRUE(CloseHandle(automatic));
    EXPECT_EQ(WaitFor(both, 1000), WAIT_FAILED);
    EXPECT_EQ(WSAGetLastError(), 6);
    const HANDLE next = CreateEventW(nullptr, 0, 1, nullptr);
    EXPECT_EQ(WaitFor(both, 0), WAIT_FAILED) << "a closed handle never means a newer event";
    EXPECT_FALSE(SetEvent(automatic));
    CloseHandle(next);
    CloseHandle(manual);
}

TEST(Wait, IsEndedByOtherThreadsAndLetsTheHostsLoopRun)
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
    EXPECT_EQ(WaitFor({event}, 5000), 0u);
    EXPECT_EQ(WaitFor({closed}, 5000), WAIT_FAILED);
    EXPECT_LT(Clock::now() - start, milliseconds(2000));
    other.join();
    CloseHandle(event);

    int passes = 0;
    SetWaitHook([](void* argument) { ++*static_cast<int*>(argument); }, &passes);
    EXPECT_EQ(WaitFor({}, 100), WAIT_TIMEOUT);
    SetWaitHook(nullptr, nullptr);
    EXPECT_GE(passes, 2); // the machine may be busy
}

TEST(Events, NeedNoDescriptorsAndLeaveNothingBehind)
{
    const LivingObjects before = CountLivingObjects();
    std::vector<HANDLE> many(100000);
    for (HANDLE& event : many)
        event = CreateEventW(nullptr, 1, 0, nullptr);
    EXPECT_TRUE(std::ranges::all_of(many, [](HANDLE event) { return CloseHandle(event) != 0; }));
    EXPECT_EQ(CountLivingObjects(), before);
}

} // namespace
