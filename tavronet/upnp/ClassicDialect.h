#ifndef TAVRONET_UPNP_CLASSICDIALECT_H
#define TAVRONET_UPNP_CLASSICDIALECT_H

#include "tavronet/upnp/UPnPDialect.h"

namespace tavronet
{

/// Gateways of the first generation: descriptions with a tag a line, version-1 connection services, answers
/// with unprefixed elements on one line each, responses exactly as long as announced.
class ClassicGatewayDialect final : public UPnPDialect
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
    bool RefusalIsFailure() const override { return false; }

private:
    CString Escaped(const CString& text) const override { return text; }
    CString HostText(const CString& host) const override { return host; }
    const wchar_t* FurtherHeaders() const override { return L""; }
};

} // namespace tavronet

#endif
