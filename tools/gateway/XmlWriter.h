#pragma once

#include <string>
#include <vector>

namespace gateway
{

/// How a document is put on the wire; all of these forms are found in deployed gateways.
struct XmlStyle
{
    bool oneLine = false;         // no line breaks and no indentation at all
    std::string lineEnd = "\r\n"; // between tags, unless oneLine
    std::string prefix;           // stands with a colon before element names, unless empty
    bool numericEntities = false; // texts written with &#NN; for all but letters and digits
    bool cdata = false;           // texts wrapped in CDATA sections
};

/// Writes a document tag by tag: one element a line, or everything on one.
class XmlWriter
{
public:
    explicit XmlWriter(const XmlStyle& style) : m_Style(style) {}

    void Declaration();
    /// `attributes` stands behind the name as it is, for instance `xmlns="..."`.
    void Open(const std::string& name, const std::string& attributes = "");
    void Close();
    /// An element with a text, on a line of its own; the text is escaped.
    void Leaf(const std::string& name, const std::string& text, const std::string& attributes = "");

    [[nodiscard]] const std::string& Text() const { return m_Text; }

private:
    std::string Named(const std::string& name) const;
    std::string Escaped(const std::string& text) const;
    void StartLine();

    XmlStyle m_Style;
    std::string m_Text;
    std::vector<std::string> m_Open; // names of the elements not closed yet
};

} // namespace gateway
