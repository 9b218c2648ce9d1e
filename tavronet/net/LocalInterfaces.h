/// This machine's own addresses, and the names of connected sockets, as numeric text (AddressText.h).
///
/// Nothing is remembered between calls: each asks the system anew.
#ifndef TAVRONET_NET_LOCALINTERFACES_H
#define TAVRONET_NET_LOCALINTERFACES_H

#include <vector>

#include "tavronet/platform/Export.h"
#include "tavronet/platform/String.h"
#include "tavronet/platform/Types.h"

/// Appends the unicast addresses of all adapters that are up and running, by adapter, the loopback adapter
/// first.
///
/// When the adapters cannot be listed: for AF_INET the whole list is replaced by GetLocalIpAddresses and
/// 127.0.0.1; for AF_INET6 "::1" is appended; for 0 nothing.
/// @param family AF_INET, AF_INET6, or 0 for both.  @param clearFirst empties the list before.
/// @return the length of the list. The form without a family clears, then lists IPv4 before IPv6.
TAVRONET_API long long GetLocalAddresses(std::vector<CStringW>& addresses, int family, bool clearFirst);
TAVRONET_API long long GetLocalAddresses(std::vector<CStringW>& addresses);
TAVRONET_API long long GetLocalIPv4Addresses(std::vector<CStringW>& addresses, bool clearFirst);
TAVRONET_API long long GetLocalIPv6Addresses(std::vector<CStringW>& addresses, bool clearFirst);

/// Replaces the list by the IPv4 addresses of the machine's host name. Blocks while the name is looked up,
/// for seconds where a name server has to be asked and is silent.
/// @return the length of the list; 0 when the name is unknown.
TAVRONET_API long long GetLocalIpAddresses(std::vector<CStringW>& addresses);

/// Whether the address is one of this machine's. IPv4 is compared as text, so only its plain dotted form
/// counts; of IPv6 any form does, and the scope does not count.
/// @return 1 or 0; 0 for bad text.
TAVRONET_API int IPExists(const char* address);
TAVRONET_API int IPExists(const wchar_t* address);

/// The index of the adapter that holds an IPv6 address.
/// @param address in exactly the form that GetLocalAddresses gives, scope included.
/// @return -1 when no adapter that is up holds it or the adapters cannot be listed.
TAVRONET_API int GetIPv6InterfaceIndex(const char* address);
TAVRONET_API int GetIPv6InterfaceIndex(const wchar_t* address);

/// The remote (GetPeerName) or local (GetSockName) address of a socket.
/// @param port in host byte order.
/// @return false with address and port unchanged: no handle, not connected, or no internet address.
TAVRONET_API bool GetPeerName(SOCKET handle, CStringW& address, UINT& port);
TAVRONET_API bool GetSockName(SOCKET handle, CStringW& address, UINT& port);

#endif
