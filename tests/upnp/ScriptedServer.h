#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/Wait.h"
#include "tests/support/PlainSocket.h"

using tavronet::PumpUntil;

inline constexpr bool kClose = true; // the connection ends behind an answer

/// A whole answer with its length.
inline std::string HttpAnswer(const std::string& body, const std::string& status = "200 OK")
{
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

/// An HTTP server of a few lines on plain sockets, of the loopback unless told otherwise, in the test's own thread: it moves on whenever
/// that thread waits, so it also answers inside a blocking operation.
class ScriptedServer
{
public:
    using Reply = std::pair<std::string, bool>;

    /// @param listener a socket that does not block, of another network for instance.  @param port 0 for any.
    explicit ScriptedServer(int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0),
                            const std::string& host = "127.0.0.1", unsigned port = 0)
        : m_Listener(listener), m_Host(host)
    {
        sockaddr_in address{AF_INET, htons(static_cast<in_port_t>(port)), {inet_addr(host.c_str())}, {}};
        auto* const raw = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(m_Listener, raw, length), 0);
        EXPECT_EQ(listen(m_Listener, 64), 0);
        EXPECT_EQ(getsockname(m_Listener, raw, &length), 0);
        m_Port = ntohs(address.sin_port);
        s_Servers.push_back(this);
        SetWaitHook([](void*) { MoveOn(); }, nullptr);
    }

    ~ScriptedServer()
    {
        for (std::size_t i = 0; i < m_Connections.size(); ++i)
            End(i);
        close(m_Listener);
        std::erase(s_Servers, this);
        if (s_Servers.empty())
            SetWaitHook(nullptr, nullptr);
    }

    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    std::string Port() const { return std::to_string(m_Port); }
    std::string Url(const std::string& path) const { return "http://" + m_Host + ":" + Port() + path; }

    /// The answer to the next request that has none yet; a request without an answer is left waiting.
    void Answer(std::string bytes, bool close = false) { m_Script.emplace_back(std::move(bytes), close); }
    /// The answer to requests for which the script has none.
    void AnswerBy(std::function<Reply(const std::string& request)> rule) { m_Rule = std::move(rule); }
    /// Every request so far, byte for byte.
    const std::vector<std::string>& Requests() const { return m_Requests; }

    /// Forgets the requests and connections so far, all of which have been answered and closed.
    void Forget()
    {
        m_Requests.clear();
        m_Connections.clear();
    }

    /// The connections in the order they were made.
    std::size_t Connections() const { return m_Connections.size(); }
    /// @return whether the peer may get it. When not, nobody misses the bytes.
    bool Write(std::size_t connection, const std::string& bytes)
    {
        const int descriptor = m_Connections.at(connection).descriptor;
        return send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0 || errno == EAGAIN;
    }
    void End(std::size_t connection)
    {
        if (int& descriptor = m_Connections.at(connection).descriptor; descriptor >= 0)
            close(std::exchange(descriptor, -1));
    }
    bool ClosedByClient(std::size_t connection)
    {
        char byte;
        return recv(m_Connections.at(connection).descriptor, &byte, 1, MSG_PEEK) == 0;
    }

    static void MoveOn()
    {
        for (ScriptedServer* const server : s_Servers)
            server->Step();
    }

private:
    struct Connection
    {
        int descriptor;
        std::string request;
    };

    void Step()
    {
        int accepted;
        while ((accepted = accept4(m_Listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0)
            m_Connections.push_back({accepted, {}});
        for (std::size_t i = 0; i < m_Connections.size(); ++i) {
            if (!ReadRequest(m_Connections[i]))
                continue;
            m_Unanswered.push_back(i);
            if (m_Script.size() < m_Unanswered.size() && m_Rule)
                m_Script.push_back(m_Rule(m_Requests.back()));
        }
        while (!m_Script.empty() && !m_Unanswered.empty()) {
            Write(m_Unanswered.front(), m_Script.front().first);
            if (m_Script.front().second)
                End(m_Unanswered.front());
            m_Script.pop_front();
            m_Unanswered.pop_front();
        }
    }

    /// @return whether the request has become whole.
    bool ReadRequest(Connection& connection)
    {
        char block[4096];
        ssize_t got;
        while (connection.descriptor >= 0 && (got = recv(connection.descriptor, block, sizeof block, 0)) > 0)
            connection.request.append(block, static_cast<std::size_t>(got));
        const std::size_t header = connection.request.find("\r\n\r\n");
        const std::size_t announced = connection.request.find("Content-Length: ");
        const std::size_t body =
            announced < header ? std::strtoul(&connection.request[announced + 16], nullptr, 10) : 0;
        if (header == std::string::npos || connection.request.size() < header + 4 + body)
            return false;
        m_Requests.push_back(std::exchange(connection.request, {}));
        return true;
    }

    inline static std::vector<ScriptedServer*> s_Servers;

    const int m_Listener;
    const std::string m_Host;
    unsigned m_Port = 0;
    std::vector<Connection> m_Connections;
    std::vector<std::string> m_Requests;
    std::deque<std::size_t> m_Unanswered; // connections whose request waits for an answer
    std::deque<Reply> m_Script;
    std::function<Reply(const std::string&)> m_Rule;
};

/// Dispatches what happens within a few milliseconds.
inline void PumpBriefly(int milliseconds = 30)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    do {
        MsgWaitForMultipleObjectsEx(0, nullptr, 2, kWakeOnAnyInput, 0);
        DispatchPending();
    } while (std::chrono::steady_clock::now() < deadline);
}

/// Has `call` run at the next dispatch, which is inside the next wait.
inline void InTheWait(std::function<void()> call)
{
    static std::deque<std::function<void()>> calls; // where they stay, should nothing be dispatched any more
    calls.push_back(std::move(call));
    const auto run = [](void* raw) { (*static_cast<std::function<void()>*>(raw))(); };
    PostThreadCall(CurrentThreadQueue(), run, &calls.back());
}
