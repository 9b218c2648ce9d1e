#ifndef TAVRONET_PLATFORM_EVENT_H
#define TAVRONET_PLATFORM_EVENT_H

#include <stddef.h>

#include "tavronet/platform/Export.h"
#include "tavronet/platform/Types.h"

#ifdef __cplusplus
extern "C" {
#endif

/// Event objects: flags that any thread sets and that Wait.h waits for. Usable from C99 and C++.
///
/// A handle is an entry of a process-wide table with a generation, so a closed handle never means a newer
/// event, and no descriptor is used. All functions may be called from any thread; none runs foreign code.

/// Makes an event.
/// @param attributes ignored, pass null.  @param name ignored, pass null.
/// @param manualReset non-zero: stays signalled until ResetEvent; zero: reset by the one wait that reports
/// it.
/// @return the handle, which the caller closes; null only when memory is exhausted.
TAVRONET_API HANDLE CreateEventW(void* attributes, BOOL manualReset, BOOL initialState, const wchar_t* name);

/// Signals the event and wakes who waits for it. @return non-zero; 0 with last error 6 for a bad handle.
TAVRONET_API BOOL SetEvent(HANDLE event);

/// Takes the signal back. @return non-zero; 0 with last error 6 for a bad handle.
TAVRONET_API BOOL ResetEvent(HANDLE event);

/// Ends the event; a wait for it ends as failed. @return non-zero; 0 with last error 6 for a bad handle.
TAVRONET_API BOOL CloseHandle(HANDLE event);

#ifdef __cplusplus
}
#endif

#endif
