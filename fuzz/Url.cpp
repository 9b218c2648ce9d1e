// Three lines: where a description was, the base URL that it names, and a control URL in it. Both dialects make of
// them where the service is controlled.

#include <algorithm>
#include <string>

#include "Input.h"
#include "tavronet/platform/TextConversion.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPDialect.h"
#include "tavronet/upnp/UPnPNetwork.h"
#include "tavronet/upnp/UPnPService.h"

namespace
{

using tavronet::URLParts;

std::string TakeLine(std::string_view& rest)
{
    const std::string line(rest.substr(0, rest.find('\n')));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    return line;
}

/// The text as it may stand in an element: whatever is special has its number.
std::string AsElement(const std::string& name, std::string_view text)
{
    std::string element = "<" + name + ">";
    for (const char c : text) {
        const bool isSpecial = c == '<' || c == '>' || c == '&' || c == '\0';
        element += isSpecial ? "&#" + std::to_string(static_cast<int>(c)) + ";" : std::string(1, c);
    }
    return element + "</" + name + ">\r\n";
}

bool IsPlain(const CString& host)
{
    return std::ranges::all_of(host.View(), [](wchar_t c) {
        return (c >= L'a' && c <= L'z') || (c >= L'0' && c <= L'9') || c == L'.' || c == L':';
    });
}

/// A URL that is put together from its parts has the same ones.
void SplitAgain(const URLParts& parts)
{
    const bool isSpoiltByTrimming =
        std::ranges::any_of(parts.path.View(), [](wchar_t c) { return tavronet::IsWhiteSpace(c); });
    if (parts.host.IsEmpty() || parts.port == 0 || !IsPlain(parts.host) || isSpoiltByTrimming)
        return;
    const bool isIPv6 = parts.host.Find(L':') >= 0;
    CString url;
    url.Format(isIPv6 ? L"http://[%s]:%d%s" : L"http://%s:%d%s", parts.host, static_cast<int>(parts.port),
               parts.path);
    const URLParts again = tavronet::ModernDialect().SplitURL(url);
    Expect(again.host == parts.host && again.port == parts.port && again.path == parts.path);
}

void Split(const CString& url)
{
    const URLParts classic = tavronet::ClassicDialect().SplitURL(url);
    Expect(classic.host.Find(L'/') < 0 && classic.host.Find(L':') < 0);

    const URLParts modern = tavronet::ModernDialect().SplitURL(url);
    Expect(modern.port <= 65535 && modern.path.Find(L' ') < 0 && modern.path.Find(L'#') < 0);
    Expect(modern.host.IsEmpty() || modern.path.View().starts_with(L'/'));
    SplitAgain(modern);
}

/// No segment of an absolute path that was resolved goes up or stays.
void HasNoDots(std::wstring_view path)
{
    const std::wstring segments = std::wstring(path.substr(0, path.find(L'?'))) + L'/';
    Expect(segments.find(L"/../") == segments.npos && segments.find(L"/./") == segments.npos);
}

void Resolve(CUPnPNetwork& network, const std::string& location, const std::string& base,
             const std::string& control)
{
    CUPnPDevice device(nullptr, &network);
    std::string datagram = "HTTP/1.1 200 OK\r\nLOCATION: " + location + "\r\n\r\n";
    device.Init("10.77.1.2", "10.77.1.1", 1900, datagram.data());
    device.GetDescAddr();
    device.GetDescPort();
    device.GetDescPath();

    const std::string document = "<root>\r\n" + AsElement("URLBase", base) +
                                 "<device>\r\n<serviceList>\r\n<service>\r\n<serviceType>urn:schemas-upnp-"
                                 "org:service:WANIPConnection:1"
                                 "</serviceType>\r\n" +
                                 AsElement("SCPDURL", location) + AsElement("controlURL", control) +
                                 "</service>\r\n</serviceList>\r\n</device>\r\n</root>\r\n";
    network.Dialect().ReadDescription(device, document);
    const CUPnPService* const service = network.Dialect().FindConnectionService(device);
    const bool isRelative = control.starts_with('/') && !control.starts_with("//");
    if (service != nullptr && network.GetDialect() == UPnPDialectModern && isRelative)
        HasNoDots(service->GetHostPath().View());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr bool kNoSearch = false;
    static CUPnPNetwork classic(nullptr, nullptr, UPnPDialectClassic, kNoSearch);
    static CUPnPNetwork modern(nullptr, nullptr, UPnPDialectModern, kNoSearch);

    const HeldInput held(data, size);
    std::string_view rest = held.View();
    const std::string location = TakeLine(rest), base = TakeLine(rest), control = TakeLine(rest);
    for (const std::string& url : {location, base, control})
        Split(Widen(std::string_view(url)));
    Resolve(classic, location, base, control);
    Resolve(modern, location, base, control);
    return 0;
}
