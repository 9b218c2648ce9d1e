// The connection class with the ready-made provider: against the openssl program, and against itself.

#include <gmock/gmock.h>

#include <sstream>
#include <string>

#include "tavronet/openssl/OpenSSLProvider.h"
#include "tests/openssl/Certificates.h"
#include "tests/socket/ScriptedProduct.h"
#include "tests/support/Programs.h"

using tavronet::ChildProcess;
using tavronet::PumpUntil;

namespace
{

/// @param name of its certificate and key, and of trusted authorities; empty for none
void Enter(ScriptedProduct& socket, bool server, const std::string& name, const std::string& trusted,
           UINT mode = 1)
{
    const auto path = [](bool used, const std::string& file) {
        return CStringW(used ? tavronet::Certificate(file).c_str() : "");
    };
    CTavroProductSocket::Init(OpenSSLProvider());
    socket.Collect();
    socket.SetSSLServer(server, true);
    socket.SetSSLAcceptSuccessNotify(true);
    socket.SetSSLMode(mode, true, false, path(name != "", name + ".pem"), path(name != "", name + ".key"),
                      path(trusted != "", trusted), "ten chars!");
}

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

TEST(RealPeers, AConnectionGoesInAndOutOfTlsAgainAndAgain)
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
        return PumpUntil([&] { return server.received == talked && client.received == talked; });
    };
    for (UINT round = 1; round <= 4; ++round) {
        ASSERT_TRUE(talk("plain")) << round;
        Enter(client, false, "", "ca.pem", round);
        Enter(server, true, "server", "", round);
        ASSERT_TRUE(talk(std::string(300'000, 'x'))) << client.told << server.told;
        EXPECT_TRUE(client.GetSSL() && server.GetSSL());
        (round % 2 == 0 ? client : server).StopSSLMode();
        EXPECT_TRUE(PumpUntil([&] { return !client.GetSSL() && !server.GetSSL(); }));
    }
    EXPECT_TRUE(talk("plain at last"));
}
