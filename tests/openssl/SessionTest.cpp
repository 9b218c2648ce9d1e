// What a connection owes its host around a session: nothing is lost in front of the close alerts, nor behind them,
// which the session's I/O object has read ahead and which belongs to whatever comes next; and nothing is lost,
// leaked or left hanging when hooks or peers misbehave.

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tavronet/openssl/OpenSSLProvider.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/socket/TavroProductSocket.h"
#include "tests/openssl/Certificates.h"
#include "tests/support/PlainSocket.h"

using tavronet::Certificate;
using tavronet::LoopbackPair;
using tavronet::PumpUntil;

namespace
{

/// A TLS client whose bytes a test sends when and in the pieces that it likes.
class Client
{
public:
    Client()
    {
        SSL_set_bio(m_Session.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
        SSL_set_connect_state(m_Session.get());
    }
    std::string Shakes(const std::string& answer = "")
    {
        BIO_write(SSL_get_rbio(m_Session.get()), answer.data(), static_cast<int>(answer.size()));
        SSL_do_handshake(m_Session.get());
        return Output();
    }
    std::string Says(const std::string& text)
    {
        SSL_write(m_Session.get(), text.data(), static_cast<int>(text.size()));
        return Output();
    }
    std::string Ends()
    {
        SSL_shutdown(m_Session.get());
        return Output();
    }
    [[nodiscard]] bool IsReady() const { return SSL_is_init_finished(m_Session.get()) == 1; }

private:
    std::string Output()
    {
        char* data = nullptr;
        BIO* const bio = SSL_get_wbio(m_Session.get());
        const long length = BIO_get_mem_data(bio, &data);
        std::string output(data, static_cast<std::size_t>(length));
        BIO_reset(bio);
        return output;
    }

    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> m_Context{SSL_CTX_new(TLS_client_method()),
                                                                SSL_CTX_free};
    std::unique_ptr<SSL, decltype(&SSL_free)> m_Session{SSL_new(m_Context.get()), SSL_free};
};

class Connection : public CTavroProductSocket
{
public:
    using CTavroProductSocket::IncrementPendingPackets;
    using CTavroProductSocket::SSLAcceptPending;

    void Enter(bool server = true)
    {
        const std::string name = Certificate("server");
        Init(OpenSSLProvider());
        SetSSLServer(server, server);
        SetSSLMode(1, true, false, CStringW((name + ".pem").c_str()), CStringW((name + ".key").c_str()), L"",
                   "");
    }
    [[nodiscard]] bool IsSecure() const { return GetSSL() && !SSLAcceptPending(); }

    std::string received;
    std::vector<int> closed; // the errors of OnClose
    bool entersAgain = false, throws = false, holds = false, gate = true;
    std::function<void()> whenClosed = [] {};

private:
    bool ProcessReceive(unsigned char*& buffer, int& length) override
    {
        if (std::exchange(throws, false))
            throw std::runtime_error("of the host");
        if (holds)
            return false;
        received.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length));
        length = 0;
        return true;
    }
    void OnClose(int error) override
    {
        closed.push_back(error);
        CTavroProductSocket::OnClose(error);
        whenClosed();
    }
    void SetOkayToSend(bool allowed) override { CTavroProductSocket::SetOkayToSend(gate = allowed); }
    void NotifySSLConnectionShutdown() override
    {
        if (entersAgain)
            Enter();
    }
};

class SessionTest : public testing::Test
{
protected:
    SessionTest()
    {
        EXPECT_TRUE(pair.PumpUntilConnected());
        server.Enter();
        pair.peer.Writes(client.Shakes());
        EXPECT_TRUE(ShakesHands(client));
    }
    bool ShakesHands(Client& from)
    {
        return PumpUntil([&] {
            pair.peer.Writes(from.Shakes(pair.peer.ReadsWaiting()));
            return from.IsReady() && server.IsSecure();
        });
    }
    bool Hears(const std::string& text)
    {
        return PumpUntil([&] { return server.received == text; });
    }

    LoopbackPair<Connection> pair;
    Connection& server = *pair.socket;
    Client client;
};

TEST_F(SessionTest, BehindTheCloseAlertIsClearText)
{
    server.StopSSLMode();
    std::string segment = client.Says("inside, ");
    segment += client.Ends() + "in clear";
    pair.peer.Writes(segment);
    EXPECT_TRUE(Hears("inside, in clear")) << server.received;
    pair.peer.Writes(", later");
    EXPECT_TRUE(Hears("inside, in clear, later")) << server.received;
}

TEST_F(SessionTest, ClearTextWaitsForAPauseToEnd)
{
    server.PauseReceive(true);
    server.StopSSLMode();
    pair.peer.Writes(client.Ends() + "in clear");
    tavronet::PumpUntilQuiet();
    EXPECT_EQ(server.received, "");
    server.PauseReceive(false);
    EXPECT_TRUE(Hears("in clear")) << server.received;
}

TEST_F(SessionTest, BehindTheCloseAlertIsTheNextHandshake)
{
    Client next;
    server.entersAgain = true;
    server.StopSSLMode();
    pair.peer.ReadsWaiting(); // the rest of the first session
    pair.peer.Writes(client.Ends() + next.Shakes());
    EXPECT_TRUE(ShakesHands(next));
    pair.peer.Writes(next.Says("again"));
    EXPECT_TRUE(Hears("again")) << server.received;
}

TEST_F(SessionTest, AThrowingHookLeavesItListening)
{
    server.throws = true;
    pair.peer.Writes(client.Says("dropped"));
    EXPECT_THROW(PumpUntil([&] { return !server.throws; }), std::runtime_error);
    pair.peer.Writes(client.Says("heard"));
    EXPECT_TRUE(Hears("heard")) << server.received;
}

TEST_F(SessionTest, ARecordThatBreaksItEndsTheConnection)
{
    server.holds = true; // what is read next is asked for by a peek
    pair.peer.Writes(client.Says("held"));
    tavronet::PumpUntilQuiet();
    std::string record = client.Says("broken");
    record.back() ^= 1;
    pair.peer.Writes(record);
    EXPECT_TRUE(PumpUntil([&] { return server.GetSocket() == INVALID_SOCKET; }));
    EXPECT_EQ(server.closed, std::vector<int>{WSAECONNABORTED});
}

TEST_F(SessionTest, WhatItCannotSendClosesTheGateAndDoesNotLeaveInClearLater)
{
    std::string secret(65536, 's');
    for (int i = 0; i < 100 && server.gate; ++i)
        server.Send(reinterpret_cast<unsigned char*>(secret.data()), 65536, 0);
    EXPECT_FALSE(server.gate);
    server.Send("secret");
    server.Close();

    pair.Connect();
    ASSERT_TRUE(pair.PumpUntilConnected());
    server.Send("public");
    EXPECT_EQ(pair.peer.Reads(6), "public");
}

TEST_F(SessionTest, LeavingEndsWithTheConnection)
{
    for (int i = 0; i < 10; ++i)
        server.IncrementPendingPackets(); // so that the alert is not read before the end of the connection
    server.StopSSLMode();
    pair.peer.Writes(client.Ends());
    pair.peer.Closes();
    EXPECT_TRUE(PumpUntil([&] { return server.CanClose(); }));
    EXPECT_FALSE(server.GetSSL());
}

TEST_F(SessionTest, AnErrorOfAnotherSocketInTheCloseHookIsNotItsOwn)
{
    server.whenClosed = [&] {
        server.StopSSLMode();
        WSASetLastError(WSAECONNABORTED);
    };
    pair.peer.Writes(client.Ends() + "in clear");
    EXPECT_TRUE(Hears("in clear"));
}

// Where an earlier version went on asking for what the failed session had read ahead.
TEST(FailedHandshake, TheRestOfTheGarbageIsNotReportedWithoutEnd)
{
    LoopbackPair<Connection> pair;
    ASSERT_TRUE(pair.PumpUntilConnected());
    pair.socket->Enter();
    pair.peer.Writes("garbage garbage");
    tavronet::PumpUntilQuiet();
    EXPECT_FALSE(pair.socket->SSLAcceptPending());
}

TEST(BothEndsLeaving, WhatBothHaveQueuedArrivesFirst)
{
    LoopbackPair<Connection> pair;
    ASSERT_TRUE(pair.PumpUntilConnected());
    Connection& client = *pair.socket;
    Connection server;
    ASSERT_TRUE(server.Attach(pair.peer.Releases(), FD_ALL));
    server.Enter();
    client.Enter(false);
    ASSERT_TRUE(PumpUntil([&] { return client.IsSecure() && server.IsSecure(); }));

    std::string bulk(4 << 20, 'b'); // more than the connection holds
    for (Connection* end : {&client, &server}) {
        end->Send(reinterpret_cast<unsigned char*>(bulk.data()), static_cast<int>(bulk.size()), 0);
        EXPECT_FALSE(end->CanClose());
        end->StopSSLMode();
    }
    EXPECT_TRUE(PumpUntil([&] { return !client.GetSSL() && !server.GetSSL(); }));
    EXPECT_TRUE(client.received == bulk && server.received == bulk);
    EXPECT_TRUE(client.closed.empty() && server.closed.empty());
}

} // namespace
