// The connection class with the ready-made provider: against the openssl program, and against itself.

#include <gmock/gmock.h>

#include <sstream>
#include <string>

#include "tavronet/openssl/OpenSSLProvider.h"
#include "tavronet/socket/TavroProductSocket.h"
#include "tests/openssl/Certificates.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LoopbackPair.h"

using tavronet::ChildProcess;
using tavronet::PumpUntil;

namespace
{

class Connection : public CTavroProductSocket
{
public:
    /// @param name of its certificate and key, and of trusted authorities; empty for none
    void Enter(bool server, const std::string& name, const std::string& trusted, UINT mode = 1)
    {
        EnterWithFiles(server, name + ".pem", name + ".key", trusted, "", mode);
    }
    void EnterWithFiles(bool server, const std::string& certificateFile, const std::string& key,
                        const std::string& trusted, const char* phrase, UINT mode)
    {
        const auto path = [](const std::string& file) {
            return file.empty() || file[0] == '.' ? CStringW()
                                                  : CStringW(tavronet::Certificate(file).c_str());
        };
        Init(OpenSSLProvider());
        SetSSLServer(server, true);
        SetSSLAcceptSuccessNotify(true);
        SetSSLMode(mode, true, false, path(certificateFile), path(key), path(trusted), phrase);
    }

    std::string received, told, version, certificate;
    int closed = 0;

private:
    bool ProcessReceive(unsigned char*& buffer, int& length) override
    {
        received.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length));
        length = 0;
        return true;
    }
    void OnClose(int error) override
    {
        ++closed;
        CTavroProductSocket::OnClose(error);
        StopSSLMode();
    }
    void NotifySSLAcceptSuccess(const char*, const char* protocol, const char*, const char* peer,
                                int) override
    {
        version = protocol;
        certificate = peer;
    }
    void NotifySSLAcceptError(const char*, const char*, const char* reason) override { told += reason; }
    void NotifySSLCantOpenCertFile(const wchar_t*) override { told += "certificate"; }
    void NotifySSLCantOpenPrivateKeyFile(const wchar_t*) override { told += "key"; }
};

std::vector<std::string> Words(const std::string& command)
{
    std::istringstream text(command);
    std::vector<std::string> words{"/usr/bin/openssl"};
    for (std::string word; text >> word;)
        words.push_back(word.ends_with(".pem") || word.ends_with(".key") ? tavronet::Certificate(word)
                                                                         : word);
    return words;
}

} // namespace

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
        {"s_server -tls1_3", "", "", "", "TLSv1.3"},
        {"s_server -tls1_2", "", "ca.pem", "tavronet.test", "TLSv1.2", true},
        {"s_server -tls1_3", "", "ca.pem", "127.0.0.1", "TLSv1.3", true},
        {"s_server -tls1_2", "", "other-ca.pem", "", "verify failed: unable to get local issuer certificate"},
        {"s_server -tls1_3", "", "ca.pem", "other.test", "verify failed: hostname mismatch"},
        {"s_server -tls1_3 -cert expired.pem -key expired.key", "", "ca.pem", "", "certificate has expired"},
        {"s_server -tls1_2 -Verify 1 -CAfile ca.pem", "client", "ca.pem", "", "TLSv1.2"},
        {"s_server -tls1_3 -Verify 1 -CAfile ca.pem", "client", "ca.pem", "", "TLSv1.3"},
        {"s_server -tls1_2 -Verify 1 -CAfile ca.pem", "", "ca.pem", "", "alert handshake failure"},
        {"s_server -tls1_3 -Verify 1 -CAfile ca.pem", "", "ca.pem", "", ""},
        {"s_client -tls1_3 -CAfile ca.pem -verify_return_error -verify_hostname tavronet.test", "server", "",
         "", "TLSv1.3"},
        {"s_client -tls1_2", "server", "", "", "TLSv1.2", true},
        {"s_client -tls1_3 -cert client.pem -key client.key", "server", "ca.pem", "", "TLSv1.3", true},
        {"s_client -tls1_2 -cert client.pem -key client.key", "server", "ca.pem", "", "TLSv1.2"},
        {"s_client -tls1_3 -CAfile other-ca.pem -verify_return_error", "server", "", "", "alert unknown ca"},
        {"s_client -tls1_3", "server", "ca.pem", "", "peer did not return a certificate"},
        {"s_client -tls1_2 -cert stranger.pem -key stranger.key", "server", "ca.pem", "",
         "verify failed: unable to get local issuer certificate"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.program + " " + row.trusted + " " + row.hostName);
        constexpr int kPatienceMs = 10000;
        const bool weServe = row.program.starts_with("s_client");
        const auto listener = tavronet::PlainSocket::Listening();
        ChildProcess program(Words(row.program.substr(0, 8) +
                                   (weServe ? " -connect 127.0.0.1:" + std::to_string(listener.Port())
                                            : " -accept 127.0.0.1:0 -cert server.pem -key server.key") +
                                   row.program.substr(8)),
                             ChildProcess::Place::Here);
        Connection ours;
        if (weServe) {
            ASSERT_TRUE(ours.Attach(listener.Accept().Releases(), FD_ALL));
        } else {
            const std::string line = program.AwaitLine("ACCEPT", kPatienceMs);
            ASSERT_TRUE(ours.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0));
            ours.Connect(L"127.0.0.1", static_cast<UINT>(std::atoi(line.c_str() + line.rfind(':') + 1)));
        }
        ours.SetSSLHostName(row.hostName);
        ours.Enter(weServe, row.certificate, row.trusted);
        ours.Send("welcome\n");
        if (!row.outcome.starts_with("TLS")) {
            EXPECT_TRUE(PumpUntil([&] { return row.outcome.empty() ? ours.closed > 0 : ours.told != ""; }));
            EXPECT_THAT(ours.told, testing::HasSubstr(row.outcome));
            continue;
        }
        EXPECT_TRUE(PumpUntil([&] { return ours.version == row.outcome; })) << ours.told;
        EXPECT_TRUE(program.Write("hello\n"));
        EXPECT_TRUE(PumpUntil([&] { return ours.received == "hello\n"; }));
        EXPECT_NE(program.AwaitLine("welcome", kPatienceMs), "");
        EXPECT_EQ(ours.certificate.starts_with("-----BEGIN CERTIFICATE"), !weServe || *row.trusted != '\0');
        if (row.cut)
            program.Stop();
        else
            EXPECT_TRUE(program.Write("Q\n"));
        EXPECT_TRUE(PumpUntil([&] { return ours.closed > 0; }));
        for (int i = 0; i < 3; ++i)
            ours.Send("to nobody"); // no signal
    }
}

TEST(RealPeers, FilesAreReadOrRefused)
{
    const struct
    {
        const char *certificate, *key, *phrase, *told;
    } rows[] = {
        {"server.pem", "server.key", "", ""},
        {"server.pem", "locked.key", "ten chars!", ""},
        {"server.pem", "locked.key", "wrong", "key"}, // although the key is known by now
        {"server.pem", "client.key", "", "key"},      // another's
        {"no-such.pem", "no-such.key", "", "certificate"},
        {"server.key", "server.pem", "", "certificate"}, // the wrong way round
    };
    for (const auto& row : rows) {
        tavronet::LoopbackPair<Connection> pair;
        pair.socket->EnterWithFiles(true, row.certificate, row.key, "", row.phrase, 1);
        EXPECT_EQ(pair.socket->told, row.told) << row.certificate << " " << row.key << " " << row.phrase;
    }
}

TEST(RealPeers, AConnectionGoesInAndOutOfTlsAgainAndAgain)
{
    tavronet::LoopbackPair<Connection> pair;
    Connection &client = *pair.socket, server;
    ASSERT_TRUE(server.Attach(pair.peer.Releases(), FD_ALL));
    std::string toServer, toClient;
    const auto talk = [&](const std::string& what) {
        toServer += "c" + what;
        toClient += "s" + what;
        client.Send(("c" + what).c_str());
        server.Send(("s" + what).c_str());
        return PumpUntil([&] { return server.received == toServer && client.received == toClient; });
    };
    for (UINT round = 1; round <= 4; ++round) {
        ASSERT_TRUE(talk("plain")) << round;
        client.SetSSLHostName("tavronet.test");
        client.Enter(false, "", "ca.pem", round);
        server.Enter(true, "server", "", round);
        ASSERT_TRUE(talk(std::string(300'000, 'x'))) << client.told << server.told;
        EXPECT_TRUE(client.GetSSL() && server.GetSSL());
        (round % 2 == 0 ? client : server).Send("last words");
        (round % 2 == 0 ? toServer : toClient) += "last words";
        (round % 2 == 0 ? client : server).StopSSLMode();
        EXPECT_TRUE(PumpUntil([&] { return !client.GetSSL() && !server.GetSSL(); }));
    }
    EXPECT_TRUE(talk("plain at last"));
    EXPECT_EQ(client.told + server.told, "");
}
