/// Networks, private addresses and IPv4 ranges, on numeric address text (AddressText.h).
#ifndef TAVRONET_NET_ADDRESSRANGES_H
#define TAVRONET_NET_ADDRESSRANGES_H

#include "tavronet/platform/Export.h"
#include "tavronet/platform/Types.h"

/// Whether an address lies in a network; only the first prefix-length bits count.
/// @param cidr network address, "/", prefix length (1-32 or 1-128), for example "192.168.0.0/16". The number
/// is read
///             up to its first other character; bits of the network beyond the prefix are ignored. Without
///             text before the "/" the network is that of 0.0.0.0.
/// @param exactNetwork the address must also have no bit set beyond the prefix.
/// @return false also for bad text of either kind and for different families.
TAVRONET_API bool MatchesCIDR(const char* cidr, const char* address, bool exactNetwork);
TAVRONET_API bool MatchesCIDR(const wchar_t* cidr, const wchar_t* address, bool exactNetwork);

/// Whether the text is a network as MatchesCIDR takes it.
/// @param allowHostBits false: bits beyond the prefix make it invalid.
TAVRONET_API bool ValidCIDR(const char* cidr, bool allowHostBits);
TAVRONET_API bool ValidCIDR(const wchar_t* cidr, bool allowHostBits);

/// @return 1 for 127.0.0.1, 192.168.0.0/16, 172.16.0.0/12, 10.0.0.0/8, ::1 and fc00::/7; 0 for all else,
/// link-local
///         addresses and bad text included.
TAVRONET_API int IsPrivateIP(const char* address);
TAVRONET_API int IsPrivateIP(const wchar_t* address);

/// Whether lowest <= address <= highest. A bound that is no IPv4 text counts as 255.255.255.255.
/// @param address network byte order.
/// @return 1 or 0. Leaves the last error.
TAVRONET_API int IsIPInRange(DWORD address, const char* lowest, const char* highest);
TAVRONET_API int IsIPInRange(DWORD address, const wchar_t* lowest, const wchar_t* highest);

/// Finds the subnet mask that goes with one of this machine's IPv4 addresses, on an adapter up or down.
/// @param address compared as text with the plain dotted form.
/// @param mask filled with dotted text, cut to fit and terminated; empty unless the result is 0.
/// @param size of the buffer in bytes.
/// @return 0 found; 1168 no adapter has the address; 1 the adapters could not be listed; 2 there is no
/// adapter table to
///         ask. 1 with the buffer untouched when it is null or `size` is 0 or less.
TAVRONET_API LONG GetSubnetMask(const char* address, char* mask, int size);

#endif
