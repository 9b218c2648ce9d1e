/// The system's flat socket calls, with wide handles and the error codes of LastError.h.
///
/// Each sets the thread's last error when it fails and leaves it alone when it succeeds, except the two
/// resolver calls, which return their code and never touch it. Internal: it includes system headers.
#ifndef TAVRONET_PLATFORM_SOCKETCALLS_H
#define TAVRONET_PLATFORM_SOCKETCALLS_H

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "tavronet/platform/Types.h"

namespace platform
{

/// As the system's, with three additions: empty host text counts as none; a service that is a number outside
/// 0 ... 65535 fails (the system would cut it to 16 bits); the protocol hint counts for streams only (the
/// system refuses datagrams with TCP).
/// @return 0, or a code of LastError.h. The result is released with freeaddrinfo.
int getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** result);

void freeaddrinfo(addrinfo* result);

/// The code of LastError.h for a result of the system's resolver (EAI_...); 0 for 0.
int ResolverError(int result);

/// As the system's, for internet addresses only. @return 0, or a code of LastError.h with the buffers
/// untouched.
int getnameinfo(const sockaddr* address, int addressLength, char* host, int hostSize, char* service,
                int serviceSize, int flags);

/// 0, or -1 with the last error.
int bind(SOCKET handle, const sockaddr* address, int addressLength);
int listen(SOCKET handle, int backlog);
int setsockopt(SOCKET handle, int level, int option, const void* value, int length);
int getsockopt(SOCKET handle, int level, int option, void* value, int* length);
int getsockname(SOCKET handle, sockaddr* address, int* addressLength);
int getpeername(SOCKET handle, sockaddr* address, int* addressLength);
int gethostname(char* name, int size);

/// The IPv4 addresses of a host name, as a null-terminated list in the result. May block; the result is valid
/// until the thread's next call. @return null with the last error when the name is unknown.
const hostent* gethostbyname(const char* name);

/// The address in network byte order; 0xFFFFFFFF when the text is none. Null is none.
DWORD inet_addr(const char* text);

/// Tells how many bytes wait (stream) or how long the first datagram is.
/// @return false with the last error when the system cannot tell (a listener); `count` is then unchanged.
bool WaitingBytes(SOCKET handle, UINT& count);

} // namespace platform

#endif
