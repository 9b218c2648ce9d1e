#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

namespace gateway
{

/// The one place where the program waits: descriptors and timers of a single thread.
///
/// A handler may watch, unwatch, start and cancel anything, itself included.
class EventLoop
{
public:
    using Ready = std::function<void()>;
    using TimerId = std::uint64_t;

    /// Calls `ready` whenever one of the poll `events` (or an error) is there; replaces an earlier watch.
    void Watch(int descriptor, short events, Ready ready);
    void Unwatch(int descriptor);

    /// Calls `due` once after `delay`. @return an id for Cancel, never 0.
    TimerId After(std::chrono::milliseconds delay, Ready due);
    /// Forgets a timer; one that has run, and 0, are ignored.
    void Cancel(TimerId timer);

    /// Serves until Stop.
    void Run();
    void Stop() { m_Running = false; }

private:
    using Clock = std::chrono::steady_clock;
    struct Watched
    {
        short events;
        std::uint64_t generation; // a descriptor number that was closed and given out again is another one
        Ready ready;
    };
    using TimerKey = std::pair<Clock::time_point, TimerId>;

    int WaitMs() const;
    void PollOnce();
    void RunDueTimers();

    std::map<int, Watched> m_Watched;
    std::map<TimerKey, Ready> m_Timers;
    std::map<TimerId, Clock::time_point> m_DueTimes;
    std::uint64_t m_LastGeneration = 0;
    TimerId m_LastTimer = 0;
    bool m_Running = true;
};

} // namespace gateway
