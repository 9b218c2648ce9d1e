#include "tavronet/upnp/UPnPDeviceSocket.h"

#include "tavronet/platform/TextConversion.h"
#include "tavronet/upnp/DescriptionBuilder.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPDialect.h"

CUPnPDeviceSocket::CUPnPDeviceSocket(const char* localAddress, UINT localPort, CUPnPDevice* device)
    : CUPnPHTTPSocket(localAddress, localPort, Narrow(device->GetDescAddr()), device->GetDescPort(), device),
      m_pUPnPDevice(device)
{
}

CUPnPDeviceSocket::~CUPnPDeviceSocket() = default;

void CUPnPDeviceSocket::OnConnect(int error)
{
    CUPnPHTTPSocket::OnConnect(error);
    if (!GetConnected()) {
        ReleaseSocket();
        return;
    }

    const CString host = m_pUPnPDevice->GetDescAddr();
    const CString path = m_pUPnPDevice->GetDescPath();
    const auto& dialect = tavronet::DialectOf(*m_pUPnPDevice);
    SendRequest(dialect.DescriptionRequest(host, m_pUPnPDevice->GetDescPort(), path), {host, path});
}

void CUPnPDeviceSocket::ReleaseSocket()
{
    m_pUPnPDevice->ReleaseUPnPDeviceSocket(this);
}

void CUPnPDeviceSocket::OnResponseRead()
{
    tavronet::DescriptionBuilder::RaiseEvents(*m_pUPnPDevice);
}
