#ifndef TAVRONET_UPNP_UPNPSERVICESOCKET_H
#define TAVRONET_UPNP_UPNPSERVICESOCKET_H

#include "tavronet/upnp/UPnPHTTPSocket.h"

class CUPnPService;

/// Carries one action of a service: connects to the control endpoint and posts the service's current action.
/// Owner: the service (ReleaseUPnPServiceSocket).
class TAVRONET_API CUPnPServiceSocket : public CUPnPHTTPSocket
{
public:
    /// @param service borrowed; outlives the socket, which it owns.
    CUPnPServiceSocket(const char* localAddress, UINT localPort, CUPnPService* service);
    ~CUPnPServiceSocket() override;

protected:
    /// Sends the action; a failed connect releases the socket.
    void OnConnect(int error) override;
    void ReleaseSocket() override;

private:
    CUPnPService* m_pUPnPService; // not owned
};

#endif
