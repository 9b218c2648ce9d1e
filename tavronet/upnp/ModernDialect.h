#ifndef TAVRONET_UPNP_MODERNDIALECT_H
#define TAVRONET_UPNP_MODERNDIALECT_H

#include "tavronet/upnp/UPnPDialect.h"

namespace tavronet
{

/// Gateways as they are deployed: XML in any form, services of any version and name space, chunked and loosely
/// framed responses, relative and IPv6 URLs. Refused adds count as failures, texts are escaped.
class ModernGatewayDialect final : public UPnPDialect
{
public:
    std::vector<std::string> SearchRequests(const char* group, UINT port) const override;
    bool WantsAnnouncement(const CString& urn) const override;
    std::string DescriptionRequest(const CString& host, UINT port, const CString& path) const override;
    bool ReadHeader(std::string_view message, ResponseFrame& frame) const override;
    bool Complete(std::string_view message, ResponseFrame& frame) const override;
    bool CutShort(std::string_view message, ResponseFrame& frame) const override;
    std::string_view DecodeBody(std::string_view message, const ResponseFrame& frame,
                                std::string& storage) const override;
    std::size_t FindStatus(std::string_view response) const override;
    void ReadDescription(CUPnPDevice& device, std::string_view document) const override;
    void ReadAnswer(ActionAnswer& answer, std::string_view body) const override;
    URLParts SplitURL(const CString& url) const override;
    CUPnPService* FindConnectionService(CUPnPDevice& device) const override;
    bool RefusalIsFailure() const override { return true; }

private:
    CString Escaped(const CString& text) const override;
    CString HostText(const CString& host) const override;
    const wchar_t* FurtherHeaders() const override { return L"Connection: close\r\n"; }
};

} // namespace tavronet

#endif
