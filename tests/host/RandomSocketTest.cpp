// Sockets on the loopback whose host does what it likes inside every hook and every message.

#include <algorithm>

#include "RandomHost.h"
#include "tavronet/platform/ByteArray.h"
#include "tests/socket/ScriptedProduct.h"
#include "tests/socket/ToySSL.h"

namespace
{

using tavronet::LifetimeGuard;

/// The host of connections derived from `Hooks`: the class that can tell of all its hooks, or the library's own, for
/// the fewest hooks: those take the library's short roads.
template <typename Hooks>
class SocketHost : public RandomHost
{
public:
    explicit SocketHost(unsigned seed) : RandomHost(seed)
    {
        m_Toy.fault = [this](int, const std::string& entry) {
            const int faults[] = {kSSLErrorWantRead, kSSLErrorWantWrite, kSSLErrorSyscall, kSSLErrorFatal};
            return OneIn(64) ? Pick(faults) : entry == "shake" && OneIn(32) ? ToySSL::kRetry : 0;
        };
        for (auto& socket : m_Sockets)
            socket = std::make_unique<Socket>(*this);
    }
    ~SocketHost() override
    {
        for (auto& socket : m_Sockets)
            socket.reset();
        EXPECT_EQ(m_Toy.alive, 0) << "contexts and sessions";
    }

private:
    using Base = CTavroProductSocket;

    /// Consumes, transforms and fails by chance.
    struct Socket : Hooks
    {
        friend SocketHost; // calls everything

        explicit Socket(SocketHost& owner) : host(owner)
        {
            if constexpr (requires { this->around; })
                Script();
        }
        bool ProcessReceive(unsigned char*& buffer, int& length) override
        {
            const LifetimeGuard guard(*this);
            host.ActOn(*this);
            if (!guard.Alive() || (length < 100000 && host.OneIn(4)))
                return false;
            const int left = host.OneIn(2) ? Part(length) : 0;
            consumed = ScriptedSocket::Text(buffer, length - left);
            buffer += length - left;
            length = left;
            return true;
        }
        void OnAccept(int) override
        {
            const LifetimeGuard guard(*this);
            host.ActOn(*this);
            if (!guard.Alive())
                return;
            Socket& target = host.Any();
            const LifetimeGuard targetAlive(target);
            target.Close();
            if (guard.Alive() && targetAlive.Alive())
                this->Accept(target);
        }
        void Script()
        {
            this->around = [this](const std::string&, bool) { host.ActOn(*this); };
            this->OnReceivePreProcessResponseScript = [this](unsigned char*& buffer, int& fresh, int& held) {
                if (host.OneIn(8))
                    fresh -= Part(fresh);
                if (!host.OneIn(8))
                    return Base::OnReceivePreProcessResponse(buffer, fresh, held);
                unsigned char* const other = tavronet::NewByteArray(held + fresh + 1);
                std::copy_n(buffer, held + fresh, other);
                delete[] std::exchange(buffer, other);
            };
            this->SendDataScript = [this](unsigned char* data, int length, int flags) {
                if (host.OneIn(16))
                    return Answer{-1, WSAEWOULDBLOCK}.Give();
                const bool taken = host.OneIn(16) && this->TakeSendChunk().Holds();
                return taken ? length : Base::SendData(data, host.OneIn(4) ? Part(length) : length, flags);
            };
            this->ReceiveDataScript = [this](unsigned char* data, int length, int flags) {
                const int errors[] = {0, WSAEWOULDBLOCK, WSAECONNABORTED, WSAECONNRESET};
                return host.OneIn(16) ? Answer{-1, host.Pick(errors)}.Give()
                                      : Base::ReceiveData(data, length, flags);
            };
            this->OkayToReceiveScript = [this] { return !host.OneIn(16) && Base::OkayToReceive(); };
            this->OkayToSendScript = [this] { return !host.OneIn(16) && Base::OkayToSend(); };
            this->OnReceivePreReadScript = [this] { return !host.OneIn(16); };
            this->OnReceiveNoDataContinueScript = [this](int) { return host.OneIn(4); };
        }
        int Part(int length) { return static_cast<int>(host.Below(static_cast<unsigned>(length))); }

        SocketHost& host;
        std::string consumed;
        bool secure = false; // has been in SSL mode
    };

    Socket& Any() { return *Pick(m_Sockets); }
    void Act() override { ActOn(Any()); }
    void ActOn(Socket& self)
    {
        Perhaps([&] { Do(OneIn(2) ? self : Any()); });
    }
    void Do(Socket& socket)
    {
        using enum tavronet::FaultPoint;
        const tavronet::FaultPoint points[] = {Send, Receive, SendTo};
        const int errors[] = {WSAEWOULDBLOCK, WSAECONNABORTED, WSAECONNRESET, WSAENOBUFS};
        const int few = static_cast<int>(Below(3));
        const auto act = [](void* raw) { static_cast<SocketHost*>(raw)->Act(); };
        switch (Below(80)) { // mostly what keeps connections alive
        case 0: return Replace(socket);
        case 1:
        case 2: return socket.Close();
        case 3: socket.CAsyncSocket::Attach(socket.Detach(), FD_ALL); return; // another life of the handle
        case 4: return socket.SetOkayToSend(OneIn(2));
        case 5: socket.AsyncSelect(static_cast<LONG>(Below(FD_ALL + 1))); return;
        case 6: shutdown(static_cast<int>(socket.GetSocket()), SHUT_WR); return;
        case 7: return InjectFault(Pick(points), socket.GetSocket(), Pick(errors), few);
        case 8: return socket.OnClose(0);
        case 9: return socket.ReleaseReceiveBuffer();
        case 10: socket.TakeReceiveBuffer(); return;
        case 11: delete[] socket.GetSendBuffer(); return socket.ClearSendBuffer();
        case 12: return socket.RequestRead();
        case 13: return socket.SetOnReceivePeekBufferSize(Below(22500));
        case 14: return socket.OnSend(0);
        case 15: return PostThreadCall(CurrentThreadQueue(), act, this);
        case 16: return socket.PauseReceive(OneIn(2));
        case 17: return socket.IncrementPendingPackets();
        case 18: return socket.SetDeleteWhenDone(OneIn(2));
        case 19: socket.CanClose(); return;
        case 20: return socket.SetNotZlibType();
        case 21: socket.SetZlibType(); return static_cast<void>(socket.InitCompression(15));
        case 22: return socket.StopSSLMode();
        case 23: return socket.SetOkayToCloseDuringSSLShutdown(OneIn(2));
        case 24: return EnterSSL(socket, OneIn(2));
        }
        switch (Below(9)) {
        case 0: return PumpOrThrow();
        case 1: return Open(socket);
        case 2: socket.AsyncSelect(); return;
        case 3: return socket.OnReceive(0);
        case 4: return socket.PacketProcessed();
        default:
            if (socket.GetSocket() != INVALID_SOCKET)
                return Exchange(socket);
            return OneIn(3) ? Open(socket) : Attach(socket);
        }
    }
    void Replace(Socket& socket)
    {
        const auto is = [&](const auto& each) { return each.get() == &socket; };
        auto next = std::make_unique<Socket>(*this);
        std::ranges::find_if(m_Sockets, is)->swap(next);
    }
    /// A step on the way to a connection over TCP.
    void Open(Socket& socket)
    {
        const int handle = static_cast<int>(socket.GetSocket());
        const linger reset{1, 0}; // so that millions of connections do not use up the ports
        CStringW address;
        if (handle < 0)
            socket.Create(0, OneIn(8) ? SOCK_DGRAM : SOCK_STREAM, FD_ALL, L"127.0.0.1", 0);
        else if (OneIn(2) && listen(handle, 8) == 0)
            socket.GetSockName(address, m_Port);
        else if (setsockopt(handle, SOL_SOCKET, SO_LINGER, &reset, sizeof reset) == 0)
            socket.CTavroSocket::Connect(OneIn(64) ? L"localhost" : L"127.0.0.1", m_Port);
    }
    /// Gives a socket one end of a connection, and perhaps of a session on it; the next socket gets the other end.
    void Attach(Socket& socket)
    {
        const bool first = m_Ends.empty();
        int ends[2];
        if (first) {
            ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
            m_Ends.emplace_back(ends[0]);
            m_Ends.emplace_back(ends[1]);
            m_WithSSL = !OneIn(3);
        }
        if (socket.CAsyncSocket::Attach(m_Ends.back().Handle(), FD_ALL))
            static_cast<void>(m_Ends.back().Releases());
        m_Ends.pop_back();
        socket.secure = false;
        if (m_WithSSL)
            EnterSSL(socket, first);
    }
    void EnterSSL(Socket& socket, bool server)
    {
        socket.secure = true;
        socket.SetSSLServer(server, false);
        socket.SetSSLAcceptSuccessNotify(OneIn(2));
        socket.SetSSLMode(OneIn(8) ? 0 : 1 + Below(2), true, false, L"", L"", L"", "");
    }
    void Exchange(Socket& socket)
    {
        constexpr unsigned kSizes[] = {0, 1, 10, 1000, 60000, 300000};
        CStringW address;
        UINT port = 0;
        if (OneIn(8) && Any().GetSockName(address, port))
            socket.SendTo("datagram", 8, port, address, 0);
        else if (socket.GetSendBufferSize() < 1000000)
            socket.Send(std::string(Pick(kSizes) / (socket.secure ? 30 : 1), 'x').c_str()); // the toy is slow
    }

    /// Whatever has happened to a socket, it can be used like a new one.
    void ExpectWhole() override
    {
        for (const auto& socket : m_Sockets) {
            socket->Close();
            delete[] socket->GetSendBuffer();
            socket->ClearSendBuffer();
            socket->ReleaseReceiveBuffer();
            socket->PauseReceive(false);
            socket->SetNotZlibType();
            while (socket->GetPendingPackets() > 0)
                socket->PacketProcessed();
            int ends[2];
            ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
            const tavronet::PlainSocket peer(ends[1]);
            ASSERT_TRUE(socket->Attach(static_cast<SOCKET>(ends[0]), FD_ALL));
            EXPECT_EQ(socket->Send("again"), 5);
            EXPECT_EQ(peer.Reads(5), "again");
            peer.Writes("answer");
            EXPECT_TRUE(tavronet::PumpUntil([&] { return socket->consumed == "answer"; }))
                << socket->consumed;
        }
    }

    const WithZLib m_ZLib;
    ToySSL m_Toy;
    std::unique_ptr<Socket> m_Sockets[6];      // never null
    std::vector<tavronet::PlainSocket> m_Ends; // of a connection, not given to sockets yet
    bool m_WithSSL = false;
    UINT m_Port = 0; // of a listener
};

TEST(RandomHostOf, ConnectionsLeavesThemWholeOrGone)
{
    RunHosts<SocketHost<ScriptedProduct>>(50000, 1000);
    RunHosts<SocketHost<CTavroProductSocket>>(50000, 1000);
}

} // namespace
