#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Descriptor.h"
#include "Endpoint.h"
#include "EventLog.h"
#include "EventLoop.h"

namespace gateway
{

struct HttpRequest
{
    std::string method;
    std::string path;
    std::vector<std::pair<std::string, std::string>> headers; // names in lower case
    std::string body;
    Endpoint peer, local;

    /// The value of a header, empty when it is not there.
    [[nodiscard]] std::string Header(const std::string& lowerCaseName) const;
};

/// What goes out as the answer to a request, and in which manner.
struct HttpReply
{
    std::string bytes;
    std::string filler; // not empty: repeated behind `bytes` until the client has had enough
    int delayMs = 0;
    int bytesPerSecond = 0; // 0: at once
    bool silent = false;    // nothing at all is sent
    bool keepOpen = false;  // the connection takes another request afterwards
    bool reset = false;     // the connection ends with a reset
};

/// The connections of the gateway. Everything a client can make grow is bounded here.
class HttpServer
{
public:
    using Handler = std::function<HttpReply(const HttpRequest&)>;

    HttpServer(EventLoop& loop, EventLog& log, Handler handler);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Binds and listens; the port of `endpoint` becomes the one that was given.
    /// @param refuse hold the port without listening, so that connections are refused
    /// @return false with errno set
    bool Listen(Endpoint& endpoint, bool refuse);

private:
    struct Connection;
    using ConnectionId = std::uint64_t;

    void Accept(int listener);
    void Serve(ConnectionId id);
    bool ReadInput(Connection& connection);
    void TakeRequest(Connection& connection);
    void TakeRequestLater(ConnectionId id);
    void StartReply(Connection& connection, HttpReply reply);
    void SendMore(ConnectionId id);
    bool SendSome(Connection& connection, std::size_t most);
    void FinishReply(Connection& connection);
    void WatchFor(Connection& connection);
    void Close(Connection& connection, const std::string& why);

    EventLoop& m_Loop;
    EventLog& m_Log;
    Handler m_Handler;
    std::vector<Descriptor> m_Listeners;
    std::map<ConnectionId, std::unique_ptr<Connection>> m_Connections;
    ConnectionId m_LastId = 0;
};

} // namespace gateway
