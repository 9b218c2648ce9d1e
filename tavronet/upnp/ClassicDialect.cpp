#include "tavronet/upnp/ClassicDialect.h"

#include <algorithm>

#include "tavronet/upnp/DescriptionBuilder.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/ProtocolText.h"

namespace tavronet
{

namespace
{

constexpr wchar_t kSearchTarget[] = L"urn:schemas-upnp-org:device:WANConnectionDevice:1";

/// FindElement, for texts that are not longer than any real one.
bool ReadText(const DocumentLines& lines, std::string_view element, std::string_view& value)
{
    std::string_view found;
    if (!lines.Closes(element) || !FindElement(lines.Line(), lines.LowerLine(), element, found) ||
        found.size() > kMaxElementTextBytes)
        return false;
    value = found;
    return true;
}

/// Reads a description tag by tag: structure tags count where they begin a line (or, closing ones, stand on
/// it), values where their element opens and closes on one line.
class DescriptionReader
{
public:
    /// Reads the node at which the lines stand. Raises no events.
    static void Read(CUPnPDevice& device, DocumentLines& lines);
    static void Read(CUPnPService& service, DocumentLines& lines);

private:
    template <typename Node>
    DescriptionReader(Node& top, DocumentLines& lines) : m_Lines(lines), m_Builder(top)
    {
    }

    struct Lists
    {
        bool devices = false;
        bool services = false;
    };

    bool NextLine();
    void ReadDevice(CUPnPDevice& device);
    void ReadService(CUPnPService& service);

    template <typename Node, typename Fields>
    void ReadFields(Node& node, const Fields& fields);

    void ReadURLBase(CUPnPDevice& device);
    void ReadOwnLine(CUPnPDevice& device, Lists& inside);
    void ReadLists(CUPnPDevice& device, Lists& inside);
    void ReadEmbedded(CUPnPDevice& parent);
    void ReadListed(CUPnPDevice& parent);

    DocumentLines& m_Lines;
    DescriptionBuilder m_Builder;
};

void DescriptionReader::Read(CUPnPDevice& device, DocumentLines& lines)
{
    DescriptionReader reader(device, lines);
    reader.ReadDevice(device);
    reader.m_Builder.Finish();
}

void DescriptionReader::Read(CUPnPService& service, DocumentLines& lines)
{
    DescriptionReader reader(service, lines);
    reader.ReadService(service);
    reader.m_Builder.Finish();
}

/// The next line that is not empty.
bool DescriptionReader::NextLine()
{
    do {
        if (m_Builder.Full() || !m_Lines.Next())
            return false;
    } while (m_Lines.Line().empty());
    return true;
}

void DescriptionReader::ReadDevice(CUPnPDevice& device)
{
    bool opened = false;
    Lists inside;
    while (NextLine()) {
        if (m_Lines.Begins("<device>"))
            opened = true;
        else
            ReadURLBase(device);
        if (!opened)
            continue;
        if (m_Lines.Closes("device"))
            return;

        ReadOwnLine(device, inside);
        ReadLists(device, inside);
    }
}

void DescriptionReader::ReadURLBase(CUPnPDevice& device)
{
    std::string_view value;
    CString& base = DescriptionBuilder::URLBase(device);
    if (base.IsEmpty() && ReadText(m_Lines, "urlbase", value))
        m_Builder.Keep(base, Widen(value));
}

void DescriptionReader::ReadOwnLine(CUPnPDevice& device, Lists& inside)
{
    if (m_Lines.Contains("<devicelist>"))
        inside.devices = true;
    else if (m_Lines.Begins("<servicelist>"))
        inside.services = true;
    else if (!inside.devices)
        ReadFields(device, DescriptionBuilder::DeviceFields());
}

void DescriptionReader::ReadLists(CUPnPDevice& device, Lists& inside)
{
    const bool servicesEnd = m_Lines.Closes("servicelist"); // an embedded device moves the lines on
    const bool serviceBegins = m_Lines.Begins("<service>");

    if (inside.devices && m_Lines.Closes("devicelist"))
        inside.devices = false;
    else if (inside.devices && m_Lines.Begins("<device>"))
        ReadEmbedded(device);

    if (inside.services && servicesEnd)
        inside.services = false;
    else if (inside.services && serviceBegins)
        ReadListed(device);
}

void DescriptionReader::ReadEmbedded(CUPnPDevice& parent)
{
    CUPnPDevice* const embedded = m_Builder.AddDevice(parent);
    if (embedded == nullptr) // too deep or too many: the line is not understood
        return;
    m_Lines.Unread();
    ReadDevice(*embedded);
}

void DescriptionReader::ReadListed(CUPnPDevice& parent)
{
    CUPnPService* const service = m_Builder.AddService(parent);
    if (service == nullptr)
        return;
    m_Lines.Unread();
    ReadService(*service);
}

/// Where a service is controlled: what its control URL leaves out comes from the next URL that has it.
URLParts ControlAddress(CUPnPService& service)
{
    URLParts address = ClassicDialect().SplitURL(service.GetControlURL());
    CUPnPDevice* const parent = DescriptionBuilder::ParentOf(service);
    if (address.host.IsEmpty() && parent != nullptr) {
        address.host = HostOfURL(parent->GetURLBase());
        address.port = PortOfURL(parent->GetURLBase());
    }
    if (address.host.IsEmpty()) {
        address.host = HostOfURL(service.GetSCPDURL());
        address.port = PortOfURL(service.GetSCPDURL());
    }
    if (address.host.IsEmpty() && parent != nullptr) {
        address.host = parent->GetDescAddr();
        address.port = parent->GetDescPort();
    }
    return address;
}

void DescriptionReader::ReadService(CUPnPService& service)
{
    bool opened = false;
    while (NextLine()) {
        opened = opened || m_Lines.Begins("<service>");
        if (!opened)
            continue;
        if (m_Lines.Closes("service"))
            break;
        ReadFields(service, DescriptionBuilder::ServiceFields());
    }
    m_Builder.SetControlAddress(service, ControlAddress(service));
}

template <typename Node, typename Fields>
void DescriptionReader::ReadFields(Node& node, const Fields& fields)
{
    for (const auto& field : fields) {
        std::string_view value;
        if (ReadText(m_Lines, field.element, value))
            m_Builder.Keep(field.text(node), Widen(value));
    }
}

} // namespace

std::vector<std::string> ClassicGatewayDialect::SearchRequests(const char* group, UINT port) const
{
    CString request;
    request.Format(L"M-SEARCH * HTTP/1.1\r\nST: %s\r\nMX: 5\r\nMAN: \"ssdp:discover\"\r\nHOST: %s:%d\r\n\r\n",
                   kSearchTarget, CString(group), static_cast<int>(port));
    return std::vector<std::string>(2, std::string(Narrow(request).View())); // datagrams get lost
}

bool ClassicGatewayDialect::WantsAnnouncement(const CString& urn) const
{
    return urn.CompareNoCase(kSearchTarget) == 0;
}

std::string ClassicGatewayDialect::DescriptionRequest(const CString& host, UINT, const CString& path) const
{
    CString request;
    request.Format(L"GET %s HTTP/1.1\r\nHost: %s\r\n\r\n", path, host);
    return std::string(Narrow(request).View());
}

bool ClassicGatewayDialect::ReadHeader(std::string_view message, ResponseFrame& frame) const
{
    constexpr std::string_view kBlankLine = "\r\n\r\n";
    const std::size_t found = message.find(kBlankLine, frame.searched);
    if (found == std::string_view::npos) {
        frame.searched = message.size() - std::min(message.size(), kBlankLine.size() - 1);
        return false;
    }
    frame.bodyStart = found + kBlankLine.size();
    const std::string_view header = message.substr(0, frame.bodyStart);
    std::string_view value;
    const bool skipKey = true;
    if (!FindHeader(header, "\r\ncontent-length:", skipKey, value))
        FindHeader(header, "\r\ncontent length:", skipKey, value);
    frame.announced = value.empty() ? -1 : ReadInt32(value);
    return true;
}

bool ClassicGatewayDialect::Complete(std::string_view message, ResponseFrame& frame) const
{
    return frame.announced >= 0 &&
           message.size() - frame.bodyStart == static_cast<std::size_t>(frame.announced);
}

bool ClassicGatewayDialect::CutShort(std::string_view, ResponseFrame&) const
{
    return false; // the close ends every response
}

std::string_view ClassicGatewayDialect::DecodeBody(std::string_view message, const ResponseFrame& frame,
                                                   std::string&) const
{
    return message.substr(frame.bodyStart);
}

std::size_t ClassicGatewayDialect::FindStatus(std::string_view response) const
{
    return response.find(' ');
}

void ClassicGatewayDialect::ReadDescription(CUPnPDevice& device, std::string_view document) const
{
    DocumentLines lines(document.data(), static_cast<int>(document.size()));
    DescriptionReader::Read(device, lines);
}

void ClassicGatewayDialect::ReadAnswer(ActionAnswer& answer, std::string_view body) const
{
    std::vector<std::string> names; // in lower case, one per pair
    for (std::size_t i = 0; i + 1 < answer.results.size(); i += 2)
        names.push_back(LowerCased(Narrow(answer.results[i]).View()));

    DocumentLines lines(body.data(), static_cast<int>(body.size()));
    while (lines.Next()) {
        std::string_view value;
        const auto read = [&](std::string_view element) { return ReadText(lines, element, value); };
        if (answer.status != 200) {
            if (read("errorcode"))
                answer.errorCode = Widen(value);
            if (read("errordescription"))
                answer.errorDescription = Widen(value);
            continue;
        }
        for (std::size_t i = 0; i < names.size(); ++i) {
            if (read(names[i]) && !value.empty())
                answer.results[2 * i + 1] = Widen(value);
        }
    }
}

URLParts ClassicGatewayDialect::SplitURL(const CString& url) const
{
    return {HostOfURL(url), PortOfURL(url), PathOfURL(url)};
}

CUPnPService* ClassicGatewayDialect::FindConnectionService(CUPnPDevice& device) const
{
    CUPnPService* const service = device.FindService("urn:schemas-upnp-org:service:WANIPConnection:1");
    return service != nullptr ? service
                              : device.FindService("urn:schemas-upnp-org:service:WANPPPConnection:1");
}

const UPnPDialect& ClassicDialect()
{
    static const ClassicGatewayDialect dialect;
    return dialect;
}

} // namespace tavronet

void CUPnPDevice::BuildDevice(const char*& position, int& remaining)
{
    tavronet::DocumentLines lines(position, remaining);
    tavronet::DescriptionReader::Read(*this, lines);
    position = lines.Position();
    remaining = lines.Remaining();
    tavronet::DescriptionBuilder::RaiseEvents(*this);
}

void CUPnPService::BuildService(const char*& position, int& remaining)
{
    tavronet::DocumentLines lines(position, remaining);
    tavronet::DescriptionReader::Read(*this, lines);
    position = lines.Position();
    remaining = lines.Remaining();
    tavronet::DescriptionBuilder::RaiseEvents(*this);
}
