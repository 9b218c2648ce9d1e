// A host may do anything inside a hook. One scenario - connect, queue, receive in parts, a send that blocks, the
// peer's close - runs for every hook, every action and both sides of the base's part. The address sanitizer
// finds what is touched after death; the end of the scenario finds flags that stayed set.

#include <map>

#include "ScriptedProduct.h"
#include "ToySSL.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/TestSeams.h"

namespace
{

/// A socket that meets an action once, and the host around it.
template <typename Socket>
class Scenario : public tavronet::LoopbackPair<Socket>
{
public:
    using tavronet::LoopbackPair<Socket>::peer;
    using tavronet::LoopbackPair<Socket>::socket;

    Scenario(const std::string& hook, const std::string& action, bool after) : m_Guard(*socket)
    {
        if constexpr (requires { socket->SetDeleteWhenDone(true); })
            socket->SetDeleteWhenDone(true);
        socket->around = [this, hook, action, after](const std::string& nowHook, bool nowAfter) {
            if (nowHook == hook && nowAfter == after && !std::exchange(m_Acted, true))
                Act(action);
        };
        // Consumes all but the last byte.
        socket->ProcessReceiveScript = [this](unsigned char*& buffer, int& length) {
            m_Consumed += ScriptedSocket::Text(std::exchange(buffer, buffer + length - 1), length - 1);
            length = 1;
            return true;
        };
    }

    /// What a host does, and its message loop; only the action throws.
    void RunToTheEnd()
    {
        static const std::string bulk = Noise(500'000); // more than the system takes at once
        const std::function<void()> steps[] = {
            [this] {
                StartStreams();
                if (m_Guard.Alive())
                    socket->Send("queued");
            },
            [this] { peer.Writes(OnTheWire("part one")); },
            [this] { peer.Writes(OnTheWire("part two")), socket->Send(bulk.c_str()); },
            [this] {
                while (!peer.ReadsWaiting().empty())
                    tavronet::PumpUntilQuiet();
            },
            [this] { peer.Writes(LastBytes()), peer.Closes(); },
        };
        for (const auto& step : steps) {
            try {
                if (m_Guard.Alive())
                    step();
                tavronet::PumpUntilQuiet();
            } catch (const int&) {
                tavronet::PumpUntilQuiet();
            }
        }
        EXPECT_TRUE(m_Acted) << "the scenario never came to this hook";
    }

    /// Whatever has happened, the socket can be used like a new one.
    void ExpectWholeOrGone()
    {
        if (!m_Guard.Alive())
            return;
        socket->Close();
        delete[] socket->GetSendBuffer();
        socket->ClearSendBuffer();
        socket->ReleaseReceiveBuffer();
        this->Connect();
        StartStreams();
        socket->Send("again");
        std::string got;
        EXPECT_TRUE(tavronet::PumpUntil([&] { return (got += Plain(peer.ReadsWaiting())) == "again"; }))
            << got;
        peer.Writes(OnTheWire("answer."));
        EXPECT_TRUE(tavronet::PumpUntil([this] { return m_Consumed.ends_with("answer"); })) << m_Consumed;
    }

protected:
    /// What the peer's bytes look like on the wire, and the other way round.
    virtual std::string OnTheWire(const std::string& text) { return text; }
    virtual std::string Plain(const std::string& wire) { return wire; }
    virtual void StartStreams() {}
    virtual void StopStreams() {}
    virtual std::string LastBytes() { return ""; }

private:
    void Act(const std::string& action)
    {
        const std::map<std::string, std::function<void()>> actions = {
            {"delete", [this] { socket.reset(); }},
            {"close", [this] { socket->Close(); }},
            {"renew", [this] { socket->Close(), this->Connect(); }},
            {"attach", [this] { socket->CAsyncSocket::Attach(socket->Detach(), FD_ALL); }},
            {"send", [this] { socket->Send("nested"); }},
            {"receive", [this] { socket->OnReceive(0); }},
            {"release", [this] { socket->ReleaseReceiveBuffer(); }},
            {"pump", DispatchPending},
            {"throw", [] { throw 1; }},
            {"gates",
             [this] {
                 socket->SetOkayToSend(false);
                 socket->AsyncSelect();
                 if constexpr (requires { socket->PauseReceive(true); })
                     socket->PauseReceive(true), socket->PauseReceive(false);
             }},
            {"streams", [this] { StartStreams(); }},
            {"stop", [this] { StopStreams(); }},
        };
        actions.at(action)();
    }

    tavronet::LifetimeGuard m_Guard;
    bool m_Acted = false;
    std::string m_Consumed;
};

struct Compressed : Scenario<ScriptedProduct>
{
    using Scenario::Scenario;

    std::string OnTheWire(const std::string& text) override { return zlib->Deflated(text); }
    std::string Plain(const std::string& wire) override { return zlib->Inflated(wire); }
    std::string LastBytes() override { return "not of the stream"; }
    void StartStreams() override
    {
        socket->SetZlibType();
        EXPECT_TRUE(socket->InitCompression(15));
        zlib = std::make_unique<ZlibPeer>();
    }
    void StopStreams() override { socket->SetNotZlibType(); }

    std::unique_ptr<ZlibPeer> zlib;
};

struct Secure : Scenario<ScriptedProduct>
{
    Secure(const std::string& hook, const std::string& action, bool after)
        : Scenario(hook, action, after), hello(hook == "NotifySSLAcceptError" ? "no hello" : kToyHello)
    {
        socket->OnCloseScript = [this](int error) { socket->BaseOnClose(error); };
    }

    std::string OnTheWire(const std::string& text) override { return ToyData(text); }
    std::string Plain(const std::string& wire) override
    {
        reader.Feed(wire);
        return std::exchange(reader.plain, "");
    }
    std::string LastBytes() override { return kToyClose; }
    void StartStreams() override
    {
        reader = {};
        peer.Writes(std::exchange(hello, kToyHello));
        socket->SetSSLMode(++mode, true, false, L"c", L"k", L"a", "ten chars!");
    }
    void StopStreams() override { socket->StopSSLMode(); }

    UINT mode = 0;
    std::string hello;
    ToyReader reader;
};

/// Has a scenario meet every action before and after the base's part of a hook.
template <typename Kind>
void MeetEvery(const std::string& hook)
{
    for (const char* action : {"delete", "close", "renew", "attach", "send", "receive", "release", "pump",
                               "throw", "gates", "streams", "stop"})
    {
        for (const bool after : {false, true}) {
            SCOPED_TRACE(std::string(action) + (after ? " after the base's part" : " before"));
            {
                Kind scenario(hook, action, after);
                scenario.RunToTheEnd();
                scenario.ExpectWholeOrGone();
            }
            EXPECT_EQ(tavronet::CountLivingObjects().sockets, 0);
        }
    }
}

struct SocketReentry : testing::TestWithParam<const char*>
{
    const WithZLib zlib;
    const ToySSL toy;
};

TEST_P(SocketReentry, AnActionInAHookLeavesTheSocketWholeOrGone)
{
    const std::string hook = GetParam();
    if (!hook.starts_with("NotifySSL"))
        MeetEvery<Compressed>(hook);
    if (hook != "NotifyInflateError")
        MeetEvery<Secure>(hook);
    if (hook.starts_with("Notify"))
        return;
    MeetEvery<Scenario<ScriptedProduct>>(hook);
    if (!hook.ends_with("Data")) // by the short roads
        MeetEvery<Scenario<ScriptedProductOf<ScriptedHooks>>>(hook);
    if (hook != "PostClose" && !hook.starts_with("Bytes"))
        MeetEvery<Scenario<ScriptedSocket>>(hook);
}

INSTANTIATE_TEST_SUITE_P(Hooks, SocketReentry,
                         testing::Values("OkayToReceive", "OnReceivePreRead", "ReceiveData",
                                         "OnReceiveNoDataContinue", "OnReceivePreProcessResponse",
                                         "ProcessReceive", "ProcessReceiveBuffer", "Send", "SendData",
                                         "OkayToSend", "SetOkayToSend", "OnConnect", "OnReceive", "OnSend",
                                         "OnClose", "PostClose", "BytesInCompressed", "BytesOutCompressed",
                                         "NotifyInflateError", "NotifySSLAcceptPending",
                                         "NotifySSLAcceptSuccess", "NotifySSLAcceptError",
                                         "NotifySSLConnectionShutdown"),
                         [](const auto& run) { return std::string(run.param); });

} // namespace
