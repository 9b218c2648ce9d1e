#ifndef TAVRONET_UPNP_UPNPSSDPSOCKET_H
#define TAVRONET_UPNP_UPNPSSDPSOCKET_H

#include "tavronet/upnp/UPnPSocket.h"

class CUPnPNetwork;

/// The discovery socket of one local interface address: sends searches to the SSDP group and turns each
/// answer and announcement into a device record for its network.
///
/// Owner: the network, which replaces all its discovery sockets at every full discovery.
/// A socket on a free port hears answers and unicast announcements; the system delivers no multicast to it.
/// During a notification: the host's event callback runs and may destroy this socket or the network.
class TAVRONET_API CUPnPSSDPSocket : public CUPnPSocket
{
public:
    /// Creates and binds the socket, joins the group on the interface of `address` and selects that interface
    /// for searches. GetCreated tells whether the socket is usable; the last error tells why not.
    /// @param address numeric IPv4 or IPv6 address of the interface.  @param port 0 for a free one.
    /// @param network borrowed, may be null: then nothing is sent and every datagram is dropped.
    CUPnPSSDPSocket(const char* address, UINT port, CUPnPNetwork* network);
    ~CUPnPSSDPSocket() override;

    /// Sends the searches of the network's dialect, once.
    /// @return true when every datagram went out whole; the first that did not ends the call.
    bool Discover();

    /// One datagram: becomes a record for the network, or is dropped. The error code is ignored.
    void OnReceive(int error) override;

    /// Creates and binds a socket whose port may be shared with other programs.
    /// @return 1, or 0 with the last error.
    virtual int Create(UINT port, int socketType, LONG events, const wchar_t* address);

private:
    bool Open(UINT port, int socketType, LONG events, const wchar_t* address);
    void JoinIPv4Group(const char* address);
    void JoinIPv6Group(const char* address);

    CUPnPNetwork* m_pUPnPNetwork; // not owned, may be null
    const char* m_MulticastGroup; // where searches go
};

#endif
