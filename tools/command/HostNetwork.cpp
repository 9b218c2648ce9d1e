#include "HostNetwork.h"

#include <tavronet/net/AddressRanges.h>
#include <tavronet/net/AddressText.h>
#include <tavronet/net/LocalInterfaces.h>

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

namespace command
{

namespace
{

constexpr char kScheme[] = "http://";
constexpr unsigned kSearchPort = 1900;

/// A datagram socket that only asks the routing table.
class RouteProbe
{
public:
    explicit RouteProbe(int family) : m_Socket(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    ~RouteProbe()
    {
        if (m_Socket >= 0)
            ::close(m_Socket);
    }
    RouteProbe(const RouteProbe&) = delete;
    RouteProbe& operator=(const RouteProbe&) = delete;

    [[nodiscard]] bool Bind(const sockaddr* address, socklen_t length) const
    {
        return ::bind(m_Socket, address, length) == 0;
    }

    [[nodiscard]] bool Connect(const sockaddr* address, socklen_t length) const
    {
        return ::connect(m_Socket, address, length) == 0;
    }

    [[nodiscard]] bool Set(int level, int option, const void* value, socklen_t length) const
    {
        return ::setsockopt(m_Socket, level, option, value, length) == 0;
    }

    [[nodiscard]] std::string LocalAddress() const
    {
        sockaddr_storage own{};
        socklen_t length = sizeof own;
        if (::getsockname(m_Socket, reinterpret_cast<sockaddr*>(&own), &length) != 0)
            return "";
        return CStringA(GetIP(own)).GetString();
    }

private:
    int m_Socket;
};

std::vector<std::string> LocalAddresses(bool searchable)
{
    std::vector<CStringW> all;
    GetLocalAddresses(all);
    std::vector<std::string> chosen;
    for (const CStringW& address : all) {
        if (!IsLoopbackIP(address) && (IsPrivateIP(address) != 0) == searchable)
            chosen.emplace_back(CStringA(address).GetString());
    }
    return chosen;
}

bool SelectInterface(const RouteProbe& probe, const std::string& address, const sockaddr_storage& own)
{
    if (own.ss_family == AF_INET) {
        const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(own);
        return probe.Set(IPPROTO_IP, IP_MULTICAST_IF, &ipv4.sin_addr, sizeof ipv4.sin_addr);
    }
    const int index = GetIPv6InterfaceIndex(address.c_str());
    return probe.Set(IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, sizeof index);
}

} // namespace

std::optional<HttpTarget> ParseHttpURL(const std::string& url)
{
    if (!url.starts_with(kScheme))
        return std::nullopt;
    std::string_view rest = std::string_view(url).substr(std::strlen(kScheme));
    rest = rest.substr(0, rest.find('/'));

    const bool bracketed = rest.starts_with('[');
    const std::size_t hostEnd = bracketed ? rest.find(']') : rest.find(':');
    HttpTarget target;
    target.host = rest.substr(bracketed ? 1 : 0, hostEnd - (bracketed && hostEnd != rest.npos ? 1 : 0));
    if (target.host.empty() || (bracketed && hostEnd == rest.npos))
        return std::nullopt;

    const std::string_view behind = hostEnd == rest.npos ? "" : rest.substr(hostEnd + (bracketed ? 1 : 0));
    if (behind.empty())
        return target;
    const char* const end = behind.data() + behind.size();
    const auto [stop, error] = std::from_chars(behind.data() + 1, end, target.port);
    const bool usable = behind[0] == ':' && error == std::errc() && stop == end;
    return usable && target.port > 0 && target.port <= 65535 ? std::optional(target) : std::nullopt;
}

std::string LocalAddressTowards(const HttpTarget& target)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_family = AddressFamily(target.host.c_str()) == AF_INET6 ? AF_INET6 : AF_INET; // as it connects
    addrinfo* found = nullptr;
    if (::getaddrinfo(target.host.c_str(), std::to_string(target.port).c_str(), &hints, &found) != 0)
        return "";
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, ::freeaddrinfo);
    const RouteProbe probe(found->ai_family);
    return probe.Connect(found->ai_addr, found->ai_addrlen) ? probe.LocalAddress() : "";
}

std::vector<std::string> SearchableAddresses()
{
    const bool searchable = true;
    return LocalAddresses(searchable);
}

std::vector<std::string> OtherAddresses()
{
    const bool searchable = false;
    return LocalAddresses(searchable);
}

std::string MulticastProblem(const std::string& localAddress)
{
    sockaddr_storage own{}, group{};
    int ownLength = 0, groupLength = 0;
    const int family = AddressFamily(localAddress.c_str());
    const char* const groupText = family == AF_INET ? "239.255.255.250" : "ff02::c";
    if (!GetSockAddr(0, localAddress.c_str(), own, ownLength, family) ||
        !GetSockAddr(kSearchPort, groupText, group, groupLength, family))
        return "not an address";

    const RouteProbe probe(family);
    const bool works =
        probe.Bind(reinterpret_cast<const sockaddr*>(&own), static_cast<socklen_t>(ownLength)) &&
        SelectInterface(probe, localAddress, own) &&
        probe.Connect(reinterpret_cast<const sockaddr*>(&group), static_cast<socklen_t>(groupLength));
    return works ? "" : std::strerror(errno);
}

} // namespace command
