// Leaving SSL mode: nothing is lost in front of the close alerts, nor behind them, which the session's I/O object
// has read ahead and which belongs to whatever comes next.

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "tavronet/openssl/OpenSSLProvider.h"
#include "tavronet/socket/TavroProductSocket.h"
#include "tests/openssl/Certificates.h"
#include "tests/support/LoopbackPair.h"

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
    void Enter(bool server = true)
    {
        const std::string name = Certificate("server");
        Init(OpenSSLProvider());
        SetSSLServer(server, server);
        SetSSLMode(1, true, false, CStringW((name + ".pem").c_str()), CStringW((name + ".key").c_str()), L"",
                   "");
    }
    [[nodiscard]] bool IsSecure() const { return GetSSL() && !SSLAcceptPending(); }

    using CTavroProductSocket::SSLAcceptPending;

    std::string received;
    bool entersAgain = false;
    int closed = 0;

private:
    void OnClose(int error) override
    {
        ++closed;
        CTavroProductSocket::OnClose(error);
    }
    bool ProcessReceive(unsigned char*& buffer, int& length) override
    {
        received.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length));
        length = 0;
        return true;
    }
    void NotifySSLConnectionShutdown() override
    {
        if (entersAgain)
            Enter();
    }
};

class LeavingTest : public testing::Test
{
protected:
    LeavingTest()
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

TEST_F(LeavingTest, BehindTheCloseAlertIsClearText)
{
    server.StopSSLMode();
    std::string segment = client.Says("inside, ");
    segment += client.Ends() + "in clear";
    pair.peer.Writes(segment);
    EXPECT_TRUE(Hears("inside, in clear")) << server.received;
    pair.peer.Writes(", later");
    EXPECT_TRUE(Hears("inside, in clear, later")) << server.received;
}

TEST_F(LeavingTest, ClearTextWaitsForAPauseToEnd)
{
    server.PauseReceive(true);
    server.StopSSLMode();
    pair.peer.Writes(client.Ends() + "in clear");
    tavronet::PumpUntilQuiet();
    EXPECT_EQ(server.received, "");
    server.PauseReceive(false);
    EXPECT_TRUE(Hears("in clear")) << server.received;
}

TEST_F(LeavingTest, BehindTheCloseAlertIsTheNextHandshake)
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
    EXPECT_EQ(client.closed + server.closed, 0);
}

} // namespace
