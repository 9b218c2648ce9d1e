/// Numeric address text to socket-address records and back. Names are never resolved.
///
/// Text: functions that take address text exist for 8-bit (UTF-8) and wide text with the same results; text
/// is borrowed for the call. Null and empty text stand for the wildcard address, of IPv4 when no family is
/// asked for. What else is accepted is what the system's numeric parser accepts: short IPv4 forms ("10.1"), a
/// scope behind link-local IPv6 text ("fe80::1%eth0"), but no brackets, ports or blanks. Families are the
/// system's AF_INET, AF_INET6, or 0 for either. Errors: bad text is a result, never an exception. Every parse
/// stores its outcome as last error, 0 for success. Exhausted memory throws CMemoryException*.
#ifndef TAVRONET_NET_ADDRESSTEXT_H
#define TAVRONET_NET_ADDRESSTEXT_H

#include "tavronet/platform/Export.h"
#include "tavronet/platform/String.h"
#include "tavronet/platform/Types.h"

struct addrinfo;
struct in6_addr;
struct sockaddr_storage;

/// A socket address of either family: the system's 128-byte record (<sys/socket.h>).
using sockaddr_storage_xp = sockaddr_storage;

/// Parses address text into the system's result list.
/// @param port 0 to 65535; any other fails with WSATYPE_NOT_FOUND.
/// @param socketType 1 stream, 2 datagram.
/// @return the list, which the caller releases with freeaddrinfo (<netdb.h>); null when the text is no
/// address
///         of the family.
TAVRONET_API addrinfo* GetAddrInfo(UINT port, const char* host, int family, int socketType);
TAVRONET_API addrinfo* GetAddrInfo(UINT port, const wchar_t* host, int family, int socketType);

/// Parses address text into a record; the bytes behind the address are zero, so that equal addresses are
/// equal records.
/// @param port as above; 0 in the shorter forms. It never comes from the text.
/// @param length set to the length of the address: 16 for IPv4, 28 for IPv6.
/// @return false when the text does not parse; record and length are then unchanged.
TAVRONET_API bool GetSockAddr(UINT port, const char* host, sockaddr_storage_xp& record, int& length,
                              int family);
TAVRONET_API bool GetSockAddr(UINT port, const wchar_t* host, sockaddr_storage_xp& record, int& length,
                              int family);
TAVRONET_API bool GetSockAddr(const char* host, sockaddr_storage_xp& record, int& length, int family);
TAVRONET_API bool GetSockAddr(const wchar_t* host, sockaddr_storage_xp& record, int& length, int family);
TAVRONET_API bool GetSockAddr(const char* host, sockaddr_storage_xp& record);
TAVRONET_API bool GetSockAddr(const wchar_t* host, sockaddr_storage_xp& record);

/// Parses address text of either family and points at the bare address inside the record.
/// @param address set to null first; on success the address bytes in network order, valid as long as the
/// record.
/// @param addressLength set to 4 or 16.  @param family set to the family of the text.
/// @return false when the text does not parse; all but `address` is then unchanged.
TAVRONET_API bool INetAddr(const char* host, sockaddr_storage_xp& record, int& length, const char*& address,
                           int& addressLength, int& family);

/// @return AF_INET or AF_INET6, 0 when the text is no address. Null and empty text are AF_INET.
TAVRONET_API int AddressFamily(const char* host);
TAVRONET_API int AddressFamily(const wchar_t* host);

/// Whether the record is of the family and holds just this address, whatever its port and scope.
/// @param address IPv4, network byte order.
TAVRONET_API bool IsAddress(const sockaddr_storage_xp& record, DWORD address);
TAVRONET_API bool IsAddress(const sockaddr_storage_xp& record, const in6_addr& address);

/// Whether the address is the wildcard: 0.0.0.0, ::, or either. Null and empty text are 0.0.0.0.
TAVRONET_API bool IsAllIPv4(const sockaddr_storage_xp& record);
TAVRONET_API bool IsAllIPv4(const char* host);
TAVRONET_API bool IsAllIPv4(const wchar_t* host);
TAVRONET_API bool IsAllIPv6(const sockaddr_storage_xp& record);
TAVRONET_API bool IsAllIPv6(const char* host);
TAVRONET_API bool IsAllIPv6(const wchar_t* host);
TAVRONET_API bool IsAllIP(const sockaddr_storage_xp& record);
TAVRONET_API bool IsAllIP(const char* host);
TAVRONET_API bool IsAllIP(const wchar_t* host);

/// Whether the address is exactly 127.0.0.1, exactly ::1, or either. The rest of 127.0.0.0/8 and IPv4
/// addresses mapped into IPv6 do not count.
TAVRONET_API bool IsLoopbackIPv4(const sockaddr_storage_xp& record);
TAVRONET_API bool IsLoopbackIPv4(const char* host);
TAVRONET_API bool IsLoopbackIPv4(const wchar_t* host);
TAVRONET_API bool IsLoopbackIPv6(const sockaddr_storage_xp& record);
TAVRONET_API bool IsLoopbackIPv6(const char* host);
TAVRONET_API bool IsLoopbackIPv6(const wchar_t* host);
TAVRONET_API bool IsLoopbackIP(const sockaddr_storage_xp& record);
TAVRONET_API bool IsLoopbackIP(const char* host);
TAVRONET_API bool IsLoopbackIP(const wchar_t* host);

/// The numeric text of the record's address, without brackets and port; a scoped address names its interface.
/// @return empty text for a record of another family. Leaves the last error.
TAVRONET_API CStringW GetIP(const sockaddr_storage_xp& record);

/// The wide twin of the system's inet_addr.
/// @return network byte order; 0xFFFFFFFF when the text is no IPv4 address. Leaves the last error.
TAVRONET_API DWORD inet_addr(const wchar_t* text);

/// The value with its four bytes reversed: turns a network-order IPv4 address into a number that orders as
/// the addresses do, and back.
constexpr DWORD Flip(DWORD value)
{
    return (value >> 24) | ((value >> 8) & 0xFF00U) | ((value << 8) & 0xFF0000U) | (value << 24);
}

/// Writes the zero groups of IPv6 text out: "fe80::1" becomes "fe80:0:0:0:0:0:0:1". Groups are neither padded
/// nor changed in case; a dotted tail or a scope stays part of its group. Text without exactly one "::", or
/// with eight colons or more, stays unchanged.
/// @return `text`.
TAVRONET_API CStringW& ExpandIPv6(CStringW& text);

#endif
