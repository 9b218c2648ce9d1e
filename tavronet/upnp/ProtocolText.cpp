#include "tavronet/upnp/ProtocolText.h"

#include <algorithm>
#include <cstring>

#include "tavronet/upnp/UPnPObject.h"

namespace tavronet
{

namespace
{

constexpr std::size_t kNotFound = std::string_view::npos;

/// The text of a host's pointer; null counts as empty.
std::string_view ViewOf(const char* text)
{
    return text == nullptr ? std::string_view() : std::string_view(text);
}

/// What stands behind "://"; nothing without it.
bool BehindScheme(std::wstring_view url, std::wstring_view& rest)
{
    const std::size_t scheme = url.find(L"://");
    if (scheme == kNotFound)
        return false;
    rest = url.substr(scheme + 3);
    return true;
}

/// The name in the closing tag at the end of a line; empty when there is none.
std::string_view ClosedName(std::string_view lowerLine)
{
    if (!lowerLine.ends_with('>'))
        return {};
    const std::size_t start = lowerLine.rfind("</");
    return start == kNotFound ? std::string_view()
                              : lowerLine.substr(start + 2, lowerLine.size() - start - 3);
}

} // namespace

std::size_t FindText(std::string_view text, std::string_view wanted)
{
    const void* const found = memmem(text.data(), text.size(), wanted.data(), wanted.size());
    return found == nullptr ? kNotFound
                            : static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
}

bool FindHeader(std::string_view message, std::string_view key, bool skipKey, std::string_view& value)
{
    const std::string header = LowerCased(message.substr(0, message.find("\r\n\r\n")));
    const std::size_t found = header.find(key);
    if (found == kNotFound)
        return false; // the value stays as it was: callers rely on it

    const std::string_view rest = message.substr(found + (skipKey ? key.size() : 0));
    value = Trimmed(rest.substr(0, rest.find("\r\n")));
    return true;
}

bool FindElement(std::string_view line, std::string_view lowerLine, std::string_view name,
                 std::string_view& value)
{
    if (lowerLine.size() <= name.size()) // most lines of an attacker are short, and there are very many
        return false;
    const std::string opening = "<" + std::string(name);
    const std::size_t start = FindText(lowerLine, opening);
    if (start == kNotFound)
        return false;
    const std::size_t end = FindText(lowerLine, "</" + std::string(name) + ">");
    if (end == kNotFound || end <= start)
        return false;
    const std::size_t tagEnd = lowerLine.find('>', start); // at the latest the closing tag's own
    std::string_view content = tagEnd < end ? line.substr(tagEnd + 1, end - tagEnd - 1) : std::string_view();
    const std::size_t first = content.find_first_not_of("\r\n");
    content.remove_prefix(first == kNotFound ? content.size() : first);
    content = content.substr(0, content.find_last_not_of("\r\n") + 1);
    value = content;
    return true;
}

CString HostOfURL(const CString& url)
{
    std::wstring_view rest;
    if (!BehindScheme(url.View(), rest))
        return CString();
    rest = rest.substr(0, rest.find(L':'));
    return CString(rest.substr(0, rest.find(L'/')));
}

UINT PortOfURL(const CString& url)
{
    const UINT defaultPort = 80;
    std::wstring_view rest;
    if (!BehindScheme(url.View(), rest))
        return defaultPort;
    const std::size_t colon = rest.find(L':');
    if (colon == std::wstring_view::npos)
        return defaultPort;
    const std::wstring_view port = rest.substr(colon + 1);
    return static_cast<UINT>(ReadInt32(port.substr(0, port.find(L'/'))));
}

CString PathOfURL(const CString& url)
{
    std::wstring_view rest;
    if (!BehindScheme(url.View(), rest))
        return url;
    const std::size_t slash = rest.find(L'/');
    return slash == std::wstring_view::npos ? CString() : CString(rest.substr(slash));
}

std::size_t DocumentLines::Finder::From(std::string_view text, std::size_t cursor)
{
    if (!m_Searched || m_Found < cursor) {
        m_Found = text.find(m_Wanted, cursor);
        m_Searched = true;
    }
    return m_Found;
}

DocumentLines::DocumentLines(const char* text, int length, bool splitAtClosingTag)
    : m_pText(text), m_Text(ViewOf(text)), m_Remaining(length), m_Split(splitAtClosingTag)
{
}

bool DocumentLines::Next()
{
    if (m_Unread) {
        m_Unread = false;
        return true;
    }
    if (m_Cursor >= m_Text.size() || m_Remaining < 1)
        return false;

    std::size_t separator = 0;
    const std::size_t end = EndOfLine(separator);
    const std::size_t length = end - m_Cursor;
    m_RawLine = m_Text.substr(m_Cursor, length); // a zero byte inside ends it early
    m_Line = Trimmed(m_RawLine);
    m_LowerLine.clear();
    m_ClosedName = {};
    if (!m_Line.empty()) { // a megabyte may hold a million of these, and a hundred thousand others
        m_LowerLine.assign(m_Line);
        std::ranges::transform(m_LowerLine, m_LowerLine.begin(), LowerCase<char>);
        m_ClosedName = ClosedName(m_LowerLine);
    }
    m_Cursor = end + separator;
    m_Remaining -= static_cast<int>(length + separator);
    return true;
}

std::size_t DocumentLines::EndOfLine(std::size_t& separator)
{
    const std::size_t carriageReturn = m_CarriageReturn.From(m_Text, m_Cursor);
    const std::size_t lineFeed = m_LineFeed.From(m_Text, m_Cursor);
    const bool feedFirst = lineFeed != kNotFound && lineFeed + 1 == carriageReturn;

    std::size_t end = 0;
    if (carriageReturn == kNotFound && lineFeed == kNotFound) {
        end = m_Cursor + static_cast<std::size_t>(m_Remaining);
        separator = 0;
    } else if (carriageReturn == kNotFound) {
        end = lineFeed;
        separator = 1;
    } else if (lineFeed == carriageReturn + 1 || feedFirst) {
        end = carriageReturn < lineFeed ? carriageReturn : lineFeed;
        separator = 2;
    } else {
        end = carriageReturn; // also behind a lone line feed, which stays inside the line
        separator = 1;
    }
    if (!m_Split)
        return end;

    const std::size_t closing = m_ClosingTag.From(m_Text, m_Cursor);
    if (closing >= end)
        return end;
    const std::size_t tagEnd = m_TagEnd.From(m_Text, closing);
    if (tagEnd == kNotFound)
        return end;
    separator = 0;
    return tagEnd + 1;
}

} // namespace tavronet

using tavronet::ViewOf;

bool CUPnPObject::ParseHTTP(const char* text, const char* key, CString& value, bool skipKey)
{
    std::string_view found;
    if (!tavronet::FindHeader(ViewOf(text), ViewOf(key), skipKey, found))
        return false;
    value = Widen(found);
    return true;
}

bool CUPnPObject::ParseValue(const char* text, const char* key, CString& value)
{
    const std::string_view whole = ViewOf(text);
    const std::string lower = tavronet::LowerCased(whole);
    const std::size_t found = lower.find(ViewOf(key));
    if (found == std::string::npos)
        return false;
    const std::string_view rest = whole.substr(found + ViewOf(key).size());
    const std::size_t equals = rest.find('=');
    if (equals == std::string_view::npos)
        return false;

    const std::string_view behind = tavronet::Trimmed(rest.substr(equals + 1));
    value = Widen(tavronet::Trimmed(behind.substr(0, behind.find_first_of(" \r\n"))));
    return true;
}

bool CUPnPObject::ParseValue(const char* text, const char* key, int& value)
{
    CString number;
    if (!ParseValue(text, key, number))
        return false;
    value = tavronet::ReadInt32(number.View());

    const std::wstring_view digits = number.View();
    const std::size_t first = !digits.empty() && (digits.front() == L'+' || digits.front() == L'-') ? 1 : 0;
    return first < digits.size() && digits[first] >= L'0' && digits[first] <= L'9';
}

void CUPnPObject::GetVariable(CString& value, const char* name, CString& line, CString& lowerLine)
{
    const CStringA narrow = Narrow(line.View());
    const CStringA narrowLower = Narrow(lowerLine.View());
    std::string_view found;
    if (tavronet::FindElement(narrow.View(), narrowLower.View(), ViewOf(name), found))
        value = Widen(found);
}

bool CUPnPObject::GetBufferString(CString& line, const char*& cursor, int& remaining, bool splitAtClosingTag)
{
    tavronet::DocumentLines lines(cursor, remaining, splitAtClosingTag);
    if (!lines.Next())
        return false;
    line = Widen(lines.RawLine());
    cursor = lines.Position();
    remaining = lines.Remaining();
    return true;
}

CString CUPnPObject::GetAddrFromURL(const CString& url)
{
    return tavronet::HostOfURL(url);
}

UINT CUPnPObject::GetPortFromURL(const CString& url)
{
    return tavronet::PortOfURL(url);
}

CString CUPnPObject::GetPathFromURL(const CString& url)
{
    return tavronet::PathOfURL(url);
}
