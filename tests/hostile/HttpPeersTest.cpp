// Gateways that answer with what no reader wants to see: as a description and as the answer to an action, in both
// dialects.

#include <sstream>

#include "tavronet/upnp/Limits.h"
#include "tests/hostile/Meter.h"
#include "tests/upnp/GatewayRecords.h"

namespace
{

using tavronet::Meter;
using Texts = std::vector<std::string>;

const std::string kOk = "HTTP/1.1 200 OK\r\n", kChunked = kOk + "Transfer-Encoding: chunked\r\n\r\n";
std::string Times(std::size_t count, const std::string& text)
{
    std::string all;
    all.reserve(count * text.size());
    for (; count > 0; --count)
        all += text;
    return all;
}

enum class Kind
{
    Full, // `before`, `unit` over and over, `after`: a body as large as one response may hold, with its length
    Endless, // the response begins with `before`; `unit` follows without end
    Lengths, // the description as a body of each announced length in `unit`, which bars separate
    Chunks   // the description in chunks of such sizes, as the first and as the second one
};

struct Peer
{
    const char* name;
    Kind kind;
    std::string before, unit, after = "";
    std::size_t piece = 16384; // bytes that arrive at a time
};

const std::string kServices = "</URLBase>\n<device>\n<serviceList>\n" +
                              Times(1000, "<service>\n<serviceType>" + std::string(kConnectionService) +
                                              "</serviceType>\n<controlURL>c</controlURL>\n</service>\n");
const std::string kControl = "<device>\n<serviceList>\n<service>\n<controlURL>";

const Peer kPeers[] = {
    {"EndlessBody", Kind::Endless, kOk + "\r\n", "<a>text</a>\r\n"},
    {"EndlessHeader", Kind::Endless, kOk, "X-Header: text\r\n", "", 64},
    {"EndlessHeaderLine", Kind::Endless, kOk, "x", "", 64},
    {"EndlessInterimResponses", Kind::Endless, "", "HTTP/1.1 100 Continue\r\n\r\n", "", 64},
    {"EndlessChunkSize", Kind::Endless, kChunked, "0", "", 64},
    {"EndlessChunks", Kind::Endless, kChunked, "1\r\nx\r\n", "", 64},
    {"EndlessBehindTheAnswer", Kind::Endless, HttpAnswer(Description()), "<a>text</a>\r\n"},
    {"AMillionNodes", Kind::Endless, kOk + "\r\n", "<service>\n</service>\n"},
    {"Lengths", Kind::Lengths, "",
     "-1|-2147483649|0|00000000000000000000|1|1048577|2147483647|2147483648|4294967295|4294967297|"
     "18446744073709551615|18446744073709551617|1e9|0x10||+9"},
    {"ChunkSizes", Kind::Chunks, "",
     "-1|-8000000000000000|+5|0x10|ffffffff|7fffffffffffffff|8000000000000000|fffffffffffffff0|"
     "fffffffffffffffe|ffffffffffffffff|10000000000000000|| |;|g|\t1|1\r"},
    {"FiftyThousandLevels", Kind::Full, Times(50000, "<device>\n"), "\n", Times(50000, "</device>\n")},
    {"LevelsOnOneLine", Kind::Full, Times(16000, "<device>"), "x", Times(16000, "</device>")},
    {"LevelsNeverClosed", Kind::Full, "", "<a>"},
    {"Nodes", Kind::Full, "<device>\n<serviceList>\n", "<service>\n</service>\n"},
    {"SmallestNodes", Kind::Full, "<r>", "<a/>x", "</r>"},
    {"Attributes", Kind::Full, "<r", " a=''", "/>"},
    {"OneLine", Kind::Full, "<friendlyName>", "x", "</friendlyName>"},
    {"OneLineInPieces", Kind::Full, "<a>", "x", "</a>", 64},
    {"LineFeeds", Kind::Full, "", "\n", "", 64},
    {"CarriageReturns", Kind::Full, "", "\r"},
    {"LineEndsTheWrongWayRound", Kind::Full, "", "\n\r"},
    {"ZeroBytes", Kind::Full, "<a>", std::string(1, '\0')},
    {"Brackets", Kind::Full, "<device>", "<", "</"},
    {"BeginningsOfTags", Kind::Full, "<device>", "<devicetyp", "</"},
    {"EndTags", Kind::Full, "", "</"},
    {"EndTagsOfOthers", Kind::Full, "<a>", "</b>"},
    {"Ampersands", Kind::Full, "<friendlyName><![CDATA[", "&", "]]></b>"},
    {"CData", Kind::Full, "", "<![CDATA[]]>"},
    {"Comments", Kind::Full, "", "<!---->"},
    {"CommentsNeverClosed", Kind::Full, "", "<!--"},
    {"Declarations", Kind::Full, "<!DOCTYPE ", "["},
    {"Entities", Kind::Full, "<!DOCTYPE a [<!ENTITY x '" + Times(1000, "y") + "'>]><a>", "&x;", "</a>"},
    {"Latin1", Kind::Full, "<friendlyName>", "\xE9", "</friendlyName>"},
    {"OtherWidths", Kind::Full, "", std::string("<\0", 2)},
    {"ALongBase", Kind::Full, "<root>\n<URLBase>http://127.0.0.1:1/", "b/", kServices},
    {"ALongHost", Kind::Full, "<root>\n<URLBase>http://", "b.", kServices},
    {"AWayUp", Kind::Full, kControl, "/..", "</controlURL>\n"},
    {"Blanks", Kind::Full, kControl, " %", "</controlURL>\n"},
    {"ALongValue", Kind::Full, "<NewExternalIPAddress>", "x", "</NewExternalIPAddress>"},
    {"AValueOverAndOver", Kind::Full, "", "<NewExternalIPAddress>x</NewExternalIPAddress>"},
};

std::ostream& operator<<(std::ostream& out, const Peer& peer)
{
    return out << peer.name;
}

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
    std::istringstream values(peer.unit + "|");
    for (std::string value; std::getline(values, value, '|');) {
        const std::string behind = value + "\r\n" + Description() + "\r\n0\r\n\r\n";
        if (peer.kind == Kind::Lengths)
            all.push_back(kOk + "Content-Length: " + value + "\r\n\r\n" + Description());
        else
            all.insert(all.end(), {kChunked + behind, kChunked + "1\r\n<\r\n" + behind});
    }
    return all;
}

/// A peer, a dialect, and whether it answers an action; otherwise a request for its description.
class HttpPeer : public testing::TestWithParam<std::tuple<Peer, int, bool>>
{
protected:
    static void OnEvent(void* raw, unsigned int code, CUPnPObject* node)
    {
        if (code == UPnPEventDeviceDescribed || code == UPnPEventServiceDescribed)
            ++static_cast<HttpPeer*>(raw)->nodes;
        EXPECT_LE(node->ParentDepth(), tavronet::kMaxDeviceDepth);
    }

    void Ask()
    {
        device.reset(MakeRecord(&network, {.location = server.Url("/d")}));
        device->RequestDescription();
    }
    /// Sends a piece a round. @return how much, until all is sent or the connection has been closed.
    std::size_t Send(const std::string& text, std::size_t atMost)
    {
        const std::size_t connection = server.Connections() - 1, piece = std::get<Peer>(GetParam()).piece;
        std::size_t sent = 0;
        for (; sent < atMost && !server.ClosedByClient(connection); sent += piece) {
            server.Write(connection, text.substr(sent % text.size(), std::min(piece, atMost - sent)));
            DispatchRound();
        }
        return sent;
    }

    int nodes = 0;
    NoAdapters noAdapters;
    ScriptedServer server;
    CUPnPNetwork network{&OnEvent, this, std::get<int>(GetParam()), false};
    std::unique_ptr<CUPnPDevice> device;
};

TEST_P(HttpPeer, IsEndedOrReadWithinTheBounds)
{
    const auto& [peer, dialect, asAction] = GetParam();
    const Texts answers = Answers(peer);
    const std::string more = peer.kind == Kind::Endless ? Times(65536 / peer.unit.size(), peer.unit) : "";

    CUPnPService* service = nullptr;
    if (asAction) {
        server.Answer(HttpAnswer(Description()));
        Ask();
        ASSERT_TRUE(PumpUntil([&] { return (service = device->FindConnectionService()) != nullptr; }));
    }
    Meter meter([] { ScriptedServer::MoveOn(); });
    for (const std::string& answer : answers) {
        const std::size_t requests = server.Requests().size() + 1;
        nodes = 0;
        if (asAction)
            EXPECT_TRUE(service->Command(false, nullptr, "GetExternalIPAddress", "NewExternalIPAddress", "",
                                         nullptr));
        else
            Ask();
        ASSERT_TRUE(meter.RunUntil([&] { return server.Requests().size() == requests; }));

        Send(answer, answer.size());
        if (!more.empty()) {
            const bool read = asAction ? service->GetAnswerSerial() != 0 : nodes > 0;
            const std::size_t most = 2 * tavronet::kMaxHttpResponseBytes;
            EXPECT_NE(Send(more, most) < most, read) << "ended or, what comes behind an answer, dropped";
        }
        server.End(server.Connections() - 1);
        meter.RunFor(5);
        EXPECT_LE(nodes, tavronet::kMaxDescriptionNodes + 1);
    }
    device.reset();
    for (std::size_t i = 0; i < server.Connections(); ++i) // an answer cut short is asked for again
        server.End(i);
    meter.Check();
}

std::string NameOf(const testing::TestParamInfo<HttpPeer::ParamType>& row)
{
    const char* const dialect = std::get<int>(row.param) == UPnPDialectModern ? "Modern" : "Classic";
    return std::string(std::get<Peer>(row.param).name) + dialect +
           (std::get<bool>(row.param) ? "Action" : "");
}

INSTANTIATE_TEST_SUITE_P(Peers, HttpPeer,
                         testing::Combine(testing::ValuesIn(kPeers),
                                          testing::Values(UPnPDialectClassic, UPnPDialectModern),
                                          testing::Bool()),
                         NameOf);

} // namespace
