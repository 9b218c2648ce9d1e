// Many connections at once, both ends here: streams both ways, in pieces of any size, through small buffers of the
// system, with hosts that pause and fall behind; then an orderly end, or one that cuts in anywhere.
//
// By hand: TAVRONET_LOAD_CONNECTIONS=200 TAVRONET_LOAD_KIB=4096, and TAVRONET_LOAD_SEED.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tavronet/openssl/OpenSSLProvider.h"
#include "tavronet/platform/TestSeams.h"
#include "tavronet/platform/Wait.h"
#include "tests/openssl/Certificates.h"
#include "tests/socket/ScriptedProduct.h"

using tavronet::Certificate;
using tavronet::LifetimeGuard;
using Clock = std::chrono::steady_clock;

namespace
{

constexpr int kRound = 1000003; // bytes after which streams repeat themselves
constexpr int kLongestChunk = 65536;
constexpr int kMostQueued = 100000;
constexpr int kInClearBytes = 300; // at the end, when compression has ended and SSL mode is left
constexpr std::chrono::seconds kPatience(20);

struct Mode
{
    const char* name;
    bool zlib, tls, kills;
};

long Asked(const char* name, long otherwise)
{
    const char* const text = std::getenv(name);
    return text != nullptr ? std::atol(text) : otherwise;
}

class End;

enum class Phase
{
    Streams,
    LeavingSSL,
    InClear,
    Closing,
    Over
};

struct Connection
{
    std::array<std::unique_ptr<End>, 2> ends; // that connected, that was accepted
    Phase phase = Phase::Streams;
    long long fuse = LLONG_MAX; // what has still to happen before an end is killed
    bool killed = false;
    bool reset = false;
    bool closesEarly = false; // before the other end has read everything
    int closesBefore = 0;
};

class Load
{
public:
    explicit Load(const Mode& wanted) : mode(wanted)
    {
        for (std::size_t i = 0; i < m_Pool.size(); ++i) // runs of text, runs of noise
            m_Pool[i] = static_cast<unsigned char>(i / 20000 % 2 ? m_Generator() >> 8 : "stream"[Below(6)]);
        std::memcpy(m_Pool.data() + kRound, m_Pool.data(), kLongestChunk);
    }
    void Run();

    unsigned Below(long long limit) { return static_cast<unsigned>(m_Generator() % limit); }
    bool OneIn(unsigned count) { return Below(count) == 0; }
    /// What streams hold there, with kLongestChunk bytes behind it.
    unsigned char* At(long long position) { return m_Pool.data() + position % kRound; }
    /// Something has happened on the connection, which may kill one of its ends.
    void Burn(Connection& connection, long long weight);

    const Mode mode;
    const long connections = Asked("TAVRONET_LOAD_CONNECTIONS", 20);
    const long long bytes = Asked("TAVRONET_LOAD_KIB", 256) * 1024LL;
    const long seed = Asked("TAVRONET_LOAD_SEED", std::random_device()() % 1000000);
    long long progress = 0;

private:
    void Open(ScriptedProduct& listener);
    void Step(Connection& connection);
    void Finish(Connection& connection);

    std::minstd_rand m_Generator{static_cast<unsigned>(seed)};
    std::vector<unsigned char> m_Pool = std::vector<unsigned char>(kRound + kLongestChunk);
    std::vector<std::unique_ptr<Connection>> m_Connections;
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

/// One end: its host, which keeps book of the hooks that may still come.
class End : public ScriptedProductOf<ScriptedHooks>
{
public:
    End(Load& world, Connection& between, std::size_t side)
        : load(world), connection(between), mode(world.mode), server(side), m_SendsFrom(world.Below(kRound))
    {
        around = [this](const std::string& hook, bool after) { after ? FollowUp(hook) : Check(hook); };
        SetSocketOptionsScript = [this] { Narrow(*this); };
        ProcessReceiveScript = [this](unsigned char*& buffer, int& length) { return Read(buffer, length); };
        SetCompressionLevel(static_cast<int>(1 + load.Below(9)));
        if (mode.zlib && InitCompression(15))
            SetZlibType();
    }

    void Start(const End& peer)
    {
        m_ReceivesFrom = peer.m_SendsFrom;
        const auto file = [](bool used, const char* name) {
            return CStringW(used ? Certificate(name).c_str() : "");
        };
        SetSSLServer(server, true);
        SetSSLAcceptSuccessNotify(true);
        SetSSLHostName("tavronet.test");
        if (mode.tls)
            SetSSLMode(1, true, false, file(server, "server.pem"), file(server, "server.key"),
                       file(!server, "ca.pem"), "");
    }
    void TakeTurn()
    {
        const LifetimeGuard guard(*this);
        if (isOver || (connection.reset && m_SendsFrom % 2)) // here the host never looks at it again
            return;
        const unsigned processed = load.Below(12);
        PauseReceive(m_Received < m_Due && load.OneIn(3));
        for (unsigned i = processed; guard.Alive() && !isOver && i > 0; --i)
            PacketProcessed();
        if (guard.Alive())
            Feed();
    }
    void CloseHere()
    {
        const LifetimeGuard guard(*this);
        Close();
        if (guard.Alive())
            isOver = true;
    }

    /// Whether everything has gone out, the end of the compressed stream last.
    bool HasSent()
    {
        if (m_Sent < m_Due || GetSendBufferSize() > 0)
            return false;
        if (!UsingCompression() || m_EndedStream)
            return CanClose();
        const LifetimeGuard guard(*this);
        const bool ended = SendData(nullptr, 0, 0) == 0;
        if (guard.Alive())
            m_EndedStream = ended;
        return false; // the next turn sees
    }
    bool HasAllOf(const End& peer) const
    {
        return m_Received == m_Due && GetBytesInCompressed() == peer.GetBytesOutCompressed();
    }
    void ExpectWholeStreams()
    {
        EXPECT_EQ(GetBytesIn(), m_Due);
        EXPECT_EQ(GetBytesOut(), m_Due);
        EXPECT_EQ(GetSSL(), mode.tls);
        EXPECT_EQ(UsingCompression(), mode.zlib);
        if (!mode.zlib)
            return;
        unsigned char* output = load.At(0);
        int room = 1, result = 0;
        GetZLibCompression()->Decompress(nullptr, 0, &output, &room, &result);
        EXPECT_EQ(result, CZLibCompression::kStreamEnd); // and zlib's checksum was right
    }
    void GoOnInClear()
    {
        SetNotZlibType();
        m_Due += kInClearBytes;
    }
    int Calls(const std::string& hook) { return m_Calls[hook]; }
    /// Whether the host has been told that the connection is no more, or never was.
    bool IsCut() { return Calls("OnClose") > 0 || (Calls("OnConnect") > 0 && !GetConnected()); }

    Load& load;
    Connection& connection;
    const Mode mode;
    const bool server;
    bool isOver = false;

private:
    void Check(const std::string& hook)
    {
        const int calls = ++m_Calls[hook];
        const bool connected = server || m_Calls["OnConnect"] == 1;
        const bool secured = m_Calls["NotifySSLAcceptSuccess"] == 1;
        const bool left = m_Calls["NotifySSLConnectionShutdown"] == 1;
        const int mostCloses = mode.tls ? 2 : 1; // the session, the connection
        const std::map<std::string, bool> mayCome = {
            {"OnConnect", calls == 1 && !server && !isOver},
            {"OnReceive", connected && !isOver},
            {"OnSend", connected && !isOver},
            {"OnClose", connected && !isOver && calls <= mostCloses && (mode.kills || m_Received > 0)},
            {"ProcessReceive", (mode.tls ? secured && (left == (m_Received >= load.bytes)) : connected) &&
                                   (m_Calls["OnClose"] < mostCloses || InOnClose())},
            {"NotifySSLAcceptSuccess", mode.tls && calls == 1 && !left},
            {"NotifySSLConnectionShutdown", mode.tls && calls == 1},
            {"NotifySSLAcceptError", mode.tls && connection.killed && !secured && !left},
            {"NotifyInflateError", false},
        };
        const auto row = mayCome.find(hook);
        EXPECT_TRUE(row == mayCome.end() || row->second)
            << hook << (server ? " of a server after " : " of a client after ") << m_Received << " bytes in, "
            << m_Sent << " out, " << m_Calls["OnClose"] << " times closed";
        load.Burn(connection, 1);
    }
    void FollowUp(const std::string& hook)
    {
        const LifetimeGuard guard(*this);
        if (hook == "OnSend" || (hook == "ProcessReceive" && load.OneIn(4)))
            Feed();
        if (guard.Alive() && hook == "OnClose" && !isOver)
            StopSSLMode(); // it may be the session alone that was closed
        if (guard.Alive() && hook == "OnClose" && connection.killed && load.OneIn(2))
            load.OneIn(2) ? CloseHere() : connection.ends[server].reset();
        if (guard.Alive())
            load.Burn(connection, 1);
    }
    bool Read(unsigned char*& buffer, int& length)
    {
        EXPECT_LE(m_Received + length, m_Due);
        const bool isLast = m_Received + length == m_Due;
        const int taken = isLast || load.OneIn(2) ? length : static_cast<int>(load.Below(length + 1LL));
        for (int at = 0, same = 0; at < taken; at += same) {
            same = std::min(taken - at, kLongestChunk);
            EXPECT_EQ(std::memcmp(buffer + at, load.At(m_ReceivesFrom + m_Received + at),
                                  static_cast<std::size_t>(same)),
                      0)
                << "from byte " << m_Received + at;
        }
        buffer += taken;
        length -= taken;
        m_Received += taken;
        load.progress += taken;
        IncrementPendingPackets();
        load.Burn(connection, taken);
        return taken > 0;
    }
    /// Sends on, unless much waits.
    void Feed()
    {
        if (isOver || m_Sent == m_Due || GetSendBufferSize() > kMostQueued)
            return;
        const int longest = std::array{16, 4096, 4096, kLongestChunk}[load.Below(4)];
        const int length = static_cast<int>(std::min<long long>(1 + load.Below(longest), m_Due - m_Sent));
        unsigned char* const chunk = load.At(m_SendsFrom + m_Sent);
        m_Sent += length; // before hooks of this send send more
        const Connection& kept = connection;
        const int result = ScriptedProductOf::Send(chunk, length, 0);
        EXPECT_TRUE(result == length || kept.killed) << result << ", error " << WSAGetLastError();
    }

    std::map<std::string, int> m_Calls; // of each hook
    bool m_EndedStream = false;
    long long m_SendsFrom, m_ReceivesFrom = 0; // where the streams start
    long long m_Due = load.bytes;              // to be sent and received
    long long m_Sent = 0, m_Received = 0;
};

void Load::Burn(Connection& connection, long long weight)
{
    if (!mode.kills || connection.killed || (connection.fuse -= weight) > 0)
        return;
    connection.killed = true;
    std::unique_ptr<End>& victim = connection.ends[Below(2)];
    const auto handle = static_cast<int>(victim->GetSocket());
    if (OneIn(5)) {
        shutdown(handle, SHUT_WR);
        return;
    }
    const linger atOnce{1, 0};
    if ((connection.reset = OneIn(2)))
        setsockopt(handle, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    OneIn(2) ? victim->CloseHere() : victim.reset();
}

void Load::Open(ScriptedProduct& listener)
{
    Connection& connection = *m_Connections.emplace_back(std::make_unique<Connection>());
    for (std::size_t i = 0; i < 2; ++i)
        connection.ends[i] = std::make_unique<End>(*this, connection, i);
    auto& [client, server] = connection.ends;
    CStringW address;
    UINT port = 0;
    ASSERT_TRUE(listener.GetSockName(address, port));
    ASSERT_TRUE(client->Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0));
    client->Connect(address, port);
    ASSERT_TRUE(listener.Accept(*server)); // on loopback it is there by now
    client->Start(*server);
    server->Start(*client);
    connection.closesEarly = OneIn(4);
    connection.fuse = 1 + Below(OneIn(3) ? 100 : 2 * bytes);
}

/// A turn of the hosts of both ends.
void Load::Step(Connection& connection)
{
    for (std::unique_ptr<End>& end : connection.ends)
        if (end != nullptr && OneIn(4))
            end->TakeTurn();
    if (!connection.killed)
        return Finish(connection);

    bool over = true;
    for (std::unique_ptr<End>& end : connection.ends) {
        if (end != nullptr && end->IsCut() && OneIn(4))
            end.reset();
        over = over && (end == nullptr || end->isOver);
    }
    if (over)
        connection.phase = Phase::Over;
}

/// The orderly end, as far as it goes now.
void Load::Finish(Connection& connection)
{
    const std::size_t first = connection.fuse % 2; // any
    End &one = *connection.ends[first], &other = *connection.ends[1 - first];
    const bool sent = one.HasSent() && !connection.killed && other.HasSent();
    if (connection.killed)
        return;
    const bool ready = sent && one.HasAllOf(other) && (connection.closesEarly || other.HasAllOf(one));
    switch (connection.phase) {
    case Phase::Streams:
        if (!ready)
            return;
        if (mode.kills)
            return Burn(connection, connection.fuse);
        one.ExpectWholeStreams();
        if (!connection.closesEarly) {
            other.ExpectWholeStreams();
            one.StopSSLMode();
            if (OneIn(3))
                other.StopSSLMode();
        }
        connection.phase = connection.closesEarly ? Phase::InClear : Phase::LeavingSSL;
        return;
    case Phase::LeavingSSL:
        if (mode.tls &&
            one.Calls("NotifySSLConnectionShutdown") + other.Calls("NotifySSLConnectionShutdown") < 2)
            return;
        one.GoOnInClear();
        other.GoOnInClear();
        connection.phase = Phase::InClear;
        return;
    case Phase::InClear:
        if (!ready)
            return;
        connection.closesBefore = other.Calls("OnClose");
        one.CloseHere();
        connection.phase = Phase::Closing;
        return;
    case Phase::Closing:
        if (other.Calls("OnClose") == connection.closesBefore)
            return;
        EXPECT_TRUE(other.HasAllOf(one));
        connection.ends = {};
        connection.phase = Phase::Over;
        return;
    case Phase::Over: return;
    }
}

void Load::Run()
{
    ScriptedProduct listener;
    listener.SetSocketOptionsScript = [&listener] { Narrow(listener); };
    ASSERT_TRUE(listener.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0));
    ASSERT_TRUE(listener.Listen(64));
    for (long i = 0; i < connections && !testing::Test::HasFailure(); ++i)
        Open(listener);

    const Clock::time_point start = Clock::now();
    Clock::time_point last = start;
    long rounds = 0;
    for (std::size_t over = 0; over < m_Connections.size() && !testing::Test::HasFailure(); ++rounds) {
        const long long before = progress;
        over = 0;
        for (const std::unique_ptr<Connection>& connection : m_Connections) {
            if (connection->phase != Phase::Over)
                Step(*connection);
            over += connection->phase == Phase::Over;
        }
        if (!DispatchRound())
            MsgWaitForMultipleObjectsEx(0, nullptr, 1, kWakeOnAnyInput, 0);
        if (progress != before)
            last = Clock::now();
        ASSERT_LT(Clock::now() - last, kPatience) << "nothing moves after " << progress << " bytes";
    }
    const std::chrono::duration<double> taken = Clock::now() - start;
    std::printf("%ld connections, %lld KiB, %.1f s, %ld rounds\n", connections, progress / 1024,
                taken.count(), rounds);
}

long OpenDescriptors()
{
    using Entries = std::filesystem::directory_iterator;
    return std::distance(Entries("/proc/self/fd"), Entries());
}

class ManyConnections : public testing::TestWithParam<Mode>
{};

} // namespace

TEST_P(ManyConnections, EndAsTheyShould)
{
    const WithZLib zlib;
    CTavroProductSocket::Init(OpenSSLProvider());
    CurrentThreadQueue();
    const auto living = tavronet::CountLivingObjects();
    const long open = OpenDescriptors();
    {
        Load load(GetParam());
        SCOPED_TRACE("seed " + std::to_string(load.seed));
        std::printf("seed %ld\n", load.seed);
        std::fflush(stdout);
        load.Run();
    }
    EXPECT_EQ(tavronet::CountLivingObjects(), living);
    EXPECT_EQ(OpenDescriptors(), open);
}

INSTANTIATE_TEST_SUITE_P(, ManyConnections,
                         testing::Values(Mode{"Plain", false, false, false}, Mode{"Zlib", true, false, false},
                                         Mode{"TLS", false, true, false}, Mode{"ZlibTLS", true, true, false},
                                         Mode{"PlainKilled", false, false, true},
                                         Mode{"ZlibKilled", true, false, true},
                                         Mode{"TLSKilled", false, true, true},
                                         Mode{"ZlibTLSKilled", true, true, true}),
                         [](const auto& row) { return std::string(row.param.name); });
