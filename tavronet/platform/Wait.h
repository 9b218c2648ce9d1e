#ifndef TAVRONET_PLATFORM_WAIT_H
#define TAVRONET_PLATFORM_WAIT_H

#include "tavronet/platform/Export.h"
#include "tavronet/platform/Types.h"

inline constexpr DWORD WAIT_OBJECT_0 = 0;
inline constexpr DWORD WAIT_TIMEOUT = 258;
inline constexpr DWORD WAIT_FAILED = 0xFFFFFFFF;
inline constexpr DWORD INFINITE = 0xFFFFFFFF;

/// The wake mask of the library's own waits: any input.
inline constexpr DWORD kWakeOnAnyInput = 0x5FF;

/// Blocks until an event is signalled, the calling thread's queue has something due, or the time is over.
/// Dispatches nothing: no foreign code runs inside, except the host's own wait hook (MessageQueue.h).
///
/// Events are looked at first, then the queue, then the clock. Entries left over from earlier count as due.
/// Signals to the process do not end the wait early.
/// @param count how many handles, 0 to 64.  @param handles borrowed for the call.
/// @param milliseconds real time; 0 never blocks, INFINITE waits without limit.
/// @param wakeMask accepted for completeness: every entry of the queue ends the wait.  @param flags ignored.
/// @return the index of the lowest signalled handle; `count` when the queue has something due; WAIT_TIMEOUT;
///         WAIT_FAILED with last error 6 when a handle is, or becomes, invalid.
TAVRONET_API DWORD MsgWaitForMultipleObjectsEx(DWORD count, const HANDLE* handles, DWORD milliseconds,
                                               DWORD wakeMask, DWORD flags);

#endif
