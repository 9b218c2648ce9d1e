// SSL mode against a provider without cryptography: every call of it may answer anything, and clear text
// shows.

#include <gmock/gmock.h>

#include <string>
#include <tuple>
#include <vector>

#include "HookScenario.h"
#include "ScriptedProduct.h"
#include "ToySSL.h"
#include "tavronet/platform/TestSeams.h"

using tavronet::PumpUntil;
using tavronet::PumpUntilQuiet;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace
{

void Enter(ScriptedProduct& socket, UINT mode)
{
    socket.SetSSLMode(mode, true, false, L"", L"", L"", "");
}

/// A connection that goes in and out of SSL mode twice, and a peer that plays its part whatever comes.
class Passage
{
public:
    Passage(bool server, int faultAt, int fault)
    {
        toy.fault = [this, faultAt, fault](int call, const std::string& entry) {
            if (call != faultAt || (fault == ToySSL::kRetry && entry != "shake"))
                return 0;
            faulted = entry;
            return fault;
        };
        pair.socket->Collect();
        pair.socket->SetSSLServer(server, false);
        pair.socket->SetSSLAcceptSuccessNotify(true);
        pair.socket->around = [this](const std::string& hook, bool after) {
            if (!after && hook.starts_with("NotifySSL") && hook != "NotifySSLAcceptPending")
                hooks.push_back(hook.substr(9));
        };
    }

    void Go()
    {
        EnterAndTalk(1, "first");
        pair.socket->StopSSLMode();
        Await([this] { return Wire().Has('C'); });
        pair.peer.Writes(ToyData(" late") + ToyRecord('C') + " clear");
        Await([this] { return pair.socket->received == "first late clear"; });
        TalkInClear();

        EnterAndTalk(2, " second");
        pair.socket->OnCloseScript = [this](int) { pair.socket->StopSSLMode(); }; // as a protocol may have it
        pair.peer.Writes(ToyRecord('C') + " again");
        Await([this] { return pair.socket->received == "first late clear second again"; });
        TalkInClear();
        PumpUntilQuiet();
    }

    ToySSL toy;
    ProductPair pair;
    std::vector<std::string> hooks;
    std::string faulted; // the entry
    std::string clear;   // what has left outside of records
    std::string secret;  // and inside

private:
    struct Records : ToyReader
    {
        [[nodiscard]] bool Has(char letter) const { return letters.find(letter) != std::string::npos; }
    };

    void EnterAndTalk(UINT mode, const std::string& answer)
    {
        m_Records = {};
        Enter(*pair.socket, mode);
        pair.socket->Send("secret");
        pair.peer.Writes(ToyRecord('H') + ToyData(answer));
        Await([this] { return Wire().plain == "secret"; });
        Await([&] { return pair.socket->received.ends_with(answer); });
    }
    void TalkInClear()
    {
        Await([this] { return Wire().Has('C'); });
        pair.socket->Send("open");
        const std::string expected = clear + "open";
        Await([&] {
            Wire();
            return clear == expected;
        });
        secret += m_Records.plain;
        m_Records = {};
    }
    /// What the peer has got: records up to the close alert, behind it clear text.
    Records& Wire()
    {
        for (const char c : pair.peer.ReadsWaiting()) {
            if (m_Records.Has('C'))
                clear += c;
            else
                m_Records.Feed(std::string(1, c));
        }
        return m_Records;
    }
    /// Errors of other sockets come and go meanwhile.
    void Await(const std::function<bool()>& done)
    {
        const bool over = PumpUntil([&] {
            toy.errors.assign(1, 9);
            return toy.died || done();
        });
        EXPECT_TRUE(over) << "received " << pair.socket->received << ", clear " << clear;
    }

    Records m_Records;
};

class ProductSSLPassage : public testing::TestWithParam<std::tuple<bool, int>>
{};

TEST_P(ProductSSLPassage, EveryCallMayAnswerOtherwise)
{
    const auto [server, fault] = GetParam();
    const bool fatal = fault == kSSLErrorFatal || fault == kSSLErrorSyscall;
    bool reached = true;
    for (int call = 1; reached; ++call) {
        SCOPED_TRACE(call);
        Passage passage(server, call, fault);
        passage.Go();
        reached = passage.toy.calls >= call;
        if (!fatal) {
            EXPECT_THAT(passage.hooks, ElementsAre("AcceptSuccess", "ConnectionShutdown", "AcceptSuccess",
                                                   "ConnectionShutdown"));
            EXPECT_EQ(passage.clear, "openopen");
            EXPECT_EQ(passage.secret, "secretsecret");
        }
        EXPECT_THAT(passage.clear, Not(HasSubstr("secret"))) << passage.faulted;
        passage.pair.socket.reset();
        EXPECT_EQ(passage.toy.alive, 0);
        ASSERT_FALSE(HasFailure()) << passage.faulted;
    }
}

INSTANTIATE_TEST_SUITE_P(, ProductSSLPassage,
                         testing::Combine(testing::Bool(),
                                          testing::Values(kSSLErrorWantRead, kSSLErrorWantWrite,
                                                          ToySSL::kRetry, kSSLErrorFatal, kSSLErrorSyscall)));

// --- Setting up

TEST(ProductSSLSetup, WhatIsAskedForIsSetUpAndARefusalEndsInItsHookWithTheModeOff)
{
    const struct
    {
        const char* refused;
        UINT mode;
        bool server, certificates, noSSLv2, weak;
        const char *log, *hook;
    } rows[] = {
        {"", 1, true, false, true, false,
         "mode 1, context, options no v2, standard, certificate c.pem, key k.pem, authorities ca.pem, trust, "
         "session",
         ""},
        {"", 2, false, true, false, true,
         "general, context, options, weak, certificate c.pem, key k.pem, authorities ca.pem, trust, session, "
         "host h checked",
         ""},
        {"", 2, false, false, false, false, "general, context, options, standard, session, host h", ""},
        {"restricted", 2, false, false, false, false, "mode 1, context, options, session, host h", ""},
        {"context", 1, true, true, false, false, "mode 1, context", "toy//broken"},
        {"certificate", 1, true, true, false, false, "mode 1, context, options, standard, certificate c.pem",
         "c.pem"},
        {"key", 1, true, true, false, false,
         "mode 1, context, options, standard, certificate c.pem, key k.pem", "k.pem"},
        {"authorities", 1, true, true, false, false,
         "mode 1, context, options, standard, certificate c.pem, key k.pem, authorities ca.pem", "ca.pem"},
        {"trust", 1, true, true, false, false,
         "mode 1, context, options, standard, certificate c.pem, key k.pem, authorities ca.pem, trust",
         "ca.pem"},
        {"session", 1, false, false, false, false, "mode 1, context, options, standard, session",
         "toy//broken"},
        {"host", 1, false, true, false, false,
         "mode 1, context, options, standard, certificate c.pem, key k.pem, authorities ca.pem, trust, "
         "session, host h checked",
         "TavroNET//the provider cannot check the host name"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.log);
        ToySSL toy;
        toy.refused = row.refused;
        ProductPair pair;
        std::string hook;
        const auto file = [&hook](const wchar_t* path) { hook += CStringA(path).GetString(); };
        pair.socket->NotifySSLCantOpenCertFileScript = file;
        pair.socket->NotifySSLCantOpenPrivateKeyFileScript = file;
        pair.socket->NotifySSLCantLoadTrustedCAFileScript = file;
        pair.socket->NotifySSLAcceptErrorScript = [&hook](const char* library, const char* function,
                                                          const char* reason) {
            hook += std::string(library) + "/" + function + "/" + reason;
        };
        pair.socket->SetSSLServer(row.server, row.certificates);
        pair.socket->SetSSLHostName("h");
        const auto enter = [&] {
            pair.socket->SetSSLMode(row.mode, row.noSSLv2, row.weak, L"c.pem", L"k.pem", L"ca.pem",
                                    "ten chars!");
        };
        enter();
        EXPECT_EQ(toy.log, row.log);
        EXPECT_EQ(hook, row.hook);
        toy.log.clear();
        enter(); // the mode already, or once more
        EXPECT_EQ(toy.log, *row.hook == '\0' ? "" : row.log);
        if (std::string(row.log).find("key") != std::string::npos) {
            char buffer[11] = "";
            EXPECT_EQ(toy.phrase(buffer, 10, 0, toy.phraseData), 0);
            EXPECT_EQ(toy.phrase(buffer, 11, 0, toy.phraseData), 10);
            EXPECT_STREQ(buffer, "ten chars!");
        }
        pair.socket.reset();
        EXPECT_EQ(toy.alive, 0);
    }
}

TEST(ProductSSLSetup, WithoutAProviderOrOneOfItsEntriesTheModeStaysOff)
{
    ProductPair pair;
    ASSERT_TRUE(pair.PumpUntilConnected());
    pair.socket->around = [](const std::string& hook, bool) {
        EXPECT_THAT(hook, Not(HasSubstr("NotifySSL")));
    };
    Enter(*pair.socket, 1);
    EXPECT_EQ(CTavroProductSocket::GetOpenSSL().SSL_accept(nullptr), 0);

    ToySSL toy;
    toy.table.m_pSSL_CTX_new = nullptr;
    Enter(*pair.socket, 1);
    EXPECT_EQ(toy.table.SSL_CTX_new(nullptr), nullptr);
    EXPECT_FALSE(pair.socket->GetSSL());
    pair.socket->Send("open");
    EXPECT_EQ(pair.peer.Reads(4), "open");
}

// --- Moments that matter

TEST(ProductSSL, AfterAFailedHandshakeNothingLeavesInClearAndNothingIsDelivered)
{
    ToySSL toy;
    ProductPair pair;
    std::string told;
    pair.socket->Collect();
    pair.socket->NotifySSLAcceptErrorScript = [&told](const char*, const char*, const char* reason) {
        told += reason;
    };
    pair.socket->SetSSLServer(false, false);
    Enter(*pair.socket, 1);
    EXPECT_EQ(pair.socket->Send("password"), 8);
    EXPECT_EQ(pair.peer.Reads(3), ToyRecord('H'));
    pair.peer.Writes("220 no such thing here");
    ASSERT_TRUE(PumpUntil([&told] { return told == "broken"; }));
    pair.peer.Writes("more of it");
    PumpUntilQuiet();
    EXPECT_EQ(pair.socket->Send("password"), -1);
    EXPECT_EQ(WSAGetLastError(), WSAECONNABORTED);

    pair.socket->StopSSLMode();
    pair.peer.Writes("in clear");
    EXPECT_TRUE(PumpUntil([&] { return pair.socket->received == "in clear"; })) << pair.socket->received;
    pair.socket->Send("open");
    EXPECT_EQ(pair.peer.Reads(4), "open");
}

TEST(ProductSSL, ClearTextBehindAnUpgradeCommandIsNotTakenForWhatComesInside)
{
    for (const bool atOnce : {false, true}) {
        ToySSL toy;
        ProductPair pair;
        std::string offered;
        pair.socket->ProcessReceiveScript = [&](unsigned char*& buffer, int& length) {
            const std::string text = ScriptedSocket::Text(buffer, length);
            if (!text.starts_with("UPGRADE")) {
                offered = text;
                return false;
            }
            buffer += 7;
            length -= 7;
            if (atOnce) // the peer's part of the handshake is here already
                pair.peer.Writes(ToyRecord('H'));
            Enter(*pair.socket, 1);
            return true;
        };
        ASSERT_TRUE(pair.PumpUntilConnected());
        pair.peer.Writes("UPGRADE injected");
        PumpUntilQuiet();
        pair.peer.Writes((atOnce ? "" : ToyRecord('H')) + ToyData("protected"));
        EXPECT_TRUE(PumpUntil([&] { return offered.ends_with("protected"); }));
        EXPECT_EQ(offered, "protected");
        EXPECT_TRUE(pair.socket->GetSSL());
    }
}

TEST(ProductSSL, AnExitWaitsForTheHandshakeAndForWhatIsQueued)
{
    ToySSL toy;
    ProductPair pair;
    ToyReader reader;
    pair.socket->SetSSLServer(false, false);
    ASSERT_TRUE(pair.PumpUntilConnected());
    PumpUntilQuiet();
    Enter(*pair.socket, 1);
    const std::string bulk(400'000, 'b');
    EXPECT_EQ(pair.socket->Send(bulk.c_str()), static_cast<int>(bulk.size()));
    pair.socket->StopSSLMode();
    EXPECT_TRUE(pair.socket->GetExitSSLModeWhenDone());
    EXPECT_FALSE(pair.socket->CanClose());
    pair.peer.Writes(ToyRecord('H') + ToyRecord('C'));
    EXPECT_TRUE(PumpUntil([&] {
        reader.Feed(pair.peer.ReadsWaiting());
        return reader.letters.ends_with("C");
    }));
    EXPECT_EQ(reader.plain, bulk);
    EXPECT_TRUE(PumpUntil([&] { return pair.socket->CanClose(); }));
    pair.socket->Send("open");
    EXPECT_EQ(pair.peer.Reads(4), "open");
}

TEST(ProductSSL, NothingIsAskedOfASessionWhoseHandleIsClosed)
{
    ToySSL toy;
    ProductPair pair;
    int shutdowns = 0;
    pair.socket->NotifySSLConnectionShutdownScript = [&] {
        ++shutdowns;
        pair.socket->Close();
    };
    ASSERT_TRUE(pair.PumpUntilConnected());
    pair.peer.Writes(ToyRecord('H'));
    Enter(*pair.socket, 1);
    ASSERT_TRUE(PumpUntil([&] { return pair.socket->GetSSL(); }));
    pair.socket->Close(); // the peer's close alert is still to come
    EXPECT_EQ(shutdowns, 1);
    EXPECT_EQ(toy.alive, 0);
    EXPECT_EQ(pair.peer.Reads(6), ToyRecord('H') + ToyRecord('C'));
}

TEST(ProductSSL, TheLastErrorIsThatOfTheSession)
{
    ToySSL toy;
    ProductPair pair;
    ASSERT_TRUE(pair.PumpUntilConnected());
    pair.peer.Writes(ToyRecord('H'));
    Enter(*pair.socket, 1);
    ASSERT_TRUE(PumpUntil([&] { return pair.socket->GetSSL(); }));
    static int code = 0;
    toy.table.m_pSSL_get_error = [](const ssl_st*, int result) { return result == -1 ? code : 0; };
    for (code = 0; code < 9; ++code)
        EXPECT_EQ(pair.socket->GetLastError(), code >= 2 && code <= 7 ? WSAEWOULDBLOCK : code);
}

TEST(ProductSSL, InputThatNobodyTakesIsNotReportedWithoutEnd)
{
    using Part = void (*)(ProductPair&, ToySSL&);
    const struct
    {
        const char* why;
        Part block, goOn;
        const char* received;
    } rows[] = {
        {"leaving waits for the host's gate",
         [](ProductPair& pair, ToySSL&) {
             pair.socket->OkayToSendScript = [] { return false; };
             pair.socket->Send("queued");
             pair.socket->StopSSLMode();
             pair.peer.Writes(ToyData("late ") + ToyRecord('C') + "clear");
         },
         [](ProductPair& pair, ToySSL&) {
             pair.socket->OkayToSendScript = nullptr;
             pair.socket->Send("more");
         },
         "late clear"},
        {"reading waits for room to write",
         [](ProductPair& pair, ToySSL& toy) {
             pair.socket->Send(std::string(4'000'000, 'b').c_str()); // more than it takes
             PumpUntilQuiet();
             toy.fault = [](int, const std::string& entry) {
                 return entry == "read" || entry == "peek" ? int{kSSLErrorWantWrite} : 0;
             };
             pair.peer.Writes(ToyData("late"));
         },
         [](ProductPair&, ToySSL& toy) { toy.fault = nullptr; }, "late"},
        {"the session's handle is gone",
         [](ProductPair& pair, ToySSL&) {
             pair.socket->Attach(pair.socket->Detach(), FD_ALL);
             pair.peer.Writes("clear");
         },
         [](ProductPair& pair, ToySSL&) { pair.socket->StopSSLMode(); }, "clear"},
        {"the provider cannot leave",
         [](ProductPair& pair, ToySSL& toy) {
             toy.table.m_pSSL_peek = nullptr;
             toy.table.m_pSSL_shutdown = nullptr;
             toy.table.m_pSSL_get_error = nullptr;
             pair.socket->StopSSLMode();
             pair.peer.Writes("clear");
         },
         [](ProductPair&, ToySSL&) {}, "clear"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        ToySSL toy;
        ProductPair pair;
        int told = 0;
        pair.socket->Collect();
        pair.socket->around = [&told](const std::string& hook, bool after) {
            told += !after && (hook == "OnReceive" || hook == "OnSend") ? 1 : 0;
        };
        ASSERT_TRUE(pair.PumpUntilConnected());
        pair.peer.Writes(ToyRecord('H'));
        Enter(*pair.socket, 1);
        ASSERT_TRUE(PumpUntil([&] { return pair.socket->GetSSL(); }));
        PumpUntilQuiet();
        row.block(pair, toy);
        told = 0;
        PumpUntilQuiet();
        EXPECT_LT(told, 20);
        row.goOn(pair, toy);
        EXPECT_TRUE(PumpUntil([&] {
            pair.peer.ReadsWaiting();
            return pair.socket->received == row.received;
        })) << pair.socket->received;
    }
}

// --- A host that does what it likes in a hook

class SSLScenario : public HookScenario<ScriptedProduct>
{
public:
    SSLScenario(const std::string& hook, const std::string& action, bool after)
        : HookScenario(hook, action, after), m_Fails(hook == "NotifySSLAcceptError")
    {
        socket->SetDeleteWhenDone(true);
        socket->OnCloseScript = [this](int error) { socket->BaseOnClose(error); };
        StartStreams();
    }

private:
    std::string OnTheWire(const std::string& text) override { return ToyData(text); }
    std::string Plain(const std::string& wire) override
    {
        m_Reader.Feed(wire);
        return std::exchange(m_Reader.plain, "");
    }
    void StartStreams() override
    {
        m_Reader = {};
        try {
            Enter(*socket, 1);
        } catch (const int&) {
        }
        peer.Writes(std::exchange(m_Fails, false) ? "no hello" : ToyRecord('H'));
    }
    std::string LastBytes() override { return ToyRecord('C'); }
    void Act(const std::string& action) override
    {
        if (action == "stop")
            socket->StopSSLMode();
        else if (action == "mode")
            Enter(*socket, 2);
        else
            HookScenario::Act(action);
    }

    bool m_Fails;
    ToyReader m_Reader;
};

class ProductSSLReentry : public testing::TestWithParam<const char*>
{};

TEST_P(ProductSSLReentry, AnActionInAHookLeavesTheSocketWholeOrGone)
{
    for (const char* action :
         {"delete", "close", "renew", "send", "receive", "release", "pump", "throw", "stop", "mode"})
    {
        for (const bool after : {false, true}) {
            SCOPED_TRACE(std::string(action) + (after ? " after the base's part" : " before"));
            ToySSL toy;
            {
                SSLScenario scenario(GetParam(), action, after);
                scenario.RunToTheEnd();
                scenario.ExpectWholeOrGone();
            }
            EXPECT_EQ(toy.alive, 0);
            EXPECT_EQ(tavronet::CountLivingObjects().sockets, 0);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Hooks, ProductSSLReentry,
                         testing::Values("NotifySSLAcceptPending", "NotifySSLAcceptSuccess",
                                         "NotifySSLAcceptError", "NotifySSLConnectionShutdown", "OnConnect",
                                         "ReceiveData", "ProcessReceive", "SendData", "OnClose",
                                         "BytesOutCompressed"),
                         [](const auto& run) { return std::string(run.param); });

} // namespace
