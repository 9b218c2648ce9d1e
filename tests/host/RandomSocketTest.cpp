// Sockets on the loopback whose host does what it likes inside every hook and every message.

#include <sys/socket.h>

#include <functional>
#include <memory>
#include <type_traits>
#include <vector>

#include "RandomHost.h"
#include "tavronet/platform/ByteArray.h"
#include "tests/socket/ScriptedProduct.h"
#include "tests/socket/ToySSL.h"

namespace
{

/// The hooks that a simple host has; everything else takes the library's short roads.
template <typename Base>
class SimpleHooks : public Base
{
public:
    std::function<void(const std::string& hook, bool after)> around;
    std::function<bool(unsigned char*& buffer, int& length)> ProcessReceiveScript;

    using Base::ClearSendBuffer;
    using Base::GetSendBuffer;
    using Base::GetSendBufferSize;
    using Base::OnClose;
    using Base::OnReceive;
    using Base::OnSend;
    using Base::ReleaseReceiveBuffer;
    using Base::SetOkayToSend;
    using Base::TakeReceiveBuffer;

protected:
    bool ProcessReceive(unsigned char*& buffer, int& length) override
    {
        const tavronet::LifetimeGuard guard(*this);
        Around()("ProcessReceive", false);
        return guard.Alive() && ProcessReceiveScript(buffer, length);
    }
    void OnConnect(int error) override
    {
        const tavronet::LifetimeGuard guard(*this);
        Base::OnConnect(error);
        if (guard.Alive())
            Around()("OnConnect", true);
    }
    std::function<void(const std::string& hook, bool after)> Around() const { return around; }
};

class SimpleProduct : public SimpleHooks<CTavroProductSocket>
{
public:
    using CTavroProductSocket::GetPendingPackets;
    using CTavroProductSocket::IncrementPendingPackets;
    using CTavroProductSocket::InitCompression;
};

template <typename Hooks>
class SocketHost;

/// A socket that consumes, transforms and fails by chance.
template <typename Hooks>
class RandomSocket : public Hooks
{
public:
    using Host = SocketHost<Hooks>;
    static constexpr bool kProduct = std::is_base_of_v<CTavroProductSocket, Hooks>;
    using Base = std::conditional_t<kProduct, CTavroProductSocket, CTavroSocket>;

    explicit RandomSocket(Host& host) : m_Host(host)
    {
        this->around = [this](const std::string&, bool) { m_Host.Act(*this); };
        this->ProcessReceiveScript = [this](unsigned char*& buffer, int& length) {
            if (length < 100000 && m_Host.OneIn(4))
                return false;
            const int left = m_Host.OneIn(2) ? Part(length) : 0;
            consumed.assign(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length - left));
            buffer += length - left;
            length = left;
            return true;
        };
        if constexpr (requires { this->SendDataScript; })
            Script();
    }
    std::string consumed;

protected:
    void OnAccept(int) override
    {
        const tavronet::LifetimeGuard guard(*this);
        m_Host.Act(*this);
        if (!guard.Alive())
            return;
        RandomSocket& target = m_Host.Any();
        Host::InTurn(
            target, [&] { target.Close(); },
            [&] { return guard.Alive() && this->Accept(target) ? Host::CloseWithReset(target) : void(); });
    }

private:
    int Part(int length) { return static_cast<int>(m_Host.Below(static_cast<unsigned>(length))); }

    void Script()
    {
        this->OnReceivePreProcessResponseScript = [this](unsigned char*& buffer, int& fresh, int& held) {
            if (m_Host.OneIn(8))
                fresh -= Part(fresh);
            if (!m_Host.OneIn(8))
                return Base::OnReceivePreProcessResponse(buffer, fresh, held);
            unsigned char* const other = tavronet::NewByteArray(held + fresh + 1);
            std::copy_n(buffer, held + fresh, other);
            delete[] std::exchange(buffer, other);
        };
        this->SendDataScript = [this](unsigned char* data, int length, int flags) {
            if (m_Host.OneIn(16)) {
                const tavronet::ByteBuffer taken = this->TakeSendChunk();
                return length;
            }
            const int part = m_Host.OneIn(4) ? Part(length) : length;
            return m_Host.OneIn(16) ? Answer{-1, WSAEWOULDBLOCK}.Give() : Base::SendData(data, part, flags);
        };
        this->ReceiveDataScript = [this](unsigned char* data, int length, int flags) {
            const int errors[] = {0, WSAEWOULDBLOCK, WSAECONNABORTED, WSAECONNRESET};
            return m_Host.OneIn(16) ? Answer{-1, m_Host.Pick(errors)}.Give()
                                    : Base::ReceiveData(data, length, flags);
        };
        this->OkayToReceiveScript = [this] { return !m_Host.OneIn(16) && Base::OkayToReceive(); };
        this->OkayToSendScript = [this] { return !m_Host.OneIn(16) && Base::OkayToSend(); };
        this->OnReceivePreReadScript = [this] { return !m_Host.OneIn(16); };
        this->OnReceiveNoDataContinueScript = [this](int) { return m_Host.OneIn(4); };
    }

    Host& m_Host;
};

template <typename Hooks>
class SocketHost : public RandomHost
{
public:
    using Socket = RandomSocket<Hooks>;

    explicit SocketHost(unsigned seed) : RandomHost(seed)
    {
        m_Toy.fault = [this](int, const std::string& entry) {
            const int faults[] = {kSSLErrorWantRead, kSSLErrorWantWrite, kSSLErrorSyscall, kSSLErrorFatal};
            return OneIn(64) ? Pick(faults) : entry == "shake" && OneIn(32) ? ToySSL::kRetry : 0;
        };
        for (std::unique_ptr<Socket>& socket : m_Sockets)
            socket = std::make_unique<Socket>(*this);
    }
    ~SocketHost()
    {
        for (std::unique_ptr<Socket>& socket : m_Sockets)
            socket.reset();
        EXPECT_EQ(m_Toy.alive, 0) << "contexts and sessions";
    }

    void Run()
    {
        TakeSteps(1000, [this] { Act(Any()); });
        for (const std::unique_ptr<Socket>& socket : m_Sockets)
            ExpectWhole(*socket);
    }

    Socket& Any() { return *Pick(m_Sockets); }
    void Act(Socket& self)
    {
        Perhaps([&] { Do(OneIn(2) ? self : Any()); });
    }
    /// Makes the calls, until one of them leads to the socket's end.
    template <typename... Calls>
    static void InTurn(Socket& socket, Calls... calls)
    {
        const tavronet::LifetimeGuard alive(socket);
        static_cast<void>((... && (alive.Alive() && (calls(), true))));
    }
    static void CloseWithReset(Socket& socket) // so that millions of connections do not use up the ports
    {
        const linger atOnce{1, 0};
        setsockopt(static_cast<int>(socket.GetSocket()), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    }

private:
    void Do(Socket& socket);
    void DoWithProduct(Socket& socket);
    void AttachSSL(Socket& socket, Socket& other);
    void EnterSSL(Socket& socket, bool server);
    void Replace(Socket& socket);
    void Listen(Socket& socket);
    void Connect(Socket& socket);
    void Attach(Socket& socket, Socket& other);
    void Datagrams(Socket& socket);
    void Exchange(Socket& socket);
    void ExpectWhole(Socket& socket);

    ToySSL m_Toy;
    std::unique_ptr<Socket> m_Sockets[6]; // never null
    UINT m_Port = 0;
};

// --- What the host does

template <typename Hooks>
void SocketHost<Hooks>::Do(Socket& socket)
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
    case 3: return Datagrams(socket);
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
    case 14: return socket.SetOnReceivePeekBufferSize(Below(22500));
    case 15: return socket.OnSend(0);
    case 16: return PostThreadCall(CurrentThreadQueue(), act, this);
    }
    if constexpr (Socket::kProduct)
        if (OneIn(4))
            return DoWithProduct(socket);
    switch (Below(8)) {
    case 0: return PumpOrThrow();
    case 1: return Connect(socket);
    case 2: socket.AsyncSelect(); return;
    case 3: return socket.OnReceive(0);
    default:
        if (socket.GetSocket() != INVALID_SOCKET)
            return Exchange(socket);
        if constexpr (Socket::kProduct)
            if (OneIn(2))
                return AttachSSL(socket, Any());
        return Attach(socket, Any());
    }
}

template <typename Hooks>
void SocketHost<Hooks>::Replace(Socket& socket)
{
    const auto is = [&](const std::unique_ptr<Socket>& each) { return each.get() == &socket; };
    auto next = std::make_unique<Socket>(*this);
    std::ranges::find_if(m_Sockets, is)->swap(next);
}

template <typename Hooks>
void SocketHost<Hooks>::Listen(Socket& socket)
{
    InTurn(
        socket, [&] { socket.Close(); }, [&] { socket.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0); },
        [&] {
            CStringW address;
            socket.GetSockName(address, m_Port);
            listen(static_cast<int>(socket.GetSocket()), 8);
        });
}

template <typename Hooks>
void SocketHost<Hooks>::Connect(Socket& socket)
{
    const wchar_t* const host = OneIn(64) ? L"localhost" : L"127.0.0.1";
    InTurn(
        socket, [&] { return OneIn(4) ? socket.Close() : void(); },
        [&] { socket.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0); }, [&] { CloseWithReset(socket); },
        [&] { socket.CTavroSocket::Connect(host, m_Port); });
}

/// Gives two sockets the ends of a connection.
template <typename Hooks>
void SocketHost<Hooks>::Attach(Socket& socket, Socket& other)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    struct Closing
    {
        int& end; // -1 when given away
        ~Closing() { close(end); }
    } const closing[] = {{ends[0]}, {ends[1]}};
    const auto attach = [](Socket& to, int end) {
        if (!to.CAsyncSocket::Attach(static_cast<SOCKET>(end), FD_ALL)) // it has a handle already
            close(end);
    };
    const tavronet::LifetimeGuard otherAlive(other);
    InTurn(
        socket, [&] { socket.Close(); }, [&] { attach(socket, std::exchange(ends[0], -1)); },
        [&] { return OneIn(2) ? attach(socket, static_cast<int>(socket.Detach())) : void(); });
    if (otherAlive.Alive())
        InTurn(
            other, [&] { other.Close(); }, [&] { attach(other, std::exchange(ends[1], -1)); });
}

template <typename Hooks>
void SocketHost<Hooks>::DoWithProduct(Socket& socket)
{
    switch (Below(12)) {
    case 0: return socket.PauseReceive(OneIn(2));
    case 1: return socket.IncrementPendingPackets();
    case 2: return socket.SetDeleteWhenDone(OneIn(2));
    case 3: socket.CanClose(); return;
    case 4: return socket.SetNotZlibType();
    case 5: socket.SetZlibType(); return static_cast<void>(socket.InitCompression(15));
    case 6: return socket.StopSSLMode();
    case 7: return socket.SetOkayToCloseDuringSSLShutdown(OneIn(2));
    case 8: return EnterSSL(socket, OneIn(2));
    case 9: return AttachSSL(socket, Any());
    default: socket.PacketProcessed();
    }
}

template <typename Hooks>
void SocketHost<Hooks>::AttachSSL(Socket& socket, Socket& other)
{
    const tavronet::LifetimeGuard otherAlive(other);
    InTurn(
        socket, [&] { Attach(socket, other); },
        [&] { return otherAlive.Alive() ? EnterSSL(other, false) : void(); },
        [&] { EnterSSL(socket, true); });
}

template <typename Hooks>
void SocketHost<Hooks>::EnterSSL(Socket& socket, bool server)
{
    socket.SetSSLServer(server, false);
    socket.SetSSLAcceptSuccessNotify(OneIn(2));
    socket.SetSSLMode(OneIn(8) ? 0 : 1 + Below(2), true, false, L"", L"", L"", "");
}

template <typename Hooks>
void SocketHost<Hooks>::Datagrams(Socket& socket)
{
    InTurn(
        socket, [&] { socket.Close(); }, [&] { socket.Create(0, SOCK_DGRAM, FD_ALL, L"127.0.0.1", 0); });
}

template <typename Hooks>
void SocketHost<Hooks>::Exchange(Socket& socket)
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
template <typename Hooks>
void SocketHost<Hooks>::ExpectWhole(Socket& socket)
{
    socket.Close();
    delete[] socket.GetSendBuffer();
    socket.ClearSendBuffer();
    socket.ReleaseReceiveBuffer();
    if constexpr (Socket::kProduct) {
        socket.PauseReceive(false);
        socket.SetNotZlibType();
        while (socket.GetPendingPackets() > 0)
            socket.PacketProcessed();
    }
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const tavronet::PlainSocket peer(ends[1]);
    ASSERT_TRUE(socket.Attach(static_cast<SOCKET>(ends[0]), FD_ALL));
    EXPECT_EQ(socket.Send("again"), 5);
    EXPECT_EQ(peer.Reads(5), "again");
    peer.Writes("answer");
    EXPECT_TRUE(tavronet::PumpUntil([&] { return socket.consumed == "answer"; })) << socket.consumed;
}

template <typename Hooks>
class RandomHostOf : public testing::Test
{
    const WithZLib zlib;
};
using Kinds = testing::Types<ScriptedSocket, ScriptedProduct, SimpleHooks<CTavroSocket>, SimpleProduct>;
TYPED_TEST_SUITE(RandomHostOf, Kinds);

TYPED_TEST(RandomHostOf, SocketsLeavesThemWholeOrGone)
{
    RunHosts<SocketHost<TypeParam>>(22500);
}

} // namespace
