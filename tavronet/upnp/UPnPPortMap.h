#ifndef TAVRONET_UPNP_UPNPPORTMAP_H
#define TAVRONET_UPNP_UPNPPORTMAP_H

#include <array>
#include <cstddef>
#include <memory>

#include "tavronet/platform/Export.h"
#include "tavronet/platform/String.h"
#include "tavronet/platform/Types.h"

/// One port mapping of a gateway, held as the texts that travel in its messages.
///
/// A value: copies are independent. Null texts count as empty.
class TAVRONET_API CUPnPPortMap
{
public:
    /// The entry that a gateway described.
    CUPnPPortMap(const char* index, const char* remoteHost, const char* externalPort, const char* protocol,
                 const char* internalPort, const char* internalClient, const char* enabled,
                 const char* description, const char* leaseDuration);

    /// A mapping to add or delete: from a port to the same port, enabled, without end, for every remote host.
    /// @param internalClient the address that the gateway forwards to.
    CUPnPPortMap(unsigned int port, const char* protocol, const char* internalClient,
                 const char* description);

    CUPnPPortMap(const CUPnPPortMap&);
    CUPnPPortMap& operator=(const CUPnPPortMap&);
    virtual ~CUPnPPortMap();

    /// Each text is valid while the record stays unchanged.
    const wchar_t* GetPortMappingIndex() const { return TextAt(IndexText); }
    const wchar_t* GetRemoteHost() const { return TextAt(HostText); }
    const wchar_t* GetExternalPort() const { return TextAt(ExternalPortText); }
    const wchar_t* GetProtocol() const { return TextAt(ProtocolText); }
    const wchar_t* GetInternalPort() const { return TextAt(InternalPortText); }
    const wchar_t* GetInternalClient() const { return TextAt(ClientText); }
    const wchar_t* GetEnabled() const { return TextAt(EnabledText); }
    const wchar_t* GetPortMappingDescription() const { return TextAt(DescriptionText); }
    const wchar_t* GetLeaseDuration() const { return TextAt(LeaseText); }

    void SetRemoteHost(const char* remoteHost) { SetText(HostText, remoteHost); }
    void SetEnabled(const char* enabled) { SetText(EnabledText, enabled); }

    /// Whether the gateway accepted the last add, or the last delete, of this record.
    bool GetAdded() const { return m_Added; }
    void SetAdded(bool added) { m_Added = added; }
    bool GetDeleted() const { return m_Deleted; }
    void SetDeleted(bool deleted) { m_Deleted = deleted; }

    /// The texts read as numbers: leading white space, a sign, digits up to the first other character; 0
    /// without digits. Negative numbers come out as huge unsigned ones.
    bool Enabled() const;
    unsigned int ExternalPort() const;
    unsigned int InternalPort() const;
    DWORD LeaseDuration() const; ///< seconds; 0 = without end

    /// How many characters the texts have together.
    std::size_t TextLength() const;

private:
    friend class CUPnPDevice;

    enum Which
    {
        IndexText,
        HostText,
        ExternalPortText,
        ProtocolText,
        InternalPortText,
        ClientText,
        EnabledText,
        DescriptionText,
        LeaseText,
        TextCount
    };
    using Texts = std::array<CStringW, TextCount>;

    const wchar_t* TextAt(int which) const;
    void SetText(int which, const char* text);
    Texts Unpacked() const;
    void Pack(const Texts& texts);

    std::unique_ptr<wchar_t[]>
        m_pTexts; // one behind the other, each with its zero: a table may have 65536 records
    bool m_Added = false;
    bool m_Deleted = false;
    bool m_DeleteTold = false; // the delete that goes over its list now has been told what comes of it
};

#endif
