#ifndef TAVRONET_PLATFORM_NAMELOOKUP_H
#define TAVRONET_PLATFORM_NAMELOOKUP_H

#include "tavronet/platform/Types.h"

struct sockaddr_storage;
class CAsyncSocket;

namespace tavronet
{

/// Parses numeric address text; names are never resolved. Touches neither output on failure.
bool NumericAddress(const char* text, UINT port, sockaddr_storage& address, int& addressLength);

/// Looks host names up without blocking, at most 20 at a time in the process; the rest waits in line.
///
/// The outcome comes back as an entry of the socket's queue and goes on with the connect. It finds the socket
/// by its id: closing or destroying the socket abandons the look-up.
class NameLookup
{
public:
    /// @return false when too many look-ups wait already. Throws std::bad_alloc with nothing begun.
    static bool Start(CAsyncSocket& socket, const char* host, UINT port);

    /// For a socket that is about to give up its handle: takes its look-up out of the line when it waits there.
    static void Abandon(const CAsyncSocket& socket);

private:
    struct Request;
    struct Line;

    static void Begin(Request* request);
    static void Ended(Request* request);
    static void GoOn(void* request);
};

} // namespace tavronet

#endif
