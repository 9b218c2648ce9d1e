#include "tavronet/platform/SocketWatch.h"

#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace tavronet
{
namespace
{

constexpr int kBatch = 256; // the rest is reported by the next call
constexpr int kPauseMs = 10;

std::uint32_t Translate(std::uint32_t events)
{
    std::uint32_t what = 0;
    if (events & EPOLLIN)
        what |= Readiness::Input;
    if (events & EPOLLOUT)
        what |= Readiness::Output;
    if (events & EPOLLPRI)
        what |= Readiness::Urgent;
    if (events & (EPOLLRDHUP | EPOLLHUP))
        what |= Readiness::HungUp;
    if (events & EPOLLERR)
        what |= Readiness::Failed | Readiness::HungUp;
    return what;
}

bool Register(int epoll, int descriptor, std::uint32_t events, std::uint64_t id)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    return epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

} // namespace

bool SocketWatch::Open()
{
    if (m_Epoll < 0)
        m_Epoll = epoll_create1(EPOLL_CLOEXEC);
    if (m_Epoll >= 0)
        m_Ready.reserve(kBatch);
    return m_Epoll >= 0;
}

SocketWatch::~SocketWatch()
{
    if (m_Epoll >= 0)
        close(m_Epoll);
}

bool SocketWatch::Add(int descriptor, std::uint64_t id)
{
    return Register(m_Epoll, descriptor, EPOLLIN | EPOLLOUT | EPOLLPRI | EPOLLRDHUP | EPOLLET, id);
}

bool SocketWatch::AddLevel(int descriptor, std::uint64_t id)
{
    return Register(m_Epoll, descriptor, EPOLLIN, id);
}

void SocketWatch::Remove(int descriptor)
{
    epoll_ctl(m_Epoll, EPOLL_CTL_DEL, descriptor, nullptr);
}

std::span<const Readiness> SocketWatch::Collect(int timeoutMs)
{
    m_Ready.clear();
    if (m_Epoll < 0) { // out of descriptors: nothing can be watched, but a wait must not spin
        const bool brief = timeoutMs >= 0 && timeoutMs < kPauseMs;
        poll(nullptr, 0, brief ? timeoutMs : kPauseMs);
        return m_Ready;
    }
    epoll_event events[kBatch];
    const int count = epoll_wait(m_Epoll, events, kBatch, timeoutMs);
    for (int i = 0; i < count; ++i)
        m_Ready.push_back({events[i].data.u64, Translate(events[i].events)});
    return m_Ready;
}

} // namespace tavronet
