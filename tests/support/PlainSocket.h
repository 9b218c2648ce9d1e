#pragma once

#include <sys/socket.h>

#include <functional>
#include <string>
#include <utility>

#include "tavronet/platform/AsyncSocket.h"

namespace tavronet
{

/// Waits and dispatches until `done` holds. @return false when that takes longer than five seconds.
bool PumpUntil(const std::function<bool()>& done);

/// Dispatches until nothing has become due for a few milliseconds.
void PumpUntilQuiet();

/// Where a socket is bound; before it is, the wildcard of its family.
sockaddr_storage AddressOf(int descriptor);
/// Binds a socket to a free port of the loopback interface. @return its address; port 0 on failure.
sockaddr_storage BindToLoopback(SOCKET handle);

/// A plain system socket on the loopback interface, closed with the object: a listener, or the far end of a
/// connection.
class PlainSocket
{
public:
    explicit PlainSocket(int descriptor = -1) : m_Descriptor(descriptor) {}
    PlainSocket(PlainSocket&& other) noexcept : m_Descriptor(std::exchange(other.m_Descriptor, -1)) {}
    PlainSocket& operator=(PlainSocket&& other) noexcept;
    ~PlainSocket() { Closes(); }

    /// Its connections have a small receive buffer.
    static PlainSocket Listening(int family = AF_INET);
    static PlainSocket ConnectedTo(const sockaddr_storage& address, int type = SOCK_STREAM);

    /// Waits up to five seconds for somebody to connect.
    [[nodiscard]] PlainSocket Accept() const;
    /// 0 for a listener on a machine that lacks the family.
    [[nodiscard]] UINT Port() const;
    [[nodiscard]] SOCKET Handle() const { return static_cast<SOCKET>(m_Descriptor); }
    /// Gives the socket to the caller, who closes it.
    [[nodiscard]] SOCKET Releases() { return static_cast<SOCKET>(std::exchange(m_Descriptor, -1)); }

    /// @return whether the connection took the bytes.
    bool Writes(const std::string& bytes, int flags = 0) const;
    /// What has arrived. Dispatches nothing.
    std::string ReadsWaiting() const;
    /// Reads until `count` bytes have come, at most five seconds; dispatches meanwhile.
    [[nodiscard]] std::string Reads(std::size_t count) const;
    void Closes();
    /// Ends the connection with a reset.
    void Resets();

private:
    int m_Descriptor;
};

} // namespace tavronet
