#include "tavronet/upnp/UPnPSocket.h"

CUPnPSocket::CUPnPSocket(const char* address, UINT port, int socketType, LONG events, bool create, int family)
    : m_IpAddr(address)
{
    if (create)
        m_bCreated = CTavroSocket::Create(port, socketType, events, m_IpAddr, family) != 0;
}

CUPnPSocket::~CUPnPSocket() = default;

bool CUPnPSocket::GetErrorState() const
{
    if (!m_bCreated)
        return true;
    return !GetConnecting() && !GetConnected();
}
