#pragma once

#include <functional>
#include <memory>
#include <string>

#include "tavronet/socket/TavroSocket.h"

namespace tavronet
{

/// Waits and dispatches until `done` holds. @return false when that takes longer than five seconds.
bool PumpUntil(const std::function<bool()>& done);

/// Dispatches until nothing has become due for a few milliseconds.
void PumpUntilQuiet();

/// A plain system socket on the loopback interface that listens. Its connections have a small receive buffer.
class PlainListener
{
public:
    explicit PlainListener(int family);
    ~PlainListener();
    PlainListener(const PlainListener&) = delete;
    PlainListener& operator=(const PlainListener&) = delete;

    [[nodiscard]] bool Listens() const { return m_Port != 0; } // not where the machine lacks the family
    [[nodiscard]] UINT Port() const { return m_Port; }
    [[nodiscard]] const wchar_t* Address() const;
    /// @return the descriptor, the caller's; -1 when nobody connects within five seconds.
    [[nodiscard]] int Accept() const;

private:
    int m_Family;
    int m_Descriptor;
    UINT m_Port = 0;
};

/// The far end of a connection, by plain system calls.
class PlainPeer
{
public:
    PlainPeer() = default;
    explicit PlainPeer(int descriptor) : m_Descriptor(descriptor) {}
    PlainPeer(PlainPeer&& other) noexcept;
    PlainPeer& operator=(PlainPeer&& other) noexcept;
    ~PlainPeer();

    /// @return whether the connection took the bytes.
    bool Writes(const std::string& bytes) const;
    /// Reads until `count` bytes are there; fewer when the connection ends or five seconds pass. Dispatches
    /// meanwhile; what a hook throws comes out here.
    [[nodiscard]] std::string Reads(std::size_t count) const;
    /// Reads until nothing more comes, dispatching meanwhile.
    std::string ReadsAll() const;
    /// What has arrived and was not read yet.
    [[nodiscard]] std::string HasReceived() const;
    void Closes();

private:
    int m_Descriptor = -1;
};

/// Makes the system's send buffer small, so that some hundred kilobytes fill a connection.
void LimitSendBuffer(SOCKET handle);

/// A socket of the library and its plain peer, connected over loopback.
template <typename Socket>
struct LoopbackPair
{
    explicit LoopbackPair(int family = 2) : listener(family)
    {
        if (!listener.Listens())
            return;
        Connect();
        peer = PlainPeer(listener.Accept());
    }

    /// Starts connecting; no notification has been delivered when it returns.
    void Connect()
    {
        socket->Create(0, 1, FD_ALL, listener.Address(), 0);
        LimitSendBuffer(socket->GetSocket());
        socket->Connect(listener.Address(), listener.Port());
    }

    [[nodiscard]] bool PumpUntilConnected()
    {
        return PumpUntil([this] { return socket->GetConnected(); });
    }

    PlainListener listener;
    std::unique_ptr<Socket> socket = std::make_unique<Socket>();
    PlainPeer peer;
};

} // namespace tavronet
