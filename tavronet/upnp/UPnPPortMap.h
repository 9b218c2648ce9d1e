#ifndef TAVRONET_UPNP_UPNPPORTMAP_H
#define TAVRONET_UPNP_UPNPPORTMAP_H

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
    const wchar_t* GetPortMappingIndex() const { return m_PortMappingIndex; }
    const wchar_t* GetRemoteHost() const { return m_RemoteHost; }
    const wchar_t* GetExternalPort() const { return m_ExternalPort; }
    const wchar_t* GetProtocol() const { return m_Protocol; }
    const wchar_t* GetInternalPort() const { return m_InternalPort; }
    const wchar_t* GetInternalClient() const { return m_InternalClient; }
    const wchar_t* GetEnabled() const { return m_Enabled; }
    const wchar_t* GetPortMappingDescription() const { return m_PortMappingDescription; }
    const wchar_t* GetLeaseDuration() const { return m_LeaseDuration; }

    void SetRemoteHost(const char* remoteHost) { m_RemoteHost = remoteHost; }
    void SetEnabled(const char* enabled) { m_Enabled = enabled; }

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

private:
    CString m_PortMappingIndex;
    CString m_RemoteHost;
    CString m_ExternalPort;
    CString m_Protocol;
    CString m_InternalPort;
    CString m_InternalClient;
    CString m_Enabled;
    CString m_PortMappingDescription;
    CString m_LeaseDuration;
    bool m_Added = false;
    bool m_Deleted = false;
};

#endif
