#include "tavronet/upnp/UPnPSSDPSocket.h"

#include <cstring>
#include <memory>

#include "tavronet/net/AddressText.h"
#include "tavronet/net/LocalInterfaces.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/SocketCalls.h"
#include "tavronet/platform/TextConversion.h"

namespace
{

constexpr const char* kIPv4Group = "239.255.255.250";
constexpr const char* kIPv6Group = "ff02::c";

using AddressList = std::unique_ptr<addrinfo, decltype(&platform::freeaddrinfo)>;

// A missing option only narrows what the socket hears or reaches, so results are not looked at.
void SetOption(SOCKET handle, int level, int option, const void* value, int length)
{
    platform::setsockopt(handle, level, option, value, length);
}

void SetOption(SOCKET handle, int level, int option, int value)
{
    SetOption(handle, level, option, &value, sizeof(value));
}

} // namespace

CUPnPSSDPSocket::CUPnPSSDPSocket(const char* address, UINT port, CUPnPNetwork* network)
    : CUPnPSocket(address, port, SOCK_DGRAM, FD_READ, false),
      m_pUPnPNetwork(network),
      m_MulticastGroup(kIPv4Group)
{
    SetCreated(CUPnPSSDPSocket::Create(port, SOCK_DGRAM, FD_READ, GetIpAddr()) != 0);
    if (!GetCreated())
        return;

    const int family = AddressFamily(address);
    if (family == AF_INET)
        JoinIPv4Group(address);
    else if (family == AF_INET6)
        JoinIPv6Group(address);
}

CUPnPSSDPSocket::~CUPnPSSDPSocket() = default;

void CUPnPSSDPSocket::JoinIPv4Group(const char* address)
{
    ip_mreq membership{};
    membership.imr_multiaddr.s_addr = platform::inet_addr(kIPv4Group);
    membership.imr_interface.s_addr = platform::inet_addr(address);

    SetOption(m_hSocket, IPPROTO_IP, IP_MULTICAST_LOOP, 0);
    SetOption(m_hSocket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof(membership));
    SetOption(m_hSocket, IPPROTO_IP, IP_MULTICAST_TTL, 1);
    SetOption(m_hSocket, IPPROTO_IP, IP_MULTICAST_IF, &membership.imr_interface,
              sizeof(membership.imr_interface));
}

void CUPnPSSDPSocket::JoinIPv6Group(const char* address)
{
    const int index = GetIPv6InterfaceIndex(address);

    SetOption(m_hSocket, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 0);
    if (index >= 0) {
        m_MulticastGroup = kIPv6Group;
        ipv6_mreq membership{};
        sockaddr_storage_xp group{};
        if (GetSockAddr(m_MulticastGroup, group)) {
            membership.ipv6mr_multiaddr = reinterpret_cast<const sockaddr_in6&>(group).sin6_addr;
            membership.ipv6mr_interface = static_cast<unsigned int>(index);
            SetOption(m_hSocket, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &membership, sizeof(membership));
        }
    }
    SetOption(m_hSocket, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 1);
    if (index >= 0)
        SetOption(m_hSocket, IPPROTO_IPV6, IPV6_MULTICAST_IF, index);
}

int CUPnPSSDPSocket::Create(UINT port, int socketType, LONG events, const wchar_t* address)
{
    const AddressList resolved(GetAddrInfo(port, address, AF_UNSPEC, socketType), &platform::freeaddrinfo);
    if (resolved == nullptr || !Socket(resolved->ai_socktype, events, 0, resolved->ai_family))
        return 0;

    // With the option set first, the system may choose a free port that another sharing socket already has,
    // and the answers would go to only one of the two.
    if (port != 0)
        SetOption(m_hSocket, SOL_SOCKET, SO_REUSEADDR, 1);
    if (platform::bind(m_hSocket, resolved->ai_addr, static_cast<int>(resolved->ai_addrlen)) != 0) {
        const int error = WSAGetLastError();
        Close();
        WSASetLastError(error);
        return 0;
    }
    if (port == 0)
        SetOption(m_hSocket, SOL_SOCKET, SO_REUSEADDR, 1);
    return 1;
}
