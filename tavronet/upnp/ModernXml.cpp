#include "tavronet/upnp/ModernXml.h"

#include <algorithm>
#include <vector>

#include "tavronet/platform/TextConversion.h"
#include "tavronet/upnp/Limits.h"

namespace tavronet
{

namespace
{

constexpr std::size_t kNotFound = std::string_view::npos;
constexpr unsigned kParseOptions = pugi::parse_cdata | pugi::parse_escapes | pugi::parse_eol;

/// How long the UTF-8 sequence at the start of the text is; 0 when it is none.
std::size_t SequenceLength(std::string_view text)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    std::size_t length = 0;
    if (first < 0x80)
        length = 1;
    else if (first >= 0xC2 && first < 0xE0)
        length = 2;
    else if (first >= 0xE0 && first < 0xF0)
        length = 3;
    else if (first >= 0xF0 && first < 0xF5)
        length = 4;
    if (length > text.size())
        return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80)
            return 0;
    }
    return length;
}

/// UTF-8 of a text that is UTF-8 or, whatever it declares, something else: other bytes count as Latin-1.
std::string Utf8Of(std::string_view text)
{
    std::string utf8;
    utf8.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = SequenceLength(text);
        const auto byte = static_cast<unsigned char>(text.front());
        if (byte == 0)
            utf8 += ' ';
        else if (length != 0)
            utf8 += text.substr(0, length);
        else {
            utf8 += static_cast<char>(0xC0 | (byte >> 6));
            utf8 += static_cast<char>(0x80 | (byte & 0x3F));
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return utf8;
}

bool IsUtf16(std::string_view text)
{
    using namespace std::string_view_literals;
    return text.starts_with("\xFE\xFF"sv) || text.starts_with("\xFF\xFE"sv) || text.starts_with("\0<"sv) ||
           text.starts_with("<\0"sv);
}

bool IsNameCharacter(char c)
{
    const char lower = LowerCase(c);
    return (lower >= 'a' && lower <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.' ||
           c == ':' || static_cast<unsigned char>(c) >= 0x80;
}

bool IsNameStart(char c)
{
    return IsNameCharacter(c) && c != '-' && c != '.' && !(c >= '0' && c <= '9');
}

std::string LocalPart(std::string_view name)
{
    const std::size_t colon = name.rfind(':');
    return LowerCased(colon == kNotFound ? name : name.substr(colon + 1));
}

/// Makes well-formed text of anything: names in lower case without prefixes, no attributes, comments or
/// declarations, every start tag closed.
class Repair
{
public:
    explicit Repair(std::string_view text) : m_Rest(text) {}

    std::string Run();

private:
    void CopyText();
    void TakeMarkup();
    void TakeCData();
    void TakeEndTag();
    void TakeStartTag();
    void SkipTo(std::string_view end);
    void SkipDeclaration();
    std::string_view TakeName();
    bool TakeRestOfTag();
    void CloseTop();

    std::string_view m_Rest;
    std::string m_Out;
    std::vector<std::string> m_Open; // names, outermost first
};

std::string Repair::Run()
{
    while (!m_Rest.empty()) {
        if (m_Rest.front() == '<')
            TakeMarkup();
        else
            CopyText();
    }
    while (!m_Open.empty())
        CloseTop();
    return std::move(m_Out);
}

void Repair::CopyText()
{
    const std::string_view text = m_Rest.substr(0, m_Rest.find('<'));
    m_Out += text;
    m_Rest.remove_prefix(text.size());
}

void Repair::TakeMarkup()
{
    if (m_Rest.starts_with("<!--"))
        SkipTo("-->");
    else if (m_Rest.starts_with("<![CDATA["))
        TakeCData();
    else if (m_Rest.starts_with("<!"))
        SkipDeclaration();
    else if (m_Rest.starts_with("<?"))
        SkipTo(">");
    else if (m_Rest.starts_with("</"))
        TakeEndTag();
    else if (m_Rest.size() > 1 && IsNameStart(m_Rest[1]))
        TakeStartTag();
    else {
        m_Out += "&lt;";
        m_Rest.remove_prefix(1);
    }
}

void Repair::SkipTo(std::string_view end)
{
    const std::size_t found = m_Rest.find(end);
    m_Rest.remove_prefix(found == kNotFound ? m_Rest.size() : found + end.size());
}

/// "<!DOCTYPE name [ ... ]>": what stands in brackets may hold further declarations.
void Repair::SkipDeclaration()
{
    int brackets = 0;
    std::size_t i = 0;
    for (; i < m_Rest.size(); ++i) {
        if (m_Rest[i] == '[')
            ++brackets;
        else if (m_Rest[i] == ']')
            --brackets;
        else if (m_Rest[i] == '>' && brackets <= 0)
            break;
    }
    m_Rest.remove_prefix(std::min(i + 1, m_Rest.size()));
}

void Repair::TakeCData()
{
    constexpr std::string_view kStart = "<![CDATA[";
    constexpr std::string_view kEnd = "]]>";
    const std::size_t end = m_Rest.find(kEnd, kStart.size());
    m_Out += m_Rest.substr(0, end);
    m_Out += kEnd;
    m_Rest.remove_prefix(end == kNotFound ? m_Rest.size() : end + kEnd.size());
}

std::string_view Repair::TakeName()
{
    const auto end = std::ranges::find_if_not(m_Rest, IsNameCharacter);
    const std::string_view name = m_Rest.substr(0, static_cast<std::size_t>(end - m_Rest.begin()));
    m_Rest.remove_prefix(name.size());
    return name;
}

/// Skips attributes. @return whether the tag closes its element itself.
bool Repair::TakeRestOfTag()
{
    const std::size_t end = m_Rest.find_first_of("<>");
    const bool selfClosing = end != kNotFound && end > 0 && m_Rest[end - 1] == '/';
    const bool ended = end != kNotFound && m_Rest[end] == '>';
    m_Rest.remove_prefix(end == kNotFound ? m_Rest.size() : end + (ended ? 1 : 0));
    return ended && selfClosing;
}

void Repair::TakeStartTag()
{
    m_Rest.remove_prefix(1);
    const std::string name = LocalPart(TakeName());
    const bool selfClosing = TakeRestOfTag();
    if (selfClosing || name.empty() || m_Open.size() >= static_cast<std::size_t>(kMaxXmlDepth))
        return;
    m_Out += "<" + name + ">";
    m_Open.push_back(name);
}

void Repair::TakeEndTag()
{
    m_Rest.remove_prefix(2);
    const std::string name = LocalPart(TakeName());
    TakeRestOfTag();
    if (std::ranges::find(m_Open, name) == m_Open.end())
        return;
    while (m_Open.back() != name)
        CloseTop();
    CloseTop();
}

void Repair::CloseTop()
{
    m_Out += "</" + m_Open.back() + ">";
    m_Open.pop_back();
}

} // namespace

bool LoadXml(std::string_view text, pugi::xml_document& document)
{
    if (std::ranges::count_if(text, [](char c) { return c == '<' || c == '='; }) > kMaxXmlTags)
        return false;
    if (IsUtf16(text)) {
        document.load_buffer(text.data(), text.size(), kParseOptions, pugi::encoding_auto);
        return !document.first_child().empty();
    }

    const std::size_t first = text.find('<');
    if (first == kNotFound)
        return false;
    const std::string utf8 = Utf8Of(text.substr(first));
    if (!document.load_buffer(utf8.data(), utf8.size(), kParseOptions, pugi::encoding_utf8)) {
        const std::string repaired = Repair(utf8).Run();
        document.load_buffer(repaired.data(), repaired.size(), kParseOptions, pugi::encoding_utf8);
    }
    return !document.first_child().empty();
}

std::string LocalName(const pugi::xml_node& node)
{
    return node.type() == pugi::node_element ? LocalPart(node.name()) : std::string();
}

CString TextOf(const pugi::xml_node& element)
{
    std::string text;
    for (const pugi::xml_node& child : element.children()) {
        if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata)
            text += child.value();
    }
    const std::string_view trimmed = Trimmed(std::string_view(text));
    return trimmed.size() <= kMaxElementTextBytes ? Widen(trimmed) : CString();
}

pugi::xml_node NextNode(pugi::xml_node node)
{
    if (const pugi::xml_node child = node.first_child())
        return child;
    while (node && !node.next_sibling())
        node = node.parent();
    return node.next_sibling();
}

} // namespace tavronet
