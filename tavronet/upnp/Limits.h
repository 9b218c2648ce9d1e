#ifndef TAVRONET_UPNP_LIMITS_H
#define TAVRONET_UPNP_LIMITS_H

#include <cstddef>

#include "tavronet/platform/Types.h"

/// What bounds the gateway side: whatever a peer can make grow ends at one of these.
namespace tavronet
{

/// Nesting of devices below a root. Real gateways use 2; walks over the tree recurse once per level.
inline constexpr int kMaxDeviceDepth = 32;

/// Embedded devices and services of one description. Real gateways have about ten.
inline constexpr int kMaxDescriptionNodes = 1024;

/// Entries of a gateway's mapping table: the index travels as a 16-bit number.
inline constexpr int kMaxPortMapEntries = 65536;

/// The longest wait for an answer.
inline constexpr DWORD kWaitTimeoutMs = 10000;

/// How long a device may take to be described, and a connection may stay without activity.
inline constexpr DWORD kDescriptionWaitMs = 30000;
inline constexpr DWORD kIdleConnectionMs = 30000;

/// A search sent on a device's behalf counts as under way for this long.
inline constexpr DWORD kIssuedSearchMs = 10000;

/// Unanswered searches after which an expired device is dropped.
inline constexpr UINT kMaxRediscoverAttempts = 3;

/// The least time between two checks of a device's mappings.
inline constexpr DWORD kVerifySpacingMs = 10000;

} // namespace tavronet

#endif
