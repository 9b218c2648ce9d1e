#include "HttpServer.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <optional>
#include <string_view>

namespace gateway
{

namespace
{

constexpr std::size_t kMostConnections = 512;
constexpr std::size_t kLongestRequest = 256 * 1024;
constexpr std::uint64_t kMostBytesPerReply = 256ull * 1024 * 1024; // ends an endless one
constexpr std::chrono::seconds kLongestConnection{120};
constexpr std::chrono::milliseconds kSlowStep{20};

std::string LowerCased(std::string_view text)
{
    std::string result(text);
    std::ranges::transform(result, result.begin(), [](unsigned char c) { return std::tolower(c); });
    return result;
}

std::string_view Trimmed(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(" \t"), last = text.find_last_not_of(" \t");
    return first == std::string_view::npos ? "" : text.substr(first, last - first + 1);
}

HttpRequest ReadHeader(std::string_view header)
{
    HttpRequest request;
    std::size_t lineEnd = header.find("\r\n");
    const std::string_view first = header.substr(0, lineEnd);
    const std::size_t blank = first.find(' ');
    if (blank != std::string_view::npos) {
        request.method = first.substr(0, blank);
        request.path = first.substr(blank + 1, first.find(' ', blank + 1) - blank - 1);
    }
    while (lineEnd < header.size()) {
        header.remove_prefix(lineEnd + 2);
        lineEnd = header.find("\r\n");
        const std::string_view line = header.substr(0, lineEnd);
        const std::size_t colon = line.find(':');
        if (colon != std::string_view::npos)
            request.headers.emplace_back(LowerCased(line.substr(0, colon)), Trimmed(line.substr(colon + 1)));
    }
    return request;
}

/// The announced length of the body. @return nothing when it cannot be a length that this server takes
std::optional<std::size_t> BodyLength(const HttpRequest& request)
{
    const std::string text = request.Header("content-length");
    std::size_t length = 0;
    if (text.empty())
        return request.Header("transfer-encoding").empty() ? std::optional<std::size_t>(0) : std::nullopt;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && length <= kLongestRequest ? std::optional(length) : std::nullopt;
}

} // namespace

std::string HttpRequest::Header(const std::string& lowerCaseName) const
{
    const auto found = std::ranges::find(headers, lowerCaseName, &std::pair<std::string, std::string>::first);
    return found == headers.end() ? "" : found->second;
}

struct HttpServer::Connection
{
    ConnectionId id = 0;
    Descriptor socket;
    Endpoint peer;
    std::string input;
    bool inputEnded = false;
    bool replying = false; // from the whole request until the last byte of the reply
    bool sending = false;  // the delay is over
    bool ending = false;   // our side is shut down, the client's is not yet
    HttpReply reply;
    std::size_t sentOfBytes = 0;
    std::uint64_t sentInAll = 0;
    EventLoop::TimerId stepTimer = 0, lifeTimer = 0;
};

HttpServer::HttpServer(EventLoop& loop, EventLog& log, Handler handler)
    : m_Loop(loop), m_Log(log), m_Handler(std::move(handler))
{
}

HttpServer::~HttpServer()
{
    while (!m_Connections.empty())
        Close(*m_Connections.begin()->second, "gateway ends");
    for (const Descriptor& listener : m_Listeners)
        m_Loop.Unwatch(listener.Get());
}

bool HttpServer::Listen(Endpoint& endpoint, bool refuse)
{
    const int family = endpoint.Raw()->sa_family, on = 1;
    Descriptor listener(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!listener.Valid())
        return false;
    if (endpoint.IsIPv6())
        ::setsockopt(listener.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    // A fixed port may still be waiting for the last run's connections to die; a free one must really be
    // free.
    if (endpoint.Port() != 0)
        ::setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(listener.Get(), endpoint.Raw(), endpoint.Length()) != 0)
        return false;
    if (!refuse && ::listen(listener.Get(), 128) != 0)
        return false;

    endpoint.SetPort(Endpoint::LocalOf(listener.Get()).Port());
    const int descriptor = listener.Get();
    m_Listeners.push_back(std::move(listener));
    if (!refuse)
        m_Loop.Watch(descriptor, POLLIN, [this, descriptor] { Accept(descriptor); });
    return true;
}

void HttpServer::Accept(int listener)
{
    Endpoint peer;
    socklen_t length = sizeof(sockaddr_storage);
    Descriptor socket(::accept4(listener, peer.Raw(), &length, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket.Valid())
        return;
    if (m_Connections.size() >= kMostConnections) {
        m_Log.Event("connection refused " + peer.Text() + ": too many");
        return;
    }
    const int on = 1;
    ::setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

    auto connection = std::make_unique<Connection>();
    const ConnectionId id = connection->id = ++m_LastId;
    connection->socket = std::move(socket);
    connection->peer = peer;
    connection->lifeTimer = m_Loop.After(kLongestConnection, [this, id] {
        m_Connections[id]->lifeTimer = 0;
        Close(*m_Connections[id], "too old");
    });
    m_Log.Event("connection from " + peer.Text());
    WatchFor(*connection);
    m_Connections.emplace(id, std::move(connection));
}

void HttpServer::Serve(ConnectionId id)
{
    Connection& connection = *m_Connections[id];
    if (!ReadInput(connection))
        return;
    if (!connection.replying && !connection.ending)
        TakeRequest(connection);
    else if (connection.sending)
        SendMore(id);
}

/// @return false when the connection is gone
bool HttpServer::ReadInput(Connection& connection)
{
    char buffer[16 * 1024];
    const ssize_t got = ::recv(connection.socket.Get(), buffer, sizeof buffer, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
        return true;
    if (got < 0) {
        Close(connection, "reset by peer");
        return false;
    }
    if (got == 0) {
        connection.inputEnded = true;
        const bool answerUnderWay = connection.replying && !connection.reply.silent;
        if (!answerUnderWay) {
            if (!connection.input.empty() && !connection.replying)
                m_Log.Request("incomplete", connection.peer.Text(), connection.input);
            Close(connection, "closed by peer");
            return false;
        }
        WatchFor(connection);
        return true;
    }
    if (connection.ending || connection.reply.silent)
        return true; // of no interest any more
    connection.input.append(buffer, static_cast<std::size_t>(got));
    if (connection.input.size() <= kLongestRequest)
        return true;
    Close(connection, "request too long");
    return false;
}

void HttpServer::TakeRequest(Connection& connection)
{
    const std::size_t headerEnd = connection.input.find("\r\n\r\n");
    if (headerEnd == std::string::npos)
        return;
    HttpRequest request = ReadHeader(std::string_view(connection.input).substr(0, headerEnd));
    const auto bodyLength = BodyLength(request);
    if (!bodyLength) {
        Close(connection, "request without a usable length");
        return;
    }
    const std::size_t whole = headerEnd + 4 + *bodyLength;
    if (connection.input.size() < whole)
        return;

    m_Log.Request("request", connection.peer.Text(), std::string_view(connection.input).substr(0, whole));
    request.body = connection.input.substr(headerEnd + 4, *bodyLength);
    request.peer = connection.peer;
    request.local = Endpoint::LocalOf(connection.socket.Get());
    connection.input.erase(0, whole);
    if (!connection.input.empty())
        m_Log.Event("excess bytes behind the request: " + std::to_string(connection.input.size()));
    StartReply(connection, m_Handler(request));
}

void HttpServer::StartReply(Connection& connection, HttpReply reply)
{
    connection.replying = true;
    connection.reply = std::move(reply);
    connection.sentOfBytes = 0;
    connection.sentInAll = 0;
    if (connection.reply.silent)
        return;
    const ConnectionId id = connection.id;
    if (connection.reply.delayMs == 0) {
        connection.sending = true;
        SendMore(id);
        return;
    }
    connection.stepTimer = m_Loop.After(std::chrono::milliseconds(connection.reply.delayMs), [this, id] {
        m_Connections[id]->stepTimer = 0;
        m_Connections[id]->sending = true;
        SendMore(id);
    });
}

void HttpServer::SendMore(ConnectionId id)
{
    Connection& connection = *m_Connections[id];
    const int perSecond = connection.reply.bytesPerSecond;
    if (perSecond == 0) {
        constexpr std::size_t kPerTurn = 256 * 1024; // others get their turn, too
        if (SendSome(connection, kPerTurn))
            WatchFor(connection);
        return;
    }
    if (connection.stepTimer != 0)
        return;
    const auto share = std::max<std::int64_t>(1, perSecond * kSlowStep.count() / 1000);
    if (!SendSome(connection, static_cast<std::size_t>(share)) || !connection.sending)
        return;
    const auto pause = std::chrono::milliseconds(1000 * share / perSecond);
    connection.stepTimer = m_Loop.After(pause, [this, id] {
        m_Connections[id]->stepTimer = 0;
        SendMore(id);
    });
}

/// Sends at most `most` bytes and finishes the reply when all are out. @return false when the connection is
/// gone
bool HttpServer::SendSome(Connection& connection, std::size_t most)
{
    HttpReply& reply = connection.reply;
    while (most > 0) {
        if (connection.sentOfBytes == reply.bytes.size() && !reply.filler.empty() &&
            connection.sentInAll < kMostBytesPerReply)
        {
            reply.bytes = reply.filler;
            connection.sentOfBytes = 0;
        }
        const std::size_t left = std::min(most, reply.bytes.size() - connection.sentOfBytes);
        if (left == 0)
            break;
        const ssize_t sent =
            ::send(connection.socket.Get(), reply.bytes.data() + connection.sentOfBytes, left, MSG_NOSIGNAL);
        if (sent < 0 && (errno == EAGAIN || errno == EINTR))
            return true;
        if (sent < 0) {
            Close(connection, "reset by peer");
            return false;
        }
        connection.sentOfBytes += static_cast<std::size_t>(sent);
        connection.sentInAll += static_cast<std::uint64_t>(sent);
        most -= static_cast<std::size_t>(sent);
    }
    const bool more = connection.sentOfBytes < reply.bytes.size() ||
                      (!reply.filler.empty() && connection.sentInAll < kMostBytesPerReply);
    if (more)
        return true;
    const ConnectionId id = connection.id;
    FinishReply(connection);
    return m_Connections.contains(id);
}

void HttpServer::FinishReply(Connection& connection)
{
    connection.replying = connection.sending = false;
    if (connection.reply.reset) {
        const linger atOnce{1, 0};
        ::setsockopt(connection.socket.Get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        Close(connection, "reset by gateway");
        return;
    }
    if (connection.inputEnded) {
        Close(connection, "closed by peer");
        return;
    }
    WatchFor(connection);
    if (connection.reply.keepOpen) {
        if (!connection.input.empty())
            TakeRequestLater(connection.id);
        return;
    }
    // Bytes that the client still sends are read: closing over them would reset the connection under the
    // reply.
    ::shutdown(connection.socket.Get(), SHUT_WR);
    connection.ending = true;
}

/// Takes the request that came in behind the one just answered, from the loop and not from here: a client
/// that sends thousands at once must not nest us thousands deep.
void HttpServer::TakeRequestLater(ConnectionId id)
{
    m_Loop.After(std::chrono::milliseconds(0), [this, id] {
        const auto found = m_Connections.find(id);
        if (found != m_Connections.end() && !found->second->replying)
            TakeRequest(*found->second);
    });
}

void HttpServer::WatchFor(Connection& connection)
{
    const ConnectionId id = connection.id;
    const bool wantsRoom = connection.sending && connection.reply.bytesPerSecond == 0;
    const int events = (connection.inputEnded ? 0 : POLLIN) | (wantsRoom ? POLLOUT : 0);
    if (events == 0)
        m_Loop.Unwatch(connection.socket.Get()); // a timer goes on with it
    else
        m_Loop.Watch(connection.socket.Get(), static_cast<short>(events), [this, id] { Serve(id); });
}

void HttpServer::Close(Connection& connection, const std::string& why)
{
    m_Log.Event("connection " + connection.peer.Text() + " " + why);
    m_Loop.Unwatch(connection.socket.Get());
    m_Loop.Cancel(connection.stepTimer);
    m_Loop.Cancel(connection.lifeTimer);
    m_Connections.erase(connection.id);
}

} // namespace gateway
