#include "tests/support/PlainSocket.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>

#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/Wait.h"

namespace tavronet
{

using Clock = std::chrono::steady_clock;
constexpr int kPatienceMs = 5000;
constexpr int kQuietMs = 2; // loopback delivers inside the call that sends

bool PumpUntil(const std::function<bool()>& done)
{
    const auto end = Clock::now() + std::chrono::milliseconds(kPatienceMs);
    while (!done()) {
        if (Clock::now() > end)
            return false;
        MsgWaitForMultipleObjectsEx(0, nullptr, 20, kWakeOnAnyInput, 0);
        DispatchRound();
    }
    return true;
}

void PumpUntilQuiet()
{
    const auto isQuiet = [] {
        return MsgWaitForMultipleObjectsEx(0, nullptr, kQuietMs, kWakeOnAnyInput, 0) == WAIT_TIMEOUT;
    };
    EXPECT_TRUE(PumpUntil(isQuiet)) << "notifications never end";
}

// Of a socket not bound yet: the wildcard of its family.
sockaddr_storage AddressOf(int descriptor)
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
    return address;
}

sockaddr_storage BindToLoopback(SOCKET handle)
{
    sockaddr_storage address = AddressOf(static_cast<int>(handle));
    if (address.ss_family == AF_INET6)
        reinterpret_cast<sockaddr_in6&>(address).sin6_addr = in6addr_loopback;
    else
        reinterpret_cast<sockaddr_in&>(address).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(static_cast<int>(handle), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return AddressOf(static_cast<int>(handle));
}

PlainSocket& PlainSocket::operator=(PlainSocket&& other) noexcept
{
    std::swap(m_Descriptor, other.m_Descriptor);
    return *this;
}

PlainSocket PlainSocket::Listening(int family)
{
    PlainSocket listener(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int bytes = 65536;
    setsockopt(listener.m_Descriptor, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    BindToLoopback(listener.Handle());
    listen(listener.m_Descriptor, 64);
    return listener;
}

PlainSocket PlainSocket::ConnectedTo(const sockaddr_storage& address, int type)
{
    PlainSocket peer(socket(address.ss_family, type | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect(peer.m_Descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return peer;
}

PlainSocket PlainSocket::Accept() const
{
    pollfd entry{m_Descriptor, POLLIN, 0};
    poll(&entry, 1, kPatienceMs);
    return PlainSocket(entry.revents != 0 ? accept4(m_Descriptor, nullptr, nullptr, SOCK_CLOEXEC) : -1);
}

UINT PlainSocket::Port() const
{
    const sockaddr_storage address = AddressOf(m_Descriptor);
    return ntohs(
        reinterpret_cast<const sockaddr_in&>(address).sin_port); // at the same place in both families
}

bool PlainSocket::Writes(const std::string& bytes, int flags) const
{
    const ssize_t sent = send(m_Descriptor, bytes.data(), bytes.size(), flags | MSG_NOSIGNAL);
    return sent == static_cast<ssize_t>(bytes.size());
}

std::string PlainSocket::ReadsWaiting() const
{
    std::string bytes;
    char part[65536];
    for (ssize_t got; (got = recv(m_Descriptor, part, sizeof part, MSG_DONTWAIT)) > 0;)
        bytes.append(part, static_cast<std::size_t>(got));
    return bytes;
}

std::string PlainSocket::Reads(std::size_t count) const
{
    std::string bytes;
    PumpUntil([&] { return (bytes += ReadsWaiting()).size() >= count; });
    return bytes;
}

void PlainSocket::Closes()
{
    if (m_Descriptor >= 0)
        close(std::exchange(m_Descriptor, -1));
}

void PlainSocket::Resets()
{
    const linger atOnce{1, 0};
    setsockopt(m_Descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    Closes();
}

} // namespace tavronet
