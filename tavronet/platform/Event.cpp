#include "tavronet/platform/Event.h"

#include <algorithm>
#include <cstdint>
#include <new>

#include "tavronet/platform/EventTable.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/MessageQueueObject.h"
#include "tavronet/platform/TestSeams.h"

namespace tavronet
{
namespace
{

// A handle is the slot's number + 1 in the lower half, so never null, and the slot's generation in the upper
// half.
HANDLE MakeHandle(std::size_t index, std::uint32_t generation)
{
    return reinterpret_cast<HANDLE>((std::uintptr_t{generation} << 32) | (index + 1));
}

BOOL BadHandle()
{
    WSASetLastError(ERROR_INVALID_HANDLE);
    return 0;
}

} // namespace

EventTable& EventTable::Instance()
{
    static EventTable& table =
        *new EventTable; // never destroyed: hosts close events during static destruction
    return table;
}

EventTable::Event* EventTable::Find(HANDLE handle)
{
    const auto value = reinterpret_cast<std::uintptr_t>(handle);
    const std::size_t index = static_cast<std::uint32_t>(value) - std::size_t{1};
    const auto generation = static_cast<std::uint32_t>(value >> 32);
    if (index >= m_Events.size() || !m_Events[index].open || m_Events[index].generation != generation)
        return nullptr;
    return &m_Events[index];
}

HANDLE EventTable::Create(bool manualReset, bool signalled)
{
    const std::lock_guard lock(m_Lock);
    if (m_Free.empty()) {
        m_Events.emplace_back();
        m_Free.reserve(m_Events.capacity()); // so that closing never allocates
        m_Free.push_back(m_Events.size() - 1);
    }
    const std::size_t index = m_Free.back();
    m_Free.pop_back();
    Event& event = m_Events[index];
    event = {event.generation + 1, true, manualReset, signalled};
    return MakeHandle(index, event.generation);
}

bool EventTable::Signal(HANDLE handle, bool signalled)
{
    const std::lock_guard lock(m_Lock);
    Event* const event = Find(handle);
    if (event == nullptr)
        return false;
    event->signalled = signalled;
    if (signalled)
        WakeWaiters(handle);
    return true;
}

bool EventTable::Close(HANDLE handle)
{
    const std::lock_guard lock(m_Lock);
    Event* const event = Find(handle);
    if (event == nullptr)
        return false;
    event->open = false;
    m_Free.push_back(static_cast<std::size_t>(event - m_Events.data()));
    WakeWaiters(handle);
    return true;
}

// Needs m_Lock.
void EventTable::WakeWaiters(HANDLE handle)
{
    for (const Waiter* const waiter : m_Waiters)
        if (std::ranges::find(waiter->handles, handle) != waiter->handles.end())
            waiter->queue.Wake();
}

EventTable::Outcome EventTable::Take(std::span<const HANDLE> handles)
{
    const std::lock_guard lock(m_Lock);
    Outcome outcome;
    for (std::size_t i = 0; i < handles.size(); ++i) {
        Event* const event = Find(handles[i]);
        if (event == nullptr)
            return {Outcome::Invalid, 0};
        if (event->signalled && outcome.kind == Outcome::None)
            outcome = {Outcome::Signalled, static_cast<DWORD>(i)};
    }
    if (outcome.kind == Outcome::Signalled)
        if (Event* const event = Find(handles[outcome.index]); !event->manualReset)
            event->signalled = false;
    return outcome;
}

EventTable::Waiter::Waiter(std::span<const HANDLE> waitedFor, MessageQueue& waitingQueue)
    : handles(waitedFor), queue(waitingQueue)
{
    EventTable& table = Instance();
    const std::lock_guard lock(table.m_Lock);
    table.m_Waiters.push_back(this);
}

EventTable::Waiter::~Waiter()
{
    EventTable& table = Instance();
    const std::lock_guard lock(table.m_Lock);
    std::erase(table.m_Waiters, this);
}

} // namespace tavronet

using tavronet::BadHandle;
using tavronet::EventTable;

HANDLE CreateEventW(void*, BOOL manualReset, BOOL initialState, const wchar_t*)
{
    if (tavronet::FaultInjected(tavronet::FaultPoint::CreateEvent))
        return nullptr;
    try {
        const HANDLE event = EventTable::Instance().Create(manualReset != 0, initialState != 0);
        tavronet::g_LivingEvents.fetch_add(1, std::memory_order_relaxed);
        return event;
    } catch (const std::bad_alloc&) {
        WSASetLastError(WSA_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
}

BOOL SetEvent(HANDLE event)
{
    return EventTable::Instance().Signal(event, true) ? 1 : BadHandle();
}

BOOL ResetEvent(HANDLE event)
{
    return EventTable::Instance().Signal(event, false) ? 1 : BadHandle();
}

BOOL CloseHandle(HANDLE event)
{
    if (!EventTable::Instance().Close(event))
        return BadHandle();
    tavronet::g_LivingEvents.fetch_sub(1, std::memory_order_relaxed);
    return 1;
}
