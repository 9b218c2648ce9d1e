#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace gateway
{

/// Says what happened, one line per event, so that whoever drives the gateway can check what reached it.
class EventLog
{
public:
    EventLog() = default;
    ~EventLog();
    EventLog(const EventLog&) = delete;
    EventLog& operator=(const EventLog&) = delete;

    /// Writes events to `path`, "-" for the standard output. @return false when it cannot be opened.
    bool OpenEvents(const std::string& path);
    /// Writes every request byte for byte to `path`, each behind a line "=== KIND PEER LENGTH".
    bool OpenRequests(const std::string& path);

    /// One event. Bytes that are not printable ASCII are written as \xNN.
    void Event(std::string_view text);
    void Request(std::string_view kind, std::string_view peer, std::string_view bytes);

private:
    std::FILE* m_Events = nullptr;   // owned, unless it is stdout
    std::FILE* m_Requests = nullptr; // owned
};

/// `text` cut to a length fit for a log line.
std::string Shortened(std::string_view text);

} // namespace gateway
