// SSL mode against a provider without cryptography: every call of it may answer anything, and clear text
// shows.

#include <gmock/gmock.h>

#include <string>
#include <tuple>

#include "ScriptedProduct.h"
#include "ToySSL.h"
#include "tavronet/platform/TestSeams.h"

using tavronet::PumpUntilQuiet;

namespace
{

void Enter(ScriptedProduct& socket, UINT mode = 1)
{
    socket.SetSSLMode(mode, true, false, L"c", L"k", L"a", "ten chars!");
}

/// A connection and its plain peer.
struct Connection
{
    Connection()
    {
        socket.Collect();
        socket.SetSSLAcceptSuccessNotify(true);
        socket.around = [this](const std::string& hook, bool after) {
            notifications += !after && (hook == "OnReceive" || hook == "OnSend") ? 1 : 0;
        };
    }
    /// Unless the session dies before. Errors of other sockets come and go meanwhile.
    void Await(const std::function<bool()>& done)
    {
        const bool over = tavronet::PumpUntil([&] {
            toy.errors = 1;
            got.Feed(peer.ReadsWaiting());
            return toy.died || done();
        });
        EXPECT_TRUE(over) << "received " << socket.received << ", clear " << got.clear << ", told "
                          << socket.told;
    }
    ToySSL toy;
    ProductPair pair;
    ScriptedProduct& socket = *pair.socket;
    tavronet::PlainSocket& peer = pair.peer;
    ToyReader got; // by the peer
    int notifications = 0;
};

/// Has the mode refused, for want of an entry of the provider.
template <typename Entry>
std::function<void(Connection&)> EnterWithout(Entry COpenSSL::*entry)
{
    return [entry](Connection& both) {
        both.toy.table.*entry = nullptr;
        both.toy.errors = 1;
        Enter(both.socket);
    };
}

class ProductSSLPassage : public testing::TestWithParam<std::tuple<bool, int>>
{};

TEST_P(ProductSSLPassage, InAndOutTwiceWhateverOneCallAnswers)
{
    const auto [server, fault] = GetParam();
    const bool fatal = fault == kSSLErrorFatal || fault == kSSLErrorSyscall;
    bool reached = true;
    for (int faultAt = 1; reached; ++faultAt) {
        SCOPED_TRACE(faultAt);
        Connection both;
        both.toy.fault = [faultAt, wanted = fault](int call, const std::string& entry) {
            return call == faultAt && (wanted != ToySSL::kRetry || entry == "shake") ? wanted : 0;
        };
        both.socket.SetSSLServer(server, false);
        for (const unsigned round : {1U, 2U}) {
            Enter(both.socket, round);
            both.socket.Send("secret");
            both.peer.Writes(kToyHello + ToyData("in "));
            both.Await(
                [&] { return both.got.plain.size() == 6 * round && both.socket.received.ends_with("in "); });
            if (round == 1)
                both.socket.StopSSLMode();
            both.Await([&] { return both.got.closes == 1; });
            both.peer.Writes(ToyData("late ") + kToyClose + "clear ");
            both.Await([&] {
                return both.got.closes == int(round) && both.socket.received.ends_with("late clear ");
            });
            both.socket.Send("open");
            both.Await([&] { return both.got.clear.size() == 4 * round; });
        }
        PumpUntilQuiet();
        reached = both.toy.calls >= faultAt;
        const std::string all = both.socket.told + both.got.plain + both.got.clear + both.socket.received;
        EXPECT_TRUE(fatal || all == "entered , left, entered , closed 0, left, secretsecretopenopen"
                                    "in late clear in late clear ")
            << all;
        both.socket.StopSSLMode();
        EXPECT_FALSE(both.socket.GetExitSSLModeWhenDone());
        EXPECT_EQ(both.got.clear.find("secret"), std::string::npos);
        ASSERT_FALSE(HasFailure());
    }
}

INSTANTIATE_TEST_SUITE_P(, ProductSSLPassage,
                         testing::Combine(testing::Bool(),
                                          testing::Values(kSSLErrorWantRead, kSSLErrorWantWrite,
                                                          ToySSL::kRetry, kSSLErrorFatal, kSSLErrorSyscall)));

TEST(ProductSSL, SetsUpWhatIsAskedFor)
{
    const struct
    {
        UINT mode;
        bool server, certificates, noSSLv2, weak, restricted;
        const char* log;
    } rows[] = {
        {1, true, false, true, false, false, "mode 1, 32 20971520, standard, cert c, key k, ca a, trust, "},
        {2, false, true, false, true, false,
         "general, 32 4194304, weak, cert c, key k, ca a, trust, host checked h, "},
        {2, false, false, false, false, false, "general, 32 4194304, standard, host h, "},
        {2, false, false, false, false, true, "mode 1, 32 4194304, host h, "},
    };
    for (const auto& row : rows) {
        Connection both;
        both.toy.table.m_pSSL_restricted = row.restricted ? +[] { return 1; } : nullptr;
        both.socket.SetSSLServer(row.server, row.certificates);
        both.socket.SetSSLHostName("h");
        for (int twice = 0; twice < 2; ++twice) // it is the mode already
            both.socket.SetSSLMode(row.mode, row.noSSLv2, row.weak, L"c", L"k", L"a", "ten chars!");
        EXPECT_EQ(both.toy.log, row.log);
        if (both.toy.phrase == nullptr)
            continue;
        char buffer[11] = "";
        EXPECT_EQ(both.toy.phrase(buffer, 10, 0, both.toy.phraseData), 0);
        EXPECT_EQ(both.toy.phrase(buffer, 11, 0, both.toy.phraseData), 10);
        EXPECT_STREQ(buffer, "ten chars!");
    }
}

/// Whatever keeps a session from going on: nothing is told without end, or twice, nothing leaves in clear that was
/// meant for it, nothing of the peer's gets lost, and it can be left.
TEST(ProductSSL, ASessionThatCannotGoOnCanBeLeft)
{
    static const std::string bulk(500'000, 'b'); // more than the system takes
    const struct
    {
        const char* why;
        bool shaken; // with a client that has said hello
        std::function<void(Connection&)> happens;
        std::string received, told;
        std::string data = ""; // that the peer got
    } rows[] = {
        {"no provider", false,
         [](Connection& both) {
             CTavroProductSocket::Init(nullptr);
             Enter(both.socket);
         },
         "", ""},
        {"no context", false, EnterWithout(&COpenSSL::m_pSSL_CTX_new), "", "broken"},
        {"no session", false, EnterWithout(&COpenSSL::m_pSSL_new), "", "broken"},
        {"no certificate", false, EnterWithout(&COpenSSL::m_pSSL_CTX_use_certificate_file), "", "refused c"},
        {"no key", false, EnterWithout(&COpenSSL::m_pSSL_CTX_use_PrivateKey_file), "", "refused k"},
        {"no authorities", false, EnterWithout(&COpenSSL::m_pSSL_CTX_load_verify_locations), "", "refused a"},
        {"no trust", false, EnterWithout(&COpenSSL::m_pSSL_CTX_trust_loaded), "", "refused a"},
        {"no check of the host name", false,
         [](Connection& both) {
             both.socket.SetSSLServer(false, true);
             both.socket.SetSSLHostName("h");
             EnterWithout (&COpenSSL::m_pSSL_set_host_name)(both);
         },
         "", "the provider cannot check the host name"},
        {"the handshake fails", false,
         [](Connection& both) {
             Enter(both.socket);
             both.socket.Send("secret");
             both.peer.Writes("220 no such thing here");
             PumpUntilQuiet();
             EXPECT_EQ(both.socket.GetSendBufferSize(), 0);
             EXPECT_EQ(both.socket.Send("secret"), -1);
             EXPECT_EQ(WSAGetLastError(), WSAECONNABORTED);
         },
         "", "brokenleft, "},
        {"clear text stands behind the command that asks for it", false,
         [](Connection& both) {
             both.socket.ProcessReceiveScript = [&](unsigned char*& buffer, int& length) {
                 both.socket.received = ScriptedSocket::Text(buffer, length);
                 if (*buffer != 'U')
                     return false;
                 length -= 1;
                 buffer += 1;
                 both.peer.Writes(kToyHello + ToyData("late ") + kToyClose);
                 Enter(both.socket);
                 return true;
             };
             both.peer.Writes("U injected");
         },
         "late ", "entered , closed 0, left, "},
        {"leaving waits for the host's gate", true,
         [](Connection& both) {
             both.socket.OkayToSendScript = [] { return false; };
             both.socket.Send("queued");
             both.socket.StopSSLMode();
             both.peer.Writes(ToyData("late ") + kToyClose + "clear");
         },
         "late clear", "left, ", "queued"},
        {"reading waits for room to write", true,
         [](Connection& both) {
             both.socket.Send(bulk.c_str());
             PumpUntilQuiet();
             both.toy.fault = [](int, const std::string& entry) {
                 return entry == "read" || entry == "peek" ? int{kSSLErrorWantWrite} : 0;
             };
             both.peer.Writes(ToyData("late ") + kToyClose);
         },
         "late ", "left, ", bulk},
        {"its handle is gone", true,
         [](Connection& both) {
             both.socket.Attach(both.socket.Detach(), FD_ALL);
             both.peer.Writes("clear");
         },
         "clear", "left, "},
        {"the provider cannot leave", true,
         [](Connection& both) {
             both.toy.table.m_pSSL_peek = nullptr;
             both.toy.table.m_pSSL_shutdown = nullptr;
             both.toy.table.m_pSSL_get_error = nullptr;
             both.socket.StopSSLMode();
             both.peer.Writes("clear");
         },
         "clear", "left, "},
        {"a record is corrupt", true, [](Connection& both) { both.peer.Writes(ToyData("good") + "?"); },
         "good", "closed 10053, left, "},
        {"the host closes and connects anew", true,
         [](Connection& both) {
             both.socket.Send(bulk.c_str());
             both.socket.Close();
             both.pair.Connect();
         },
         "", "left, "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        Connection both;
        ASSERT_TRUE(both.pair.PumpUntilConnected());
        PumpUntilQuiet();
        if (row.shaken) {
            Enter(both.socket);
            both.peer.Writes(kToyHello);
            both.Await([&] { return both.socket.told == "entered , "; });
            PumpUntilQuiet();
            EXPECT_EQ(both.socket.GetLastError(), WSAEWOULDBLOCK) << "of the session";
            both.socket.told = "";
        }
        row.happens(both);
        both.notifications = 0;
        PumpUntilQuiet();
        EXPECT_LT(both.notifications, 30);

        both.socket.OkayToSendScript = nullptr;
        both.toy.fault = nullptr;
        both.socket.StopSSLMode();
        both.socket.OnSend(0);
        both.toy.died = false;
        both.Await([&] { return both.socket.received == row.received && both.socket.CanClose(); });
        EXPECT_EQ(both.socket.told, row.told);
        EXPECT_TRUE(both.got.plain == row.data);
        if (both.socket.GetSocket() == INVALID_SOCKET)
            continue;
        both.socket.Send("open");
        both.Await([&] { return both.got.clear == "open"; });
    }
}

} // namespace
