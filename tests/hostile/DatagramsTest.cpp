// Search answers by the thousand, and names and addresses that lead nowhere.

#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/UPnPDialect.h"
#include "tavronet/upnp/UPnPSSDPSocket.h"
#include "tests/hostile/Hostile.h"
#include "tests/support/Programs.h"

namespace
{

using tavronet::HostileClient;

const unsigned kAnswers = tavronet::kSlowness > 1 ? 20000 : 100000; // fewer where code is slow
constexpr unsigned kSources = 10000;

/// A client with a search socket on the loopback, and a server at all addresses of that.
class HostileDatagrams : public tavronet::OnPrivateLan
{
protected:
    /// Sends the n-th answer to the search socket, or only from some byte on; each from an address of its own.
    void Say(unsigned n, int begin = 0)
    {
        const std::string name = std::to_string(n), source = "127.0." + std::to_string(n % kSources / 250) +
                                                             "." + std::to_string(n % 250 + 1);
        const std::string text =
            "HTTP/1.1 200 OK\r\nLOCATION: http://" + source + ":" + client.server.Port() + "/" + name +
            "\r\nCACHE-CONTROL: max-age=1800\r\nUSN: uuid:" + name + "::upnp:rootdevice\r\n\r\n";
        const int size = static_cast<int>(text.size()) - begin;
        CString address;
        UINT port = 0;
        EXPECT_TRUE(socket.GetSockName(address, port));
        CTavroSocket voice;
        EXPECT_TRUE(voice.Create(0, SOCK_DGRAM, 0, CString(source.c_str()), 0));
        EXPECT_EQ(voice.SendTo(text.data() + begin, size, port, address, 0), size);
    }

    HostileClient client{UPnPDialectModern, "0.0.0.0"};
    CUPnPSSDPSocket socket{"127.0.0.1", 0, client.network.get()};
};

TEST_F(HostileDatagrams, OfThousandsFillNoMoreThanTheRegistry)
{
    bool describes = false; // the gateways; at first their bodies have no end
    client.server.AnswerBy([&](const std::string&) {
        return ScriptedServer::Reply(describes ? HttpAnswer(Description()) : "HTTP/1.1 200 OK\r\n\r\n",
                                     describes);
    });
    std::size_t next = 0, most = 0;
    tavronet::Meter meter([&, &server = client.server] {
        ScriptedServer::MoveOn();
        if (server.Connections() == 0)
            return;
        next = (next + 1) % server.Connections();
        if (!describes)
            server.Write(next, std::string(8192, 'x'));
        if (server.ClosedByClient(next))
            server.End(next);
    });
    for (const unsigned begin : {0U, kAnswers / 2}) {
        for (unsigned i = begin; i < begin + kAnswers / 2; ++i) {
            Say(i);
            DispatchRound();
            if (i % 50 != 0)
                continue;
            TestClock::Advance(500);
            client.network->Tickle();
            most = std::max(most, client.network->NumDevices());
        }
        EXPECT_EQ(most, describes ? tavronet::kMaxDevices : tavronet::kMaxUndescribedDevices);
        describes = true;
    }
    const int ends = 2 * static_cast<int>(tavronet::kMaxUndescribedDevices); // of connections: both are ours
    meter.Check(ends, 12);                                                   // all that arrives shares 4 MiB
}

TEST_F(HostileDatagrams, DoNotProlongAWait)
{
    client.Describe();
    unsigned said = 0;
    const DWORD start = GetTickCount();
    tavronet::Meter meter([&] {
        ScriptedServer::MoveOn();
        TestClock::Advance(20);
        for (int i = 0; i < 20 && said < 40000; ++i, ++said)
            Say(said, said % 3 == 0 ? 5 : 0);
    });
    EXPECT_FALSE(client.device->GetExternalIPAddress(nullptr)) << "nobody answers";
    EXPECT_LT(ElapsedMs(GetTickCount(), start), 2 * tavronet::kWaitTimeoutMs);
    EXPECT_GT(said, 1000U);
    meter.Check(2 + 2 * static_cast<int>(tavronet::kMaxUndescribedDevices));
}

struct Target
{
    const char* url; // "PORT" is the server's, "WRAP" its port plus 65536
    const char* heardFrom;
    const char* outcomes; // classic LOCATION and control URL, modern LOCATION and control URL:
                          // a request arrives, only a connection, or nothing (-)
};

constexpr const char* kSame = "127.0.0.1"; // the datagram came from the server itself
constexpr const char* kOther = "10.77.9.9";
const Target kTargets[] = {
    {"http://127.0.0.1:PORT/x", kSame, "rrrr"},
    {"http://127.0.0.1:PORT/x", kOther, "----"},
    {"http://127.1:PORT/x", kOther, "----"},
    {"http://2130706433:PORT/x", kOther, "----"},
    {"http://localhost:PORT/x", kOther, "----"},
    {"http://[::1]:PORT/x", kOther, "----"},
    {"http://[::ffff:127.0.0.1]:PORT/x", kOther, "----"},
    {"http://239.255.255.250:PORT/x", kSame, "----"},
    {"http://255.255.255.255:PORT/x", kSame, "----"},
    {"http://[ff02::c]:PORT/x", kSame, "----"},
    {"http://0.0.0.0:PORT/x", kSame, "---r"}, // a control URL is completed from the LOCATION
    {"http://127.0.0.1:0/x", kSame, "----"},
    {"http://127.0.0.1:65536/x", kSame, "----"},
    {"http://127.0.0.1:WRAP/x", kSame, "----"},
    {"http://127.0.0.1:-1/x", kSame, "----"},
    {"http://127.0.0.1:99999999999999999999/x", kSame, "----"},
    {"http://[127.0.0.1:PORT/x", kSame, "----"},
    {"http://no-such-host.invalid:PORT/x", kSame, "----"},
    {"http://127.0.0.1\x01:PORT/x", kSame, "----"},
    {"http://127.0.0.1:PORT/x\x01y", kSame, "cccc"},
    {"http://127.0.0.1:PORT/x\x7f", kSame, "cccc"},
    {"http://127.0.0.1:PORT/x HTTP/1.0", kSame, "ccrr"}, // made sendable: %20
    {"http://127.0.0.1:PORT/x\nX-Forged: 1", kSame, "cccc"},
};

using HostileTargets = tavronet::OnPrivateLan;

TEST_F(HostileTargets, AreNotConnectedToAndNothingForgedIsSent)
{
    tavronet::Meter meter;
    for (const Target& target : kTargets) {
        for (int use = 0; use < 4; ++use) {
            HostileClient client(use / 2);
            const std::string port = client.server.Port();
            CString url(target.url);
            url.Replace(L"PORT", CString(port.c_str()));
            url.Replace(L"WRAP", CString(std::to_string(std::stoi(port) + 65536).c_str()));
            const bool asLocation = use % 2 == 0;
            client.device.reset(MakeRecord(
                client.network.get(),
                {.source = target.heardFrom, .location = asLocation ? Text(url) : client.server.Url("/d")}));
            if (asLocation) {
                client.device->RequestDescription();
            } else {
                std::string description = Description();
                description.replace(description.find("/ctl"), 4, Text(url));
                client.network->Dialect().ReadDescription(*client.device, description);
                client.Act();
            }
            const auto outcome = [&, &sent = client.server.Requests()] {
                const bool forged = !sent.empty() && sent[0].find(" HTTP/1.0") < sent[0].size();
                return forged ? 'f' : !sent.empty() ? 'r' : client.server.Connections() > 0 ? 'c' : '-';
            };
            meter.Run(20);
            EXPECT_TRUE(meter.Run(5000, [&] { return outcome() == target.outcomes[use]; }))
                << target.url << " named by " << target.heardFrom << ", use " << use << ": " << outcome();
        }
    }
    meter.Check();
}

} // namespace
