#ifndef TAVRONET_UPNP_UPNPDEVICESOCKET_H
#define TAVRONET_UPNP_UPNPDEVICESOCKET_H

#include "tavronet/upnp/UPnPHTTPSocket.h"

class CUPnPDevice;

/// Fetches the description of a device: connects to the host of its description URL and sends one GET.
/// Owner: the device (ReleaseUPnPDeviceSocket).
class TAVRONET_API CUPnPDeviceSocket : public CUPnPHTTPSocket
{
public:
    /// @param device borrowed; outlives the socket, which it owns.
    CUPnPDeviceSocket(const char* localAddress, UINT localPort, CUPnPDevice* device);
    ~CUPnPDeviceSocket() override;

protected:
    /// Sends the request; a failed connect releases the socket.
    void OnConnect(int error) override;
    void ReleaseSocket() override;
    /// Raises the events of what was described.
    void OnResponseRead() override;

private:
    CUPnPDevice* m_pUPnPDevice; // not owned
};

#endif
