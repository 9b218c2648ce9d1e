// The library in an Asio io_context: a call posted from another thread, then a wait that an Asio timer ends.

#include <asio.hpp>
#include <tavronet/tavronet.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

namespace
{

/// Dispatches the library's queue whenever it has something due.
class QueueWatch
{
public:
    /// The descriptor belongs to the queue and Asio closes what it watches: it gets a duplicate.
    explicit QueueWatch(asio::io_context& context) : m_Queue(context, dup(QueueDescriptor())) { Wait(); }

    void Stop() { m_Queue.close(); }

private:
    void Wait()
    {
        m_Queue.async_wait(asio::posix::stream_descriptor::wait_read, [this](const asio::error_code& error) {
            if (error)
                return;
            DispatchRound();
            Wait();
        });
    }

    asio::posix::stream_descriptor m_Queue;
};

struct Host
{
    asio::io_context context;
    QueueWatch watch{context};
    bool called = false;
};

} // namespace

int main()
{
    Host host;
    const ThreadQueue queue = CurrentThreadQueue();
    const auto call = [](void* raw) {
        auto& called = *static_cast<Host*>(raw);
        called.called = true;
        called.context.stop();
    };
    std::thread worker([&] { PostThreadCall(queue, call, &host); });
    host.context.run();
    worker.join();

    // Operations on a gateway wait in place; with this hook Asio's handlers run meanwhile.
    host.context.restart();
    SetWaitHook([](void* raw) { static_cast<Host*>(raw)->context.poll_one(); }, &host);
    HANDLE event = CreateEventW(nullptr, 1, 0, nullptr);
    asio::steady_timer timer(host.context, std::chrono::milliseconds(20));
    timer.async_wait([event](const asio::error_code&) { SetEvent(event); });
    const bool ticked = MsgWaitForMultipleObjectsEx(1, &event, 5000, kWakeOnAnyInput, 0) == WAIT_OBJECT_0;
    CloseHandle(event);
    SetWaitHook(nullptr, nullptr);
    host.watch.Stop();
    std::printf("called: %s, Asio ran inside the wait: %s\n", host.called ? "yes" : "no",
                ticked ? "yes" : "no");
    return host.called && ticked ? 0 : 1;
}
