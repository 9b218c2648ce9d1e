#include "tavronet/upnp/UPnPServiceSocket.h"

#include "tavronet/platform/TextConversion.h"
#include "tavronet/upnp/UPnPDialect.h"
#include "tavronet/upnp/UPnPService.h"

CUPnPServiceSocket::CUPnPServiceSocket(const char* localAddress, UINT localPort, CUPnPService* service)
    : CUPnPHTTPSocket(localAddress, localPort, Narrow(service->GetHost()), service->GetHostPort(), service),
      m_pUPnPService(service)
{
}

CUPnPServiceSocket::~CUPnPServiceSocket() = default;

void CUPnPServiceSocket::OnConnect(int error)
{
    CUPnPHTTPSocket::OnConnect(error);
    if (!GetConnected()) {
        ReleaseSocket();
        return;
    }

    const CUPnPService& service = *m_pUPnPService;
    const tavronet::ActionText action{service.GetHost(), service.GetHostPort(), service.GetHostPath(),
                                      service.GetType(), service.GetCommand(),  service.GetCommandParams()};
    SendRequest(tavronet::DialectOf(service).ActionRequest(action),
                {service.GetHost(), service.GetHostPath(), service.GetType(), service.GetCommand()});
}

void CUPnPServiceSocket::ReleaseSocket()
{
    m_pUPnPService->ReleaseUPnPServiceSocket(true);
}
