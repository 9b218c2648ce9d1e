#include "tavronet/upnp/DescriptionBuilder.h"

#include <memory>
#include <utility>

#include "tavronet/upnp/Limits.h"

namespace tavronet
{

namespace
{

/// What stands around an allocation.
constexpr std::size_t kAllocationBytes = 16;

std::size_t BytesOf(const CString& text)
{
    const std::size_t inside = 4; // what a short text keeps without an allocation
    const auto characters = static_cast<std::size_t>(text.GetLength()) + 1;
    return characters <= inside ? 0 : characters * sizeof(wchar_t) + kAllocationBytes;
}

} // namespace

DescriptionBuilder::DescriptionBuilder(CUPnPDevice& top) : DescriptionBuilder(top, &top) {}

DescriptionBuilder::DescriptionBuilder(CUPnPService& top) : DescriptionBuilder(top, ParentOf(top)) {}

/// @param device the top or what it belongs to; null for a service of its own.
DescriptionBuilder::DescriptionBuilder(CUPnPObject& top, CUPnPDevice* device)
    : m_Top(top), m_OldChildren(top.m_UPnPObjects.size())
{
    if (device == nullptr)
        return;
    auto& ofRoot = device->Root().m_pTreeBytes;
    if (ofRoot == nullptr)
        ofRoot = std::make_unique<TreeBytes>();
    m_pBytes = ofRoot.get();
    m_OldBytes = m_pBytes->Count();
}

DescriptionBuilder::~DescriptionBuilder()
{
    if (!m_Finished) // memory ran out
        TakeDown();
}

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

void DescriptionBuilder::Keep(CString& text, CString&& value)
{
    if (!Count(BytesOf(value)))
        return;
    if (m_pBytes != nullptr)
        m_pBytes->Give(BytesOf(text));
    text = std::move(value);
}

bool DescriptionBuilder::Count(std::size_t bytes)
{
    m_Full = m_Full || (m_pBytes != nullptr && !m_pBytes->Take(bytes));
    return !m_Full;
}

CUPnPDevice* DescriptionBuilder::AddDevice(CUPnPDevice& parent)
{
    CUPnPNetwork* const network = nullptr; // it reaches the root's
    return parent.ParentDepth() < kMaxDeviceDepth ? Add<CUPnPDevice>(parent, network) : nullptr;
}

CUPnPService* DescriptionBuilder::AddService(CUPnPDevice& parent)
{
    return Add<CUPnPService>(parent);
}

template <typename Node, typename... Arguments>
Node* DescriptionBuilder::Add(CUPnPDevice& parent, Arguments... arguments)
{
    const std::size_t bytes =
        sizeof(Node) + kAllocationBytes + 2 * sizeof(Node*); // a vector grows to the double
    if (m_Nodes >= kMaxDescriptionNodes || !Count(bytes))
        return nullptr;
    ++m_Nodes;
    auto node = std::make_unique<Node>(&parent, arguments...);
    CUPnPObject& owner = parent;
    owner.m_UPnPObjects.push_back(node.get()); // without upkeep, which comes to those that are used
    CUPnPObject& added = *node.release();
    added.m_EventDue = true;
    parent.ForgetNames();
    return static_cast<Node*>(&added);
}

CUPnPDevice* DescriptionBuilder::ParentOf(const CUPnPObject& node)
{
    return static_cast<CUPnPDevice*>(node.GetParent()); // only devices contain nodes
}

void DescriptionBuilder::SetControlAddress(CUPnPService& service, URLParts&& address)
{
    if (static_cast<std::size_t>(address.path.GetLength()) > kMaxElementTextBytes) // joined of two long ones
        return;
    Keep(service.m_Host, std::move(address.host));
    Keep(service.m_HostPath, std::move(address.path));
    service.m_HostPort = address.port;
}

void DescriptionBuilder::Finish()
{
    m_Finished = true;
    m_Top.m_EventDue = true;
    if (m_Full)
        TakeDown();
    if (auto* const device = dynamic_cast<CUPnPDevice*>(&m_Top))
        device->ForgetNames();
}

void DescriptionBuilder::TakeDown()
{
    auto& children = m_Top.m_UPnPObjects;
    for (; children.size() > m_OldChildren; children.pop_back())
        delete children.back();
    if (auto* const device = dynamic_cast<CUPnPDevice*>(&m_Top)) {
        Empty(*device, DeviceFields());
        URLBase(*device).Empty();
    } else if (auto* const service = dynamic_cast<CUPnPService*>(&m_Top)) {
        Empty(*service, ServiceFields());
        service->m_Host.Empty();
        service->m_HostPath.Empty();
    }
    m_Top.m_ReadAs = CUPnPObject::ReadAs::Unknown;
    if (m_pBytes != nullptr)
        m_pBytes->Give(m_pBytes->Count() - m_OldBytes);
}

template <typename Node, typename Fields>
void DescriptionBuilder::Empty(Node& node, const Fields& fields)
{
    for (const auto& field : fields)
        field.text(node).Empty();
}

bool DescriptionBuilder::RaiseEvents(CUPnPObject& top)
{
    const LifetimeGuard guard(top);
    // By index, the size read anew: an event may read more into the tree.
    for (std::size_t i = 0; i < top.m_UPnPObjects.size(); ++i) {
        if (!RaiseEvents(*top.m_UPnPObjects[i]) || !guard.Alive())
            return false;
    }
    if (std::exchange(top.m_EventDue, false)) {
        const bool isService = dynamic_cast<CUPnPService*>(&top) != nullptr;
        top.UPnPEvent(isService ? UPnPEventServiceDescribed : UPnPEventDeviceDescribed);
    }
    return guard.Alive();
}

} // namespace tavronet
