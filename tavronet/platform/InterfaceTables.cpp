#include "tavronet/platform/InterfaceTables.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netpacket/packet.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

namespace tavronet
{

namespace
{

std::atomic<InterfaceTableSource> g_Source = nullptr;

using SystemTable = std::unique_ptr<ifaddrs, decltype(&freeifaddrs)>;

int LengthOf(const sockaddr& address)
{
    return address.sa_family == AF_INET ? int{sizeof(sockaddr_in)} : int{sizeof(sockaddr_in6)};
}

// Every link has one entry of the packet family, whether or not it has addresses.
std::vector<InterfaceEntry> LinksByIndex(const ifaddrs* table)
{
    std::vector<InterfaceEntry> links;
    for (const ifaddrs* entry = table; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_PACKET)
            continue;
        sockaddr_ll link;
        std::memcpy(&link, entry->ifa_addr, sizeof link);
        const bool isUp = (entry->ifa_flags & IFF_UP) != 0 && (entry->ifa_flags & IFF_RUNNING) != 0;
        links.push_back({entry->ifa_name, link.sll_ifindex, isUp, {}});
    }
    std::ranges::sort(links, {}, &InterfaceEntry::index);
    return links;
}

// An address entry carries a label ("eth0:1") where it was added with one; no link's name has a colon.
std::string_view LinkName(const ifaddrs& entry)
{
    const std::string_view label(entry.ifa_name);
    return label.substr(0, label.find(':'));
}

InterfaceAddress AddressOf(const ifaddrs& entry)
{
    InterfaceAddress result;
    result.length = LengthOf(*entry.ifa_addr);
    std::memcpy(&result.address, entry.ifa_addr, static_cast<std::size_t>(result.length));
    if (entry.ifa_addr->sa_family == AF_INET && entry.ifa_netmask != nullptr) {
        sockaddr_in mask;
        std::memcpy(&mask, entry.ifa_netmask, sizeof mask);
        result.mask = mask.sin_addr.s_addr;
    }
    return result;
}

void AddAddresses(std::vector<InterfaceEntry>& links, const ifaddrs* table, int family)
{
    for (const ifaddrs* entry = table; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != family)
            continue;
        const auto link = std::ranges::find(links, LinkName(*entry), &InterfaceEntry::name);
        if (link != links.end())
            link->addresses.push_back(AddressOf(*entry));
    }
}

InterfaceQuery AskSystem(int family, std::vector<InterfaceEntry>& interfaces)
{
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0)
        return InterfaceQuery::Failed;

    const SystemTable table(first, &freeifaddrs);
    interfaces = LinksByIndex(table.get());
    for (const int wanted : {AF_INET, AF_INET6}) {
        if (family == AF_UNSPEC || family == wanted)
            AddAddresses(interfaces, table.get(), wanted);
    }
    return InterfaceQuery::Done;
}

} // namespace

InterfaceQuery QueryInterfaces(int family, std::vector<InterfaceEntry>& interfaces)
{
    const InterfaceTableSource source = g_Source.load();
    try {
        return source != nullptr ? source(family, interfaces) : AskSystem(family, interfaces);
    } catch (const std::bad_alloc&) {
        return InterfaceQuery::Failed;
    }
}

void SetInterfaceTableSource(InterfaceTableSource source)
{
    g_Source.store(source);
}

} // namespace tavronet
