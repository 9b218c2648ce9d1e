#include "tavronet/upnp/DescriptionBuilder.h"

#include <memory>

#include "tavronet/upnp/Limits.h"

namespace tavronet
{

std::span<const DescriptionBuilder::Field<CUPnPDevice>> DescriptionBuilder::DeviceFields()
{
    static constexpr Field<CUPnPDevice> kFields[] = {
        {"devicetype", [](CUPnPDevice& device) -> CString& { return device.GetType(); }},
        {"friendlyname", [](CUPnPDevice& device) -> CString& { return device.m_FriendlyName; }},
        {"manufacturer", [](CUPnPDevice& device) -> CString& { return device.m_Manufacturer; }},
        {"manufacturerurl", [](CUPnPDevice& device) -> CString& { return device.m_ManufacturerURL; }},
        {"modeldescription", [](CUPnPDevice& device) -> CString& { return device.m_ModelDescription; }},
        {"modelname", [](CUPnPDevice& device) -> CString& { return device.m_ModelName; }},
        {"udn", [](CUPnPDevice& device) -> CString& { return device.m_UDN; }},
    };
    return kFields;
}

std::span<const DescriptionBuilder::Field<CUPnPService>> DescriptionBuilder::ServiceFields()
{
    static constexpr Field<CUPnPService> kFields[] = {
        {"servicetype", [](CUPnPService& service) -> CString& { return service.GetType(); }},
        {"serviceid", [](CUPnPService& service) -> CString& { return service.m_ServiceID; }},
        {"controlurl", [](CUPnPService& service) -> CString& { return service.m_ControlURL; }},
        {"eventsuburl", [](CUPnPService& service) -> CString& { return service.m_EventSubURL; }},
        {"scpdurl", [](CUPnPService& service) -> CString& { return service.m_SCPDURL; }},
    };
    return kFields;
}

CString& DescriptionBuilder::URLBase(CUPnPDevice& device)
{
    return device.m_URLBase;
}

CUPnPDevice* DescriptionBuilder::AddDevice(CUPnPDevice& parent)
{
    if (parent.ParentDepth() >= kMaxDeviceDepth || m_Nodes >= kMaxDescriptionNodes)
        return nullptr;
    ++m_Nodes;
    auto device = std::make_unique<CUPnPDevice>(&parent, nullptr);
    CUPnPObject& owner = parent;
    owner.AddUPnPObject(device.get());
    return device.release();
}

CUPnPService* DescriptionBuilder::AddService(CUPnPDevice& parent)
{
    if (m_Nodes >= kMaxDescriptionNodes)
        return nullptr;
    ++m_Nodes;
    auto service = std::make_unique<CUPnPService>(&parent);
    CUPnPObject& owner = parent;
    owner.AddUPnPObject(service.get());
    return service.release();
}

CUPnPDevice* DescriptionBuilder::ParentOf(const CUPnPObject& node)
{
    return static_cast<CUPnPDevice*>(node.GetParent()); // only devices contain nodes
}

void DescriptionBuilder::SetControlAddress(CUPnPService& service, const URLParts& address)
{
    service.m_Host = address.host;
    service.m_HostPort = address.port;
    service.m_HostPath = address.path;
}

bool DescriptionBuilder::Raise(CUPnPObject& node, UPnPEventCode code)
{
    const LifetimeGuard guard(node);
    node.UPnPEvent(code);
    return guard.Alive();
}

} // namespace tavronet
