// Responses as connections frame them, and where the request for a description goes.

#include <sstream>

#include "GatewayRecords.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/UPnPDeviceSocket.h"

namespace
{

/// A device whose description is asked for.
struct Asking
{
    explicit Asking(const std::string& path = "/d", const std::string& host = "127.0.0.1",
                    const std::string& source = "127.0.0.1", int dialect = UPnPDialectClassic)
        : network(nullptr, nullptr, dialect),
          device(MakeRecord(&network,
                            {.source = source, .location = "http://" + host + ":" + server.Port() + path}))
    {
        device->RequestDescription();
        PumpUntil([&] { return server.Requests().size() == 1 || source != "127.0.0.1" || path != "/d"; });
    }
    NoAdapters noAdapters;
    ScriptedServer server;
    CUPnPNetwork network;
    std::unique_ptr<CUPnPDevice> device;
};

TEST(UPnPHTTPSocket, AResponseIsFramedByItsLengthOrItsChunksOrByTheClose)
{
    const std::string ok = "HTTP/1.1 200 OK\r\n", body = Description(), size = std::to_string(body.size());
    const std::string length = ok + "Content-Length: " + size + "\r\n",
                      chunked = ok + "Transfer-Encoding: Chunked\r\n";
    std::ostringstream hex;
    hex << std::hex << body.size() - 10;
    const std::string chunks =
        "a\r\n" + body.substr(0, 10) + "\r\n00" + hex.str() + ";x=y\r\n" + body.substr(10) + "\r\n0\r\n";
    const struct
    {
        const char* why;
        std::string when; // it is read in the classic and the modern dialect: at once, at the close, never
        std::vector<std::string> parts;
    } rows[] = {
        {"the last byte completes it", "oo", {length + "\r\n<", body.substr(1)}},
        {"the blank line comes in pieces", "oo", {length + "\r", "\n", body}},
        {"a blank for the hyphen", "oo", {ok + "CONTENT LENGTH: " + size + "\r\n\r\n" + body}},
        {"a byte too many", "co", {length + "\r\n" + body + "x"}},
        {"a blank before the colon", "co", {ok + "Content-Length : " + size + "\r\n\r\n" + body}},
        {"bare line feeds", "-o", {"HTTP/1.0 200 OK\nContent-Length: " + size + "\n\n" + body}},
        {"a length without digits", "-c", {ok + "Content-Length: x\r\n\r\n", body}},
        {"no length", "cc", {ok + "\r\n" + body}},
        {"one response per connection", "--", {HttpAnswer(""), ok + "\r\n" + body}},
        {"no end of the header", "--", {ok + "Content-Length: 2\r\n"}},
        {"interim responses",
         "co",
         {"HTTP/1.1 100 Continue\r\n\r\n", "HTTP/1.1 102 Wait\r\n\r\n" + length + "\r\n" + body}},
        {"chunks", "co", {chunked + "\r\n" + chunks.substr(0, 30), chunks.substr(30)}},
        {"chunks beat a length", "co", {chunked + "Content-Length: 1\r\n\r\n" + chunks}},
        {"said to be chunks", "cc", {chunked + "\r\n" + body}},
        {"an endless chunk", "c-", {chunked + "\r\nffffffffffffffff\r\n" + body}},
        {"less than the length", "c-", {length + "\r\n" + body.substr(0, body.size() - 10)}},
    };
    for (const auto& row : rows) {
        for (const int dialect : {UPnPDialectClassic, UPnPDialectModern}) {
            SCOPED_TRACE(row.why + std::to_string(dialect));
            Asking asking("/d", "127.0.0.1", "127.0.0.1", dialect);
            const auto described = [&] { return asking.device->DiscoverComplete(); };
            for (const std::string& part : row.parts) {
                EXPECT_FALSE(described());
                asking.server.Write(0, part);
                PumpBriefly(8);
            }
            const char when = row.when[dialect == UPnPDialectModern];
            EXPECT_EQ(when == 'o' ? PumpUntil(described) : described(), when == 'o');
            asking.server.End(0);
            PumpBriefly(8);
            EXPECT_EQ(when == 'c' ? PumpUntil(described) : described(), when != '-');
        }
    }
}

TEST(UPnPHTTPSocket, AnEndlessResponseIsGivenUp)
{
    for (const char* const end : {"\r\n", "", "Content-Length: 2000000\r\n\r\n"}) {
        Asking asking;
        asking.server.Write(0, std::string("HTTP/1.1 200 OK\r\n") + end);
        std::size_t sent = 0;
        for (; sent < 4 * tavronet::kMaxHttpResponseBytes && asking.server.Write(0, std::string(65536, 'x'));
             sent += 65536)
            PumpBriefly(1);
        EXPECT_LE(sent, (*end == 'C' ? 0 : tavronet::kMaxHttpResponseBytes) + 512 * 1024) << end;
    }
}

TEST(UPnPDeviceSocket, ConnectsOnlyWhereAGatewayCanBe)
{
    const std::tuple<const char*, const char*, bool> rows[] = {
        {"http://127.0.0.1:5000/d", "127.0.0.1", true},        // heard from that very address
        {"http://127.0.0.1:5000/d", "10.77.9.1", false},       // loopback, named by somebody else
        {"http://127.0.0.2:5000/d", "127.0.0.1", false},       // another loopback address than the source
        {"http://127.1:5000/d", "10.77.9.1", false},           // loopback in another notation
        {"http://2130706433:5000/d", "10.77.9.1", false},      // loopback as one number
        {"http://0.0.0.0:5000/d", "10.77.9.1", false},         // the wildcard is this machine
        {"http://239.255.255.250:5000/d", "10.77.9.1", false}, // multicast
        {"http://127.0.0.1:0/d", "127.0.0.1", false},
    };
    for (const auto& [location, source, connects] : rows) {
        const std::unique_ptr<CUPnPDevice> device(
            MakeRecord(nullptr, {.source = source, .location = location}));
        EXPECT_EQ(CUPnPDeviceSocket("", 0, device.get()).GetErrorState(), !connects) << location << source;
    }
}

TEST(UPnPDeviceSocket, SendsOneGetAndNothingForged)
{
    EXPECT_EQ(Asking().server.Requests().at(0), "GET /d HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    const Asking elsewhere("/d", "localhost", "10.77.9.1"); // leads here after the look-up only
    const Asking forged[] = {Asking("/d HTTP/1.1"), Asking("/d\nX-Forged: 1"), Asking("/\x7f")};
    PumpBriefly(200);
    EXPECT_EQ(elsewhere.server.Connections(), 0U);
    for (const Asking& asking : forged) {
        EXPECT_EQ(asking.server.Connections(), 1U);
        EXPECT_TRUE(asking.server.Requests().empty());
    }
}

} // namespace
