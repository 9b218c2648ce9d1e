// Address text and network text: the first line is an address, the second a network, or another address.

#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "Input.h"
#include "tavronet/net/AddressRanges.h"
#include "tavronet/net/AddressText.h"
#include "tavronet/platform/TextConversion.h"

namespace
{

/// 8-bit and wide text have the same answers.
template <typename Function, typename... More>
void AskBoth(Function function, const char* text, More... more)
{
    Expect(function(text, more...) == function(static_cast<const wchar_t*>(Widen(text)), more...));
}

void ParseAndPrint(const char* text)
{
    sockaddr_storage record{}, again{};
    int length = 0, addressLength = 0, family = 0;
    const char* address = nullptr;
    const bool parsed = INetAddr(text, record, length, address, addressLength, family);
    Expect(parsed == (AddressFamily(text) != 0) && parsed == GetSockAddr(text, again));
    Expect(parsed == (address != nullptr));
    if (!parsed)
        return;
    Expect(family == AF_INET ? addressLength == 4 : family == AF_INET6 && addressLength == 16);
    Expect(IsAllIP(record) == IsAllIP(text) && IsLoopbackIP(record) == IsLoopbackIP(text));

    const CString printed = GetIP(record);
    Expect(GetSockAddr(Narrow(printed), again) && std::memcmp(&record, &again, sizeof record) == 0);
    CString expanded = printed;
    ExpandIPv6(expanded);
    const bool isGroupsOnly = printed.View().find_first_of(L".%") == std::wstring_view::npos;
    Expect(!isGroupsOnly ||
           (GetSockAddr(expanded, again) && std::memcmp(&record, &again, sizeof record) == 0));
}

void ParseFor(const char* text, int family, UINT port)
{
    sockaddr_storage record{};
    int length = 0;
    const bool parsed = GetSockAddr(port, text, record, length, family);
    Expect(!parsed || family == AF_UNSPEC || record.ss_family == family);
    addrinfo* const list = GetAddrInfo(port, Widen(text), family, SOCK_DGRAM);
    Expect(parsed == (list != nullptr));
    if (list != nullptr)
        freeaddrinfo(list);
}

void Match(const char* address, const char* network)
{
    for (const bool exact : {false, true}) {
        const bool matches = MatchesCIDR(network, address, exact);
        Expect(matches == MatchesCIDR(Widen(network), Widen(address), exact));
        Expect(!matches || ValidCIDR(network, true));
        AskBoth([](auto text, bool hostBits) { return ValidCIDR(text, hostBits); }, network, exact);
    }
    Expect(!ValidCIDR(network, false) || ValidCIDR(network, true));

    const DWORD value = inet_addr(Widen(address));
    Expect(IsIPInRange(value, address, address) == 1);
    Expect(IsIPInRange(value, address, network) == IsIPInRange(value, Widen(address), Widen(network)));
    char mask[16] = {};
    GetSubnetMask(address, mask, sizeof mask);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    HeldInput held(data, size);
    char* const end = held.Text() + std::strlen(held.Text());
    char* const lineEnd = std::find(held.Text(), end, '\n');
    const char* const network = lineEnd == end ? end : lineEnd + 1;
    *lineEnd = '\0';
    const char* const address = held.Text();

    ParseAndPrint(address);
    for (const char* const text : {address, network}) {
        if (Narrow(CString(text)) != CStringA(text))
            return 0; // not UTF-8: its wide twin is another text
    }
    for (const int family : {AF_UNSPEC, AF_INET, AF_INET6})
        ParseFor(address, family, 65535);
    ParseFor(address, AF_UNSPEC, 65536);
    Match(address, network);
    AskBoth([](auto text) { return AddressFamily(text); }, address);
    AskBoth([](auto text) { return IsAllIP(text); }, address);
    AskBoth([](auto text) { return IsAllIPv4(text); }, address);
    AskBoth([](auto text) { return IsAllIPv6(text); }, address);
    AskBoth([](auto text) { return IsLoopbackIP(text); }, address);
    AskBoth([](auto text) { return IsLoopbackIPv4(text); }, address);
    AskBoth([](auto text) { return IsLoopbackIPv6(text); }, address);
    AskBoth([](auto text) { return IsPrivateIP(text); }, address);
    CString expanded = Widen(address);
    ExpandIPv6(expanded);
    return 0;
}
