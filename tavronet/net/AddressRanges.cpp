#include "tavronet/net/AddressRanges.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include "tavronet/net/AddressRecord.h"
#include "tavronet/net/AddressText.h"
#include "tavronet/platform/InterfaceTables.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/SocketCalls.h"
#include "tavronet/platform/TextConversion.h"

using tavronet::NarrowText;

namespace
{

using Bytes = std::span<const unsigned char>;

constexpr LONG kFound = 0;
constexpr LONG kQueryFailed = 1;
constexpr LONG kNoLibrary = 2;

bool SamePrefix(Bytes address, Bytes network, unsigned prefix, bool exactNetwork)
{
    unsigned remaining = prefix;
    for (std::size_t i = 0; i < address.size(); ++i) {
        const unsigned bits = std::min(remaining, 8U);
        remaining -= bits;
        const unsigned mask = (0xFF00U >> bits) & 0xFFU;
        const bool hostBitsCount = exactNetwork && remaining == 0;
        if ((address[i] & mask) != (network[i] & mask))
            return false;
        if (hostBitsCount && (address[i] & ~mask & 0xFFU) != 0)
            return false;
    }
    return true;
}

std::string_view ViewOf(const char* text)
{
    return text == nullptr ? std::string_view() : std::string_view(text);
}

CStringA DottedText(const void* address)
{
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, address, text, sizeof text);
    return CStringA(text);
}

// The first entry whose text equals the wanted one; the walk of one adapter ends there.
bool CopyMask(const tavronet::InterfaceEntry& adapter, std::string_view wanted, char* mask, int size)
{
    const auto holds = [wanted](const tavronet::InterfaceAddress& entry) {
        return DottedText(tavronet::AddressBytes(entry.address).data()).View() == wanted;
    };

    const auto found = std::ranges::find_if(adapter.addresses, holds);
    if (found == adapter.addresses.end())
        return false;
    tavronet::CopyTruncated(mask, size, DottedText(&found->mask));
    return true;
}

} // namespace

bool MatchesCIDR(const char* cidr, const char* address, bool exactNetwork)
{
    sockaddr_storage_xp addressRecord;
    if (!GetSockAddr(address, addressRecord))
        return false;

    const std::string_view text = ViewOf(cidr);
    const std::size_t slash = text.find('/');
    if (slash == std::string_view::npos)
        return false;

    const int prefix = tavronet::ReadInt32(text.substr(slash + 1));
    sockaddr_storage_xp networkRecord;
    if (!GetSockAddr(CStringA(text.substr(0, slash)), networkRecord))
        return false;
    if (addressRecord.ss_family != networkRecord.ss_family)
        return false;

    const Bytes addressBytes = tavronet::AddressBytes(addressRecord);
    if (prefix <= 0 || static_cast<std::size_t>(prefix) > addressBytes.size() * 8)
        return false;
    return SamePrefix(addressBytes, tavronet::AddressBytes(networkRecord), static_cast<unsigned>(prefix),
                      exactNetwork);
}

bool MatchesCIDR(const wchar_t* cidr, const wchar_t* address, bool exactNetwork)
{
    return MatchesCIDR(NarrowText(cidr), NarrowText(address), exactNetwork);
}

bool ValidCIDR(const char* cidr, bool allowHostBits)
{
    const std::string_view text = ViewOf(cidr);
    const std::size_t slash = text.find('/');
    if (slash == std::string_view::npos)
        return false;
    const bool exactNetwork = !allowHostBits;
    return MatchesCIDR(cidr, CStringA(text.substr(0, slash)), exactNetwork);
}

bool ValidCIDR(const wchar_t* cidr, bool allowHostBits)
{
    return ValidCIDR(NarrowText(cidr), allowHostBits);
}

int IsPrivateIP(const char* address)
{
    sockaddr_storage_xp record;
    if (!GetSockAddr(address, record))
        return 0;
    if (IsLoopbackIP(record))
        return 1;

    const auto holds = [address](const char* cidr) { return MatchesCIDR(cidr, address, false); };
    constexpr const char* networks[] = {"192.168.0.0/16", "172.16.0.0/12", "10.0.0.0/8", "fc00::/7"};
    return std::ranges::any_of(networks, holds) ? 1 : 0;
}

int IsPrivateIP(const wchar_t* address)
{
    return IsPrivateIP(NarrowText(address));
}

int IsIPInRange(DWORD address, const char* lowest, const char* highest)
{
    const DWORD value = Flip(address);
    const bool isInside =
        Flip(platform::inet_addr(lowest)) <= value && value <= Flip(platform::inet_addr(highest));
    return isInside ? 1 : 0;
}

int IsIPInRange(DWORD address, const wchar_t* lowest, const wchar_t* highest)
{
    return IsIPInRange(address, NarrowText(lowest), NarrowText(highest));
}

LONG GetSubnetMask(const char* address, char* mask, int size)
{
    if (mask == nullptr || size <= 0)
        return kQueryFailed;
    std::memset(mask, 0, static_cast<std::size_t>(size));

    std::vector<tavronet::InterfaceEntry> adapters;
    const tavronet::InterfaceQuery outcome = tavronet::QueryInterfaces(AF_INET, adapters);
    if (outcome == tavronet::InterfaceQuery::NoLibrary)
        return kNoLibrary;
    if (outcome != tavronet::InterfaceQuery::Done)
        return kQueryFailed;

    LONG status = ERROR_NOT_FOUND;
    for (const tavronet::InterfaceEntry& adapter : adapters) {
        if (CopyMask(adapter, ViewOf(address), mask, size))
            status = kFound;
        if (*mask != '\0')
            break;
    }
    return status;
}
