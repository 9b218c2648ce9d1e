// The one place where a thread blocks: on its queue, which events wake.

#include "tavronet/platform/Wait.h"

#include <algorithm>
#include <chrono>

#include "tavronet/platform/EventTable.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/MessageQueueObject.h"

namespace
{

using Clock = std::chrono::steady_clock;
using tavronet::EventTable;

constexpr DWORD kMaxHandles = 64;
constexpr int kLongestBlockMs = 3600 * 1000;

// How long one block may last: to the end of the wait, rounded up so that it never ends early.
int BlockMs(bool endless, Clock::time_point deadline)
{
    if (endless)
        return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, kLongestBlockMs));
}

} // namespace

DWORD MsgWaitForMultipleObjectsEx(DWORD count, const HANDLE* handles, DWORD milliseconds, DWORD, DWORD)
{
    if (count > kMaxHandles || (count > 0 && handles == nullptr)) {
        WSASetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
    const ThreadQueue queue = CurrentThreadQueue();
    const std::span<const HANDLE> events(handles, count);
    const EventTable::Waiter waiter(events, *queue);

    const bool endless = milliseconds == INFINITE;
    const auto deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
    for (bool expired = false;; expired = !endless && Clock::now() >= deadline) {
        const EventTable::Outcome outcome = EventTable::Instance().Take(events);
        if (outcome.kind == EventTable::Outcome::Signalled)
            return WAIT_OBJECT_0 + outcome.index;
        if (outcome.kind == EventTable::Outcome::Invalid) {
            WSASetLastError(ERROR_INVALID_HANDLE);
            return WAIT_FAILED;
        }
        if (queue->HasDue())
            return WAIT_OBJECT_0 + count;
        if (expired)
            return WAIT_TIMEOUT;

        int timeoutMs = BlockMs(endless, deadline);
        if (timeoutMs != 0)
            timeoutMs = queue->RunHook(timeoutMs);
        queue->Block(timeoutMs);
    }
}
