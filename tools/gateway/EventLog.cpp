#include "EventLog.h"

namespace gateway
{

EventLog::~EventLog()
{
    if (m_Events != nullptr && m_Events != stdout)
        std::fclose(m_Events);
    if (m_Requests != nullptr)
        std::fclose(m_Requests);
}

bool EventLog::OpenEvents(const std::string& path)
{
    m_Events = path == "-" ? stdout : std::fopen(path.c_str(), "we");
    return m_Events != nullptr;
}

bool EventLog::OpenRequests(const std::string& path)
{
    m_Requests = std::fopen(path.c_str(), "wbe");
    return m_Requests != nullptr;
}

void EventLog::Event(std::string_view text)
{
    if (m_Events == nullptr)
        return;
    for (const char c : text) {
        if (c >= ' ' && c <= '~')
            std::fputc(c, m_Events);
        else
            std::fprintf(m_Events, "\\x%02x", static_cast<unsigned char>(c));
    }
    std::fputc('\n', m_Events);
    std::fflush(m_Events);
}

void EventLog::Request(std::string_view kind, std::string_view peer, std::string_view bytes)
{
    if (m_Requests == nullptr)
        return;
    const std::string title =
        "=== " + std::string(kind) + " " + std::string(peer) + " " + std::to_string(bytes.size()) + "\n";
    std::fwrite(title.data(), 1, title.size(), m_Requests);
    std::fwrite(bytes.data(), 1, bytes.size(), m_Requests);
    std::fputc('\n', m_Requests);
    std::fflush(m_Requests);
}

std::string Shortened(std::string_view text)
{
    constexpr std::size_t kLongest = 200;
    return text.size() <= kLongest ? std::string(text) : std::string(text.substr(0, kLongest)) + "...";
}

} // namespace gateway
