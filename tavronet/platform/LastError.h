#ifndef TAVRONET_PLATFORM_LASTERROR_H
#define TAVRONET_PLATFORM_LASTERROR_H

#include "tavronet/platform/Export.h"

/// One error code per thread, apart from errno. A call that fails sets it; success leaves it alone, except
/// that parsing address text also stores its success (0).
TAVRONET_API int WSAGetLastError();
TAVRONET_API void WSASetLastError(int error);

// Sockets.
inline constexpr int WSAEINTR = 10004;
inline constexpr int WSAEACCES = 10013;
inline constexpr int WSAEFAULT = 10014;
inline constexpr int WSAEINVAL = 10022;
inline constexpr int WSAEMFILE = 10024;
inline constexpr int WSAEWOULDBLOCK = 10035;
inline constexpr int WSAEALREADY = 10037;
inline constexpr int WSAENOTSOCK = 10038;
inline constexpr int WSAEDESTADDRREQ = 10039;
inline constexpr int WSAEMSGSIZE = 10040;
inline constexpr int WSAEPROTOTYPE = 10041;
inline constexpr int WSAENOPROTOOPT = 10042;
inline constexpr int WSAEPROTONOSUPPORT = 10043;
inline constexpr int WSAESOCKTNOSUPPORT = 10044;
inline constexpr int WSAEOPNOTSUPP = 10045;
inline constexpr int WSAEPFNOSUPPORT = 10046;
inline constexpr int WSAEAFNOSUPPORT = 10047;
inline constexpr int WSAEADDRINUSE = 10048;
inline constexpr int WSAEADDRNOTAVAIL = 10049;
inline constexpr int WSAENETDOWN = 10050;
inline constexpr int WSAENETUNREACH = 10051;
inline constexpr int WSAENETRESET = 10052;
inline constexpr int WSAECONNABORTED = 10053;
inline constexpr int WSAECONNRESET = 10054;
inline constexpr int WSAENOBUFS = 10055;
inline constexpr int WSAEISCONN = 10056;
inline constexpr int WSAENOTCONN = 10057;
inline constexpr int WSAESHUTDOWN = 10058;
inline constexpr int WSAETIMEDOUT = 10060;
inline constexpr int WSAECONNREFUSED = 10061;
inline constexpr int WSAEHOSTDOWN = 10064;
inline constexpr int WSAEHOSTUNREACH = 10065;

// Address text and names.
inline constexpr int WSATYPE_NOT_FOUND = 10109; // no such service: a port beyond 65535
inline constexpr int WSAHOST_NOT_FOUND = 11001; // unknown, or not numeric where only numbers are accepted
inline constexpr int WSATRY_AGAIN = 11002;
inline constexpr int WSANO_RECOVERY = 11003;
inline constexpr int WSA_NOT_ENOUGH_MEMORY = 8;

// Handles and tables.
inline constexpr int ERROR_INVALID_HANDLE = 6;
inline constexpr int ERROR_NOT_FOUND = 1168;

namespace tavronet
{

/// The code for a system error number; 0 for 0, WSAEINVAL for one without a code of its own.
int LastErrorFromErrno(int number);

/// Stores the code of the present errno. To be called on the line after the system call that failed.
void SetLastErrorFromErrno();

} // namespace tavronet

#endif
