#ifndef TAVRONET_UPNP_DESCRIPTIONBUILDER_H
#define TAVRONET_UPNP_DESCRIPTIONBUILDER_H

#include <span>
#include <string_view>

#include "tavronet/platform/String.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPDialect.h"
#include "tavronet/upnp/UPnPService.h"

namespace tavronet
{

/// What the readers of descriptions build with: makes nodes within the limits, tells which element goes
/// where, raises the events. One per description.
class DescriptionBuilder
{
public:
    /// An element's name in lower case and the text that takes its content.
    template <typename Node>
    struct Field
    {
        std::string_view element;
        CString& (*text)(Node&);
    };

    static std::span<const Field<CUPnPDevice>> DeviceFields();
    static std::span<const Field<CUPnPService>> ServiceFields();
    static CString& URLBase(CUPnPDevice& device);

    /// Appends an embedded device, or a service; null when the tree is as deep or as large as it may be.
    CUPnPDevice* AddDevice(CUPnPDevice& parent);
    CUPnPService* AddService(CUPnPDevice& parent);

    /// Counts the node as a device (service) whatever its type text is.
    static void MarkAsDevice(CUPnPDevice& device) { MarkAs(device, CUPnPObject::ReadAs::Device); }
    static void MarkAsService(CUPnPService& service) { MarkAs(service, CUPnPObject::ReadAs::Service); }

    static CUPnPDevice* ParentOf(const CUPnPObject& node);
    static std::span<CUPnPObject* const> ChildrenOf(const CUPnPObject& node) { return node.m_UPnPObjects; }

    static void SetControlAddress(CUPnPService& service, const URLParts& address);

    /// The node has been read. Runs foreign code.
    /// @return whether the node is still there.
    static bool Finish(CUPnPDevice& device) { return Raise(device, UPnPEventDeviceDescribed); }
    static bool Finish(CUPnPService& service) { return Raise(service, UPnPEventServiceDescribed); }

private:
    static void MarkAs(CUPnPObject& node, CUPnPObject::ReadAs kind) { node.m_ReadAs = kind; }
    static bool Raise(CUPnPObject& node, UPnPEventCode code);

    int m_Nodes = 0;
};

} // namespace tavronet

#endif
