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

/// What the trees of all descriptions of the process may keep together, and how much each may keep whatever the others
/// do: 128 ordinary gateways fit beside hostile ones. The tree of a small gateway keeps 12 KiB, that of one with all its
/// interfaces 31 KiB.
inline constexpr std::size_t kMaxTreeBytes = 2 * 1024 * 1024;
inline constexpr std::size_t kOrdinaryTreeBytes = 32 * 1024;

/// Tags and attributes of an XML document: its characters '<' and '='. A loaded element takes many times the room of
/// its text; 1024 nodes with all their texts have half as many.
inline constexpr int kMaxXmlTags = 32768;

/// One text of a description or an answer; real ones have up to 300 bytes. A URL is joined with those of each node.
inline constexpr std::size_t kMaxElementTextBytes = 2048;

/// Entries of a gateway's mapping table: the index travels as a 16-bit number.
inline constexpr int kMaxPortMapEntries = 65536;

/// Characters of all texts of a listed table; a table as long as it may be has about 40 for an entry.
inline constexpr std::size_t kMaxPortMapCharacters = 3 * 1024 * 1024;

/// Ports are 16-bit numbers; ranges given by a first port and a count end here at the latest.
inline constexpr unsigned int kHighestPort = 65535;

/// How often a range is tried when the gateway refuses a port of it.
inline constexpr int kMaxRangeAttempts = 5;

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

/// One HTTP response, header and body. Descriptions of real gateways stay below 100 KiB, and the response is
/// searched and read on the host's thread.
inline constexpr std::size_t kMaxHttpResponseBytes = 1024 * 1024;

/// What all responses of a thread that are still arriving may hold together, and how much each may hold whatever the
/// others do: an ordinary answer arrives while many large ones are under way. Responses of the ordinary length
/// together, or a single longer one, are read in one round of the thread's loop.
inline constexpr std::size_t kMaxHeldResponseBytes = 2 * 1024 * 1024;
inline constexpr std::size_t kOrdinaryResponseBytes = 64 * 1024;

/// The whole life of an HTTP connection: a peer that sends a byte now and then is never idle.
inline constexpr DWORD kMaxHttpConnectionAgeMs = 60000;

/// Registered devices. Answers can come from forged sources, and each new one costs a connection.
inline constexpr std::size_t kMaxDevices = 128;

/// In a full registry a device that has not been heard from for this long makes room: whoever is there answers the
/// searches of two full discoveries. One that holds recorded mappings stays, since those are looked up.
inline constexpr DWORD kReplaceableSilenceMs = 600000;

/// Devices whose description has not been read: so many connections may be open for answers nobody vouches for.
inline constexpr std::size_t kMaxUndescribedDevices = 16;

/// Actions that wait behind the one in flight; each takes up to 10 s.
inline constexpr std::size_t kMaxQueuedActions = 1024;

/// The part of a datagram that is read; search answers and announcements have about 500 bytes.
inline constexpr int kMaxDatagramBytes = 2047;

/// Searches are repeated for this long, with this spacing, and begin anew after that.
inline constexpr DWORD kDiscoverPeriodMs = 10000;
inline constexpr DWORD kRediscoverSpacingMs = 1000;
inline constexpr DWORD kFullDiscoveryMs = 300000;

} // namespace tavronet

#endif
