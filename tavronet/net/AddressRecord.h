/// The inside of socket-address records, for the sources of this layer. Internal.
#ifndef TAVRONET_NET_ADDRESSRECORD_H
#define TAVRONET_NET_ADDRESSRECORD_H

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <span>

#include "tavronet/platform/SocketCalls.h"

namespace tavronet
{

/// The bare address inside the record: 4 or 16 bytes in network order, none for another family.
inline std::span<const unsigned char> AddressBytes(const sockaddr_storage& record)
{
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&record);
    if (record.ss_family == AF_INET)
        return {bytes + offsetof(sockaddr_in, sin_addr), sizeof(in_addr)};
    if (record.ss_family == AF_INET6)
        return {bytes + offsetof(sockaddr_in6, sin6_addr), sizeof(in6_addr)};
    return {};
}

/// Numeric text of a record; empty when it cannot be printed.
struct NumericText
{
    NumericText(const sockaddr_storage& record, int length)
    {
        const auto* const address = reinterpret_cast<const sockaddr*>(&record);
        isPrinted =
            platform::getnameinfo(address, length, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0;
    }

    char text[NI_MAXHOST] = {};
    bool isPrinted = false;
};

} // namespace tavronet

#endif
