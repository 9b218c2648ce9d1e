#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "tavronet/platform/MessageQueue.h"
#include "tests/support/PlainSocket.h"

using tavronet::PumpUntil;

inline constexpr bool kClose = true; // the connection ends behind an answer

/// A whole answer with its length.
inline std::string HttpAnswer(const std::string& body, const std::string& status = "200 OK")
{
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

/// What stands between two texts; empty when the first is not there.
inline std::string Between(const std::string& text, const std::string& before, const std::string& behind)
{
    const std::size_t found = text.find(before), begin = found + before.size();
    return found == std::string::npos ? "" : text.substr(begin, text.find(behind, begin) - begin);
}

/// An HTTP server of a few lines on plain sockets, of the loopback unless told otherwise, in the test's own thread:
/// it moves on whenever that thread waits, so it also answers inside a blocking operation.
class ScriptedServer
{
public:
    using Reply = std::pair<std::string, bool>;

    explicit ScriptedServer(const std::string& host = "127.0.0.1") : m_Host(host)
    {
        const int listener = static_cast<int>(m_Listener.Handle());
        const sockaddr_in address{AF_INET, 0, {inet_addr(host.c_str())}, {}};
        EXPECT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener, 64), 0);
        s_Servers.push_back(this);
        SetWaitHook([](void*) { MoveOn(); }, nullptr);
    }
    ~ScriptedServer()
    {
        std::erase(s_Servers, this);
        if (s_Servers.empty())
            SetWaitHook(nullptr, nullptr);
    }

    std::string Port() const { return std::to_string(m_Listener.Port()); }
    std::string Url(const std::string& path) const { return "http://" + m_Host + ":" + Port() + path; }

    /// The answer to the next request.
    void Answer(std::string bytes, bool close = false) { m_Script.emplace_back(std::move(bytes), close); }
    /// The answer to requests for which the script has none; without, they are left waiting.
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
    void Write(std::size_t connection, const std::string& bytes)
    {
        m_Connections.at(connection).socket.Writes(bytes, MSG_DONTWAIT);
    }
    void End(std::size_t connection) { m_Connections.at(connection).socket.Closes(); }
    bool ClosedByClient(std::size_t connection) const
    {
        char byte;
        const int descriptor = static_cast<int>(m_Connections.at(connection).socket.Handle());
        return recv(descriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
    }

    static void MoveOn()
    {
        for (ScriptedServer* const server : s_Servers)
            server->Step();
    }

private:
    struct Connection
    {
        tavronet::PlainSocket socket;
        std::string request = "";
    };

    void Step()
    {
        const int listener = static_cast<int>(m_Listener.Handle());
        for (int accepted; (accepted = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;)
            m_Connections.push_back({tavronet::PlainSocket(accepted)});
        for (std::size_t i = 0; i < m_Connections.size(); ++i) {
            if (!ReadRequest(m_Connections[i]))
                continue;
            if (m_Script.empty() && m_Rule)
                m_Script.push_back(m_Rule(m_Requests.back()));
            if (m_Script.empty())
                continue;
            Write(i, m_Script.front().first);
            if (m_Script.front().second)
                End(i);
            m_Script.pop_front();
        }
    }

    /// @return whether the request has become whole.
    bool ReadRequest(Connection& connection)
    {
        std::string& request = connection.request += connection.socket.ReadsWaiting();
        const std::size_t header = request.find("\r\n\r\n");
        const std::string length = Between(request.substr(0, header), "Content-Length: ", "\r\n");
        const std::size_t body = length.empty() ? 0 : std::stoul(length);
        if (header == std::string::npos || request.size() < header + 4 + body)
            return false;
        m_Requests.push_back(std::exchange(request, {}));
        return true;
    }

    inline static std::vector<ScriptedServer*> s_Servers;

    const tavronet::PlainSocket m_Listener{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    const std::string m_Host;
    std::vector<Connection> m_Connections;
    std::vector<std::string> m_Requests;
    std::deque<Reply> m_Script;
    std::function<Reply(const std::string&)> m_Rule;
};

/// Has `call` run at the next dispatch, which is inside the next wait.
inline void InTheWait(std::function<void()> call)
{
    static std::deque<std::function<void()>> calls; // where they stay, should nothing be dispatched any more
    calls.push_back(std::move(call));
    const auto run = [](void* raw) { (*static_cast<std::function<void()>*>(raw))(); };
    PostThreadCall(CurrentThreadQueue(), run, &calls.back());
}
