#pragma once

#include <deque>
#include <list>
#include <string>

#include "Descriptor.h"
#include "Endpoint.h"
#include "EventLog.h"
#include "EventLoop.h"
#include "Options.h"

namespace gateway
{

/// Hears searches on the given addresses and answers them, by unicast from the address that heard them.
///
/// Per address there are two sockets. One is bound to the search group on the search port and joined on the
/// address's interface only: it alone hears the multicast of that interface. The other is bound to the
/// address itself; answers and announcements leave through it, and it hears searches sent straight to the
/// gateway.
class SsdpResponder
{
public:
    /// @param options borrowed for the life of the responder
    SsdpResponder(EventLoop& loop, EventLog& log, const Options& options);
    ~SsdpResponder();
    SsdpResponder(const SsdpResponder&) = delete;
    SsdpResponder& operator=(const SsdpResponder&) = delete;

    /// Starts to answer on `address` with the given description URL. @return false with errno set
    bool Open(const Endpoint& address, const std::string& location);

    /// Sends an announcement ("ssdp:alive", "ssdp:byebye", "ssdp:update") to all who have searched so far.
    void Announce(const std::string& subtype);

private:
    struct Listener
    {
        Descriptor group, own;
        std::string location;
    };
    struct Searcher
    {
        const Listener* listener;
        Endpoint endpoint;
    };

    void Hear(const Listener& listener, int descriptor);
    void Answer(const Listener& listener, const Endpoint& searcher, const std::string& target);
    void Remember(const Listener& listener, const Endpoint& searcher);
    std::string AnswerText(const Listener& listener, const std::string& target) const;
    std::string NotifyText(const Listener& listener, const std::string& subtype) const;
    std::string UniqueName(const std::string& target) const;
    std::string CommonHeaders(const Listener& listener) const;
    static void Send(const Listener& listener, const Endpoint& to, const std::string& text);

    EventLoop& m_Loop;
    EventLog& m_Log;
    const Options& m_Options;
    std::string m_FixedAnswer; // not empty: sent instead of a made one
    std::list<Listener> m_Listeners;
    std::deque<Searcher> m_Searchers; // the latest last
};

} // namespace gateway
