#include "XmlWriter.h"

#include <cctype>

namespace gateway
{

namespace
{

std::string NumericEntities(const std::string& text)
{
    std::string result;
    for (const char c : text) {
        if (std::isalnum(static_cast<unsigned char>(c)) != 0)
            result += c;
        else
            result += "&#" + std::to_string(static_cast<unsigned char>(c)) + ";";
    }
    return result;
}

std::string NamedEntities(const std::string& text)
{
    std::string result;
    for (const char c : text) {
        switch (c) {
        case '&': result += "&amp;"; break;
        case '<': result += "&lt;"; break;
        case '>': result += "&gt;"; break;
        default: result += c;
        }
    }
    return result;
}

} // namespace

void XmlWriter::Declaration()
{
    m_Text += "<?xml version=\"1.0\"?>";
}

void XmlWriter::Open(const std::string& name, const std::string& attributes)
{
    StartLine();
    m_Open.push_back(Named(name));
    m_Text += "<" + m_Open.back() + (attributes.empty() ? "" : " " + attributes) + ">";
}

void XmlWriter::Close()
{
    const std::string name = m_Open.back();
    m_Open.pop_back();
    StartLine();
    m_Text += "</" + name + ">";
    if (m_Open.empty() && !m_Style.oneLine)
        m_Text += m_Style.lineEnd;
}

void XmlWriter::Leaf(const std::string& name, const std::string& text, const std::string& attributes)
{
    StartLine();
    m_Text += "<" + Named(name) + (attributes.empty() ? "" : " " + attributes) + ">" + Escaped(text) + "</" +
              Named(name) + ">";
}

std::string XmlWriter::Named(const std::string& name) const
{
    const bool hasPrefix = m_Style.prefix.empty() || name.find(':') != std::string::npos;
    return hasPrefix ? name : m_Style.prefix + ":" + name;
}

std::string XmlWriter::Escaped(const std::string& text) const
{
    if (m_Style.cdata && !text.empty())
        return "<![CDATA[" + text + "]]>";
    return m_Style.numericEntities ? NumericEntities(text) : NamedEntities(text);
}

void XmlWriter::StartLine()
{
    if (m_Style.oneLine || m_Text.empty())
        return;
    m_Text += m_Style.lineEnd + std::string(2 * m_Open.size(), ' ');
}

} // namespace gateway
