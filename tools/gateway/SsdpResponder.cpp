#include "SsdpResponder.h"

#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "Description.h"
#include "FileContent.h"

namespace gateway
{

namespace
{

constexpr std::size_t kMostSearchers = 1024;
constexpr const char* kGroupIPv4 = "239.255.255.250";
constexpr const char* kGroupIPv6 = "ff02::c";

Descriptor MakeSocket(const Endpoint& bindTo)
{
    const int on = 1;
    Descriptor result(::socket(bindTo.Raw()->sa_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!result.Valid())
        return result;
    // Several programs of a machine listen for searches.
    ::setsockopt(result.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bindTo.IsIPv6())
        ::setsockopt(result.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    return ::bind(result.Get(), bindTo.Raw(), bindTo.Length()) == 0 ? std::move(result) : Descriptor();
}

Descriptor JoinedIPv4(const Endpoint& address, std::uint16_t port)
{
    const Endpoint group = *Endpoint::Parse(kGroupIPv4, port);
    Descriptor result = MakeSocket(group);
    if (!result.Valid())
        return result;
    // By default a socket hears the groups that any socket of the machine has joined, on any interface.
    const int off = 0;
    ::setsockopt(result.Get(), IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off);
    const ip_mreq membership{group.IPv4(), address.IPv4()};
    const bool joined =
        ::setsockopt(result.Get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) == 0;
    return joined ? std::move(result) : Descriptor();
}

Descriptor JoinedIPv6(const Endpoint& address, std::uint16_t port)
{
    // Bound with the interface as scope, the socket hears that interface only.
    Endpoint group = *Endpoint::Parse(kGroupIPv6, port);
    group.SetScope(address.InterfaceIndex());
    Descriptor result = MakeSocket(group);
    if (!result.Valid())
        return result;
    ipv6_mreq membership{};
    membership.ipv6mr_multiaddr = reinterpret_cast<const sockaddr_in6*>(group.Raw())->sin6_addr;
    membership.ipv6mr_interface = address.InterfaceIndex();
    const bool joined =
        ::setsockopt(result.Get(), IPPROTO_IPV6, IPV6_JOIN_GROUP, &membership, sizeof membership) == 0;
    return joined ? std::move(result) : Descriptor();
}

/// The value of a header line, nothing trimmed but blanks.
std::string HeaderValue(std::string_view datagram, std::string_view name)
{
    std::size_t line = datagram.find("\r\n");
    while (line != std::string_view::npos && line + 2 < datagram.size()) {
        datagram.remove_prefix(line + 2);
        line = datagram.find("\r\n");
        const std::string_view text = datagram.substr(0, line);
        const bool matches = text.size() > name.size() && text[name.size()] == ':' &&
                             ::strncasecmp(text.data(), name.data(), name.size()) == 0;
        if (!matches)
            continue;
        const std::size_t first = text.find_first_not_of(" \t", name.size() + 1);
        const std::size_t last = text.find_last_not_of(" \t");
        return first == std::string_view::npos ? "" : std::string(text.substr(first, last - first + 1));
    }
    return "";
}

} // namespace

SsdpResponder::SsdpResponder(EventLoop& loop, EventLog& log, const Options& options)
    : m_Loop(loop), m_Log(log), m_Options(options), m_FixedAnswer(FileContent(options.search.answerFile))
{
}

SsdpResponder::~SsdpResponder()
{
    for (const Listener& listener : m_Listeners) {
        m_Loop.Unwatch(listener.group.Get());
        m_Loop.Unwatch(listener.own.Get());
    }
}

bool SsdpResponder::Open(const Endpoint& address, const std::string& location)
{
    const std::uint16_t port = m_Options.search.port;
    Endpoint own = address;
    own.SetPort(port);
    Listener made{address.IsIPv6() ? JoinedIPv6(address, port) : JoinedIPv4(address, port), MakeSocket(own),
                  location};
    if (!made.group.Valid() || !made.own.Valid())
        return false;

    const Listener& listener = m_Listeners.emplace_back(std::move(made));
    for (const int descriptor : {listener.group.Get(), listener.own.Get()})
        m_Loop.Watch(descriptor, POLLIN, [this, &listener, descriptor] { Hear(listener, descriptor); });
    return true;
}

void SsdpResponder::Hear(const Listener& listener, int descriptor)
{
    std::array<char, 4096> buffer;
    Endpoint from;
    socklen_t length = sizeof(sockaddr_storage);
    const ssize_t got = ::recvfrom(descriptor, buffer.data(), buffer.size(), 0, from.Raw(), &length);
    if (got <= 0)
        return;

    const std::string_view datagram(buffer.data(), static_cast<std::size_t>(got));
    m_Log.Request("datagram", from.Text(), datagram);
    const std::string target = HeaderValue(datagram, "ST");
    const bool isSearch = datagram.starts_with("M-SEARCH * HTTP/1.1\r\n") && datagram.ends_with("\r\n\r\n") &&
                          HeaderValue(datagram, "MAN") == "\"ssdp:discover\"";
    const bool isMeant = !m_Options.search.target.empty() || target == "uuid:" + m_Options.identity.uuid ||
                         AnswersSearch(m_Options.description.model, target);
    if (!isSearch || !isMeant) {
        m_Log.Event("datagram ignored from " + from.Text() + " st=" + Shortened(target));
        return;
    }
    m_Log.Event("search from " + from.Text() + " st=" + Shortened(target));
    Remember(listener, from);
    if (m_Options.search.delayMs == 0)
        Answer(listener, from, target);
    else
        m_Loop.After(std::chrono::milliseconds(m_Options.search.delayMs),
                     [this, &listener, from, target] { Answer(listener, from, target); });
}

void SsdpResponder::Answer(const Listener& listener, const Endpoint& searcher, const std::string& target)
{
    const std::string& fixed = m_Options.search.target;
    const std::string shown = fixed.empty() ? target == "ssdp:all" ? "upnp:rootdevice" : target : fixed;
    const std::string text = m_FixedAnswer.empty() ? AnswerText(listener, shown)
                                                   : Filled(m_FixedAnswer, "{location}", listener.location);
    for (int copy = 0; copy < m_Options.search.copies; ++copy)
        Send(listener, searcher, text);
    m_Log.Event("answered search of " + searcher.Text());
}

void SsdpResponder::Remember(const Listener& listener, const Endpoint& searcher)
{
    std::erase_if(m_Searchers, [&](const Searcher& known) { return known.endpoint == searcher; });
    m_Searchers.push_back(Searcher{&listener, searcher});
    if (m_Searchers.size() > kMostSearchers)
        m_Searchers.pop_front();
}

void SsdpResponder::Announce(const std::string& subtype)
{
    for (const Searcher& searcher : m_Searchers) {
        Send(*searcher.listener, searcher.endpoint, NotifyText(*searcher.listener, subtype));
        m_Log.Event("announced " + subtype + " to " + searcher.endpoint.Text());
    }
}

std::string SsdpResponder::AnswerText(const Listener& listener, const std::string& target) const
{
    return "HTTP/1.1 200 OK\r\n" + CommonHeaders(listener) + "EXT:\r\nST: " + target +
           "\r\nUSN: " + UniqueName(target) + "\r\n\r\n";
}

std::string SsdpResponder::NotifyText(const Listener& listener, const std::string& subtype) const
{
    const std::string& target = m_Options.search.notifyTarget;
    const std::string start = "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\n";
    const std::string name =
        "NT: " + target + "\r\nNTS: " + subtype + "\r\nUSN: " + UniqueName(target) + "\r\n\r\n";
    return subtype == "ssdp:byebye" ? start + name : start + CommonHeaders(listener) + name;
}

std::string SsdpResponder::UniqueName(const std::string& target) const
{
    const std::string root = "uuid:" + m_Options.identity.uuid;
    if (target == root)
        return root;
    const bool ofRoot =
        target == "upnp:rootdevice" || target.find(":InternetGatewayDevice:") != std::string::npos;
    const int level = ofRoot || !m_Options.search.embeddedUsn           ? 0
                      : target.find(":WANDevice:") != std::string::npos ? 1
                                                                        : m_Options.description.embedding;
    return DeviceName(m_Options.identity, level) + "::" + target;
}

std::string SsdpResponder::CommonHeaders(const Listener& listener) const
{
    const SearchOptions& search = m_Options.search;
    const std::string age = "max-age=" + std::to_string(search.maxAgeSeconds);
    return "CACHE-CONTROL: " + (search.cacheControl.empty() ? age : search.cacheControl) +
           "\r\nLOCATION: " + (search.location.empty() ? listener.location : search.location) +
           "\r\nSERVER: " + m_Options.identity.server + "\r\n";
}

void SsdpResponder::Send(const Listener& listener, const Endpoint& to, const std::string& text)
{
    // A searcher that has gone is no concern of ours.
    ::sendto(listener.own.Get(), text.data(), text.size(), MSG_NOSIGNAL, to.Raw(), to.Length());
}

} // namespace gateway
