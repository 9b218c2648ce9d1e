// Many connections at once, both ends here: streams both ways, in pieces of any size, through small buffers of the
// system, with hosts that pause and fall behind; then an orderly end, or one that cuts in anywhere.
//
// By hand: TAVRONET_LOAD_CONNECTIONS=200 TAVRONET_LOAD_KIB=4096, and TAVRONET_LOAD_SEED.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <list>
#include <map>
#include <random>

#include "tavronet/openssl/OpenSSLProvider.h"
#include "tavronet/platform/TestSeams.h"
#include "tavronet/platform/Wait.h"
#include "tests/openssl/Certificates.h"
#include "tests/socket/ScriptedProduct.h"

namespace
{

long Asked(const char* name, long otherwise)
{
    const char* const text = std::getenv(name);
    return text != nullptr ? std::atol(text) : otherwise;
}

/// What all connections share.
struct Load
{
    explicit Load(const std::string& mode)
        : zlib(mode.find("Zlib") == 0),
          tls(mode.find("TLS") != std::string::npos),
          kills(mode.ends_with("Killed"))
    {
        for (std::size_t i = 0; i < bytes.size(); ++i) // runs of text, runs of noise
            bytes[i] = static_cast<unsigned char>(i / 20000 % 2 ? generator() >> 8 : "stream"[Below(6)]);
    }
    unsigned Below(long long limit) { return static_cast<unsigned>(generator() % limit); }
    bool OneIn(unsigned count) { return Below(count) == 0; }

    static constexpr int kStarts = 100000; // where a stream may begin
    const bool zlib, tls, kills;
    const long seed = Asked("TAVRONET_LOAD_SEED", std::random_device()() % 1000000);
    const long long due = Asked("TAVRONET_LOAD_KIB", 256) * 1024LL; // to be sent and received by each end
    std::minstd_rand generator{static_cast<unsigned>(seed)};
    std::string bytes = std::string(static_cast<std::size_t>(due + kStarts), ' ');
};

/// Has a socket, and what it accepts, would-block at every turn.
void Narrow(const CTavroProductSocket& socket)
{
    const auto set = [&socket](int level, int option, int value) {
        setsockopt(static_cast<int>(socket.GetSocket()), level, option, &value, sizeof value);
    };
    set(SOL_SOCKET, SO_SNDBUF, 4096);
    set(SOL_SOCKET, SO_RCVBUF, 4096);
    set(IPPROTO_TCP, TCP_MAXSEG, 1024); // so that a small window holds several
    set(IPPROTO_TCP, TCP_NODELAY, 1);
}

/// One end and its host, which keeps book of the hooks that may still come.
class End : public ScriptedProductOf<ScriptedHooks>
{
public:
    End(Load& world, bool accepts)
        : server(accepts), load(world), m_Sends(&load.bytes[load.Below(load.kStarts)])
    {
        around = [this](const std::string& hook, bool after) { after ? FollowUp(hook) : Check(hook); };
        SetSocketOptionsScript = [this] { Narrow(*this); };
        ProcessReceiveScript = [this](unsigned char*& buffer, int& length) { return Read(buffer, length); };
        SetCompressionLevel(static_cast<int>(1 + load.Below(9)));
        if (load.zlib && InitCompression(15))
            SetZlibType();
    }
    void Start(const End& peer)
    {
        m_Receives = peer.m_Sends;
        SetSSLServer(server, server);
        SetSSLAcceptSuccessNotify(true);
        const auto file = [](const char* name) { return CStringW(tavronet::Certificate(name).c_str()); };
        if (load.tls)
            SetSSLMode(1, true, false, file("server.pem"), file("server.key"), L"", "");
    }
    void TakeTurn()
    {
        PauseReceive(m_Received < load.due && load.OneIn(3));
        for (unsigned left = load.Below(12); left > 0; --left)
            PacketProcessed();
        Feed();
    }
    bool HasSent() { return m_Sent == load.due && CanClose(); }
    bool HasAllOf(const End& peer) const
    {
        return m_Received == load.due && GetBytesInCompressed() == peer.GetBytesOutCompressed();
    }
    /// Whether the host has been told that the connection is no more, or never was.
    bool IsCut() { return m_Calls["OnClose"] > 0 || (m_Calls["OnConnect"] > 0 && !GetConnected()); }

    const bool server;
    bool killed = false; // the connection

private:
    void Check(const std::string& hook)
    {
        const bool first = ++m_Calls[hook] == 1;
        const bool secured = m_Calls["NotifySSLAcceptSuccess"] == 1,
                   left = m_Calls["NotifySSLConnectionShutdown"] == 1;
        const std::map<std::string, bool> mayCome = {
            {"OnConnect", first && !server},
            {"OnClose", first || (load.tls && m_Calls[hook] == 2)}, // the session, the connection
            {"ProcessReceive", (server || m_Calls["OnConnect"] == 1) && secured == load.tls && !left},
            {"NotifySSLAcceptSuccess", first && load.tls && !left},
            {"NotifySSLConnectionShutdown", first && load.tls},
            {"NotifySSLAcceptError", killed && load.tls && !secured && !left},
            {"NotifyInflateError", false},
        };
        EXPECT_TRUE(!mayCome.contains(hook) || mayCome.at(hook))
            << hook << " after " << m_Received << " bytes in, " << m_Sent << " out";
    }
    void FollowUp(const std::string& hook)
    {
        const bool isMidway =
            hook == "ProcessReceive" || hook == "BytesOutCompressed"; // nested in another send
        if (hook == "OnSend" || (isMidway && load.OneIn(4)))
            Feed();
        if (hook == "OnClose")
            StopSSLMode(); // it may be the session alone that was closed
    }
    bool Read(unsigned char*& buffer, int& length)
    {
        const bool isLast = m_Received + length >= load.due;
        const int taken = isLast || load.OneIn(2) ? length : static_cast<int>(load.Below(length + 1LL));
        EXPECT_LE(m_Received + length, load.due);
        EXPECT_EQ(std::memcmp(buffer, m_Receives + m_Received, static_cast<std::size_t>(taken)), 0)
            << "behind byte " << m_Received;
        buffer += taken;
        length -= taken;
        m_Received += taken;
        IncrementPendingPackets();
        return taken > 0;
    }
    /// Sends on, unless much waits or the connection is no more: half of it may live, and the session has been left.
    void Feed()
    {
        constexpr int kMostQueued = 100000;
        if (m_Sent == load.due || GetSendBufferSize() > kMostQueued || (killed && IsCut()))
            return;
        const int longest = load.OneIn(4) ? 16 : load.OneIn(3) ? 65536 : 4096;
        const int length = static_cast<int>(std::min<long long>(1 + load.Below(longest), load.due - m_Sent));
        auto* const chunk = reinterpret_cast<unsigned char*>(m_Sends + m_Sent);
        m_Sent += length; // before hooks of this send send more
        const int result = ScriptedProductOf::Send(chunk, length, 0);
        EXPECT_TRUE(result == length || killed) << result << ", error " << WSAGetLastError();
    }

    Load& load;
    char *m_Sends, *m_Receives = nullptr; // the streams
    long long m_Sent = 0, m_Received = 0;
    std::map<std::string, int> m_Calls; // of each hook
};

/// A connection of two ends, of which one closes, or is killed at any time.
class Connection
{
public:
    Connection(Load& world, ScriptedProduct& listener) : load(world)
    {
        CStringW address;
        UINT port = 0;
        EXPECT_TRUE(listener.GetSockName(address, port));
        EXPECT_TRUE(m_Ends[0]->Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0));
        m_Ends[0]->Connect(address, port);
        EXPECT_TRUE(listener.Accept(*m_Ends[1])); // on loopback it is there by now
        m_Ends[0]->Start(*m_Ends[1]);
        m_Ends[1]->Start(*m_Ends[0]);
    }

    /// A turn of both hosts. @return whether it has come to its end.
    bool Step()
    {
        if (m_Killed)
            return HasDied();
        for (const std::unique_ptr<End>& end : m_Ends) {
            if (end->GetSocket() != INVALID_SOCKET && load.OneIn(4))
                end->TakeTurn();
        }
        End &closing = *m_Ends[m_First], &other = *m_Ends[1 - m_First];
        const bool isClosed = closing.GetSocket() == INVALID_SOCKET;
        const bool ends = !isClosed && closing.HasSent() && other.HasSent() && closing.HasAllOf(other);
        if (load.kills && (ends || load.OneIn(m_Odds)))
            Kill();
        else if (ends) // while the other may still be behind
            closing.Close();
        if (!isClosed || !other.IsCut())
            return false;
        EXPECT_TRUE(other.HasAllOf(closing));
        return true;
    }

private:
    void Kill()
    {
        m_Killed = m_Ends[0]->killed = m_Ends[1]->killed = true;
        std::unique_ptr<End>& victim = m_Ends[m_First];
        const auto handle = static_cast<int>(victim->GetSocket());
        if (load.OneIn(4)) {
            shutdown(handle, SHUT_WR); // and the other end closes
            return;
        }
        const linger atOnce{1, 0};
        if ((m_Reset = load.OneIn(2)))
            setsockopt(handle, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        victim.reset();
    }
    bool HasDied()
    {
        for (std::unique_ptr<End>& end : m_Ends) {
            if (end != nullptr && end->IsCut() && load.OneIn(4))
                end.reset();
            else if (end != nullptr && !m_Reset &&
                     load.OneIn(4)) // otherwise its host never looks at it again
                end->TakeTurn();
        }
        return m_Ends[0] == nullptr && m_Ends[1] == nullptr;
    }

    Load& load;
    std::unique_ptr<End> m_Ends[2] = {std::make_unique<End>(load, false), std::make_unique<End>(load, true)};
    const std::size_t m_First = load.Below(2);
    const unsigned m_Odds = 1 + load.Below(200);
    bool m_Killed = false, m_Reset = false;
};

long OpenDescriptors()
{
    using Entries = std::filesystem::directory_iterator;
    return std::distance(Entries("/proc/self/fd"), Entries());
}

class ManyConnections : public testing::TestWithParam<const char*>
{};

TEST_P(ManyConnections, EndAsTheyShould)
{
    const WithZLib zlib;
    CTavroProductSocket::Init(OpenSSLProvider());
    CurrentThreadQueue();
    const auto living = tavronet::CountLivingObjects();
    const long open = OpenDescriptors();
    {
        Load load(GetParam());
        std::printf("TAVRONET_LOAD_SEED=%ld\n", load.seed);
        std::fflush(stdout);
        ScriptedProduct listener;
        listener.SetSocketOptionsScript = [&listener] { Narrow(listener); };
        ASSERT_TRUE(listener.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0));
        ASSERT_TRUE(listener.Listen(64));
        std::list<Connection> connections;
        for (long left = Asked("TAVRONET_LOAD_CONNECTIONS", 20); left > 0; --left)
            connections.emplace_back(load, listener);
        while (!connections.empty() && !HasFailure()) {
            connections.remove_if([](Connection& connection) { return connection.Step(); });
            if (!DispatchRound())
                MsgWaitForMultipleObjectsEx(0, nullptr, 1, kWakeOnAnyInput, 0);
        }
    }
    EXPECT_EQ(tavronet::CountLivingObjects(), living);
    EXPECT_EQ(OpenDescriptors(), open);
}

INSTANTIATE_TEST_SUITE_P(, ManyConnections,
                         testing::Values("Plain", "Zlib", "TLS", "ZlibTLS", "PlainKilled", "ZlibKilled",
                                         "TLSKilled", "ZlibTLSKilled"),
                         [](const auto& row) { return std::string(row.param); });

} // namespace
