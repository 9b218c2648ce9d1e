#pragma once

#include <memory>

#include "tavronet/socket/TavroSocket.h"
#include "tests/support/PlainSocket.h"

namespace tavronet
{

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
        setsockopt(static_cast<int>(socket->GetSocket()), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
        socket->Connect(L"127.0.0.1", listener.Port());
        peer = listener.Accept();
    }

    [[nodiscard]] bool PumpUntilConnected()
    {
        return PumpUntil([this] { return socket->GetConnected(); });
    }

    PlainSocket listener, peer;
    std::unique_ptr<Socket> socket = std::make_unique<Socket>();
};

} // namespace tavronet
