#pragma once

#include <algorithm>
#include <string>
#include <string_view>

/// A string of bytes as moves and their arguments; behind its end everything is '0'. Line feeds are skipped.
class Script
{
public:
    explicit Script(std::string_view bytes) : m_Rest(bytes) {}

    bool AtEnd() const { return m_Rest.empty(); }

    char Take()
    {
        m_Rest.remove_prefix(std::min(m_Rest.find_first_not_of('\n'), m_Rest.size()));
        const char byte = AtEnd() ? '0' : m_Rest.front();
        m_Rest.remove_prefix(AtEnd() ? 0 : 1);
        return byte;
    }

    /// The byte as a number below `count`; digits are what they look like.
    unsigned Number(unsigned count) { return static_cast<unsigned char>(Take() - '0') % count; }

    /// What stands before the next '~', or the end.
    std::string Text()
    {
        const std::string text(m_Rest.substr(0, m_Rest.find('~')));
        m_Rest.remove_prefix(std::min(text.size() + 1, m_Rest.size()));
        return text;
    }

private:
    std::string_view m_Rest;
};
