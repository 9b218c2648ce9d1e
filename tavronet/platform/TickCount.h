#ifndef TAVRONET_PLATFORM_TICKCOUNT_H
#define TAVRONET_PLATFORM_TICKCOUNT_H

#include "tavronet/platform/Export.h"
#include "tavronet/platform/Types.h"

/// Milliseconds since the machine booted, suspended time included; wraps every 49.7 days.
/// Never 0: callers store 0 for "unset".
TAVRONET_API DWORD GetTickCount();

/// Replaces the clock behind GetTickCount, so that a host can test weeks of upkeep in a moment.
/// What blocks keeps using the real clock, but an operation that waits in several steps adds them up by this one:
/// a source that stands still makes it wait for ever while messages keep coming. A source that yields 0 is read as 1.
/// @param source called from any thread that asks for the tick; null restores the clock.
TAVRONET_API void SetTickSource(DWORD (*source)());

/// The milliseconds from `then` to `now`, right across the wrap of the counter.
constexpr DWORD ElapsedMs(DWORD now, DWORD then)
{
    return now - then;
}

#endif
