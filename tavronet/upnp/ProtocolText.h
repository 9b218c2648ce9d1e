#ifndef TAVRONET_UPNP_PROTOCOLTEXT_H
#define TAVRONET_UPNP_PROTOCOLTEXT_H

#include <cstddef>
#include <string>
#include <string_view>

#include "tavronet/platform/String.h"
#include "tavronet/platform/TextConversion.h"
#include "tavronet/platform/Types.h"

/// Picks text from the network apart. Views point into the argument; no routine changes or keeps its text.
namespace tavronet
{

/// Finds a text in another in time proportional to their length, whatever they are.
std::size_t FindText(std::string_view text, std::string_view wanted);

/// Finds a header value, trimmed, between `key` and the end of its line.
/// @param key in lower case; found in any letter case, before the message's first blank line.
/// @param value unchanged when the key is not there.
bool FindHeader(std::string_view message, std::string_view key, bool skipKey, std::string_view& value);

/// Finds the content of an element that opens and closes on one line; line breaks at its ends are cut.
/// @param name in lower case, also found as the beginning of longer names.
/// @param lowerLine `line` in lower case.  @param value unchanged when the element is not there.
bool FindElement(std::string_view line, std::string_view lowerLine, std::string_view name,
                 std::string_view& value);

/// The parts of an absolute URL, without brackets or other refinements. A text without "://" has no host,
/// port 80 and is its own path.
CString HostOfURL(const CString& url);
UINT PortOfURL(const CString& url);
CString PathOfURL(const CString& url);

/// The lines of a document, each also in lower case; ends at a zero byte.
///
/// A line ends at a line break or behind the first closing tag. A CR and an LF next to each other are one
/// break; a lone LF in front of a later CR is none. What lies ahead is searched for once and remembered, so a
/// document without breaks costs no more than others.
class DocumentLines
{
public:
    /// @param text terminated and borrowed.  @param length how much of it counts; not beyond the terminating
    /// zero.
    DocumentLines(const char* text, int length, bool splitAtClosingTag = true);

    /// Takes the next line. @return false at the end; Line() then keeps the last one.
    bool Next();

    /// Has the next call of Next deliver the same line again.
    void Unread() { m_Unread = true; }

    std::string_view Line() const { return m_Line; }           ///< as received, trimmed
    std::string_view LowerLine() const { return m_LowerLine; } ///< the same in lower case
    std::string_view RawLine() const { return m_RawLine; }     ///< as received, not trimmed

    bool Begins(std::string_view lowerTag) const { return m_LowerLine.starts_with(lowerTag); }
    bool Contains(std::string_view lowerTag) const
    {
        return m_LowerLine.size() >= lowerTag.size() && FindText(m_LowerLine, lowerTag) != std::string::npos;
    }
    /// Whether the line contains the closing tag of this element, in lines that end behind the first closing tag.
    bool Closes(std::string_view lowerName) const { return m_ClosedName == lowerName; }

    /// Behind the last line taken.
    const char* Position() const { return m_pText + m_Cursor; }
    int Remaining() const { return m_Remaining; }

private:
    /// The next place of one text at or behind the cursor.
    class Finder
    {
    public:
        explicit Finder(std::string_view wanted) : m_Wanted(wanted) {}
        std::size_t From(std::string_view text, std::size_t cursor);

    private:
        std::string_view m_Wanted;
        std::size_t m_Found = 0; // npos: not ahead; a place before the cursor: look again
        bool m_Searched = false;
    };

    std::size_t EndOfLine(std::size_t& separator);

    const char* m_pText;
    std::string_view m_Text; // up to the terminating zero
    std::size_t m_Cursor = 0;
    int m_Remaining;
    const bool m_Split;
    bool m_Unread = false;
    Finder m_CarriageReturn{"\r"};
    Finder m_LineFeed{"\n"};
    Finder m_ClosingTag{"</"};
    Finder m_TagEnd{">"};
    std::string_view m_RawLine;
    std::string_view m_Line;
    std::string m_LowerLine;
    std::string_view m_ClosedName; // of the line; one that ends behind its first closing tag has no other
};

} // namespace tavronet

#endif
