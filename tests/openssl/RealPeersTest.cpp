// The connection class with the ready-made provider: against the openssl program, and against itself.

#include <gmock/gmock.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "tavronet/openssl/OpenSSLProvider.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/socket/TavroProductSocket.h"
#include "tests/openssl/Certificates.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/PlainSocket.h"

using tavronet::Certificate;
using tavronet::ChildProcess;
using tavronet::PlainSocket;
using tavronet::PumpUntil;
using testing::HasSubstr;

namespace
{

constexpr int kPatienceMs = 10000;

/// Names of make-certificates, empty for none.
struct Files
{
    std::string certificate, trusted;
};

class Connection : public CTavroProductSocket
{
public:
    void Enter(bool server, const Files& files, UINT mode = 1)
    {
        Init(OpenSSLProvider());
        const std::string name = files.certificate.empty() ? "" : Certificate(files.certificate);
        const auto file = [](const std::string& path) { return CStringW(path.c_str()); };
        SetSSLServer(server, true);
        SetSSLAcceptSuccessNotify(true);
        SetSSLMode(mode, true, false, file(name.empty() ? "" : name + ".pem"),
                   file(name.empty() ? "" : name + ".key"),
                   file(files.trusted.empty() ? "" : Certificate(files.trusted)), "");
    }
    bool Hears(const std::string& text)
    {
        return PumpUntil([&] { return received.find(text) != std::string::npos; });
    }

    std::string received, told, version, certificate;
    int closed = 0;
    bool leavesWhenClosed = false;

private:
    bool ProcessReceive(unsigned char*& buffer, int& length) override
    {
        received.append(reinterpret_cast<const char*>(buffer),
                        static_cast<std::size_t>(std::exchange(length, 0)));
        return true;
    }
    void OnClose(int error) override
    {
        ++closed;
        CTavroProductSocket::OnClose(error);
        if (leavesWhenClosed)
            StopSSLMode();
    }
    void NotifySSLAcceptSuccess(const char*, const char* protocol, const char*, const char* peer,
                                int) override
    {
        version = protocol;
        certificate = peer;
    }
    void NotifySSLAcceptError(const char*, const char*, const char* reason) override { told += reason; }
};

std::vector<std::string> Words(const std::string& command)
{
    std::vector<std::string> words{"/usr/bin/openssl"};
    for (std::size_t at = 0; at < command.size();) {
        const std::size_t end = std::min(command.find(' ', at), command.size());
        const std::string word = command.substr(at, end - at);
        words.push_back(word.ends_with(".pem") || word.ends_with(".key") ? Certificate(word) : word);
        at = end + 1;
    }
    return words;
}

} // namespace

TEST(RealPeers, AClientMeetsTheServersOfTheProgram)
{
    const struct
    {
        const char* server;
        Files client;
        const char *hostName,
            *outcome; // the protocol, or what the error hook is told; empty: only the end of it
    } rows[] = {
        {"-tls1_3", {"", ""}, "", "TLSv1.3"},
        {"-tls1_2", {"", "ca.pem"}, "tavronet.test", "TLSv1.2"},
        {"-tls1_3", {"", "ca.pem"}, "127.0.0.1", "TLSv1.3"},
        {"-tls1_2",
         {"", "other-ca.pem"},
         "",
         "certificate verify failed: unable to get local issuer certificate"},
        {"-tls1_3", {"", "ca.pem"}, "other.test", "certificate verify failed: hostname mismatch"},
        {"-tls1_3 -cert expired.pem -key expired.key",
         {"", "ca.pem"},
         "",
         "certificate verify failed: certificate has expired"},
        {"-tls1_2 -Verify 1 -CAfile ca.pem", {"client", "ca.pem"}, "", "TLSv1.2"},
        {"-tls1_3 -Verify 1 -CAfile ca.pem", {"client", "ca.pem"}, "", "TLSv1.3"},
        {"-tls1_2 -Verify 1 -CAfile ca.pem", {"", "ca.pem"}, "", "alert handshake failure"},
        {"-tls1_3 -Verify 1 -CAfile ca.pem", {"", "ca.pem"}, "", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.server) + " " + row.client.trusted + " " + row.hostName);
        const std::string own = std::string(row.server).find("-cert") == std::string::npos
                                    ? "-cert server.pem -key server.key "
                                    : "";
        ChildProcess server(Words("s_server -accept 127.0.0.1:0 -rev " + own + row.server),
                            ChildProcess::Place::Here);
        const std::string line = server.AwaitLine("ACCEPT", kPatienceMs);
        ASSERT_NE(line, "");
        Connection client;
        ASSERT_TRUE(client.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0));
        client.Connect(L"127.0.0.1", static_cast<UINT>(std::stoi(line.substr(line.rfind(':') + 1))));
        client.SetSSLHostName(row.hostName);
        client.Enter(false, row.client);
        client.Send("hello\n");
        const std::string outcome = row.outcome;
        if (outcome.starts_with("TLS")) {
            EXPECT_TRUE(client.Hears("olleh")) << client.told;
            EXPECT_EQ(client.version, outcome);
            client.Send("CLOSE\n"); // has the server end with a close alert
            EXPECT_TRUE(PumpUntil([&] { return client.closed > 0; }));
            client.StopSSLMode();
            EXPECT_FALSE(client.GetSSL());
        } else {
            EXPECT_TRUE(
                PumpUntil([&] { return outcome.empty() ? client.closed > 0 : !client.told.empty(); }));
            EXPECT_THAT(client.told, HasSubstr(outcome));
            EXPECT_EQ(client.received, "");
        }
    }
}

TEST(RealPeers, AServerMeetsTheClientsOfTheProgram)
{
    enum class End
    {
        CloseAlert,
        Cut
    };
    const struct
    {
        const char* client;
        Files server;
        const char* outcome;
        End end;
    } rows[] = {
        {"-tls1_3 -CAfile ca.pem -verify_return_error -verify_hostname tavronet.test",
         {"server", ""},
         "TLSv1.3",
         End::CloseAlert},
        {"-tls1_2", {"server", ""}, "TLSv1.2", End::Cut},
        {"-tls1_3 -cert client.pem -key client.key", {"server", "ca.pem"}, "TLSv1.3", End::Cut},
        {"-tls1_2 -cert client.pem -key client.key", {"server", "ca.pem"}, "TLSv1.2", End::CloseAlert},
        {"-tls1_3 -CAfile other-ca.pem -verify_return_error", {"server", ""}, "alert unknown ca", End::Cut},
        {"-tls1_3", {"server", "ca.pem"}, "peer did not return a certificate", End::Cut},
        {"-tls1_2 -cert stranger.pem -key stranger.key",
         {"server", "ca.pem"},
         "certificate verify failed: unable to get local issuer certificate",
         End::Cut},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.client);
        const PlainSocket listener = PlainSocket::Listening();
        ChildProcess client(
            Words("s_client -connect 127.0.0.1:" + std::to_string(listener.Port()) + " " + row.client),
            ChildProcess::Place::Here);
        PlainSocket accepted = listener.Accept();
        Connection server;
        ASSERT_TRUE(server.Attach(accepted.Releases(), FD_ALL));
        server.Enter(true, row.server);
        server.Send("welcome\n");
        const std::string outcome = row.outcome;
        if (!outcome.starts_with("TLS")) {
            EXPECT_TRUE(PumpUntil([&] { return !server.told.empty(); }));
            EXPECT_THAT(server.told, HasSubstr(outcome));
            continue;
        }
        EXPECT_TRUE(PumpUntil([&] { return server.version == outcome; })) << server.told;
        EXPECT_TRUE(client.Write("hello\n"));
        EXPECT_TRUE(server.Hears("hello\n"));
        EXPECT_NE(client.AwaitLine("welcome", kPatienceMs), "");
        EXPECT_EQ(server.certificate.starts_with("-----BEGIN CERTIFICATE-----"), !row.server.trusted.empty());
        if (row.end == End::CloseAlert)
            EXPECT_TRUE(client.Write("Q\n"));
        else
            client.Stop();
        EXPECT_TRUE(PumpUntil([&] { return server.closed > 0; }));
        EXPECT_EQ(server.GetSSL(), true);
        for (int i = 0; i < 3; ++i)
            server.Send("to nobody"); // no signal
    }
}

TEST(RealPeers, AConnectionGoesInAndOutOfTlsAgainAndAgain)
{
    const PlainSocket listener = PlainSocket::Listening();
    Connection client, server;
    ASSERT_TRUE(client.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0));
    client.Connect(L"127.0.0.1", listener.Port());
    PlainSocket accepted = listener.Accept();
    ASSERT_TRUE(server.Attach(accepted.Releases(), FD_ALL));
    std::string toServer, toClient;
    const auto talk = [&](const std::string& what) {
        toServer += "c" + what;
        toClient += "s" + what;
        client.Send(("c" + what).c_str());
        server.Send(("s" + what).c_str());
        return PumpUntil([&] { return server.received == toServer && client.received == toClient; });
    };
    client.leavesWhenClosed = server.leavesWhenClosed = true;
    const std::string bulk(300'000, 'x');
    for (UINT round = 1; round <= 4; ++round) {
        ASSERT_TRUE(talk("plain")) << round;
        client.SetSSLHostName("tavronet.test");
        client.Enter(false, {"", "ca.pem"}, round);
        server.Enter(true, {"server", ""}, round);
        ASSERT_TRUE(talk(bulk)) << client.told << server.told;
        EXPECT_TRUE(client.GetSSL() && server.GetSSL());
        Connection& leaver = round % 2 == 0 ? client : server;
        leaver.Send("last words");
        (round % 2 == 0 ? toServer : toClient) += "last words";
        leaver.StopSSLMode();
        EXPECT_TRUE(PumpUntil([&] { return !client.GetSSL() && !server.GetSSL(); }));
    }
    EXPECT_TRUE(talk("plain at last"));
    EXPECT_EQ(client.told + server.told, "");
}
