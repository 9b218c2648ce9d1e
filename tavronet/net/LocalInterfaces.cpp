#include "tavronet/net/LocalInterfaces.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string_view>

#include "tavronet/net/AddressRecord.h"
#include "tavronet/net/AddressText.h"
#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/InterfaceTables.h"
#include "tavronet/platform/SocketCalls.h"
#include "tavronet/platform/TextConversion.h"

using tavronet::NarrowText;
using tavronet::NumericText;

namespace
{

using AddressList = std::vector<CStringW>;
using NameCall = int (*)(SOCKET handle, sockaddr* address, int* addressLength);

constexpr int kHostNameSize = 259;

void Append(AddressList& addresses, CStringW address)
{
    try {
        addresses.push_back(std::move(address));
    } catch (const std::bad_alloc&) {
        tavronet::ThrowMemoryException();
    }
}

// Walks the printable addresses of the adapters that are up until `visit(adapter, text)` returns true.
// False when the adapters cannot be listed.
template <typename Visit>
bool VisitAddresses(int family, Visit visit)
{
    std::vector<tavronet::InterfaceEntry> adapters;
    if (tavronet::QueryInterfaces(family, adapters) != tavronet::InterfaceQuery::Done)
        return false;

    for (const tavronet::InterfaceEntry& adapter : adapters) {
        if (!adapter.isUp)
            continue;
        for (const tavronet::InterfaceAddress& entry : adapter.addresses) {
            const NumericText numeric(entry.address, entry.length);
            if (numeric.isPrinted && visit(adapter, numeric.text))
                return true;
        }
    }
    return true;
}

void AppendFallback(AddressList& addresses, int family)
{
    if (family == AF_INET) {
        GetLocalIpAddresses(addresses);
        Append(addresses, L"127.0.0.1");
    } else if (family == AF_INET6 && AddressFamily("::1") == AF_INET6) {
        Append(addresses, L"::1");
    }
}

bool SameIPv6Address(const sockaddr_storage_xp& wanted, const CStringW& entry)
{
    sockaddr_storage_xp record;
    return wanted.ss_family == AF_INET6 && GetSockAddr(entry, record) &&
           std::ranges::equal(tavronet::AddressBytes(record), tavronet::AddressBytes(wanted));
}

bool ReadName(NameCall call, SOCKET handle, CStringW& address, UINT& port)
{
    if (handle == INVALID_SOCKET)
        return false;

    sockaddr_storage_xp record{};
    int length = sizeof record;
    if (call(handle, reinterpret_cast<sockaddr*>(&record), &length) != 0)
        return false;
    const NumericText numeric(record, length);
    if (!numeric.isPrinted)
        return false;

    in_port_t networkPort = 0; // at the same place in both families
    std::memcpy(&networkPort, reinterpret_cast<const char*>(&record) + offsetof(sockaddr_in, sin_port),
                sizeof networkPort);
    address = tavronet::Widen(numeric.text);
    port = ntohs(networkPort);
    return true;
}

} // namespace

long long GetLocalAddresses(std::vector<CStringW>& addresses, int family, bool clearFirst)
{
    if (clearFirst)
        addresses.clear();

    const auto append = [&addresses](const tavronet::InterfaceEntry&, const char* text) {
        Append(addresses, tavronet::Widen(text));
        return false;
    };
    if (!VisitAddresses(family, append))
        AppendFallback(addresses, family);
    return static_cast<long long>(addresses.size());
}

long long GetLocalAddresses(std::vector<CStringW>& addresses)
{
    GetLocalIPv4Addresses(addresses, true);
    return GetLocalIPv6Addresses(addresses, false);
}

long long GetLocalIPv4Addresses(std::vector<CStringW>& addresses, bool clearFirst)
{
    return GetLocalAddresses(addresses, AF_INET, clearFirst);
}

long long GetLocalIPv6Addresses(std::vector<CStringW>& addresses, bool clearFirst)
{
    return GetLocalAddresses(addresses, AF_INET6, clearFirst);
}

long long GetLocalIpAddresses(std::vector<CStringW>& addresses)
{
    addresses.clear();
    char name[kHostNameSize] = {};
    platform::gethostname(name, kHostNameSize - 1); // failing leaves the empty name, which nobody has
    const hostent* const host = platform::gethostbyname(name);
    if (host == nullptr)
        return 0;

    for (char** entry = host->h_addr_list; *entry != nullptr; ++entry) {
        const auto* const byte = reinterpret_cast<const unsigned char*>(*entry);
        CStringW text;
        text.Format(L"%d.%d.%d.%d", byte[0], byte[1], byte[2], byte[3]);
        Append(addresses, text);
    }
    return static_cast<long long>(addresses.size());
}

int IPExists(const char* address)
{
    sockaddr_storage_xp wanted;
    if (!GetSockAddr(address, wanted))
        return 0;

    std::vector<CStringW> local;
    GetLocalAddresses(local, wanted.ss_family, true);
    const CStringW text(address);
    const auto matches = [&](const CStringW& entry) {
        return entry == text || SameIPv6Address(wanted, entry);
    };
    return std::ranges::any_of(local, matches) ? 1 : 0;
}

int IPExists(const wchar_t* address)
{
    return IPExists(NarrowText(address));
}

int GetIPv6InterfaceIndex(const char* address)
{
    if (address == nullptr)
        return -1;

    int index = -1;
    const auto compare = [&index, address](const tavronet::InterfaceEntry& adapter, const char* text) {
        if (std::string_view(text) != address)
            return false;
        index = adapter.index;
        return true;
    };
    VisitAddresses(AF_INET6, compare);
    return index;
}

int GetIPv6InterfaceIndex(const wchar_t* address)
{
    return GetIPv6InterfaceIndex(NarrowText(address));
}

bool GetPeerName(SOCKET handle, CStringW& address, UINT& port)
{
    return ReadName(platform::getpeername, handle, address, port);
}

bool GetSockName(SOCKET handle, CStringW& address, UINT& port)
{
    return ReadName(platform::getsockname, handle, address, port);
}
