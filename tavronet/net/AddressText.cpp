#include "tavronet/net/AddressText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

#include "tavronet/net/AddressRecord.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/SocketCalls.h"
#include "tavronet/platform/TextConversion.h"

using tavronet::NarrowText;

namespace
{

constexpr int kAnyFamily = AF_UNSPEC;

using AddressList = std::unique_ptr<addrinfo, decltype(&platform::freeaddrinfo)>;
using RecordTest = bool (*)(const sockaddr_storage_xp&);

bool TestText(const char* host, RecordTest test)
{
    sockaddr_storage_xp record;
    return GetSockAddr(host, record) && test(record);
}

// The groups of IPv6 text with one "::", spread over the eight there are.
class ExpandedGroups
{
public:
    ExpandedGroups() { m_Groups.fill(L"0"); }

    void StoreBefore(std::wstring_view text)
    {
        for (std::size_t slot = 0; slot < m_Groups.size(); ++slot) {
            const std::size_t colon = text.find(L':');
            m_Groups[slot] = text.substr(0, colon);
            if (colon == std::wstring_view::npos)
                return;
            text.remove_prefix(colon + 1);
        }
    }

    // From the right end back to `secondColon`, the end of the "::".
    void StoreAfter(std::wstring_view text, std::size_t secondColon)
    {
        for (std::size_t slot = m_Groups.size(); slot > 0;) {
            const std::size_t colon = text.rfind(L':');
            if (colon < secondColon || colon + 1 == text.size())
                return; // behind a closing colon nothing more is taken
            m_Groups[--slot] = text.substr(colon + 1);
            text = text.substr(0, colon);
        }
    }

    CStringW Joined() const
    {
        CStringW text(m_Groups[0]);
        for (std::size_t slot = 1; slot < m_Groups.size(); ++slot)
            text += L':' + CStringW(m_Groups[slot]);
        return text;
    }

private:
    std::array<std::wstring_view, 8> m_Groups;
};

} // namespace

addrinfo* GetAddrInfo(UINT port, const char* host, int family, int socketType)
{
    if (host != nullptr && *host == '\0')
        host = nullptr;
    if (host == nullptr && family == kAnyFamily)
        family = AF_INET;

    char service[16] = {};
    std::to_chars(service, service + sizeof service - 1, port);

    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST;
    hints.ai_family = family;
    hints.ai_socktype = socketType;
    hints.ai_protocol = IPPROTO_TCP; // the resolver call heeds it for streams only

    addrinfo* result = nullptr;
    const int error = platform::getaddrinfo(host, service, &hints, &result);
    WSASetLastError(error);
    return error == 0 ? result : nullptr;
}

addrinfo* GetAddrInfo(UINT port, const wchar_t* host, int family, int socketType)
{
    return GetAddrInfo(port, NarrowText(host), family, socketType);
}

bool GetSockAddr(UINT port, const char* host, sockaddr_storage_xp& record, int& length, int family)
{
    const AddressList list(GetAddrInfo(port, host, family, SOCK_STREAM), &platform::freeaddrinfo);
    if (list == nullptr)
        return false;

    length = static_cast<int>(list->ai_addrlen);
    record = {};
    std::memcpy(&record, list->ai_addr, std::min<std::size_t>(list->ai_addrlen, sizeof record));
    return true;
}

bool GetSockAddr(UINT port, const wchar_t* host, sockaddr_storage_xp& record, int& length, int family)
{
    return GetSockAddr(port, NarrowText(host), record, length, family);
}

bool GetSockAddr(const char* host, sockaddr_storage_xp& record, int& length, int family)
{
    return GetSockAddr(0, host, record, length, family);
}

bool GetSockAddr(const wchar_t* host, sockaddr_storage_xp& record, int& length, int family)
{
    return GetSockAddr(0, host, record, length, family);
}

bool GetSockAddr(const char* host, sockaddr_storage_xp& record)
{
    int length = 0;
    return GetSockAddr(host, record, length, kAnyFamily);
}

bool GetSockAddr(const wchar_t* host, sockaddr_storage_xp& record)
{
    return GetSockAddr(NarrowText(host), record);
}

bool INetAddr(const char* host, sockaddr_storage_xp& record, int& length, const char*& address,
              int& addressLength, int& family)
{
    address = nullptr;
    if (!GetSockAddr(host, record, length, kAnyFamily))
        return false;

    const auto bytes = tavronet::AddressBytes(record);
    family = record.ss_family;
    addressLength = static_cast<int>(bytes.size());
    address = reinterpret_cast<const char*>(bytes.data());
    return address != nullptr;
}

int AddressFamily(const char* host)
{
    sockaddr_storage_xp record;
    return GetSockAddr(host, record) ? record.ss_family : 0;
}

int AddressFamily(const wchar_t* host)
{
    return AddressFamily(NarrowText(host));
}

bool IsAddress(const sockaddr_storage_xp& record, DWORD address)
{
    return record.ss_family == AF_INET &&
           std::memcmp(tavronet::AddressBytes(record).data(), &address, sizeof address) == 0;
}

bool IsAddress(const sockaddr_storage_xp& record, const in6_addr& address)
{
    return record.ss_family == AF_INET6 &&
           std::memcmp(tavronet::AddressBytes(record).data(), &address, sizeof address) == 0;
}

bool IsAllIPv4(const sockaddr_storage_xp& record)
{
    return IsAddress(record, htonl(INADDR_ANY));
}

bool IsAllIPv4(const char* host)
{
    return TestText(host, IsAllIPv4);
}

bool IsAllIPv4(const wchar_t* host)
{
    return IsAllIPv4(NarrowText(host));
}

bool IsAllIPv6(const sockaddr_storage_xp& record)
{
    return IsAddress(record, in6addr_any);
}

bool IsAllIPv6(const char* host)
{
    return TestText(host, IsAllIPv6);
}

bool IsAllIPv6(const wchar_t* host)
{
    return IsAllIPv6(NarrowText(host));
}

bool IsAllIP(const sockaddr_storage_xp& record)
{
    return IsAllIPv4(record) || IsAllIPv6(record);
}

bool IsAllIP(const char* host)
{
    return TestText(host, IsAllIP);
}

bool IsAllIP(const wchar_t* host)
{
    return IsAllIP(NarrowText(host));
}

bool IsLoopbackIPv4(const sockaddr_storage_xp& record)
{
    return IsAddress(record, htonl(INADDR_LOOPBACK));
}

bool IsLoopbackIPv4(const char* host)
{
    return TestText(host, IsLoopbackIPv4);
}

bool IsLoopbackIPv4(const wchar_t* host)
{
    return IsLoopbackIPv4(NarrowText(host));
}

bool IsLoopbackIPv6(const sockaddr_storage_xp& record)
{
    return IsAddress(record, in6addr_loopback);
}

bool IsLoopbackIPv6(const char* host)
{
    return TestText(host, IsLoopbackIPv6);
}

bool IsLoopbackIPv6(const wchar_t* host)
{
    return IsLoopbackIPv6(NarrowText(host));
}

bool IsLoopbackIP(const sockaddr_storage_xp& record)
{
    return IsLoopbackIPv4(record) || IsLoopbackIPv6(record);
}

bool IsLoopbackIP(const char* host)
{
    return TestText(host, IsLoopbackIP);
}

bool IsLoopbackIP(const wchar_t* host)
{
    return IsLoopbackIP(NarrowText(host));
}

CStringW GetIP(const sockaddr_storage_xp& record)
{
    int length = 0; // which no printer accepts
    if (record.ss_family == AF_INET)
        length = sizeof(sockaddr_in);
    else if (record.ss_family == AF_INET6)
        length = sizeof(sockaddr_in6);
    return tavronet::Widen(tavronet::NumericText(record, length).text);
}

DWORD inet_addr(const wchar_t* text)
{
    return platform::inet_addr(NarrowText(text));
}

CStringW& ExpandIPv6(CStringW& text)
{
    const std::wstring_view view = text.View();
    const std::size_t gap = view.find(L"::");
    const bool hasOneGap =
        gap != std::wstring_view::npos && view.find(L"::", gap + 2) == std::wstring_view::npos;
    if (!hasOneGap || std::ranges::count(view, L':') >= 8)
        return text;

    ExpandedGroups groups;
    if (!view.starts_with(L':'))
        groups.StoreBefore(view.substr(0, gap));
    groups.StoreAfter(view, gap + 1);
    return text = groups.Joined();
}
