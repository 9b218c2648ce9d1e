// How a device comes by its description, and finds its services in it.

#include <algorithm>
#include <memory>

#include "tavronet/platform/TextConversion.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/upnp/DescriptionBuilder.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPDeviceSocket.h"
#include "tavronet/upnp/UPnPDialect.h"
#include "tavronet/upnp/UPnPService.h"

void CUPnPDevice::RequestDescription()
{
    WantUpkeep();
    ReleaseUPnPDeviceSockets();
    auto socket = std::make_unique<CUPnPDeviceSocket>("", 0, this);
    if (socket->GetErrorState())
        return; // without a request tick: the upkeep drops the device

    m_DeviceSockets.push_back(socket.get());
    socket.release();
    m_DescRequestTick = GetTickCount();
}

void CUPnPDevice::ProcessHTML(CUPnPHTTPSocket* socket, const char*, int, const char* body, int bodyLength)
{
    // The address that this machine really used tells more than the one on which the device was heard.
    CString address;
    UINT port = 0;
    if (socket != nullptr && socket->GetSockName(address, port) && !address.IsEmpty() && address != m_IpAddr)
        m_IpAddr = address;

    const bool described = NumUPnPObjects() != 0 || !GetType().IsEmpty();
    if (described) // a tree is never built twice
        return;
    tavronet::DialectOf(*this).ReadDescription(*this, {body, static_cast<std::size_t>(bodyLength)});
    if (socket == nullptr)
        tavronet::DescriptionBuilder::RaiseEvents(
            *this); // otherwise by the socket, which frees the response before
}

CUPnPService* CUPnPDevice::FindService(const char* type)
{
    const CString wanted(type);
    for (int i = 0; static_cast<std::size_t>(i) < NumUPnPObjects(); ++i) {
        // Casts that look: a type text comes from the network and proves nothing.
        CUPnPObject* const child = GetUPnPObject(i);
        if (child->IsDevice()) {
            CUPnPDevice* const device = dynamic_cast<CUPnPDevice*>(child);
            CUPnPService* const service = device != nullptr ? device->FindService(type) : nullptr;
            if (service != nullptr)
                return service;
        } else if (child->IsService() && child->GetType() == wanted) {
            CUPnPService* const service = dynamic_cast<CUPnPService*>(child);
            if (service != nullptr)
                return service;
        }
    }
    return nullptr;
}

CUPnPService* CUPnPDevice::FindConnectionService()
{
    return tavronet::DialectOf(*this).FindConnectionService(*this);
}

void CUPnPDevice::ReleaseUPnPDeviceSocket(CUPnPDeviceSocket* socket)
{
    const auto found = std::ranges::find(m_DeviceSockets, socket);
    if (found == m_DeviceSockets.end())
        return;
    const bool again = socket->GetCutShort() && !m_DescRepeated;
    m_DeviceSockets.erase(found);
    delete socket;
    if (again) {
        m_DescRepeated = true;
        RequestDescription();
    }
}

void CUPnPDevice::ReleaseUPnPDeviceSockets()
{
    for (const CUPnPDeviceSocket* socket : m_DeviceSockets)
        delete socket;
    m_DeviceSockets.clear();
}
