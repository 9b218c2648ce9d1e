#include "Endpoint.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>

#include <cstring>

namespace gateway
{

namespace
{

const sockaddr_in6& AsIPv6(const sockaddr* address)
{
    return *reinterpret_cast<const sockaddr_in6*>(address);
}

bool SameHost(const sockaddr* left, const sockaddr* right)
{
    if (left->sa_family != right->sa_family)
        return false;
    if (left->sa_family == AF_INET)
        return reinterpret_cast<const sockaddr_in*>(left)->sin_addr.s_addr ==
               reinterpret_cast<const sockaddr_in*>(right)->sin_addr.s_addr;
    return left->sa_family == AF_INET6 &&
           IN6_ARE_ADDR_EQUAL(&AsIPv6(left).sin6_addr, &AsIPv6(right).sin6_addr);
}

} // namespace

Endpoint::Endpoint() : m_Storage() {}

std::optional<Endpoint> Endpoint::Parse(const std::string& host, std::uint16_t port)
{
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (host.empty() || ::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0)
        return std::nullopt;

    Endpoint result;
    std::memcpy(&result.m_Storage, found->ai_addr, found->ai_addrlen);
    ::freeaddrinfo(found);
    result.SetPort(port);
    return result;
}

Endpoint Endpoint::LocalOf(int descriptor)
{
    Endpoint result;
    socklen_t length = sizeof result.m_Storage;
    ::getsockname(descriptor, result.Raw(), &length);
    return result;
}

std::uint16_t Endpoint::Port() const
{
    return ntohs(reinterpret_cast<const sockaddr_in*>(&m_Storage)->sin_port); // same place in both families
}

void Endpoint::SetPort(std::uint16_t port)
{
    reinterpret_cast<sockaddr_in*>(&m_Storage)->sin_port = htons(port);
}

void Endpoint::SetScope(unsigned interfaceIndex)
{
    reinterpret_cast<sockaddr_in6*>(&m_Storage)->sin6_scope_id = interfaceIndex;
}

std::string Endpoint::Host() const
{
    char text[NI_MAXHOST] = "";
    ::getnameinfo(Raw(), Length(), text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    return text;
}

std::string Endpoint::UrlHost(bool withScope) const
{
    const std::string host = Host();
    if (!IsIPv6())
        return host;
    return "[" + (withScope ? host : host.substr(0, host.find('%'))) + "]";
}

std::string Endpoint::Text() const
{
    const bool withScope = true;
    return UrlHost(withScope) + ":" + std::to_string(Port());
}

unsigned Endpoint::InterfaceIndex() const
{
    if (IsIPv6() && AsIPv6(Raw()).sin6_scope_id != 0)
        return AsIPv6(Raw()).sin6_scope_id;

    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0)
        return 0;
    unsigned index = 0;
    for (const ifaddrs* entry = list; entry != nullptr && index == 0; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || !SameHost(entry->ifa_addr, Raw()))
            continue;
        const std::string label = entry->ifa_name; // "eth0:1" names the same interface as "eth0"
        index = ::if_nametoindex(label.substr(0, label.find(':')).c_str());
    }
    ::freeifaddrs(list);
    return index;
}

socklen_t Endpoint::Length() const
{
    return IsIPv6() ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

in_addr Endpoint::IPv4() const
{
    return reinterpret_cast<const sockaddr_in*>(&m_Storage)->sin_addr;
}

bool operator==(const Endpoint& left, const Endpoint& right)
{
    return SameHost(left.Raw(), right.Raw()) && left.Port() == right.Port();
}

} // namespace gateway
