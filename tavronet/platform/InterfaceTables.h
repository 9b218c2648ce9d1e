/// The machine's adapters and their addresses, asked anew each time. Internal: it includes system headers.
#ifndef TAVRONET_PLATFORM_INTERFACETABLES_H
#define TAVRONET_PLATFORM_INTERFACETABLES_H

#include <string>
#include <vector>

#include <sys/socket.h>

#include "tavronet/platform/Types.h"

namespace tavronet
{

/// How a query for the adapters ended. Callers map the four ends to different results; the system itself
/// produces only the first and the last.
enum class InterfaceQuery
{
    Done,
    NoLibrary, // there is nobody to ask
    NoEntry,   // who is asked does not know the question
    Failed
};

struct InterfaceAddress
{
    sockaddr_storage address{};
    int length = 0; // of the address: 16 or 28
    DWORD mask = 0; // IPv4, network byte order
};

struct InterfaceEntry
{
    std::string name;
    int index = 0;
    bool isUp = false; // set up and running: has a carrier, where it can tell
    std::vector<InterfaceAddress> addresses;
};

/// Lists all adapters by ascending index, the loopback adapter included, each with its unicast addresses in
/// the order the system lists them, IPv4 before IPv6.
/// @param family AF_INET, AF_INET6, or AF_UNSPEC for both; adapters without such an address stay in the list.
/// @param interfaces replaced on Done, otherwise unspecified.
InterfaceQuery QueryInterfaces(int family, std::vector<InterfaceEntry>& interfaces);

/// For tests: answers all queries from now on; null restores the system.
using InterfaceTableSource = InterfaceQuery (*)(int family, std::vector<InterfaceEntry>& interfaces);
void SetInterfaceTableSource(InterfaceTableSource source);

} // namespace tavronet

#endif
