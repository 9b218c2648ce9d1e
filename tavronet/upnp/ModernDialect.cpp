#include "tavronet/upnp/ModernDialect.h"

#include <algorithm>
#include <iterator>

#include "tavronet/platform/TextConversion.h"
#include "tavronet/upnp/DescriptionBuilder.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/ModernHttp.h"
#include "tavronet/upnp/ModernXml.h"

namespace tavronet
{

namespace
{

// Devices answer for their own version and for those below it, so the first version finds all; some know only
// their own, or only one of their parts.
constexpr const wchar_t* kSearchTargets[] = {
    L"urn:schemas-upnp-org:device:InternetGatewayDevice:1",
    L"urn:schemas-upnp-org:device:InternetGatewayDevice:2",
    L"urn:schemas-upnp-org:device:WANConnectionDevice:1",
    L"urn:schemas-upnp-org:service:WANIPConnection:1",
    L"urn:schemas-upnp-org:service:WANPPPConnection:1",
};

// Announcements of any version of these are about a gateway.
constexpr std::wstring_view kGatewayParts[] = {L":device:internetgatewaydevice:",
                                               L":device:wanconnectiondevice:", L":service:wanipconnection:",
                                               L":service:wanpppconnection:"};

// The services that map ports, the preferred ones first.
constexpr const wchar_t* kConnectionServices[] = {
    L"urn:schemas-upnp-org:service:WANIPConnection:2",  L"urn:schemas-upnp-org:service:WANIPConnection:1",
    L"urn:schemas-upnp-org:service:WANPPPConnection:2", L"urn:schemas-upnp-org:service:WANPPPConnection:1",
    L"urn:dslforum-org:service:WANIPConnection:2",      L"urn:dslforum-org:service:WANIPConnection:1",
    L"urn:dslforum-org:service:WANPPPConnection:2",     L"urn:dslforum-org:service:WANPPPConnection:1",
};

/// The place of a type among the services that map ports; their number when it is none of them.
std::size_t RankOf(const CString& serviceType)
{
    const auto found = std::ranges::find_if(
        kConnectionServices, [&](const wchar_t* type) { return serviceType.CompareNoCase(type) == 0; });
    return static_cast<std::size_t>(found - std::begin(kConnectionServices));
}

bool IsConnectionService(const CString& serviceType)
{
    return RankOf(serviceType) < std::size(kConnectionServices);
}

// --- URLs -----------------------------------------------------------------------------------------------------------

constexpr UINT kDefaultPort = 80;

bool IsAbsolute(std::wstring_view url)
{
    const std::size_t scheme = url.find(L"://");
    return scheme != std::wstring_view::npos && scheme < url.find_first_of(L"/?#");
}

/// Host and port of "user@host:port" or "[address%25scope]:port"; port 0 when it cannot be connected to.
void ReadAuthority(std::wstring_view authority, URLParts& parts)
{
    authority.remove_prefix(authority.rfind(L'@') + 1); // npos + 1 is 0
    std::wstring_view rest;
    if (authority.starts_with(L'[')) {
        const std::size_t end = authority.find(L']');
        if (end == std::wstring_view::npos) {
            parts.port = 0;
            return;
        }
        parts.host = CString(authority.substr(1, end - 1));
        parts.host.Replace(L"%25", L"%");
        rest = authority.substr(end);
    } else {
        parts.host = CString(authority.substr(0, authority.find(L':')));
        rest = authority.substr(static_cast<std::size_t>(parts.host.GetLength()));
    }
    const std::size_t colon = rest.find(L':');
    if (colon != std::wstring_view::npos && colon + 1 < rest.size()) {
        const int port = ReadInt32(rest.substr(colon + 1));
        parts.port = port > 0 && port <= static_cast<int>(kHighestPort) ? static_cast<UINT>(port) : 0;
    }
}

/// A path as it may stand in a request line.
CString SendablePath(std::wstring_view path)
{
    CString sendable(path.substr(0, path.find(L'#')));
    sendable.Replace(L" ", L"%20");
    return sendable;
}

/// Takes "." and ".." out of an absolute path; its query stays as it is.
std::wstring WithoutDots(std::wstring_view path)
{
    const std::wstring_view query = path.substr(std::min(path.find(L'?'), path.size()));
    path.remove_suffix(query.size());
    std::wstring result;
    while (!path.empty()) {
        const std::size_t end = std::min(path.find(L'/', 1), path.size());
        const std::wstring_view segment = path.substr(0, end); // with its leading slash
        path.remove_prefix(end);
        const bool up = segment == L"/..";
        if (up)
            result.resize(std::min(result.rfind(L'/'), result.size()));
        if (!up && segment != L"/.")
            result += segment;
        else if (path.empty())
            result += L'/';
    }
    return result + std::wstring(query);
}

CString ResolvedPath(std::wstring_view path)
{
    return CString(WithoutDots(SendablePath(path).View())); // in this order: a fragment may follow the dots
}

/// The address that a URL of a description means.
/// @param base what a relative one is relative to.
URLParts Resolve(const URLParts& base, const CString& reference)
{
    const std::wstring_view url = Trimmed(reference.View());
    const bool ownHost = url.starts_with(L"//");
    URLParts target = base;
    if (ownHost || IsAbsolute(url))
        target = ModernDialect().SplitURL(ownHost ? CString(L"http:") + CString(url) : CString(url));
    else if (url.empty())
        target.path.Empty(); // nothing to send an action to
    else if (url.starts_with(L'/'))
        target.path = ResolvedPath(url);
    else {
        const std::wstring_view path = base.path.View().substr(0, base.path.View().find(L'?'));
        const std::wstring_view folder = path.substr(0, path.rfind(L'/') + 1);
        const std::wstring_view start = url.starts_with(L'?') ? path : folder;
        target.path = ResolvedPath(std::wstring(start.empty() ? L"/" : start) + std::wstring(url));
    }

    // Devices that do not know their own address write none, or the wildcard.
    if (target.port == 0)
        return target;
    if (target.host.IsEmpty() || target.host == L"0.0.0.0" || target.host == L"::") {
        target.host = base.host;
        target.port = base.port;
    }
    return target;
}

// --- descriptions ---------------------------------------------------------------------------------------------------

bool IsNode(const std::string& name)
{
    return name == "device" || name == "service";
}

/// Builds the tree from a loaded document. Devices and services count wherever they stand, in a list or not.
class TreeReader
{
public:
    TreeReader(CUPnPDevice& root, const pugi::xml_document& document)
        : m_Root(root), m_Document(document), m_Builder(root)
    {
    }

    void Run();

private:
    pugi::xml_node FindFirst(const char* name) const;
    void ReadContents(CUPnPDevice& device, const pugi::xml_node& node, int depth);
    void ReadEmbedded(CUPnPDevice& parent, const pugi::xml_node& node, int depth);
    void ReadService(CUPnPDevice& parent, const pugi::xml_node& node);

    template <typename Node, typename Fields>
    void ReadFields(Node& target, const Fields& fields, const pugi::xml_node& node, int depth = 0);

    CUPnPDevice& m_Root;
    const pugi::xml_document& m_Document;
    pugi::xml_node m_RootNode;
    URLParts m_Base;
    DescriptionBuilder m_Builder;
};

void TreeReader::Run()
{
    m_RootNode = FindFirst("device");
    CString& base = DescriptionBuilder::URLBase(m_Root);
    if (base.IsEmpty())
        m_Builder.Keep(base, TextOf(FindFirst("urlbase")));
    m_Base = ModernDialect().SplitURL(m_Root.GetDescURL());
    if (!base.IsEmpty())
        m_Base = Resolve(m_Base, base);

    // Without any device the document itself is taken for one.
    const pugi::xml_node own = m_RootNode ? m_RootNode : static_cast<const pugi::xml_node&>(m_Document);
    ReadFields(m_Root, DescriptionBuilder::DeviceFields(), own);
    ReadContents(m_Root, m_Document, 0);
    m_Builder.Finish();
}

pugi::xml_node TreeReader::FindFirst(const char* name) const
{
    pugi::xml_node node = m_Document;
    while (node && LocalName(node) != name)
        node = NextNode(node);
    return node;
}

/// Fills in what is still empty from the elements below `node`, except those of nodes nested in it.
template <typename Node, typename Fields>
void TreeReader::ReadFields(Node& target, const Fields& fields, const pugi::xml_node& node, int depth)
{
    if (depth > kMaxXmlDepth || m_Builder.Full())
        return;
    for (const pugi::xml_node& child : node.children()) {
        const std::string name = LocalName(child);
        if (name.empty() || IsNode(name))
            continue;
        const auto field =
            std::ranges::find(fields, std::string_view(name), [](const auto& f) { return f.element; });
        if (field != fields.end() && field->text(target).IsEmpty())
            m_Builder.Keep(field->text(target), TextOf(child));
        ReadFields(target, fields, child, depth + 1);
    }
}

/// Reads the nodes below `node` into the device.
void TreeReader::ReadContents(CUPnPDevice& device, const pugi::xml_node& node, int depth)
{
    if (depth > kMaxXmlDepth)
        return;
    for (const pugi::xml_node& child : node.children()) {
        if (m_Builder.Full())
            return;
        const std::string name = LocalName(child);
        if (name.empty())
            continue;
        if (name == "device" && child != m_RootNode) {
            ReadEmbedded(device, child, depth);
            continue;
        }
        if (name == "service")
            ReadService(device, child);
        ReadContents(device, child, depth + 1); // of a service, too: it may not be closed
    }
}

void TreeReader::ReadEmbedded(CUPnPDevice& parent, const pugi::xml_node& node, int depth)
{
    CUPnPDevice* const device = m_Builder.AddDevice(parent);
    if (device == nullptr)
        return;
    DescriptionBuilder::MarkAsDevice(*device);
    ReadFields(*device, DescriptionBuilder::DeviceFields(), node);
    ReadContents(*device, node, depth + 1);
}

void TreeReader::ReadService(CUPnPDevice& parent, const pugi::xml_node& node)
{
    CUPnPService* const service = m_Builder.AddService(parent);
    if (service == nullptr)
        return;
    DescriptionBuilder::MarkAsService(*service);
    ReadFields(*service, DescriptionBuilder::ServiceFields(), node);
    m_Builder.SetControlAddress(*service, Resolve(m_Base, service->GetControlURL()));
    if (IsConnectionService(service->GetType()))
        DescriptionBuilder::MarkAsDevice(m_Root); // a gateway, whatever it calls itself
}

/// Keeps in `best` the preferred one of the services below `node` that can be sent actions.
void FindPreferred(const CUPnPObject& node, CUPnPService*& best)
{
    for (CUPnPObject* const child : DescriptionBuilder::ChildrenOf(node)) {
        CUPnPService* const service = dynamic_cast<CUPnPService*>(child);
        if (service == nullptr) {
            FindPreferred(*child, best);
            continue;
        }
        const bool usable = IsConnectionService(service->GetType()) && !service->GetHost().IsEmpty() &&
                            service->GetHostPort() != 0 && !service->GetHostPath().IsEmpty();
        if (usable && (best == nullptr || RankOf(service->GetType()) < RankOf(best->GetType())))
            best = service;
    }
}

// --- answers --------------------------------------------------------------------------------------------------------

constexpr int kSuccess = 200;
constexpr int kServerError = 500;

/// An element looked for in an answer: the first one that is not empty counts.
struct WantedElement
{
    std::string name; // in lower case
    CString* value;   // unchanged when there is none
    bool found = false;

    void TakeFrom(const pugi::xml_node& node, const std::string& itsName)
    {
        const CString text = !found && name == itsName ? TextOf(node) : CString();
        if (text.IsEmpty())
            return;
        *value = text;
        found = true;
    }
};

} // namespace

std::vector<std::string> ModernGatewayDialect::SearchRequests(const char* group, UINT port) const
{
    std::vector<std::string> requests;
    for (const wchar_t* target : kSearchTargets) {
        CString request;
        request.Format(
            L"M-SEARCH * HTTP/1.1\r\nHOST: %s:%d\r\nMAN: \"ssdp:discover\"\r\nMX: 2\r\nST: %s\r\n\r\n",
            HostText(CString(group)), static_cast<int>(port), target);
        requests.emplace_back(Narrow(request).View());
    }
    return requests;
}

bool ModernGatewayDialect::WantsAnnouncement(const CString& urn) const
{
    const std::wstring lower = LowerCased(urn.View());
    return std::ranges::any_of(kGatewayParts,
                               [&](std::wstring_view part) { return lower.find(part) != lower.npos; });
}

std::string ModernGatewayDialect::DescriptionRequest(const CString& host, UINT port,
                                                     const CString& path) const
{
    CString target = HostText(host);
    if (port != kDefaultPort) {
        CString suffix;
        suffix.Format(L":%d", static_cast<int>(port));
        target += suffix;
    }
    CString request;
    request.Format(L"GET %s HTTP/1.1\r\nHost: %s\r\n%s\r\n", path, target, FurtherHeaders());
    return std::string(Narrow(request).View());
}

bool ModernGatewayDialect::ReadHeader(std::string_view message, ResponseFrame& frame) const
{
    std::string_view header;
    do {
        frame.headerStart += header.size(); // an interim response
        const std::size_t end = FindHeaderEnd(message, std::max(frame.headerStart, frame.searched));
        if (end == std::string_view::npos) {
            frame.searched = message.size() - std::min<std::size_t>(message.size(), 2); // may be line ends
            return false;
        }
        header = message.substr(frame.headerStart, end - frame.headerStart);
    } while (StatusOf(header) / 100 == 1);

    frame.bodyStart = frame.headerStart + header.size();
    frame.chunked = IsChunked(header);
    std::string_view value;
    const bool found =
        FindHeaderValue(header, "content-length", value) || FindHeaderValue(header, "content length", value);
    const bool isNumber = found && !value.empty() && value.front() >= '0' && value.front() <= '9';
    frame.announced = isNumber && !frame.chunked ? ReadInt32(value) : -1;
    return true;
}

bool ModernGatewayDialect::Complete(std::string_view message, ResponseFrame& frame) const
{
    const std::string_view body = message.substr(frame.bodyStart);
    if (frame.announced >= 0)
        return body.size() >= static_cast<std::size_t>(frame.announced);
    return frame.chunked && JoinChunks(body, frame.chunks, nullptr);
}

bool ModernGatewayDialect::CutShort(std::string_view message, ResponseFrame& frame) const
{
    if (frame.bodyStart == ResponseFrame::kNone)
        return true;
    const bool endsAnywhere =
        frame.announced < 0 && !(frame.chunked && BeginsWithChunk(message.substr(frame.bodyStart)));
    return !endsAnywhere && !Complete(message, frame);
}

std::string_view ModernGatewayDialect::DecodeBody(std::string_view message, const ResponseFrame& frame,
                                                  std::string& storage) const
{
    const std::string_view body = message.substr(frame.bodyStart);
    if (!frame.chunked || !BeginsWithChunk(body)) // devices announce chunks and send none
        return body; // also what goes beyond the announced length: devices count characters for bytes

    ChunkScan fromStart;
    JoinChunks(body, fromStart, &storage);
    return storage;
}

std::size_t ModernGatewayDialect::FindStatus(std::string_view response) const
{
    return response.find(' ', InterimBytes(response));
}

void ModernGatewayDialect::ReadDescription(CUPnPDevice& device, std::string_view document) const
{
    pugi::xml_document loaded;
    LoadXml(document, loaded);
    TreeReader(device, loaded).Run();
}

void ModernGatewayDialect::ReadAnswer(ActionAnswer& answer, std::string_view body) const
{
    pugi::xml_document document;
    LoadXml(body, document);

    std::vector<WantedElement> wanted{{"errorcode", &answer.errorCode},
                                      {"errordescription", &answer.errorDescription}};
    for (std::size_t i = 0; answer.status == kSuccess && i + 1 < answer.results.size(); i += 2)
        wanted.push_back({LowerCased(Narrow(answer.results[i]).View()), &answer.results[i + 1]});

    bool isFault = false;
    for (pugi::xml_node node = document; node; node = NextNode(node)) {
        const std::string name = LocalName(node);
        isFault = isFault || name == "fault" || name == "upnperror";
        for (WantedElement& element : wanted)
            element.TakeFrom(node, name);
    }
    if (answer.status == kSuccess && isFault) // some devices report faults as success
        answer.status = kServerError;
}

URLParts ModernGatewayDialect::SplitURL(const CString& text) const
{
    const std::wstring_view url = Trimmed(text.View());
    URLParts parts;
    if (!IsAbsolute(url)) {
        parts.path = SendablePath(url);
        return parts;
    }
    const std::wstring_view rest = url.substr(url.find(L"://") + 3);
    const std::size_t pathStart = std::min(rest.find_first_of(L"/?#"), rest.size());
    ReadAuthority(rest.substr(0, pathStart), parts);
    const std::wstring_view path = rest.substr(pathStart);
    parts.path = path.starts_with(L'/') ? SendablePath(path) : L"/" + SendablePath(path);
    return parts;
}

CUPnPService* ModernGatewayDialect::FindConnectionService(CUPnPDevice& device) const
{
    CUPnPService* best = nullptr;
    FindPreferred(device, best);
    return best;
}

CString ModernGatewayDialect::Escaped(const CString& text) const
{
    CString escaped;
    for (const wchar_t c : text.View()) {
        switch (c) {
        case L'&': escaped += L"&amp;"; break;
        case L'<': escaped += L"&lt;"; break;
        case L'>': escaped += L"&gt;"; break;
        case L'"': escaped += L"&quot;"; break;
        default:
            // Other control characters cannot stand in XML at all.
            escaped += c >= L' ' || c == L'\t' || c == L'\r' || c == L'\n' ? c : L'?';
        }
    }
    return escaped;
}

CString ModernGatewayDialect::HostText(const CString& host) const
{
    if (host.Find(L':') < 0)
        return host;
    const int scope = host.Find(L'%'); // means something on this machine only
    return L"[" + (scope < 0 ? host : host.Left(scope)) + L"]";
}

const UPnPDialect& ModernDialect()
{
    static const ModernGatewayDialect dialect;
    return dialect;
}

} // namespace tavronet
