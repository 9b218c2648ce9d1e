#ifndef TAVRONET_UPNP_UPNPSOCKET_H
#define TAVRONET_UPNP_UPNPSOCKET_H

#include "tavronet/platform/Export.h"
#include "tavronet/platform/String.h"
#include "tavronet/platform/Types.h"
#include "tavronet/socket/TavroSocket.h"

/// Base of every gateway socket: remembers the local address it was made for and whether creation succeeded.
class TAVRONET_API CUPnPSocket : public CTavroSocket
{
public:
    /// @param address numeric local address; null or empty binds to any address of `family`.
    /// @param port local port, 0 for a free one.  @param socketType 1 stream, 2 datagram.
    /// @param events the notifications wanted (FD_...).  @param create false: no system socket is made.
    /// @param family of the wildcard when no address is given; 0 is IPv4.
    CUPnPSocket(const char* address, UINT port, int socketType, LONG events, bool create, int family = 0);
    ~CUPnPSocket() override;

    const CString& GetIpAddr() const { return m_IpAddr; }

    bool GetCreated() const { return m_bCreated; }
    void SetCreated(bool created) { m_bCreated = created; }

    /// Whether nothing can come of this socket: it was not created, or it neither connects nor is connected.
    bool GetErrorState() const;

private:
    CString m_IpAddr;
    bool m_bCreated = false;
};

#endif
