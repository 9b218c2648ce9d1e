#include "tavronet/upnp/UPnPDialect.h"

#include "tavronet/platform/TextConversion.h"

namespace tavronet
{

namespace
{

constexpr wchar_t kEncodingStyle[] = L"http://schemas.xmlsoap.org/soap/encoding/";
constexpr wchar_t kEnvelope[] = L"http://schemas.xmlsoap.org/soap/envelope/";

} // namespace

UPnPDialect::~UPnPDialect() = default;

std::string UPnPDialect::ActionRequest(const ActionText& action) const
{
    CString body = L"<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n";
    body += CString(L"<s:Envelope s:encodingStyle=\"") + kEncodingStyle + L"\" xmlns:s=\"" + kEnvelope +
            L"\">\r\n";
    body += L"   <s:Body>\r\n";
    body += L"      <u:" + action.action + L" xmlns:u=\"" + Escaped(action.serviceType) + L"\">\r\n";
    for (std::size_t i = 0; i + 1 < action.params.size(); i += 2) {
        const CString& name = action.params[i];
        const CString& value = action.params[i + 1];
        body += L"         <" + name;
        body += value.IsEmpty() ? CString(L" />") : L">" + Escaped(value) + L"</" + name + L">";
        body += L"\r\n";
    }
    body += L"      </u:" + action.action + L">\r\n   </s:Body>\r\n</s:Envelope>";
    const CStringA content = Narrow(body);

    CString header;
    header.Format(L"POST %s HTTP/1.1\r\nHOST: %s:%d\r\nSOAPACTION: \"%s#%s\"\r\n"
                  L"CONTENT-TYPE: text/xml ; charset=\"utf-8\"\r\nContent-Length: %d\r\n%s\r\n",
                  action.path, HostText(action.host), static_cast<int>(action.port), action.serviceType,
                  action.action, content.GetLength(), FurtherHeaders());
    return std::string(Narrow(header).View()) + std::string(content.View());
}

} // namespace tavronet
