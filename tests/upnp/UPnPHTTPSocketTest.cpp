#include "tavronet/upnp/UPnPHTTPSocket.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>

#include "GatewayRecords.h"
#include "ScriptedServer.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/UPnPDeviceSocket.h"

namespace
{

/// What a connection hands over, and what the host does with it.
class Receiver : public CUPnPObject
{
public:
    bool Tickle() override { return true; }

    int handOvers = 0;
    std::string response;
    std::string body;
    std::function<void()> onResponse;

protected:
    void ProcessHTML(CUPnPHTTPSocket*, const char* text, int length, const char* bodyText,
                     int bodyLength) override
    {
        ++handOvers;
        if (onResponse)
            onResponse();
        response.assign(text, static_cast<std::size_t>(length));
        body.assign(bodyText, static_cast<std::size_t>(bodyLength));
        EXPECT_EQ(bodyText[bodyLength], '\0');
    }
};

/// A connection that asks its owner, the test, for release.
class Connection : public CUPnPHTTPSocket
{
public:
    Connection(unsigned port, CUPnPObject* receiver, std::unique_ptr<Connection>& owner)
        : CUPnPHTTPSocket(nullptr, 0, "127.0.0.1", port, receiver), m_Owner(owner)
    {
    }

protected:
    void ReleaseSocket() override { m_Owner.reset(); }

private:
    std::unique_ptr<Connection>& m_Owner;
};

class UPnPHTTPSocket : public testing::Test
{
protected:
    void Connect()
    {
        socket = std::make_unique<Connection>(server.Port(), &receiver, socket);
        EXPECT_FALSE(socket->GetErrorState());
        EXPECT_TRUE(PumpUntil([&] { return server.Connections() == 1 && socket->GetConnected(); }));
    }

    void Deliver(const std::string& bytes)
    {
        server.Write(0, bytes);
        PumpBriefly(15);
    }

    ScriptedServer server;
    Receiver receiver;
    std::unique_ptr<Connection> socket;
};

struct Framing
{
    const char* why;
    std::vector<std::string> parts;
    bool deliveredAtOnce;            // while the server keeps the connection open
    std::optional<std::string> body; // after the close
};

const std::vector<Framing> kFramings = {
    {"the fifth byte completes it", {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nabc", "de"}, true, "abcde"},
    {"the blank line comes in pieces",
     {"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r", "\n", "ok"},
     true,
     "ok"},
    {"one byte too many waits for the close",
     {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nabcdef"},
     false,
     "abcdef"},
    {"any letter case", {"HTTP/1.1 200 OK\r\nCONTENT-LENGTH: 2\r\n\r\nok"}, true, "ok"},
    {"a blank for the hyphen", {"HTTP/1.1 200 OK\r\nContent Length: 2\r\n\r\nok"}, true, "ok"},
    {"a blank before the colon is no length",
     {"HTTP/1.1 200 OK\r\nContent-Length : 2\r\n\r\nok"},
     false,
     "ok"},
    {"an empty body", {"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"}, true, ""},
    {"no length", {"HTTP/1.1 200 OK\r\n\r\nall of it"}, false, "all of it"},
    {"a negative length is none", {"HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\nok"}, false, "ok"},
    {"a length without digits is 0", {"HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n"}, true, ""},
    {"chunk sizes stay in the body",
     {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nok\r\n0\r\n\r\n"},
     false,
     "2\r\nok\r\n0\r\n\r\n"},
    {"no end of the header", {"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n"}, false, std::nullopt},
    {"nothing at all", {}, false, std::nullopt},
};

TEST_F(UPnPHTTPSocket, AResponseIsFramedByItsLengthOrByTheClose)
{
    for (const Framing& row : kFramings) {
        SCOPED_TRACE(row.why);
        ScriptedServer peer;
        Receiver taker;
        std::unique_ptr<Connection> connection;
        connection = std::make_unique<Connection>(peer.Port(), &taker, connection);
        ASSERT_TRUE(PumpUntil([&] { return peer.Connections() == 1 && connection->GetConnected(); }));
        for (const std::string& part : row.parts) {
            EXPECT_EQ(taker.handOvers, 0);
            peer.Write(0, part);
            PumpBriefly(8);
        }
        if (row.deliveredAtOnce)
            PumpUntil([&] { return taker.handOvers > 0; });
        EXPECT_EQ(taker.handOvers, row.deliveredAtOnce ? 1 : 0);
        ASSERT_NE(connection, nullptr);
        EXPECT_EQ(connection->GetHTMLProcessed(), row.deliveredAtOnce);

        peer.End(0, ScriptedServer::Then::Close);
        EXPECT_TRUE(PumpUntil([&] { return connection == nullptr; }))
            << "the close asks the owner for release";
        EXPECT_EQ(taker.handOvers, row.body.has_value() ? 1 : 0);
        EXPECT_EQ(taker.body, row.body.value_or(""));
    }
}

TEST_F(UPnPHTTPSocket, OneResponsePerConnection)
{
    Connect();
    Deliver(HttpAnswer("first"));
    Deliver(HttpAnswer("again"));
    server.End(0, ScriptedServer::Then::Close);
    EXPECT_TRUE(PumpUntil([&] { return socket == nullptr; }));
    EXPECT_EQ(receiver.handOvers, 1);
    EXPECT_EQ(receiver.body, "first");
}

TEST_F(UPnPHTTPSocket, AnEndlessResponseIsGivenUp)
{
    const std::string block(64 * 1024, 'x');
    const auto endless = [&](const std::string& header) {
        ScriptedServer peer;
        std::unique_ptr<Connection> connection;
        connection = std::make_unique<Connection>(peer.Port(), &receiver, connection);
        EXPECT_TRUE(PumpUntil([&] { return peer.Connections() == 1 && connection->GetConnected(); }));
        peer.Write(0, header);
        std::size_t sent = 0;
        for (; connection != nullptr && sent < 4 * tavronet::kMaxHttpResponseBytes; sent += block.size()) {
            peer.Write(0, block);
            PumpBriefly(1);
        }
        return sent;
    };
    EXPECT_LE(endless("HTTP/1.1 200 OK\r\n\r\n"), tavronet::kMaxHttpResponseBytes + 512 * 1024);
    EXPECT_LE(endless("HTTP/1.1 200 OK\r\nContent-Length: 2000000\r\n\r\n"), 512U * 1024)
        << "by its announcement";
    EXPECT_LE(endless("HTTP/1.1 200 OK\r\n"), tavronet::kMaxHttpResponseBytes + 512 * 1024)
        << "header without end";
    EXPECT_EQ(receiver.handOvers, 0);
}

TEST_F(UPnPHTTPSocket, TheTextOutlivesASocketDeletedWhileItIsRead)
{
    for (const bool onClose : {false, true}) {
        ScriptedServer peer;
        Receiver taker;
        std::unique_ptr<Connection> connection;
        connection = std::make_unique<Connection>(peer.Port(), &taker, connection);
        taker.onResponse = [&] { connection.reset(); };
        ASSERT_TRUE(PumpUntil([&] { return peer.Connections() == 1 && connection->GetConnected(); }));
        peer.Write(0, onClose ? "HTTP/1.1 200 OK\r\n\r\ntext" : HttpAnswer("text"));
        if (onClose)
            peer.End(0, ScriptedServer::Then::Close);
        EXPECT_TRUE(PumpUntil([&] { return taker.handOvers == 1; }));
        EXPECT_EQ(taker.body, "text");
        PumpBriefly();
        EXPECT_EQ(taker.handOvers, 1);
    }
}

TEST_F(UPnPHTTPSocket, AThrowingReaderDoesNotKeepAClosedSocket)
{
    Connect();
    receiver.onResponse = [] { throw 7; };
    server.Write(0, "HTTP/1.1 200 OK\r\n\r\ntext");
    server.End(0, ScriptedServer::Then::Close);
    EXPECT_THROW(PumpUntil([&] { return socket == nullptr; }), int);
    EXPECT_EQ(socket, nullptr);
    EXPECT_EQ(receiver.handOvers, 1);
}

TEST_F(UPnPHTTPSocket, IsOverdueAfterAMinuteAcrossTheWrapToo)
{
    TestClock clock(0xFFFFFFFFu - 30000);
    socket = std::make_unique<Connection>(server.Port(), &receiver, socket);
    clock.Advance(tavronet::kMaxHttpConnectionAgeMs);
    EXPECT_FALSE(socket->Overdue());
    clock.Advance(1);
    EXPECT_TRUE(socket->Overdue());
}

// --- The description request

struct Target
{
    const char* location;
    const char* source;
    bool refused;
    const char* why;
};

const Target kTargets[] = {
    {"http://127.0.0.1:5000/d", "10.77.9.1", true, "loopback, named by somebody else"},
    {"http://127.0.0.1:5000/d", "127.0.0.1", false, "heard from that very address"},
    {"http://127.0.0.2:5000/d", "127.0.0.1", true, "another loopback address than the source"},
    {"http://127.1:5000/d", "10.77.9.1", true, "loopback in another notation"},
    {"http://2130706433:5000/d", "10.77.9.1", true, "loopback as one number"},
    {"http://0.0.0.0:5000/d", "10.77.9.1", true, "the wildcard is this machine"},
    {"http:///d", "10.77.9.1", true, "no host is the wildcard"},
    {"http://239.255.255.250:5000/d", "10.77.9.1", true, "multicast"},
    {"http://255.255.255.255:5000/d", "10.77.9.1", true, "broadcast"},
    {"http://127.0.0.1:0/d", "127.0.0.1", true, "port 0"},
    {"/d", "10.77.9.1", true, "no host at all"},
};

TEST(UPnPDeviceSocket, ConnectsOnlyWhereAGatewayCanBe)
{
    for (const Target& row : kTargets) {
        Announced announced;
        announced.location = row.location;
        announced.source = row.source;
        const std::unique_ptr<CUPnPDevice> device(MakeRecord(nullptr, announced));
        const CUPnPDeviceSocket socket("", 0, device.get());
        EXPECT_EQ(socket.GetErrorState(), row.refused) << row.why;
    }
}

TEST(UPnPDeviceSocket, AHostNameThatLeadsToThisMachineIsRefusedAfterTheLookUp)
{
    ScriptedServer server;
    Announced announced;
    announced.location = "http://localhost:" + std::to_string(server.Port()) + "/d";
    announced.source = "10.77.9.1";
    const std::unique_ptr<CUPnPDevice> device(MakeRecord(nullptr, announced));
    device->RequestDescription();
    PumpBriefly(200);
    EXPECT_EQ(server.Connections(), 0U);
}

TEST(UPnPDeviceSocket, SendsOneGetWithTheHostOfItsUrl)
{
    ScriptedServer server;
    Announced announced;
    announced.location = server.Url("/rootDesc.xml?x=1");
    const std::unique_ptr<CUPnPDevice> device(MakeRecord(nullptr, announced));
    device->RequestDescription();
    EXPECT_TRUE(PumpUntil([&] { return server.Requests().size() == 1; }));
    EXPECT_EQ(server.Requests()[0], "GET /rootDesc.xml?x=1 HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
}

TEST(UPnPDeviceSocket, AUrlThatWouldForgeAHeaderIsNotSent)
{
    for (const char* const path : {"/d HTTP/1.1", "/d\nX-Forged: 1", "/\x7f", "/a\tb"}) {
        ScriptedServer server;
        Announced announced;
        announced.location = server.Url(path);
        const std::unique_ptr<CUPnPDevice> device(MakeRecord(nullptr, announced));
        device->RequestDescription();
        EXPECT_TRUE(PumpUntil([&] { return server.Connections() == 1 && server.ClosedByClient(0); })) << path;
        EXPECT_TRUE(server.Requests().empty()) << path;
    }
}

} // namespace
