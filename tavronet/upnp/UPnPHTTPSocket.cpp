#include "tavronet/upnp/UPnPHTTPSocket.h"

#include <algorithm>
#include <cstring>

#include "tavronet/net/AddressText.h"
#include "tavronet/net/LocalInterfaces.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/SocketCalls.h"
#include "tavronet/platform/TextConversion.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/ResponseDesk.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPDialect.h"

namespace
{

bool IsSameAddress(const in6_addr& a, const in6_addr& b)
{
    return std::memcmp(&a, &b, sizeof(a)) == 0;
}

bool IsSameAddress(const sockaddr_storage& a, const sockaddr_storage& b)
{
    if (a.ss_family != b.ss_family)
        return false;
    if (a.ss_family == AF_INET)
        return reinterpret_cast<const sockaddr_in&>(a).sin_addr.s_addr ==
               reinterpret_cast<const sockaddr_in&>(b).sin_addr.s_addr;
    return IsSameAddress(reinterpret_cast<const sockaddr_in6&>(a).sin6_addr,
                         reinterpret_cast<const sockaddr_in6&>(b).sin6_addr);
}

/// Addresses at which no other machine's gateway listens. What a datagram names is the sender's word only: it
/// must not direct our requests at this machine itself or at a group.
bool IsNoGatewayAddress(const in_addr& address)
{
    const DWORD host = ntohl(address.s_addr);
    const DWORD network = host >> 24;
    const bool thisHost = network == 0 || network == 127;
    const bool multicastOrBeyond = network >= 224; // 240.0.0.0 and up: reserved, and the broadcast address
    return thisHost || multicastOrBeyond;
}

bool IsNoGatewayAddress(const in6_addr& address)
{
    if (IN6_IS_ADDR_V4MAPPED(&address) || IN6_IS_ADDR_V4COMPAT(&address)) {
        in_addr embedded{};
        std::memcpy(&embedded, address.s6_addr + 12, sizeof(embedded));
        return IsNoGatewayAddress(embedded);
    }
    return IN6_IS_ADDR_UNSPECIFIED(&address) || IN6_IS_ADDR_LOOPBACK(&address) ||
           IN6_IS_ADDR_MULTICAST(&address);
}

bool IsNoGatewayAddress(const sockaddr_storage& address)
{
    if (address.ss_family == AF_INET)
        return IsNoGatewayAddress(reinterpret_cast<const sockaddr_in&>(address).sin_addr);
    return IsNoGatewayAddress(reinterpret_cast<const sockaddr_in6&>(address).sin6_addr);
}

/// The family of the socket that reaches the host; names are looked up as IPv4.
int FamilyToReach(const char* host)
{
    return AddressFamily(host) == AF_INET6 ? AF_INET6 : AF_INET;
}

/// The interface index on which the device was heard; 0 when unknown.
unsigned int InterfaceOf(CUPnPDevice* device, const sockaddr_storage& heardFrom)
{
    const auto& heardFrom6 = reinterpret_cast<const sockaddr_in6&>(heardFrom);
    if (heardFrom.ss_family == AF_INET6 && heardFrom6.sin6_scope_id != 0)
        return heardFrom6.sin6_scope_id;
    const int index = device != nullptr ? GetIPv6InterfaceIndex(Narrow(device->GetIpAddr())) : -1;
    return index > 0 ? static_cast<unsigned int>(index) : 0;
}

bool IsOneWord(const CString& text)
{
    return std::ranges::all_of(text.View(), [](wchar_t c) { return c > L' ' && c != 0x7f; });
}

} // namespace

CUPnPHTTPSocket::CUPnPHTTPSocket(const char* localAddress, UINT localPort, const char* host, UINT hostPort,
                                 CUPnPObject* object)
    : CUPnPSocket(localAddress, localPort, SOCK_STREAM, FD_ALL, true, FamilyToReach(host)),
      m_pUPnPObject(object),
      m_pFrame(std::make_unique<tavronet::ResponseFrame>()),
      m_pPlace(std::make_unique<tavronet::ResponsePlace>()),
      m_CreatedTick(GetTickCount())
{
    const bool hasTarget = host != nullptr && *host != '\0' && hostPort != 0;
    if (GetCreated() && hasTarget)
        Connect(CStringW(host), hostPort);
}

CUPnPHTTPSocket::~CUPnPHTTPSocket() = default;

bool CUPnPHTTPSocket::Overdue() const
{
    return ElapsedMs(GetTickCount(), m_CreatedTick) > tavronet::kMaxHttpConnectionAgeMs;
}

CUPnPDevice* CUPnPHTTPSocket::HeardDevice() const
{
    CUPnPObject* node = m_pUPnPObject;
    while (node != nullptr && dynamic_cast<CUPnPDevice*>(node) == nullptr)
        node = node->GetParent();
    return static_cast<CUPnPDevice*>(node);
}

BOOL CUPnPHTTPSocket::ConnectHelper(const sockaddr_storage* address, int addressLength)
{
    CUPnPDevice* const device = HeardDevice();
    sockaddr_storage heardFrom{};
    const bool wasHeard = device != nullptr && !device->GetDeviceAddr().IsEmpty();
    if (wasHeard)
        GetSockAddr(Narrow(device->GetDeviceAddr()), heardFrom);

    sockaddr_storage target = *address;
    if (wasHeard && IsNoGatewayAddress(target) && !IsSameAddress(target, heardFrom)) {
        WSASetLastError(WSAEADDRNOTAVAIL);
        return 0;
    }

    // A link-local address means something on one interface only.
    auto& target6 = reinterpret_cast<sockaddr_in6&>(target);
    if (target.ss_family == AF_INET6 && IN6_IS_ADDR_LINKLOCAL(&target6.sin6_addr) &&
        target6.sin6_scope_id == 0)
        target6.sin6_scope_id = InterfaceOf(device, heardFrom);
    return CUPnPSocket::ConnectHelper(&target, addressLength);
}

void CUPnPHTTPSocket::SendRequest(const std::string& request, std::initializer_list<CString> networkTexts)
{
    if (!std::ranges::all_of(networkTexts, IsOneWord)) {
        ReleaseSocket();
        return;
    }
    std::string text = request; // the base sends from writable memory
    Send(reinterpret_cast<unsigned char*>(text.data()), static_cast<int>(text.size()), 0);
}

bool CUPnPHTTPSocket::HeaderArrived(std::string_view message)
{
    if (m_bHeaderParsed)
        return true;

    m_bHeaderParsed = tavronet::DialectOf(*m_pUPnPObject).ReadHeader(message, *m_pFrame);
    return m_bHeaderParsed;
}

bool CUPnPHTTPSocket::Acceptable(std::string_view message) const
{
    return m_pPlace->HasRoom() && message.size() <= tavronet::kMaxHttpResponseBytes &&
           m_pFrame->announced <= static_cast<int>(tavronet::kMaxHttpResponseBytes);
}

bool CUPnPHTTPSocket::ProcessReceive(unsigned char*& data, int& length)
{
    if (m_bHTMLProcessed || m_ResponseLength != 0)
    { // one response per connection; what follows it is dropped
        length = m_bHTMLProcessed ? 0 : m_ResponseLength;
        return true;
    }

    const std::string_view message(reinterpret_cast<const char*>(data), static_cast<std::size_t>(length));
    const bool headerArrived = HeaderArrived(message);
    m_pPlace->Hold(message.size());
    if (!Acceptable(message))
        ReleaseSocket();
    else if (headerArrived && tavronet::DialectOf(*m_pUPnPObject).Complete(message, *m_pFrame))
        m_ResponseLength = length;
    return false; // a complete one, too, is held until it is read
}

void CUPnPHTTPSocket::OnReceive(int error)
{
    const tavronet::LifetimeGuard guard(*this);
    const bool wasComplete = m_ResponseLength != 0;
    CUPnPSocket::OnReceive(error);
    if (guard.Alive() && !wasComplete && m_ResponseLength != 0)
        ReadInTurn();
}

void CUPnPHTTPSocket::OnClose(int error)
{
    CUPnPSocket::OnClose(error);
    m_bClosed = true;
    if (m_bHTMLProcessed)
        ReleaseSocket();
    else if (m_ResponseLength == 0) { // otherwise it waits for its turn
        if (EndsWithTheConnection())
            ReadInTurn();
        else
            ReleaseSocket();
    }
}

/// Whether what is held is a response now that nothing more will come.
bool CUPnPHTTPSocket::EndsWithTheConnection()
{
    const std::string_view message(reinterpret_cast<const char*>(GetReceiveBuffer()),
                                   static_cast<std::size_t>(GetReceiveBufferSize()));
    const bool headerArrived = HeaderArrived(message);
    m_CutShort = tavronet::DialectOf(*m_pUPnPObject).CutShort(message, *m_pFrame);
    if (headerArrived && !m_CutShort)
        m_ResponseLength = GetReceiveBufferSize();
    return m_ResponseLength != 0;
}

void CUPnPHTTPSocket::ReadInTurn()
{
    m_pPlace->Read([this] { Read(); });
}

void CUPnPHTTPSocket::Read()
{
    const tavronet::LifetimeGuard guard(*this);
    try {
        HandOver();
        if (guard.Alive())
            OnResponseRead();
    } catch (...) {
        if (guard.Alive() && m_bClosed)
            ReleaseSocket();
        throw;
    }
    if (guard.Alive() && m_bClosed)
        ReleaseSocket();
}

/// Whoever waits below what follows has nothing of the response under it.
void CUPnPHTTPSocket::HandOver()
{
    m_bHTMLProcessed = true;
    m_pPlace->Hold(0);
    const tavronet::ByteBuffer held = TakeReceiveBuffer(); // also when an override has this socket deleted
    held.Data()[held.Size()] = 0;                          // more may have stood behind it
    const std::string_view message(reinterpret_cast<const char*>(held.Data()),
                                   static_cast<std::size_t>(held.Size()));
    std::string storage;
    const std::string_view body = tavronet::DialectOf(*m_pUPnPObject).DecodeBody(message, *m_pFrame, storage);
    m_pUPnPObject->ProcessHTML(this, message.data(), static_cast<int>(message.size()), body.data(),
                               static_cast<int>(body.size()));
}

void CUPnPHTTPSocket::OnResponseRead() {}
