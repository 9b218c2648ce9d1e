#include "SoapMessage.h"

#include "MappingTable.h"

namespace gateway
{

namespace
{

constexpr const char* kEnvelopeAttributes = "xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
                                            "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"";

std::string LocalName(std::string_view name)
{
    return std::string(name.substr(name.find(':') + 1)); // npos + 1 is 0: no prefix
}

std::string Unescaped(std::string_view text)
{
    static const std::pair<const char*, char> kEntities[] = {
        {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
    std::string result;
    while (!text.empty()) {
        char next = text.front();
        std::size_t taken = 1;
        for (const auto& [entity, character] : kEntities) {
            if (text.starts_with(entity)) {
                next = character;
                taken = std::string_view(entity).size();
            }
        }
        result += next;
        text.remove_prefix(taken);
    }
    return result;
}

/// Walks the tags of a small document and keeps what stands at the depth of the action and of its arguments.
class SoapReader
{
public:
    explicit SoapReader(std::string_view text) : m_Rest(text) {}

    std::optional<SoapAction> Read()
    {
        while (ReadTag()) {
        }
        const bool whole = !m_Broken && m_Open.empty() && !m_Action.name.empty();
        return whole ? std::optional(m_Action) : std::nullopt;
    }

private:
    static constexpr std::size_t kActionDepth = 3, kArgumentDepth = 4, kDeepest = 16;

    bool ReadTag()
    {
        const std::size_t start = m_Rest.find('<'), end = m_Rest.find('>', start);
        if (start == std::string_view::npos)
            return false;
        if (end == std::string_view::npos)
            return Broken();

        const std::string_view before = m_Rest.substr(0, start),
                               tag = m_Rest.substr(start + 1, end - start - 1);
        m_Rest.remove_prefix(end + 1);
        if (tag.starts_with('?') || tag.starts_with('!'))
            return true;
        return tag.starts_with('/') ? EndElement(tag.substr(1), before) : StartElement(tag);
    }

    bool StartElement(std::string_view tag)
    {
        const bool empty = tag.ends_with('/');
        const std::string_view inner = empty ? tag.substr(0, tag.size() - 1) : tag;
        const std::size_t nameEnd = inner.find_first_of(" \t\r\n");
        const std::string_view name = inner.substr(0, nameEnd);
        if (name.empty() || m_Open.size() == kDeepest)
            return Broken();

        m_Open.emplace_back(name);
        const bool inBody =
            m_Open.size() > 1 && LocalName(m_Open[0]) == "Envelope" && LocalName(m_Open[1]) == "Body";
        if (inBody && m_Open.size() == kActionDepth) {
            if (!m_Action.name.empty())
                return Broken(); // two actions
            m_Action.name = LocalName(name);
            m_Action.service = NamespaceOf(name, inner);
        }
        if (inBody && m_Open.size() == kArgumentDepth)
            m_Action.arguments.emplace_back(LocalName(name), "");
        return empty ? EndElement(name, "") : true;
    }

    bool EndElement(std::string_view name, std::string_view text)
    {
        if (m_Open.empty() || m_Open.back() != name.substr(0, name.find_last_not_of(" \t\r\n") + 1))
            return Broken();
        if (m_Open.size() == kArgumentDepth && !m_Action.arguments.empty())
            m_Action.arguments.back().second = Unescaped(text);
        m_Open.pop_back();
        return true;
    }

    /// The namespace that the tag itself binds to the prefix of `name`.
    static std::string NamespaceOf(std::string_view name, std::string_view tag)
    {
        const std::size_t colon = name.find(':');
        std::string binding = "xmlns";
        if (colon != std::string_view::npos)
            binding += ":" + std::string(name.substr(0, colon));
        const std::size_t found = tag.find(" " + binding + "=");
        if (found == std::string_view::npos)
            return "";
        const std::string_view value = tag.substr(found + binding.size() + 2);
        return value.empty() ? "" : std::string(value.substr(1, value.find(value.front(), 1) - 1));
    }

    bool Broken()
    {
        m_Broken = true;
        return false;
    }

    std::string_view m_Rest;
    std::vector<std::string> m_Open;
    SoapAction m_Action;
    bool m_Broken = false;
};

void OpenEnvelope(XmlWriter& xml)
{
    xml.Declaration();
    xml.Open("s:Envelope", kEnvelopeAttributes);
    xml.Open("s:Body");
}

std::string DataType(const std::string& name)
{
    if (name.ends_with("Port"))
        return "ui2";
    if (name == "NewLeaseDuration")
        return "ui4";
    return name.starts_with("NewEnabled") || name.starts_with("NewNAT") ? "boolean" : "string";
}

} // namespace

std::optional<SoapAction> ReadSoapAction(std::string_view body)
{
    return SoapReader(body).Read();
}

std::string MakeSoapAnswer(const AnswerOptions& options, const std::string& action,
                           const std::string& service, const Arguments& results)
{
    XmlWriter xml(options.style);
    const std::string& prefix = options.style.prefix;
    OpenEnvelope(xml);
    // With a prefix the results stand in the namespace of the action, otherwise in none.
    xml.Open((prefix.empty() ? "u:" : prefix + ":") + action + "Response",
             "xmlns:" + (prefix.empty() ? "u" : prefix) + "=\"" + service + "\"");
    for (const auto& [name, value] : results) {
        const std::string attributes =
            options.typedValues
                ? "xmlns:dt=\"urn:schemas-microsoft-com:datatypes\" dt:dt=\"" + DataType(name) + "\""
                : "";
        xml.Leaf(name, value, attributes);
    }
    xml.Close();
    xml.Close();
    xml.Close();
    return xml.Text();
}

std::string MakeSoapFault(const AnswerOptions& options, int code)
{
    XmlWriter xml(options.style);
    const std::string& prefix = options.style.prefix;
    OpenEnvelope(xml);
    xml.Open("s:Fault", prefix.empty() ? "" : "xmlns:" + prefix + "=\"urn:schemas-upnp-org:control-1-0\"");
    xml.Leaf("faultcode", "s:Client");
    xml.Leaf("faultstring", "UPnPError");
    xml.Open("detail");
    xml.Open("UPnPError", prefix.empty() ? "xmlns=\"urn:schemas-upnp-org:control-1-0\"" : "");
    xml.Leaf("errorCode", std::to_string(code));
    xml.Leaf("errorDescription", ErrorText(code));
    for (int i = 0; i < 5; ++i)
        xml.Close();
    return xml.Text();
}

} // namespace gateway
