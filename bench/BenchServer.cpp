// A server for load generators on the class TAVRONET_BENCH_SOCKET, five ways to treat a connection. See README.md.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tavronet/openssl/OpenSSLProvider.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/socket/TavroProductSocket.h"
#include "tavronet/socket/TavroSocket.h"

namespace
{

enum class Mode
{
    Echo,
    Sink,
    Source,
    Queue,
    Hold
};

struct Options
{
    int port = 0;
    Mode mode = Mode::Echo;
    long long bytes = 0;
    int chunk = 65536;
    int count = 100000;
    int size = 100;
    int sendBufferBytes = 0; // 0: the system's default
    int receiveBufferBytes = 0;
    CStringW certificate, key; // PEM files; with them a CTavroProductSocket enters SSL mode
};

Options g_Options;
std::vector<unsigned char> g_Chunk; // what a source sends, again and again

using Base = TAVRONET_BENCH_SOCKET;

class Connection : public Base
{
public:
    void SetOptions()
    {
        SetOption(IPPROTO_TCP, TCP_NODELAY, 1);
        if (g_Options.sendBufferBytes != 0)
            SetOption(SOL_SOCKET, SO_SNDBUF, g_Options.sendBufferBytes);
        EnterSSLMode(*this);
    }

protected:
    bool ProcessReceive(unsigned char*& buffer, int& length) override
    {
        const int received = length;
        length = 0;
        switch (g_Options.mode) {
        case Mode::Echo: Send(buffer, received, 0); break;
        case Mode::Sink: CountDown(received); break;
        case Mode::Source: StartSource(); break;
        case Mode::Queue: QueueOrEcho(buffer, received); break;
        case Mode::Hold: return Hold(received, length);
        }
        return true;
    }

    void SetOkayToSend(bool allowed) override
    {
        Base::SetOkayToSend(allowed);
        if (allowed && m_SourceLeft > 0)
            SendSource();
    }

    void OnSend(int error) override
    {
        const tavronet::LifetimeGuard guard(*this);
        Base::OnSend(error);
        if (guard.Alive() && m_AllGiven && GetSendBufferSize() == 0)
            delete this;
    }

    void OnClose(int) override { delete this; }

private:
    void SetOption(int level, int option, int value)
    {
        setsockopt(static_cast<int>(GetSocket()), level, option, &value, sizeof value);
    }

    static void EnterSSLMode(CTavroProductSocket& socket)
    {
        if (!g_Options.certificate.IsEmpty())
            socket.SetSSLMode(2, true, false, g_Options.certificate, g_Options.key, L"", "");
    }
    static void EnterSSLMode(CTavroSocket&) {}

    void CountDown(int received)
    {
        m_Received += received;
        if (m_Received < g_Options.bytes)
            return;
        m_Received = 0;
        Base::Send("K");
    }

    /// Consumes nothing until all has arrived.
    bool Hold(int received, int& left)
    {
        if (received < g_Options.bytes) {
            left = received;
            return false;
        }
        Base::Send("K");
        return true;
    }

    void StartSource()
    {
        if (m_Started)
            return;
        m_Started = true;
        m_SourceLeft = g_Options.bytes;
        SendSource();
    }

    void SendSource()
    {
        while (m_SourceLeft > 0 && OkayToSend()) {
            const auto count = static_cast<int>(std::min<long long>(m_SourceLeft, g_Options.chunk));
            m_SourceLeft -= count;
            Send(g_Chunk.data(), count, 0);
        }
        m_AllGiven = m_SourceLeft == 0;
        if (m_AllGiven && GetSendBufferSize() == 0)
            delete this; // the last thing that every caller does; otherwise OnSend closes after the last byte
    }

    void QueueOrEcho(unsigned char* data, int length)
    {
        if (m_Started || *data != 'Q') {
            Send(data, length, 0);
            return;
        }
        m_Started = true;
        std::vector<unsigned char> message(static_cast<std::size_t>(g_Options.size));
        for (int i = 0; i < g_Options.count; ++i) {
            std::memset(message.data(), i % 251, message.size()); // the reader checks the order by it
            Send(message.data(), g_Options.size, 0);
        }
    }

    long long m_Received = 0;
    long long m_SourceLeft = 0;
    bool m_Started = false;
    bool m_AllGiven = false;
};

class Listener : public CAsyncSocket
{
public:
    bool Start()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(g_Options.port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (!Socket(SOCK_STREAM, FD_ALL, 0, AF_INET))
            return false;

        const auto descriptor = static_cast<int>(m_hSocket);
        if (g_Options.receiveBufferBytes != 0) // connections inherit it
            setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &g_Options.receiveBufferBytes,
                       sizeof g_Options.receiveBufferBytes);
        return bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
               listen(descriptor, 4096) == 0;
    }

protected:
    void OnAccept(int) override
    {
        for (;;) {
            auto connection = std::make_unique<Connection>();
            if (!Accept(*connection))
                return;
            connection->SetOptions();
            (void)connection.release(); // deletes itself when the peer closes
        }
    }
};

[[noreturn]] void Fail(const std::string& what)
{
    std::fprintf(stderr, "%s\n", what.c_str());
    std::exit(2);
}

Mode ModeOf(const std::string& name)
{
    const std::map<std::string, Mode> modes = {{"echo", Mode::Echo},
                                               {"sink", Mode::Sink},
                                               {"source", Mode::Source},
                                               {"queue", Mode::Queue},
                                               {"hold", Mode::Hold}};
    const auto found = modes.find(name);
    if (found == modes.end())
        Fail("unknown mode " + name);
    return found->second;
}

void ReadOptions(int argc, char** argv)
{
    const std::map<std::string, int*> numbers = {{"--port", &g_Options.port},
                                                 {"--chunk", &g_Options.chunk},
                                                 {"--count", &g_Options.count},
                                                 {"--size", &g_Options.size},
                                                 {"--sndbuf", &g_Options.sendBufferBytes},
                                                 {"--rcvbuf", &g_Options.receiveBufferBytes}};
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i];
        if (i + 1 == argc)
            Fail(name + " needs a value");
        const char* const value = argv[i + 1];
        if (name == "--mode")
            g_Options.mode = ModeOf(value);
        else if (name == "--bytes")
            g_Options.bytes = std::atoll(value);
        else if (name == "--cert" || name == "--key")
            (name == "--cert" ? g_Options.certificate : g_Options.key) = CStringW(value);
        else if (const auto number = numbers.find(name); number != numbers.end())
            *number->second = std::atoi(value);
        else
            Fail("unknown option " + name);
    }
    g_Chunk.assign(static_cast<std::size_t>(std::max(g_Options.chunk, 1)), 0);
}

void AllowManyConnections()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace

int main(int argc, char** argv)
{
    ReadOptions(argc, argv);
    AllowManyConnections();
    CTavroProductSocket::Init(OpenSSLProvider());
    Listener listener;
    if (!listener.Start())
        Fail("cannot listen, error " + std::to_string(WSAGetLastError()));
    return RunMessageLoop();
}
