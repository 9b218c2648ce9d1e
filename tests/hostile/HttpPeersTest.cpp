// Gateways that answer with what no reader wants to see, or never come to an end: as a description and as the answer
// to an action, in both dialects.

#include <sstream>

#include "tavronet/upnp/Limits.h"
#include "tests/hostile/Hostile.h"

namespace
{

using tavronet::HostileClient;
using Texts = std::vector<std::string>;

const std::string kOk = "HTTP/1.1 200 OK\r\n", kChunked = kOk + "Transfer-Encoding: chunked\r\n\r\n";
const std::string kBehindChunk = "\r\n" + Description() + "\r\n0\r\n\r\n";
const std::string kChunkSizes =
    "-1|-8000000000000000|+5|0x10|ffffffff|7fffffffffffffff|8000000000000000|fffffffffffffff0|"
    "fffffffffffffffe|ffffffffffffffff|10000000000000000|| |;|g|\t1|1\r|";

std::string Times(std::size_t count, const std::string& text)
{
    std::string all;
    for (; count > 0; --count)
        all += text;
    return all;
}

enum class Kind
{
    Full, // `before`, `unit` over and over, `after`: a body as large as one response may hold, with its length
    Endless, // the response begins with `before`; `unit` follows without end
    Each     // `before`, one of the values in `unit`, which bars end, and `after`: a connection for each
};

struct Peer
{
    friend std::ostream& operator<<(std::ostream& out, const Peer& peer) { return out << peer.name; }

    const char* name;
    Kind kind;
    std::string before, unit, after = "";
    std::size_t piece = 16384; // bytes that arrive at a time
    DWORD pauseMs = 0;         // between the pieces
};

const std::string kServices = "</URLBase>\n<device>\n<serviceList>\n" +
                              Times(1000, "<service>\n<serviceType>" + std::string(kConnectionService) +
                                              "</serviceType>\n<controlURL>c</controlURL>\n</service>\n");
const std::string kControl = "<device>\n<serviceList>\n<service>\n<controlURL>";

const Peer kPeers[] = {
    {"EndlessBody", Kind::Endless, kOk + "\r\n", "<a>text</a>\r\n"},
    {"EndlessHeader", Kind::Endless, kOk, "X-Header: text\r\n", "", 64},
    {"SlowSender", Kind::Endless, kOk, "x", "", 1, 1000},
    {"EndlessInterimResponses", Kind::Endless, "", "HTTP/1.1 100 Continue\r\n\r\n", "", 64},
    {"EndlessChunkSize", Kind::Endless, kChunked, "0", "", 64},
    {"EndlessChunks", Kind::Endless, kChunked, "1\r\nx\r\n", "", 64},
    {"EndlessBehindTheAnswer", Kind::Endless, HttpAnswer(Description()), "<a>text</a>\r\n"},
    {"AMillionNodes", Kind::Endless, kOk + "\r\n", "<service>\n</service>\n"},
    {"Lengths", Kind::Each, kOk + "Content-Length: ",
     "-1|-2147483649|0|00000000000000000000|1|1048577|2147483647|2147483648|4294967295|4294967297|"
     "18446744073709551615|18446744073709551617|1e9|0x10||+9|",
     "\r\n\r\n" + Description()},
    {"SecondChunkSize", Kind::Each, kChunked + "1\r\n<\r\n", kChunkSizes, kBehindChunk},
    {"FiftyThousandLevels", Kind::Full, Times(50000, "<device>\n"), "\n", Times(50000, "</device>\n")},
    {"LevelsOnOneLine", Kind::Full, Times(16000, "<device>"), "x", Times(16000, "</device>")},
    {"LevelsNeverClosed", Kind::Full, "", "<a>"},
    {"Nodes", Kind::Full, "<device>\n<serviceList>\n", "<service>\n</service>\n"},
    {"SmallestNodes", Kind::Full, "<r>", "<a/>x", "</r>"},
    {"Attributes", Kind::Full, "<r", " a=''", "/>"},
    {"OneLine", Kind::Full, "<friendlyName>", "x", "</friendlyName>", 64},
    {"LineFeeds", Kind::Full, "", "\n", "", 64},
    {"BeginningsOfTags", Kind::Full, "<device>", "<devicetyp", "</"},
    {"EndTagsOfOthers", Kind::Full, "<a>", "</b>"},
    {"Ampersands", Kind::Full, "<friendlyName><![CDATA[", "&", "]]></b>"},
    {"CommentsNeverClosed", Kind::Full, "", "<!--"},
    {"Declarations", Kind::Full, "<!DOCTYPE ", "["},
    {"Entities", Kind::Full, "<!DOCTYPE a [<!ENTITY x '" + Times(1000, "y") + "'>]><a>", "&x;", "</a>"},
    {"Latin1", Kind::Full, "<friendlyName>", "\xE9", "</friendlyName>"},
    {"OtherWidths", Kind::Full, "", std::string("<\0", 2)},
    {"ALongBase", Kind::Full, "<root>\n<URLBase>http://127.0.0.1:1/", "b/", kServices},
    {"AWayUp", Kind::Full, kControl, "/..", "</controlURL>\n"},
    {"Blanks", Kind::Full, kControl, " %", "</controlURL>\n"},
    {"ALongValue", Kind::Full, "<NewExternalIPAddress>", "x", "</NewExternalIPAddress>"},
    {"AValueOverAndOver", Kind::Full, "", "<NewExternalIPAddress>x</NewExternalIPAddress>"},
};

/// What the peer sends, a connection each.
Texts Answers(const Peer& peer)
{
    if (peer.kind == Kind::Endless)
        return {peer.before};
    if (peer.kind == Kind::Full) {
        const std::size_t room =
            tavronet::kMaxHttpResponseBytes - 256 - peer.before.size() - peer.after.size();
        return {HttpAnswer(peer.before + Times(room / peer.unit.size(), peer.unit) + peer.after)};
    }
    Texts all;
    std::istringstream values(peer.unit);
    for (std::string value; std::getline(values, value, '|');)
        all.push_back(peer.before + value + peer.after);
    return all;
}

/// Sends a piece a round. @return how much, until all is sent or the connection has been closed
std::size_t Send(HostileClient& client, const Peer& peer, const std::string& text, std::size_t atMost)
{
    const std::size_t connection = client.server.Connections() - 1;
    std::size_t sent = 0;
    for (; sent < atMost && !client.server.ClosedByClient(connection); sent += peer.piece) {
        client.server.Write(connection, text.substr(sent % text.size(), std::min(peer.piece, atMost - sent)));
        TestClock::Advance(peer.pauseMs);
        DispatchRound();
        client.device->Tickle();
    }
    return sent;
}

class HttpPeer : public testing::TestWithParam<Peer>
{};

TEST_P(HttpPeer, IsEndedOrReadWithinTheBounds)
{
    const Peer& peer = GetParam();
    const Texts answers = Answers(peer);
    const std::string more = peer.kind == Kind::Endless ? Times(65536 / peer.unit.size(), peer.unit) : "";
    const std::size_t most = peer.pauseMs != 0 ? tavronet::kMaxHttpConnectionAgeMs / peer.pauseMs + 2
                                               : 2 * tavronet::kMaxHttpResponseBytes;
    for (int use = 0; use < 4; ++use) { // in both dialects: a request for the description, an action
        SCOPED_TRACE(use);
        const bool asAction = use % 2 == 1;
        HostileClient client(use / 2);
        if (asAction)
            client.Describe();
        tavronet::Meter meter;
        for (const std::string& answer : answers) {
            client.nodes = 0;
            const std::size_t requests = client.server.Requests().size();
            asAction ? client.Act() : client.Ask({.location = client.server.Url("/d")});
            ASSERT_TRUE(meter.Run(20000, [&] { return client.server.Requests().size() > requests; }));

            Send(client, peer, answer, answer.size());
            if (!more.empty()) {
                const bool read = asAction ? client.Service()->GetAnswerSerial() != 0 : client.nodes > 0;
                EXPECT_NE(Send(client, peer, more, most) < most, read) << "ended, or dropped";
            }
            client.server.End(client.server.Connections() - 1);
            meter.Run(5);
            EXPECT_LE(client.nodes, tavronet::kMaxDescriptionNodes + 1);
        }
        client.device.reset();
        for (std::size_t i = 0; i < client.server.Connections(); ++i) // one cut short was asked for again
            client.server.End(i);
        meter.Check();
    }
}

INSTANTIATE_TEST_SUITE_P(Peers, HttpPeer, testing::ValuesIn(kPeers),
                         [](const auto& row) { return row.param.name; });

TEST(EndlessTable, IsReadToItsLastIndexOrAsLongAsItsTextsAreShort)
{
    // To the last index where code is fast: elsewhere that takes minutes.
    const std::size_t textSize = tavronet::kSlowness == 1 ? 6 : 2000;
    const std::string answer =
        HttpAnswer("<NewInternalPort>8080</NewInternalPort>\r\n<NewPortMappingDescription>" +
                   std::string(textSize, 'x') + "</NewPortMappingDescription>\r\n");
    for (const int dialect : {UPnPDialectClassic, UPnPDialectModern}) {
        HostileClient client(dialect);
        client.Describe();
        client.server.AnswerBy([&](const std::string&) { return ScriptedServer::Reply(answer, kClose); });
        tavronet::Meter meter([&] {
            ScriptedServer::MoveOn();
            if (client.server.Requests().size() == client.server.Connections())
                client.server.Forget();
        });
        std::vector<CUPnPPortMap*> list;
        EXPECT_TRUE(client.device->GetPortMaps(nullptr, list));
        const std::size_t most =
            std::min<std::size_t>(tavronet::kMaxPortMapEntries, tavronet::kMaxPortMapCharacters / textSize);
        EXPECT_LE(list.size(), most + 1);
        EXPECT_GE(list.size(), most * 9 / 10);
        CUPnPDevice::ReleasePortMaps(list);
        meter.Check();
    }
}

void Register(HostileClient& client)
{
    const std::string name = std::to_string(client.nodes);
    client.network->NewUPnPDevice(
        MakeRecord(client.network.get(),
                   {.source = "", .location = client.server.Url("/" + name), .usn = "uuid:" + name}));
}

TEST(SilentGateways, KeepNothingBelowTheWaitsInTheirEvents)
{
    const std::string large = HttpAnswer(Description() + "<!--" + std::string(1000000, 'x') + "-->");
    for (const int dialect : {UPnPDialectClassic, UPnPDialectModern}) {
        tavronet::Meter meter;
        HostileClient client(dialect);
        client.server.AnswerBy([&](const std::string& request) {
            return ScriptedServer::Reply(request.starts_with("GET") ? large : "", false);
        });
        client.network->SetUPnPEventCallback([](void* raw, unsigned int code, CUPnPObject* node) {
            auto& host = *static_cast<HostileClient*>(raw);
            if (code != UPnPEventDeviceDescribed || node->ParentDepth() != 0)
                return;
            if (++host.nodes < 20) { // waits inside each other, before their connections end
                Register(host);
                static_cast<CUPnPDevice*>(node)->GetExternalIPAddress(nullptr);
            }
            for (std::size_t i = 0; i < host.server.Connections(); ++i)
                host.server.End(i);
        });
        Register(client);
        EXPECT_TRUE(meter.Run(20000, [&] { return client.nodes == 20; }));
        meter.Check(100);
    }
}

} // namespace
