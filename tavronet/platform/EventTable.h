#ifndef TAVRONET_PLATFORM_EVENTTABLE_H
#define TAVRONET_PLATFORM_EVENTTABLE_H

#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

#include "tavronet/platform/Types.h"

namespace tavronet
{

class MessageQueue;

/// All event objects of the process, and who waits for them. Any thread.
class EventTable
{
public:
    static EventTable& Instance();

    HANDLE Create(bool manualReset, bool signalled);
    bool Signal(HANDLE handle, bool signalled);
    bool Close(HANDLE handle);

    struct Outcome
    {
        enum Kind
        {
            None,
            Signalled,
            Invalid
        };
        Kind kind = None;
        DWORD index = 0;
    };

    /// The lowest signalled handle, reset when it is an auto-reset event; Invalid when any handle is.
    Outcome Take(std::span<const HANDLE> handles);

    /// Has `queue` woken, for the length of a scope, whenever one of the handles is signalled or closed.
    struct Waiter
    {
        Waiter(std::span<const HANDLE> waitedFor, MessageQueue& waitingQueue);
        ~Waiter();
        Waiter(const Waiter&) = delete;
        Waiter& operator=(const Waiter&) = delete;

        const std::span<const HANDLE> handles;
        MessageQueue& queue;
    };

private:
    struct Event
    {
        std::uint32_t generation = 0;
        bool open = false;
        bool manualReset = false;
        bool signalled = false;
    };

    EventTable() = default;
    Event* Find(HANDLE handle);
    void WakeWaiters(HANDLE handle);

    std::mutex m_Lock;
    std::vector<Event> m_Events;     // slots are used again, with the next generation
    std::vector<std::size_t> m_Free; // slots that are not open
    std::vector<const Waiter*> m_Waiters;
};

} // namespace tavronet

#endif
