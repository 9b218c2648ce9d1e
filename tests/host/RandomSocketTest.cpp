// Sockets on the loopback whose host does what it likes inside every hook and every message.

#include <sys/socket.h>

#include <memory>
#include <vector>

#include "RandomHost.h"
#include "tavronet/platform/ByteArray.h"
#include "tests/socket/ScriptedSocket.h"

namespace
{

class SocketHost;

class RandomSocket : public ScriptedSocket
{
public:
    explicit RandomSocket(SocketHost& host);
    std::string consumed;

protected:
    void OnAccept(int error) override;

private:
    SocketHost& m_Host;
};

class SocketHost : public RandomHost
{
public:
    explicit SocketHost(unsigned seed) : RandomHost(seed)
    {
        for (std::unique_ptr<RandomSocket>& socket : m_Sockets)
            socket = std::make_unique<RandomSocket>(*this);
    }

    void Run()
    {
        TakeSteps(1000, [this] { Act(Any()); });
        for (const std::unique_ptr<RandomSocket>& socket : m_Sockets)
            ExpectWhole(*socket);
    }

    RandomSocket& Any() { return *Pick(m_Sockets); }
    void Act(RandomSocket& self)
    {
        Perhaps([&] { Do(OneIn(2) ? self : Any()); });
    }
    static void
    CloseWithReset(RandomSocket& socket) // so that millions of connections do not use up the ports
    {
        const linger atOnce{1, 0};
        setsockopt(static_cast<int>(socket.GetSocket()), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    }

private:
    void Do(RandomSocket& socket);
    void Replace(RandomSocket& socket);
    void Listen(RandomSocket& socket);
    void Connect(RandomSocket& socket);
    void Attach(RandomSocket& socket, RandomSocket& other);
    void Exchange(RandomSocket& socket);
    void ExpectWhole(RandomSocket& socket);

    std::unique_ptr<RandomSocket> m_Sockets[6]; // never null
    UINT m_Port = 0;
};

// --- What the hooks do beside acting

RandomSocket::RandomSocket(SocketHost& host) : m_Host(host)
{
    around = [this, &host](const std::string&, bool) { host.Act(*this); };
    OnReceivePreProcessResponseScript = [this, &host](unsigned char*& buffer, int& received, int& held) {
        if (host.OneIn(8))
            received -= static_cast<int>(host.Below(static_cast<unsigned>(received)));
        if (!host.OneIn(8))
            return CTavroSocket::OnReceivePreProcessResponse(buffer, received, held);
        unsigned char* const other = tavronet::NewByteArray(held + received + 1);
        std::copy_n(buffer, held + received, other);
        delete[] std::exchange(buffer, other);
    };
    ProcessReceiveScript = [this, &host](unsigned char*& buffer, int& length) {
        if (length < 100000 && host.OneIn(4))
            return false;
        const int left = host.OneIn(2) ? static_cast<int>(host.Below(static_cast<unsigned>(length))) : 0;
        consumed = Text(buffer, length - left);
        buffer += length - left;
        length = left;
        return true;
    };
    SendDataScript = [this, &host](unsigned char* data, int length, int flags) {
        if (host.OneIn(16)) {
            const tavronet::ByteBuffer taken = TakeSendChunk();
            return length;
        }
        const int part = host.OneIn(4) ? static_cast<int>(host.Below(static_cast<unsigned>(length))) : length;
        return host.OneIn(16) ? Answer{-1, WSAEWOULDBLOCK}.Give() : CTavroSocket::SendData(data, part, flags);
    };
    ReceiveDataScript = [this, &host](unsigned char* data, int length, int flags) {
        const int errors[] = {0, WSAEWOULDBLOCK, WSAECONNABORTED, WSAECONNRESET};
        return host.OneIn(16) ? Answer{-1, host.Pick(errors)}.Give()
                              : CTavroSocket::ReceiveData(data, length, flags);
    };
    OkayToReceiveScript = [this, &host] { return !host.OneIn(16) && CTavroSocket::OkayToReceive(); };
    OkayToSendScript = [this, &host] { return !host.OneIn(16) && CTavroSocket::OkayToSend(); };
    OnReceivePreReadScript = [&host] { return !host.OneIn(16); };
    OnReceiveNoDataContinueScript = [&host](int) { return host.OneIn(4); };
}

void RandomSocket::OnAccept(int)
{
    const tavronet::LifetimeGuard guard(*this);
    m_Host.Act(*this);
    if (!guard.Alive())
        return;
    RandomSocket& target = m_Host.Any();
    target.Close();
    if (Accept(target))
        SocketHost::CloseWithReset(target);
}

// --- What the host does

void SocketHost::Do(RandomSocket& socket)
{
    constexpr tavronet::FaultPoint kPoints[] = {tavronet::FaultPoint::Send, tavronet::FaultPoint::Receive,
                                                tavronet::FaultPoint::SendTo};
    const int errors[] = {WSAEWOULDBLOCK, WSAECONNABORTED, WSAECONNRESET, WSAENOBUFS};
    const auto act = [](void* raw) {
        auto& self = *static_cast<SocketHost*>(raw);
        self.Act(self.Any());
    };
    switch (Below(64)) { // mostly what keeps connections alive
    case 0: return Replace(socket);
    case 1: return Listen(socket);
    case 2: return Attach(socket, Any());
    case 3: return socket.Renew();
    case 4: return socket.Close();
    case 5: socket.AsyncSelect(static_cast<LONG>(Below(FD_ALL + 1))); return;
    case 6: shutdown(static_cast<int>(socket.GetSocket()), SHUT_WR); return;
    case 7: return InjectFault(Pick(kPoints), socket.GetSocket(), Pick(errors), static_cast<int>(Below(3)));
    case 8: return socket.OnClose(0);
    case 9: return socket.ReleaseReceiveBuffer();
    case 10: socket.TakeReceiveBuffer(); return;
    case 11: delete[] socket.GetSendBuffer(); return socket.ClearSendBuffer();
    case 12: return socket.SetOkayToSend(OneIn(2));
    case 13: return socket.RequestRead();
    case 14: return socket.SetOnReceivePeekBufferSize(Below(20000));
    case 15: return socket.OnSend(0);
    case 16: return PostThreadCall(CurrentThreadQueue(), act, this);
    }
    switch (Below(8)) {
    case 0: return PumpOrThrow();
    case 1: return Connect(socket);
    case 2: socket.AsyncSelect(); return;
    case 3: return socket.OnReceive(0);
    default: return socket.GetSocket() == INVALID_SOCKET ? Attach(socket, Any()) : Exchange(socket);
    }
}

void SocketHost::Replace(RandomSocket& socket)
{
    const auto is = [&](const std::unique_ptr<RandomSocket>& each) { return each.get() == &socket; };
    auto next = std::make_unique<RandomSocket>(*this);
    std::ranges::find_if(m_Sockets, is)->swap(next);
}

void SocketHost::Listen(RandomSocket& socket)
{
    socket.Close();
    socket.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0);
    CStringW address;
    socket.GetSockName(address, m_Port);
    listen(static_cast<int>(socket.GetSocket()), 8);
}

void SocketHost::Connect(RandomSocket& socket)
{
    if (OneIn(4))
        socket.Close();
    socket.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0);
    CloseWithReset(socket);
    socket.CTavroSocket::Connect(OneIn(64) ? L"localhost" : L"127.0.0.1", m_Port);
}

/// Gives two sockets the ends of a connection.
void SocketHost::Attach(RandomSocket& socket, RandomSocket& other)
{
    socket.Close();
    other.Close();
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    socket.CAsyncSocket::Attach(static_cast<SOCKET>(ends[0]), FD_ALL);
    if (OneIn(2))
        socket.CAsyncSocket::Attach(socket.Detach(), FD_ALL);
    if (!other.CAsyncSocket::Attach(static_cast<SOCKET>(ends[1]), FD_ALL)) // it is the same socket
        close(ends[1]);
}

void SocketHost::Exchange(RandomSocket& socket)
{
    constexpr unsigned kSizes[] = {0, 1, 10, 1000, 60000, 300000};
    CStringW address;
    UINT port = 0;
    if (OneIn(8) && Any().GetSockName(address, port))
        socket.SendTo("datagram", 8, port, address, 0);
    else if (socket.GetSendBufferSize() < 1000000)
        socket.Send(std::string(Pick(kSizes), 'x').c_str());
}

/// Whatever has happened to the socket, it can be used like a new one.
void SocketHost::ExpectWhole(RandomSocket& socket)
{
    socket.Close();
    delete[] socket.GetSendBuffer();
    socket.ClearSendBuffer();
    socket.ReleaseReceiveBuffer();
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const tavronet::PlainSocket peer(ends[1]);
    ASSERT_TRUE(socket.CAsyncSocket::Attach(static_cast<SOCKET>(ends[0]), FD_ALL));
    EXPECT_EQ(socket.Send("again"), 5);
    EXPECT_EQ(peer.Reads(5), "again");
    peer.Writes("answer");
    EXPECT_TRUE(tavronet::PumpUntil([&] { return socket.consumed == "answer"; })) << socket.consumed;
}

TEST(RandomHost, OfSocketsLeavesThemWholeOrGone)
{
    RunHosts<SocketHost>(80000);
}

} // namespace
