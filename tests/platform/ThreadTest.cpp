#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <thread>
#include <vector>

#include "RecordingSocket.h"
#include "tavronet/platform/Event.h"
#include "tavronet/platform/SigPipeBlock.h"
#include "tavronet/platform/SocketCalls.h"
#include "tavronet/platform/TickCount.h"

namespace
{

using namespace std::chrono;
using Call = std::function<void()>;

void Post(Call call, const ThreadQueue& queue = CurrentThreadQueue())
{
    const auto run = [](void* owned) { (*std::unique_ptr<Call>(static_cast<Call*>(owned)))(); };
    PostThreadCall(queue, run, new Call(std::move(call)));
}

DWORD WaitFor(const std::vector<HANDLE>& handles, DWORD timeoutMs)
{
    const auto count = static_cast<DWORD>(handles.size());
    return MsgWaitForMultipleObjectsEx(count, handles.data(), timeoutMs, kWakeOnAnyInput, 0);
}

TEST(PostedCalls, RunInOrderOnTheQueuesThreadAndKeepNothingFromEnding)
{
    std::vector<int> order;
    std::thread poster([&order, queue = CurrentThreadQueue(), self = std::this_thread::get_id()] {
        for (int i = 0; i < 1000; ++i)
            Post([&order, self, i] { order.push_back(std::this_thread::get_id() == self ? i : -i); }, queue);
        Post([] { QuitMessageLoop(2); }, queue);
    });
    EXPECT_EQ(RunMessageLoop(), 2);
    poster.join();
    Post([] { throw 7; });
    Post([&] { order.push_back(1000); });
    EXPECT_THROW(DispatchPending(), int);
    DispatchPending();
    EXPECT_TRUE(order.back() == 1000 && std::ranges::is_sorted(order));

    int posts = 0;
    const Call again = [&] { ++posts < 1000 ? Post(again) : void(); };
    Post(again);
    DispatchPending();
    EXPECT_LT(posts, 1000) << "a call that posts itself again keeps nothing from ending";
    EXPECT_EQ(WaitFor({}, 1000), 0U) << "what is left is due";
    PumpUntilQuiet();
}

// A host that only knows the descriptor: it polls, and runs one round for each time it is readable.
TEST(QueueDescriptor, IsReadableExactlyWhileSomethingIsDue)
{
    const auto readable = [](int timeoutMs) {
        pollfd poll{QueueDescriptor(), POLLIN, 0};
        return ::poll(&poll, 1, timeoutMs) == 1;
    };
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const PlainSocket peer(ends[1]);
    std::string log;
    RecordingSocket socket(log);
    ASSERT_TRUE(socket.Attach(static_cast<SOCKET>(ends[0]), FD_ALL));
    socket.onNotification[FD_READ] = [&] { socket.ReceiveText(1); }; // the rest is due without the system
    peer.Writes("abc");
    for (int rounds = 0; readable(20) && rounds < 8; ++rounds)
        DispatchRound();
    EXPECT_TRUE(std::exchange(log, {}) == "WRITE READ READ READ" && !readable(0));
    std::thread([queue = CurrentThreadQueue()] { Post([] {}, queue); }).join();
    EXPECT_TRUE(readable(1000) && DispatchRound() && !readable(0));
    socket.RequestRead(); // outside of any dispatch
    EXPECT_TRUE(readable(0) && DispatchRound() && !readable(0));
    peer.Writes("x");
    EXPECT_EQ(WaitFor({}, 1000), 0U);
    EXPECT_TRUE(readable(0)) << "a wait has heard of it, but nothing has been dispatched";
    const PlainSocket back(static_cast<int>(socket.Detach()));
    EXPECT_EQ(back.Reads(1), "x");
    EXPECT_EQ(log, "READ") << "due no more";
}

TEST(Wait, TellsHandlesBeforeTheQueueBeforeTheClockAndIsEndedByOtherThreads)
{
    std::vector<HANDLE> many(100000); // more than there are descriptors
    std::ranges::generate(many, [] { return CreateEventW(nullptr, 1, 0, nullptr); });
    EXPECT_TRUE(std::ranges::all_of(many, CloseHandle));
    const std::vector<HANDLE> two{CreateEventW(nullptr, 1, 0, nullptr), CreateEventW(nullptr, 0, 1, nullptr)};
    Post([] {});
    EXPECT_EQ(WaitFor(two, 0), 1U);
    EXPECT_EQ(WaitFor(two, 0), 2U) << "the automatic event was reset by the wait; the queue is left";
    EXPECT_TRUE(SetEvent(two[0]));
    EXPECT_EQ(WaitFor(two, 0), 0U);
    EXPECT_EQ(WaitFor(two, 0), 0U) << "manual reset";
    EXPECT_TRUE(ResetEvent(two[0]));
    DispatchPending();

    const auto start = steady_clock::now();
    EXPECT_EQ(WaitFor(two, 50), WAIT_TIMEOUT);
    EXPECT_GE(steady_clock::now() - start, milliseconds(50));
    static int s_Hooks = 0;
    SetWaitHook([](void* event) { ++s_Hooks < 5 ? 0 : SetEvent(event); }, two[1]);
    EXPECT_EQ(WaitFor(two, 5000), 1U) << "the hook runs every 10 ms";
    SetWaitHook(nullptr, nullptr);
    for (BOOL (*const change)(HANDLE) : {SetEvent, CloseHandle}) {
        std::thread other([&two, change] {
            std::this_thread::sleep_for(milliseconds(50));
            change(two[1]);
        });
        EXPECT_EQ(WaitFor(two, 5000), change == SetEvent ? 1U : WAIT_FAILED);
        other.join();
    }
    EXPECT_LT(steady_clock::now() - start, milliseconds(2000));
    const HANDLE next = CreateEventW(nullptr, 0, 1, nullptr);
    EXPECT_EQ(WaitFor(two, 1000), WAIT_FAILED) << "a closed handle never means a newer event";
    EXPECT_TRUE(!SetEvent(two[1]) && WSAGetLastError() == 6);
    EXPECT_TRUE(CloseHandle(next) && CloseHandle(two[0]));
}

TEST(LastError, IsEachThreadsOwn)
{
    int code = WSAEALREADY; // the first of many without a gap
    for (const int number : {EALREADY, ENOTSOCK, EDESTADDRREQ, EMSGSIZE, EPROTOTYPE, ENOPROTOOPT,
                             EPROTONOSUPPORT, ESOCKTNOSUPPORT, EOPNOTSUPP, EPFNOSUPPORT, EAFNOSUPPORT,
                             EADDRINUSE, EADDRNOTAVAIL, ENETDOWN, ENETUNREACH, ENETRESET, EPIPE, ECONNRESET})
        EXPECT_EQ(LastErrorFromErrno(number), code++) << number;
    WSASetLastError(77);
    std::thread([] { WSASetLastError(WSAEINTR); }).join();
    EXPECT_EQ(WSAGetLastError(), 77);
    EXPECT_EQ(platform::listen((SOCKET{1} << 32) + 1, 1), -1) << "a handle is not cut";
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
}

TEST(TickCount, IsNeverZero)
{
    SetTickSource([] { return DWORD{0}; });
    EXPECT_EQ(GetTickCount(), 1U) << "hosts store 0 for none";
    SetTickSource(nullptr);
    EXPECT_GT(GetTickCount(), 1U);
}

TEST(SigPipeBlock, AWriteToNobodyIsOnlyAnErrorAndTheHostsSignalAndMaskStay)
{
    const PlainSocket unconnected(socket(AF_INET, SOCK_STREAM, 0));
    const auto writeBlocked = [&unconnected] {
        const SigPipeBlock block;
        EXPECT_EQ(send(static_cast<int>(unconnected.Handle()), "x", 1, 0), -1);
    };
    sigset_t pipe, before;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    writeBlocked();
    EXPECT_EQ(errno, EPIPE) << "what the write has told is still to be read";
    pthread_sigmask(SIG_BLOCK, &pipe, &before);
    EXPECT_FALSE(sigismember(&before, SIGPIPE));
    const timespec atOnce{};
    writeBlocked();
    EXPECT_EQ(sigtimedwait(&pipe, nullptr, &atOnce), -1) << "the write's own";
    raise(SIGPIPE);
    writeBlocked(); // unblocked at its end, the process would end, too
    EXPECT_EQ(sigtimedwait(&pipe, nullptr, &atOnce), SIGPIPE) << "the host's";
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace
