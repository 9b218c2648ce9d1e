#ifndef TESTS_UPNP_SCRIPTEDSERVER_H
#define TESTS_UPNP_SCRIPTEDSERVER_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/Wait.h"

/// An HTTP server of a few lines on plain sockets of the loopback, in the test's own thread: it moves on whenever
/// that thread waits, so it also answers inside a blocking operation.
class ScriptedServer
{
public:
    enum class Then
    {
        KeepOpen,
        Close,
        Reset
    };

    explicit ScriptedServer(int family = AF_INET) : ScriptedServer(LoopbackListener(family)) {}

    /// @param listener a listening, non-blocking socket, closed with the server.
    static ScriptedServer* On(int listener) { return new ScriptedServer(Listener{listener}); }

    ~ScriptedServer()
    {
        for (std::size_t i = 0; i < m_Connections.size(); ++i)
            End(i, Then::Close);
        close(m_Listener);
        std::erase(s_Servers, this);
        if (s_Servers.empty())
            SetWaitHook(nullptr, nullptr);
    }

    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    unsigned Port() const { return m_Port; }
    std::string Url(const std::string& path) const
    {
        return "http://127.0.0.1:" + std::to_string(m_Port) + path;
    }

    /// The answer to the next request that has none yet; a request without an answer is left waiting.
    void Answer(std::string bytes, Then then = Then::KeepOpen)
    {
        m_Script.push_back({std::move(bytes), then});
    }

    /// The answer to requests for which the script has none.
    void AnswerBy(std::function<std::pair<std::string, Then>(const std::string& request)> rule)
    {
        m_Rule = std::move(rule);
    }

    /// Every request so far, byte for byte.
    const std::vector<std::string>& Requests() const { return m_Requests; }

    /// The connections in the order they were made.
    std::size_t Connections() const { return m_Connections.size(); }
    void Write(std::size_t connection, const std::string& bytes)
    {
        // The peer may have closed: then nobody misses the bytes.
        send(m_Connections.at(connection).descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    void End(std::size_t connection, Then then)
    {
        int& descriptor = m_Connections.at(connection).descriptor;
        if (descriptor < 0 || then == Then::KeepOpen)
            return;
        const linger atOnce{1, 0};
        if (then == Then::Reset)
            setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        close(descriptor);
        descriptor = -1;
    }

    /// Whether our side of a connection has been closed by the client.
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
    struct Listener
    {
        int descriptor;
    };

    explicit ScriptedServer(Listener listener) : m_Listener(listener.descriptor)
    {
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        EXPECT_EQ(getsockname(m_Listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
        m_Port =
            ntohs(reinterpret_cast<sockaddr_in&>(address).sin_port); // at the same place in both families
        s_Servers.push_back(this);
        SetWaitHook([](void*) { MoveOn(); }, nullptr);
    }

    static Listener LoopbackListener(int family)
    {
        const int listener = socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_storage address{};
        address.ss_family = static_cast<sa_family_t>(family);
        if (family == AF_INET)
            reinterpret_cast<sockaddr_in&>(address).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        else
            reinterpret_cast<sockaddr_in6&>(address).sin6_addr = in6addr_loopback;
        EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener, 64), 0);
        return {listener};
    }

    struct Reply
    {
        std::string bytes;
        Then then;
    };
    struct Connection
    {
        int descriptor;
        std::string request;
    };

    void Step()
    {
        for (;;) {
            const int accepted = accept4(m_Listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (accepted < 0)
                break;
            m_Connections.push_back({accepted, {}});
        }
        for (std::size_t i = 0; i < m_Connections.size(); ++i)
            ReadFrom(m_Connections[i]);
        while (!m_Script.empty() && !m_Unanswered.empty()) {
            const Reply reply = std::move(m_Script.front());
            const std::size_t connection = m_Unanswered.front();
            m_Script.pop_front();
            m_Unanswered.pop_front();
            Write(connection, reply.bytes);
            End(connection, reply.then);
        }
    }

    void ReadFrom(Connection& connection)
    {
        char block[4096];
        for (;;) {
            const ssize_t got =
                connection.descriptor < 0 ? 0 : recv(connection.descriptor, block, sizeof block, 0);
            if (got <= 0)
                break;
            connection.request.append(block, static_cast<std::size_t>(got));
        }
        const std::size_t header = connection.request.find("\r\n\r\n");
        if (header == std::string::npos)
            return;
        const std::size_t announced = connection.request.find("Content-Length: ");
        const std::size_t body =
            announced < header ? std::strtoul(&connection.request[announced + 16], nullptr, 10) : 0;
        if (connection.request.size() < header + 4 + body)
            return;
        const auto index = static_cast<std::size_t>(&connection - m_Connections.data());
        m_Requests.push_back(std::exchange(connection.request, {}));
        if (m_Script.empty() && m_Rule) {
            const auto [bytes, then] = m_Rule(m_Requests.back());
            Write(index, bytes);
            End(index, then);
            return;
        }
        m_Unanswered.push_back(index);
    }

    inline static std::vector<ScriptedServer*> s_Servers;

    const int m_Listener;
    unsigned m_Port = 0;
    std::vector<Connection> m_Connections;
    std::vector<std::string> m_Requests;
    std::deque<std::size_t> m_Unanswered; // connections whose request waits for an answer
    std::deque<Reply> m_Script;
    std::function<std::pair<std::string, Then>(const std::string&)> m_Rule;
};

/// A whole answer with its length.
inline std::string HttpAnswer(const std::string& body, const std::string& status = "200 OK")
{
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

/// Dispatches until `done` holds; false when that takes longer than five seconds.
inline bool PumpUntil(const std::function<bool()>& done)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        MsgWaitForMultipleObjectsEx(0, nullptr, 5, kWakeOnAnyInput, 0);
        DispatchPending();
    }
    return true;
}

/// Dispatches what happens within a few milliseconds.
inline void PumpBriefly(int milliseconds = 30)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (std::chrono::steady_clock::now() < deadline) {
        MsgWaitForMultipleObjectsEx(0, nullptr, 2, kWakeOnAnyInput, 0);
        DispatchPending();
    }
}

#endif
