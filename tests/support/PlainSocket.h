#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "tavronet/platform/AsyncSocket.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/Wait.h"

namespace tavronet
{

/// Waits and dispatches until `done` holds. @return false when that takes longer than five seconds.
inline bool PumpUntil(const std::function<bool()>& done)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    bool isDone = done();
    while (!isDone && std::chrono::steady_clock::now() < end) {
        MsgWaitForMultipleObjectsEx(0, nullptr, 20, kWakeOnAnyInput, 0);
        DispatchRound();
        isDone = done();
    }
    return isDone;
}

/// Dispatches until nothing has become due for a few milliseconds; loopback delivers inside the call that sends.
inline void PumpUntilQuiet()
{
    const auto isQuiet = [] {
        return MsgWaitForMultipleObjectsEx(0, nullptr, 2, kWakeOnAnyInput, 0) == WAIT_TIMEOUT;
    };
    EXPECT_TRUE(PumpUntil(isQuiet)) << "notifications never end";
}

/// Where a socket is bound; one that is not yet is bound to a free port of the loopback interface.
inline sockaddr_in BindToLoopback(SOCKET handle)
{
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    auto* const raw = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof address;
    ::bind(static_cast<int>(handle), raw, length);
    ::getsockname(static_cast<int>(handle), raw, &length);
    return address;
}

/// A plain system socket on the loopback interface, closed with the object: a listener, or the far end of a
/// connection.
class PlainSocket
{
public:
    explicit PlainSocket(int descriptor = -1) : m_Socket(descriptor) {}
    PlainSocket(PlainSocket&& other) noexcept : m_Socket(std::exchange(other.m_Socket, -1)) {}
    PlainSocket& operator=(PlainSocket&& other) noexcept
    {
        std::swap(m_Socket, other.m_Socket);
        return *this;
    }
    ~PlainSocket() { Closes(); }

    /// Its connections have a small receive buffer.
    static PlainSocket Listening()
    {
        PlainSocket listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const int bytes = 65536;
        const timeval patience{5, 0};
        ::setsockopt(listener.m_Socket, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
        ::setsockopt(listener.m_Socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        BindToLoopback(listener.Handle());
        ::listen(listener.m_Socket, 64);
        return listener;
    }
    static PlainSocket ConnectedTo(const sockaddr_in& address, int type = SOCK_STREAM)
    {
        PlainSocket peer(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
        EXPECT_EQ(::connect(peer.m_Socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        return peer;
    }

    /// Waits up to five seconds for somebody to connect.
    PlainSocket Accept() const { return PlainSocket(::accept4(m_Socket, nullptr, nullptr, SOCK_CLOEXEC)); }
    [[nodiscard]] UINT Port() const { return ntohs(BindToLoopback(Handle()).sin_port); }
    [[nodiscard]] SOCKET Handle() const { return static_cast<SOCKET>(m_Socket); }
    /// Gives the socket to the caller, who closes it.
    [[nodiscard]] SOCKET Releases() { return static_cast<SOCKET>(std::exchange(m_Socket, -1)); }

    /// @return whether the connection took the bytes.
    bool Writes(const std::string& bytes, int flags = 0) const
    {
        const ssize_t sent = ::send(m_Socket, bytes.data(), bytes.size(), flags | MSG_NOSIGNAL);
        return sent == static_cast<ssize_t>(bytes.size());
    }
    /// What has arrived. Dispatches nothing.
    std::string ReadsWaiting() const { return Reads(0); }
    /// Reads until `count` bytes have come, at most five seconds; dispatches meanwhile.
    [[nodiscard]] std::string Reads(std::size_t count) const
    {
        std::string bytes;
        char part[65536];
        PumpUntil([&] {
            for (ssize_t got; (got = ::recv(m_Socket, part, sizeof part, MSG_DONTWAIT)) > 0;)
                bytes.append(part, static_cast<std::size_t>(got));
            return bytes.size() >= count;
        });
        return bytes;
    }
    void Closes() { ::close(std::exchange(m_Socket, -1)); }
    /// Ends the connection with a reset.
    void Resets()
    {
        const linger atOnce{1, 0};
        ::setsockopt(m_Socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        Closes();
    }

private:
    int m_Socket;
};

/// A socket of the library and its plain peer, connected over loopback.
template <typename Socket>
struct LoopbackPair
{
    LoopbackPair() { Connect(); }

    /// Starts connecting; no notification has been delivered when it returns.
    void Connect()
    {
        listener = PlainSocket::Listening();
        socket->Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0);
        const int bytes = 16384; // so that some hundred kilobytes fill the connection
        ::setsockopt(static_cast<int>(socket->GetSocket()), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
        socket->Connect(L"127.0.0.1", listener.Port());
        peer = listener.Accept();
    }
    bool PumpUntilConnected()
    {
        return PumpUntil([this] { return socket->GetConnected(); });
    }

    PlainSocket listener, peer;
    std::unique_ptr<Socket> socket = std::make_unique<Socket>();
};

} // namespace tavronet
