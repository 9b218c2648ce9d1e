#ifndef TAVRONET_UPNP_DESCRIPTIONBUILDER_H
#define TAVRONET_UPNP_DESCRIPTIONBUILDER_H

#include <cstddef>
#include <span>
#include <string_view>

#include "tavronet/platform/String.h"
#include "tavronet/upnp/TreeBytes.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPDialect.h"
#include "tavronet/upnp/UPnPService.h"

namespace tavronet
{

/// What the readers of descriptions build with: makes nodes and keeps texts within the limits, tells which element
/// goes where. One per description. Nothing runs foreign code but RaiseEvents, which comes last: whoever waits in
/// an event has neither the document nor what was made of it under him.
///
/// What has been built without Finish, or is Full, is taken down again: an unreadable description.
class DescriptionBuilder
{
public:
    /// @param top what is read: a device, or a service.
    explicit DescriptionBuilder(CUPnPDevice& top);
    explicit DescriptionBuilder(CUPnPService& top);
    ~DescriptionBuilder();
    DescriptionBuilder(const DescriptionBuilder&) = delete;
    DescriptionBuilder& operator=(const DescriptionBuilder&) = delete;

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

    /// Makes `value` a text of the tree. It stays as it is when the tree is full.
    void Keep(CString& text, CString&& value);

    /// Whether the tree keeps more than it may: nothing of it will be left, so reading on is of no use.
    bool Full() const { return m_Full; }

    /// Appends an embedded device, or a service; null when the tree is as deep or as large as it may be.
    CUPnPDevice* AddDevice(CUPnPDevice& parent);
    CUPnPService* AddService(CUPnPDevice& parent);

    /// Counts the node as a device (service) whatever its type text is.
    static void MarkAsDevice(CUPnPDevice& device) { MarkAs(device, CUPnPObject::ReadAs::Device); }
    static void MarkAsService(CUPnPService& service) { MarkAs(service, CUPnPObject::ReadAs::Service); }

    static CUPnPDevice* ParentOf(const CUPnPObject& node);
    static std::span<CUPnPObject* const> ChildrenOf(const CUPnPObject& node) { return node.m_UPnPObjects; }

    /// An address that is longer than any real one is none.
    void SetControlAddress(CUPnPService& service, URLParts&& address);

    /// All has been read.
    void Finish();

    /// Tells the host of all nodes at and below `top` that have been read, each device after what it contains. Runs
    /// foreign code.
    /// @return whether the node is still there.
    static bool RaiseEvents(CUPnPObject& top);

private:
    static void MarkAs(CUPnPObject& node, CUPnPObject::ReadAs kind) { node.m_ReadAs = kind; }
    DescriptionBuilder(CUPnPObject& top, CUPnPDevice* device);
    template <typename Node, typename... Arguments>
    Node* Add(CUPnPDevice& parent, Arguments... arguments);
    bool Count(std::size_t bytes);
    void TakeDown();
    template <typename Node, typename Fields>
    static void Empty(Node& node, const Fields& fields);

    CUPnPObject& m_Top;
    TreeBytes* m_pBytes = nullptr; // the root's; null without a root
    // as it was before
    std::size_t m_OldChildren;
    std::size_t m_OldBytes = 0;
    int m_Nodes = 0;
    bool m_Full = false;
    bool m_Finished = false;
};

} // namespace tavronet

#endif
