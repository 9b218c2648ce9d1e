/// The plain types of the public interface. Usable from C99 and C++.
///
/// The 32-bit types are exactly 32 bits wide on every platform; no public quantity is a `long`.
#ifndef TAVRONET_PLATFORM_TYPES_H
#define TAVRONET_PLATFORM_TYPES_H

#include <stdint.h>

typedef uint8_t BYTE;
typedef uint32_t UINT;
typedef uint32_t DWORD;
typedef uint32_t ULONG;
typedef int32_t LONG;
typedef int BOOL;

/// An event object (Event.h); null is no handle.
typedef void* HANDLE;

/// A socket's system descriptor, widened; INVALID_SOCKET when there is none.
typedef unsigned long long SOCKET;

#define INVALID_SOCKET (~0ULL)
#define SOCKET_ERROR (-1)

#endif
