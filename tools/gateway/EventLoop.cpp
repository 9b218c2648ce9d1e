#include "EventLoop.h"

#include <poll.h>

#include <algorithm>
#include <vector>

namespace gateway
{

void EventLoop::Watch(int descriptor, short events, Ready ready)
{
    m_Watched[descriptor] = Watched{events, ++m_LastGeneration, std::move(ready)};
}

void EventLoop::Unwatch(int descriptor)
{
    m_Watched.erase(descriptor);
}

EventLoop::TimerId EventLoop::After(std::chrono::milliseconds delay, Ready due)
{
    const auto when = Clock::now() + delay;
    const TimerId timer = ++m_LastTimer;
    m_Timers.emplace(TimerKey{when, timer}, std::move(due));
    m_DueTimes.emplace(timer, when);
    return timer;
}

void EventLoop::Cancel(TimerId timer)
{
    const auto found = m_DueTimes.find(timer);
    if (found == m_DueTimes.end())
        return;
    m_Timers.erase(TimerKey{found->second, timer});
    m_DueTimes.erase(found);
}

void EventLoop::Run()
{
    while (m_Running) {
        PollOnce();
        RunDueTimers();
    }
}

int EventLoop::WaitMs() const
{
    if (m_Timers.empty())
        return -1;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(m_Timers.begin()->first.first - Clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 60'000));
}

void EventLoop::PollOnce()
{
    std::vector<pollfd> entries;
    std::vector<std::uint64_t> generations;
    for (const auto& [descriptor, watched] : m_Watched) {
        entries.push_back(pollfd{descriptor, watched.events, 0});
        generations.push_back(watched.generation);
    }
    if (::poll(entries.data(), entries.size(), WaitMs()) <= 0)
        return;

    for (std::size_t i = 0; i < entries.size() && m_Running; ++i) {
        if (entries[i].revents == 0)
            continue;
        // Looked up again: an earlier handler of this round may have closed this descriptor.
        const auto found = m_Watched.find(entries[i].fd);
        if (found == m_Watched.end() || found->second.generation != generations[i])
            continue;
        const Ready ready = found->second.ready;
        ready();
    }
}

void EventLoop::RunDueTimers()
{
    const auto now = Clock::now();
    while (m_Running && !m_Timers.empty() && m_Timers.begin()->first.first <= now) {
        const Ready due = std::move(m_Timers.begin()->second);
        m_DueTimes.erase(m_Timers.begin()->first.second);
        m_Timers.erase(m_Timers.begin());
        due();
    }
}

} // namespace gateway
