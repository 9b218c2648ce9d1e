// The ready-made provider by itself, and the connection class with it: against the openssl program, against itself, and
// against a client whose bytes come together or in pieces.

#include "tavronet/openssl/OpenSSLProvider.h"

#include <gmock/gmock.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "tests/openssl/Certificates.h"
#include "tests/socket/ScriptedProduct.h"
#include "tests/support/Programs.h"

using tavronet::Certificate;
using tavronet::ChildProcess;
using tavronet::PumpUntil;

namespace
{

CStringW Path(const std::string& name, const char* kind = "")
{
    return name.empty() ? CStringW() : CStringW(Certificate(name + kind).c_str());
}

const COpenSSL& ssl = *OpenSSLProvider();

using Context = std::unique_ptr<ssl_ctx_st, void (*)(ssl_ctx_st*)>;
using Session = std::unique_ptr<ssl_st, void (*)(ssl_st*)>;

Context NewContext()
{
    return {ssl.SSL_CTX_new(ssl.SSL_method()), ssl.m_pSSL_CTX_free};
}

Session NewServer(const std::string& name, const char* trusted = nullptr)
{
    constexpr int kPem = 1;
    const Context context = NewContext();
    EXPECT_EQ(ssl.SSL_CTX_use_certificate_file(context.get(), Path(name, ".pem"), kPem), 1);
    EXPECT_EQ(ssl.SSL_CTX_use_PrivateKey_file(context.get(), Path(name, ".key"), kPem), 1);
    if (trusted != nullptr) {
        EXPECT_EQ(ssl.SSL_CTX_load_verify_locations(context.get(), Path(trusted), nullptr), 1);
        EXPECT_EQ(ssl.SSL_CTX_trust_loaded(context.get()), 1);
    }
    return {ssl.SSL_new(context.get()), ssl.m_pSSL_free};
}

TEST(OpenSSLProvider, ErrorsOfOthersAndDeadPeersDoNoHarm)
{
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair), 0);
    const Session owned = NewServer("server");
    ssl_st* const session = owned.get();
    bio_st* const bio = ssl.BIO_new_socket(pair[0], 1);
    ssl.SSL_set_bio(session, bio, bio);
    ssl.SSL_set_accept_state(session);
    char byte = 0;
    const std::function<int()> calls[] = {
        [=] { return ssl.SSL_accept(session); }, [&] { return ssl.SSL_read(session, &byte, 1); },
        [&] { return ssl.SSL_peek(session, &byte, 1); }, [&] { return ssl.SSL_write(session, &byte, 1); }};
    for (const auto& call : calls) {
        ERR_raise(ERR_LIB_USER, ERR_R_INTERNAL_ERROR);
        EXPECT_EQ(ssl.SSL_get_error(session, call()), kSSLErrorWantRead);
    }
    close(pair[1]);
    EXPECT_EQ(ssl.SSL_get_error(session, ssl.SSL_accept(session)), kSSLErrorFatal) << "without a close alert";
    SSL_set_connect_state(session);
    EXPECT_LT(ssl.SSL_connect(session), 0) << "without a signal";
}

TEST(OpenSSLProvider, WhatTheListAndTheOptionsSayIsMadeSafe)
{
    EXPECT_EQ(ssl.SSL_CTX_set_cipher_list(NewContext().get(), "aNULL:@SECLEVEL=0"), 0);
    const Context context = NewContext();
    EXPECT_EQ(ssl.SSL_CTX_set_cipher_list(context.get(), "ALL:@SECLEVEL=0"), 1);
    ssl.SSL_CTX_ctrl(context.get(), 32, 0x1400000, nullptr);
    const Session session(ssl.SSL_new(context.get()), ssl.m_pSSL_free);
    const STACK_OF(SSL_CIPHER)* const ciphers = SSL_get_ciphers(session.get());
    ASSERT_GT(sk_SSL_CIPHER_num(ciphers), 10);
    for (int i = 0; i < sk_SSL_CIPHER_num(ciphers); ++i)
        EXPECT_NE(SSL_CIPHER_get_auth_nid(sk_SSL_CIPHER_value(ciphers, i)), NID_auth_null);
    EXPECT_EQ(SSL_get_options(session.get()) & (SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_NO_ANTI_REPLAY),
              SSL_OP_CIPHER_SERVER_PREFERENCE);
    EXPECT_EQ(ssl.SSL_CTX_new(nullptr), nullptr);
}

TEST(OpenSSLProvider, ContextsOfTheSameFilesAreSharedUntilOneChanges)
{
    const std::string name = "shar\xc3\xa9"; // the path is UTF-8
    const auto copyFiles = [&name](const std::string& from) {
        for (const char* kind : {".pem", ".key"})
            std::filesystem::copy_file(Certificate(from + kind), Certificate(name + kind),
                                       std::filesystem::copy_options::overwrite_existing);
    };
    copyFiles("server");
    const Session first = NewServer(name), second = NewServer(name), other = NewServer(name, "ca.pem");
    EXPECT_EQ(SSL_get_SSL_CTX(first.get()), SSL_get_SSL_CTX(second.get()));
    EXPECT_NE(SSL_get_SSL_CTX(first.get()), SSL_get_SSL_CTX(other.get()));
    EXPECT_EQ(SSL_get_verify_mode(second.get()), SSL_VERIFY_NONE);
    copyFiles("client");
    EXPECT_NE(X509_cmp(SSL_get_certificate(first.get()), SSL_get_certificate(NewServer(name).get())), 0);
}

// --- The connection class with it

/// @param name of its certificate and key, and of trusted authorities; empty for none
void Enter(ScriptedProduct& socket, bool server, const std::string& name, const std::string& trusted,
           UINT mode = 1)
{
    CTavroProductSocket::Init(OpenSSLProvider());
    socket.Collect();
    socket.SetSSLServer(server, true);
    socket.SetSSLAcceptSuccessNotify(true);
    socket.SetSSLMode(mode, true, false, Path(name, ".pem"), Path(name, ".key"), Path(trusted), "ten chars!");
}

std::vector<std::string> Words(const std::string& command)
{
    std::istringstream text(command);
    std::vector<std::string> words{"/usr/bin/openssl"};
    for (std::string word; text >> word;)
        words.push_back(word.ends_with(".pem") || word.ends_with(".key") ? Certificate(word) : word);
    return words;
}

TEST(RealPeers, TheOpenSSLProgramAsServerAndAsClient)
{
    const struct
    {
        std::string program;
        const char *certificate, *trusted, *hostName; // ours
        std::string
            outcome; // the protocol, or what the error hook is told; empty: only the end of the connection
        bool cut = false; // it ends without a close alert
    } rows[] = {
        {"s_server -tls1_3", "", "", "", "entered TLSv1.3 certified, "},
        {"s_server -tls1_2", "", "ca.pem", "tavronet.test", "entered TLSv1.2 certified, ", true},
        {"s_server -tls1_3", "", "ca.pem", "127.0.0.1", "entered TLSv1.3 certified, ", true},
        {"s_server -tls1_2", "", "other-ca.pem", "", "verify failed: unable to get local issuer certificate"},
        {"s_server -tls1_3", "", "ca.pem", "other.test", "verify failed: hostname mismatch"},
        {"s_server -tls1_3 -cert expired.pem -key expired.key", "", "ca.pem", "", "certificate has expired"},
        {"s_server -tls1_2 -Verify 1 -CAfile ca.pem", "client", "ca.pem", "", "entered TLSv1.2 certified, "},
        {"s_server -tls1_3 -Verify 1 -CAfile ca.pem", "client", "ca.pem", "", "entered TLSv1.3 certified, "},
        {"s_server -tls1_2 -Verify 1 -CAfile ca.pem", "", "ca.pem", "", "alert handshake failure"},
        {"s_server -tls1_3 -Verify 1 -CAfile ca.pem", "", "ca.pem", "", "closed"},
        {"s_client -tls1_3 -CAfile ca.pem -verify_return_error -verify_hostname tavronet.test", "server", "",
         "", "entered TLSv1.3, "},
        {"s_client -tls1_2", "server", "", "", "entered TLSv1.2, ", true},
        {"s_client -tls1_3 -cert client.pem -key client.key", "server", "ca.pem", "",
         "entered TLSv1.3 certified, ", true},
        {"s_client -tls1_2 -cert client.pem -key client.key", "server", "ca.pem", "",
         "entered TLSv1.2 certified, "},
        {"s_client -tls1_3 -CAfile other-ca.pem -verify_return_error", "server", "", "", "alert unknown ca"},
        {"s_client -tls1_3", "server", "ca.pem", "", "peer did not return a certificate"},
        {"s_client -tls1_2 -cert stranger.pem -key stranger.key", "server", "ca.pem", "",
         "verify failed: unable to get local issuer certificate"},
        {"s_client -tls1_3", "locked", "", "", "entered TLSv1.3, "},
        {"s_client -tls1_3", "forgotten", "", "", "forgotten.key"}, // although it is known by now
        {"s_client -tls1_3", "no-such", "", "", "no-such.pem"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.program + " " + row.trusted + " " + row.hostName);
        constexpr int kPatienceMs = 10000;
        const bool weServe = row.program.starts_with("s_client");
        const auto listener = tavronet::PlainSocket::Listening();
        ChildProcess program(Words(row.program.substr(0, 8) +
                                   (weServe ? " -connect 127.0.0.1:" + std::to_string(listener.Port())
                                            : " -accept 127.0.0.1:0 -cert server.pem -key server.key") +
                                   row.program.substr(8)));
        ScriptedProduct ours;
        if (weServe) {
            ASSERT_TRUE(ours.Attach(listener.Accept().Releases(), FD_ALL));
        } else {
            const std::string line = program.AwaitLine("ACCEPT", kPatienceMs);
            ASSERT_TRUE(ours.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0));
            ours.Connect(L"127.0.0.1", static_cast<UINT>(std::atoi(line.c_str() + line.rfind(':') + 1)));
        }
        ours.SetSSLHostName(row.hostName);
        Enter(ours, weServe, row.certificate, row.trusted);
        ours.Send("welcome\n");
        EXPECT_TRUE(PumpUntil([&] { return ours.told.find(row.outcome) != std::string::npos; })) << ours.told;
        if (!row.outcome.starts_with("entered"))
            continue;
        EXPECT_TRUE(program.Write("hello\n"));
        EXPECT_TRUE(PumpUntil([&] { return ours.received == "hello\n"; }));
        EXPECT_NE(program.AwaitLine("welcome", kPatienceMs), "");
        if (row.cut)
            program.Stop();
        else
            EXPECT_TRUE(program.Write("Q\n"));
        EXPECT_TRUE(PumpUntil([&] { return ours.told.find("closed") != std::string::npos; }));
        for (int i = 0; i < 3; ++i)
            ours.Send("to nobody"); // no signal
    }
}

TEST(RealPeers, AConnectionGoesInAndOutOfTlsAgainAndAgainAndNothingQueuedIsLost)
{
    ProductPair pair;
    ScriptedProduct &client = *pair.socket, server;
    ASSERT_TRUE(server.Attach(pair.peer.Releases(), FD_ALL));
    client.SetSSLHostName("tavronet.test");
    client.Collect();
    server.Collect();
    std::string talked;
    const auto talk = [&](const std::string& what) {
        talked += what;
        client.Send(what.c_str());
        server.Send(what.c_str());
    };
    const auto isHeard = [&] { return server.received == talked && client.received == talked; };
    for (UINT round = 1; round <= 4; ++round) {
        talk("plain");
        ASSERT_TRUE(PumpUntil(isHeard)) << round;
        Enter(client, false, "", "ca.pem", round);
        Enter(server, true, "server", "", round);
        talk(std::string(1'000'000, 'x')); // more than the connection holds
        EXPECT_FALSE(client.CanClose());
        if (round != 2)
            client.StopSSLMode();
        if (round != 3)
            server.StopSSLMode();
        for (ScriptedProduct* end : {&client, &server}) {
            EXPECT_TRUE(PumpUntil([&] { return end->told.ends_with("left, "); })) << end->told;
            EXPECT_TRUE(std::exchange(end->told, "").starts_with("entered TLSv1.3"));
        }
        EXPECT_TRUE(isHeard()) << client.received.size() << ", " << server.received.size();
    }
    talk("plain at last");
    EXPECT_TRUE(PumpUntil(isHeard));
}

// --- What the session's I/O object has read ahead belongs to whatever comes next

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
    std::string Says(const std::string& text, bool asksForNewKeys = false)
    {
        if (asksForNewKeys)
            SSL_key_update(m_Session.get(), SSL_KEY_UPDATE_REQUESTED);
        SSL_write(m_Session.get(), text.data(), static_cast<int>(text.size()));
        return Output();
    }
    std::string Ends()
    {
        SSL_shutdown(m_Session.get());
        return Output();
    }

private:
    std::string Output()
    {
        std::string output(65536, ' ');
        const int length = BIO_read(SSL_get_wbio(m_Session.get()), output.data(), 65536);
        return output.substr(0, static_cast<std::size_t>(std::max(length, 0)));
    }

    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> m_Context{SSL_CTX_new(TLS_method()), SSL_CTX_free};
    std::unique_ptr<SSL, decltype(&SSL_free)> m_Session{SSL_new(m_Context.get()), SSL_free};
};

class SessionTest : public testing::Test
{
protected:
    SessionTest()
    {
        EXPECT_TRUE(pair.PumpUntilConnected());
        Enter(server, true, "server", "");
        EXPECT_TRUE(ShakesHands(client));
    }
    bool ShakesHands(Client& from)
    {
        return PumpUntil([&] {
            pair.peer.Writes(from.Shakes(pair.peer.ReadsWaiting()));
            return server.told.ends_with("entered TLSv1.3, ");
        });
    }
    bool Hears(const std::string& text)
    {
        return PumpUntil([&] { return server.received == text; });
    }

    ProductPair pair;
    ScriptedProduct& server = *pair.socket;
    Client client;
};

TEST_F(SessionTest, BehindTheCloseAlertIsClearTextAlsoAfterAPause)
{
    server.PauseReceive(true);
    server.StopSSLMode();
    pair.peer.ReadsWaiting(); // our close alert
    std::string segment = client.Says("in", true);
    segment += client.Says("side, ", true);
    segment += client.Ends() + "in clear";
    pair.peer.Writes(segment);
    tavronet::PumpUntilQuiet();
    EXPECT_EQ(server.received, "");
    server.PauseReceive(false);
    EXPECT_TRUE(Hears("inside, in clear")) << server.received;
    pair.peer.Writes(", later");
    EXPECT_TRUE(Hears("inside, in clear, later")) << server.received;
    EXPECT_EQ(pair.peer.ReadsWaiting(), "") << "behind our close alert";
}

TEST_F(SessionTest, BehindTheCloseAlertIsTheNextHandshake)
{
    Client next;
    server.NotifySSLConnectionShutdownScript = [this] { Enter(server, true, "server", ""); };
    server.StopSSLMode();
    server.told = "";
    pair.peer.ReadsWaiting(); // the rest of the first session
    pair.peer.Writes(client.Ends() + next.Shakes());
    EXPECT_TRUE(ShakesHands(next));
    pair.peer.Writes(next.Says("again"));
    EXPECT_TRUE(Hears("again")) << server.received;
}

TEST_F(SessionTest, AnErrorOfAnotherSocketInTheCloseHookIsNotItsOwn)
{
    server.OnCloseScript = [&](int error) {
        server.BaseOnClose(error);
        WSASetLastError(WSAECONNABORTED);
    };
    pair.peer.Writes(client.Ends() + "in clear");
    EXPECT_TRUE(Hears("in clear"));
}

TEST_F(SessionTest, AThrowingHookLeavesItListening)
{
    server.ProcessReceiveScript = [](auto...) -> bool { throw 1; };
    pair.peer.Writes(client.Says("dropped"));
    EXPECT_THROW(Hears("dropped"), int);
    server.Collect();
    pair.peer.Writes(client.Says("heard"));
    EXPECT_TRUE(Hears("heard")) << server.received;
}

TEST_F(SessionTest, LeavingEndsWithTheConnection)
{
    for (int i = 0; i < 10; ++i)
        server.IncrementPendingPackets(); // so that the alert is not read before the end of the connection
    server.StopSSLMode();
    pair.peer.Writes(client.Ends());
    pair.peer.Closes();
    EXPECT_TRUE(PumpUntil([&] { return server.CanClose() && !server.GetSSL(); }));
}

// Of which an earlier version went on asking for what had been read ahead.
TEST(SessionThatFails, TheRestOfTheGarbageIsNotReportedWithoutEnd)
{
    ProductPair pair;
    Enter(*pair.socket, true, "server", "");
    pair.peer.Writes("garbage garbage");
    tavronet::PumpUntilQuiet();
    EXPECT_EQ(pair.socket->told, "wrong version number");
}

} // namespace
