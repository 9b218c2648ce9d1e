#include "tests/support/LoopbackPair.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <utility>

#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/Wait.h"

namespace tavronet
{
namespace
{

constexpr int kPatienceMs = 5000;
constexpr int kQuietMs = 2; // loopback delivers inside the call that sends

class Deadline
{
public:
    [[nodiscard]] bool Passed() const { return std::chrono::steady_clock::now() > m_End; }

private:
    std::chrono::steady_clock::time_point m_End =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
};

bool Readable(int descriptor, int timeoutMs)
{
    pollfd entry{descriptor, POLLIN, 0};
    return poll(&entry, 1, timeoutMs) == 1;
}

} // namespace

void LimitSendBuffer(SOCKET handle)
{
    const int bytes = 16384;
    setsockopt(static_cast<int>(handle), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

bool PumpUntil(const std::function<bool()>& done)
{
    const Deadline deadline;
    while (!done()) {
        if (deadline.Passed())
            return false;
        MsgWaitForMultipleObjectsEx(0, nullptr, 20, kWakeOnAnyInput, 0);
        DispatchRound();
    }
    return true;
}

void PumpUntilQuiet()
{
    const Deadline deadline;
    while (MsgWaitForMultipleObjectsEx(0, nullptr, kQuietMs, kWakeOnAnyInput, 0) != WAIT_TIMEOUT) {
        ASSERT_FALSE(deadline.Passed()) << "notifications never end";
        DispatchRound();
    }
}

PlainListener::PlainListener(int family)
    : m_Family(family), m_Descriptor(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_addr = in6addr_loopback;
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const address =
        m_Family == AF_INET6 ? reinterpret_cast<sockaddr*>(&v6) : reinterpret_cast<sockaddr*>(&v4);
    socklen_t length = m_Family == AF_INET6 ? sizeof v6 : sizeof v4;
    const int receiveBufferBytes = 65536;
    setsockopt(m_Descriptor, SOL_SOCKET, SO_RCVBUF, &receiveBufferBytes, sizeof receiveBufferBytes);
    if (bind(m_Descriptor, address, length) != 0 || listen(m_Descriptor, 16) != 0)
        return;
    getsockname(m_Descriptor, address, &length);
    m_Port = ntohs(m_Family == AF_INET6 ? v6.sin6_port : v4.sin_port);
}

PlainListener::~PlainListener()
{
    close(m_Descriptor);
}

const wchar_t* PlainListener::Address() const
{
    return m_Family == AF_INET6 ? L"::1" : L"127.0.0.1";
}

int PlainListener::Accept() const
{
    return Readable(m_Descriptor, kPatienceMs) ? accept4(m_Descriptor, nullptr, nullptr, SOCK_CLOEXEC) : -1;
}

PlainPeer::PlainPeer(PlainPeer&& other) noexcept : m_Descriptor(std::exchange(other.m_Descriptor, -1)) {}

PlainPeer& PlainPeer::operator=(PlainPeer&& other) noexcept
{
    std::swap(m_Descriptor, other.m_Descriptor);
    return *this;
}

PlainPeer::~PlainPeer()
{
    Closes();
}

bool PlainPeer::Writes(const std::string& bytes) const
{
    return send(m_Descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::string PlainPeer::ReadsAll() const
{
    std::string bytes;
    do {
        std::string part(65536, '\0');
        const ssize_t got = recv(m_Descriptor, part.data(), part.size(), MSG_DONTWAIT);
        if (got == 0)
            break;
        bytes.append(part, 0, got > 0 ? static_cast<std::size_t>(got) : 0);
        while (DispatchRound()) {
        }
    } while (Readable(m_Descriptor, kQuietMs));
    return bytes;
}

std::string PlainPeer::Reads(std::size_t count) const
{
    const Deadline deadline;
    std::string bytes(count, '\0');
    std::size_t have = 0;
    while (have < count && !deadline.Passed()) {
        DispatchRound();
        if (!Readable(m_Descriptor, 5))
            continue;
        const ssize_t got = recv(m_Descriptor, bytes.data() + have, count - have, 0);
        if (got <= 0)
            break;
        have += static_cast<std::size_t>(got);
    }
    bytes.resize(have);
    return bytes;
}

std::string PlainPeer::HasReceived() const
{
    std::string bytes(65536, '\0');
    const ssize_t got = recv(m_Descriptor, bytes.data(), bytes.size(), MSG_PEEK | MSG_DONTWAIT);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
}

void PlainPeer::Closes()
{
    if (m_Descriptor >= 0)
        close(std::exchange(m_Descriptor, -1));
}

} // namespace tavronet
