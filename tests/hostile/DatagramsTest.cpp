// More datagrams than anybody wants to read.

#include <arpa/inet.h>

#include <atomic>
#include <thread>

#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/UPnPSSDPSocket.h"
#include "tests/hostile/Meter.h"
#include "tests/support/OnPrivateLan.h"
#include "tests/upnp/GatewayRecords.h"

namespace
{

constexpr unsigned kSources = 10000;
constexpr unsigned kAnswers = tavronet::kHoldFactor == 1 ? 100000 : 20000; // fewer where code is slow

/// Speaks to a port of 127.0.0.1 as any address of that network, all of which are this machine's.
class Voice
{
public:
    explicit Voice(UINT port)
        : m_To{AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}}
    {
    }
    ~Voice() { close(m_Socket); }
    Voice(const Voice&) = delete;
    Voice& operator=(const Voice&) = delete;

    void Say(const std::string& text, in_addr source = {htonl(INADDR_LOOPBACK)})
    {
        iovec part{const_cast<char*>(text.data()), text.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
        msghdr message{&m_To, sizeof m_To, &part, 1, control, sizeof control, 0};
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        *header = {CMSG_LEN(sizeof(in_pktinfo)), IPPROTO_IP, IP_PKTINFO};
        reinterpret_cast<in_pktinfo*>(CMSG_DATA(header))->ipi_spec_dst = source;
        EXPECT_GE(sendmsg(m_Socket, &message, 0), 0);
    }

private:
    const int m_Socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in m_To;
};

UINT PortOf(CTavroSocket& socket)
{
    CString address;
    UINT port = 0;
    EXPECT_TRUE(socket.GetSockName(address, port));
    return port;
}

std::string Answer(const std::string& url, const std::string& name)
{
    return "HTTP/1.1 200 OK\r\nLOCATION: " + url + "\r\nCACHE-CONTROL: max-age=1800\r\nUSN: uuid:" + name +
           "::upnp:rootdevice\r\n\r\n";
}

enum class Behind
{
    Silence,
    EndlessBodies,
    Descriptions
};

class HostileDatagrams : public tavronet::OnPrivateLan, public testing::WithParamInterface<Behind>
{};

TEST_P(HostileDatagrams, AnswersOfThousandsFillNoMoreThanTheRegistry)
{
    const NoAdapters noAdapters;
    TestClock clock;
    ScriptedServer server(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "0.0.0.0");
    if (GetParam() == Behind::Descriptions)
        server.AnswerBy(
            [](const std::string&) { return ScriptedServer::Reply(HttpAnswer(Description()), kClose); });
    CUPnPNetwork network(nullptr, nullptr, UPnPDialectModern, false);
    CUPnPSSDPSocket socket("127.0.0.1", 0, &network);
    Voice voice(PortOf(socket));
    const std::string start = "HTTP/1.1 200 OK\r\n\r\n", more(8192, 'x');
    std::size_t next = 0, most = 0;

    tavronet::Meter meter([&] {
        ScriptedServer::MoveOn();
        if (GetParam() == Behind::Descriptions || server.Connections() == 0)
            return;
        next = (next + 1) % server.Connections();
        if (GetParam() == Behind::EndlessBodies)
            server.Write(next, start + more);
        if (server.ClosedByClient(next))
            server.End(next);
    });
    const unsigned answers = GetParam() == Behind::EndlessBodies ? kAnswers / 5 : kAnswers;
    for (unsigned i = 0; i < answers; ++i) {
        const in_addr source{htonl(INADDR_LOOPBACK + 1 + i % kSources)};
        const std::string host = inet_ntoa(source);
        voice.Say(Answer("http://" + host + ":" + server.Port() + "/" + std::to_string(i), std::to_string(i)),
                  source);
        DispatchRound();
        if (i % 50 != 0)
            continue;
        clock.Advance(500);
        network.Tickle();
        most = std::max(most, network.NumDevices());
    }
    const std::size_t allowed =
        GetParam() == Behind::Descriptions ? tavronet::kMaxDevices : tavronet::kMaxUndescribedDevices;
    EXPECT_EQ(most, allowed);
    meter.Check(2 * static_cast<int>(tavronet::kMaxUndescribedDevices)); // both ends of a connection are ours
}

INSTANTIATE_TEST_SUITE_P(Answers, HostileDatagrams,
                         testing::Values(Behind::Silence, Behind::EndlessBodies, Behind::Descriptions));

using HostileFlood = tavronet::OnPrivateLan;

TEST_F(HostileFlood, DoesNotProlongAWait)
{
    const NoAdapters noAdapters;
    ScriptedServer server;
    CUPnPNetwork network(nullptr, nullptr, UPnPDialectClassic, false);
    CUPnPDevice* const device = MakeRecord(&network, {.location = server.Url("/d")});
    network.NewUPnPDevice(device);
    server.Answer(HttpAnswer(Description()));
    ASSERT_TRUE(PumpUntil([&] { return device->DiscoverComplete(); }));
    CUPnPSSDPSocket socket("127.0.0.1", 0, &network);

    SetTickSource([] { // twenty times as fast
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        return static_cast<DWORD>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count() * 20);
    });
    std::atomic<bool> flooding = true;
    std::atomic<int> said = 0;
    std::thread flood([&flooding, &said, port = PortOf(socket)] {
        Voice voice(port);
        for (; flooding; ++said)
            voice.Say(said % 3 == 0 ? std::string(1000, 'x')
                                    : Answer("http://10.77.1.1/", std::to_string(said)));
    });
    tavronet::Meter meter([] { ScriptedServer::MoveOn(); });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(device->GetExternalIPAddress(nullptr)) << "nobody answers";
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_LT(waited, std::chrono::milliseconds(tavronet::kWaitTimeoutMs / 20 * 2));
    EXPECT_GT(said, 1000);
    flooding = false;
    flood.join();
    SetTickSource(nullptr);
    meter.Check(2);
}

} // namespace
