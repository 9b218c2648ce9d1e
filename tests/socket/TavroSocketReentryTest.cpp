// A host may do anything inside a hook. One scenario - connect, queue, receive in parts, a send that blocks, the
// peer's close - runs for every hook, every action and both sides of the base's part. The address sanitizer
// finds what is touched after death; the end of the scenario finds flags that stayed set.

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <functional>
#include <string>
#include <utility>

#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/TestSeams.h"
#include "tests/support/LoopbackPair.h"

namespace
{

enum class Hook
{
    OkayToReceive,
    OnReceivePreRead,
    ReceiveData,
    OnReceiveNoDataContinue,
    OnReceivePreProcessResponse,
    ProcessReceive,
    ProcessReceiveBuffer,
    SendData,
    OkayToSend,
    SetOkayToSend,
    OnConnect,
    OnReceive,
    OnSend,
    OnClose,
    kCount
};
constexpr const char* kHookNames[] = {"OkayToReceive",
                                      "OnReceivePreRead",
                                      "ReceiveData",
                                      "OnReceiveNoDataContinue",
                                      "OnReceivePreProcessResponse",
                                      "ProcessReceive",
                                      "ProcessReceiveBuffer",
                                      "SendData",
                                      "OkayToSend",
                                      "SetOkayToSend",
                                      "OnConnect",
                                      "OnReceive",
                                      "OnSend",
                                      "OnClose"};

enum class Action
{
    Delete,
    Close,
    Renew,
    Send,
    Receive,
    ReleaseReceived,
    Pump,
    Throw,
    kCount
};
constexpr const char* kActionNames[] = {"Delete",  "Close",           "Renew", "Send",
                                        "Receive", "ReleaseReceived", "Pump",  "Throw"};

/// Runs an action once, before or after the base's part of one hook.
class HookedSocket : public CTavroSocket
{
public:
    std::function<void()> action;
    Hook hook = Hook::kCount;
    bool afterBase = false;
    std::string consumed;

    using CTavroSocket::ClearSendBuffer;
    using CTavroSocket::GetSendBuffer;
    using CTavroSocket::ReleaseReceiveBuffer;

    void OnReceive(int error) override
    {
        Around(Hook::OnReceive, [&] { return CTavroSocket::OnReceive(error), true; });
    }
    bool OkayToReceive() override
    {
        return Around(Hook::OkayToReceive, [&] { return CTavroSocket::OkayToReceive(); });
    }

protected:
    bool OnReceivePreRead() override
    {
        return Around(Hook::OnReceivePreRead, [&] { return CTavroSocket::OnReceivePreRead(); });
    }
    int ReceiveData(unsigned char* buffer, int length, int flags) override
    {
        return Around(Hook::ReceiveData, [&] { return CTavroSocket::ReceiveData(buffer, length, flags); });
    }
    bool OnReceiveNoDataContinue(int peeked) override
    {
        return Around(Hook::OnReceiveNoDataContinue,
                      [&] { return CTavroSocket::OnReceiveNoDataContinue(peeked); });
    }
    void OnReceivePreProcessResponse(unsigned char*& buffer, int& received, int& held) override
    {
        Around(Hook::OnReceivePreProcessResponse,
               [&] { return CTavroSocket::OnReceivePreProcessResponse(buffer, received, held), true; });
    }
    /// Consumes all but the last byte.
    bool ProcessReceive(unsigned char*& buffer, int& length) override
    {
        return Around(Hook::ProcessReceive, [&] {
            consumed.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length - 1));
            buffer += length - 1;
            length = 1;
            return true;
        });
    }
    bool ProcessReceiveBuffer(unsigned char*& buffer, int& length) override
    {
        return Around(Hook::ProcessReceiveBuffer,
                      [&] { return CTavroSocket::ProcessReceiveBuffer(buffer, length); });
    }
    int SendData(unsigned char* data, int length, int flags) override
    {
        return Around(Hook::SendData, [&] { return CTavroSocket::SendData(data, length, flags); });
    }
    bool OkayToSend() override
    {
        return Around(Hook::OkayToSend, [&] { return CTavroSocket::OkayToSend(); });
    }
    void SetOkayToSend(bool allowed) override
    {
        Around(Hook::SetOkayToSend, [&] { return CTavroSocket::SetOkayToSend(allowed), true; });
    }
    void OnConnect(int error) override
    {
        Around(Hook::OnConnect, [&] { return CTavroSocket::OnConnect(error), true; });
    }
    void OnSend(int error) override
    {
        Around(Hook::OnSend, [&] { return CTavroSocket::OnSend(error), true; });
    }
    void OnClose(int error) override
    {
        Around(Hook::OnClose, [&] { return CTavroSocket::OnClose(error), true; });
    }

private:
    template <typename Base>
    auto Around(Hook here, Base base) -> decltype(base())
    {
        const tavronet::LifetimeGuard guard(*this);
        Act(here, false);
        if (!guard.Alive())
            return {};
        const auto result = base();
        if (guard.Alive())
            Act(here, true);
        return result;
    }

    void Act(Hook here, bool after)
    {
        if (here == hook && after == afterBase && action)
            std::exchange(action, nullptr)();
    }
};

/// A socket that meets an action, and the host around it.
class Scenario
{
public:
    Scenario(Hook hook, Action action, bool afterBase) : m_Action(action), m_Guard(*pair.socket)
    {
        pair.socket->hook = hook;
        pair.socket->afterBase = afterBase;
        pair.socket->action = [this] { Act(); };
    }

    /// What a host does around its calls and in its message loop; only the action throws.
    template <typename Call>
    void Try(Call call)
    {
        try {
            if (Alive())
                call();
        } catch (const int&) {
        }
    }

    void Pump()
    {
        for (int i = 0; i < 2; ++i) // one of them may end by the exception
            Try([] { tavronet::PumpUntilQuiet(); });
    }

    [[nodiscard]] bool Alive() const { return m_Guard.Alive(); }
    [[nodiscard]] bool Acted() const { return m_Acted; }

    tavronet::LoopbackPair<HookedSocket> pair{};

private:
    void Act()
    {
        m_Acted = true;
        switch (m_Action) {
        case Action::Delete: pair.socket.reset(); break;
        case Action::Close: pair.socket->Close(); break;
        case Action::Renew:
            pair.socket->Close();
            pair.Connect();
            break;
        case Action::Send: pair.socket->CTavroSocket::Send("nested"); break;
        case Action::Receive: pair.socket->OnReceive(0); break;
        case Action::ReleaseReceived: pair.socket->ReleaseReceiveBuffer(); break;
        case Action::Pump: DispatchPending(); break;
        case Action::Throw: throw 1;
        case Action::kCount: break;
        }
    }

    const Action m_Action;
    tavronet::LifetimeGuard m_Guard;
    bool m_Acted = false;
};

void RunToTheEnd(Scenario& scenario)
{
    auto& pair = scenario.pair;
    scenario.Try([&] { pair.socket->Send("queued"); });
    scenario.Pump();
    pair.peer.Writes("part one");
    scenario.Pump();
    pair.peer.Writes("part two");
    scenario.Pump();
    const std::string moreThanTheSystemTakes(500'000, 'x');
    scenario.Try([&] { pair.socket->Send(moreThanTheSystemTakes.c_str()); });
    scenario.Try([&] { pair.peer.ReadsAll(); });
    scenario.Pump();
    pair.peer.Closes();
    scenario.Pump();
}

/// Whatever has happened, the socket can be used like a new one.
void ExpectWhole(tavronet::LoopbackPair<HookedSocket>& pair)
{
    HookedSocket& socket = *pair.socket;
    socket.Close();
    delete[] socket.GetSendBuffer();
    socket.ClearSendBuffer();
    socket.ReleaseReceiveBuffer();
    socket.consumed.clear();

    const tavronet::PlainListener listener(AF_INET);
    socket.Create(0, SOCK_STREAM, FD_ALL, nullptr, AF_INET);
    socket.Connect(listener.Address(), listener.Port());
    const tavronet::PlainPeer peer(listener.Accept());
    socket.Send("again");
    EXPECT_EQ(peer.Reads(5), "again");
    peer.Writes("answer.");
    EXPECT_TRUE(tavronet::PumpUntil([&] { return socket.consumed == "answer"; })) << socket.consumed;
}

class TavroSocketReentry : public testing::TestWithParam<int>
{};

TEST_P(TavroSocketReentry, AnActionInAHookLeavesTheSocketWholeOrGone)
{
    for (int action = 0; action < static_cast<int>(Action::kCount); ++action) {
        for (const bool afterBase : {false, true}) {
            SCOPED_TRACE(std::string(kActionNames[action]) + (afterBase ? " after" : " before") +
                         " the base's part");
            {
                Scenario scenario(static_cast<Hook>(GetParam()), static_cast<Action>(action), afterBase);
                RunToTheEnd(scenario);
                EXPECT_TRUE(scenario.Acted()) << "the scenario never came to this hook";
                if (scenario.Alive())
                    ExpectWhole(scenario.pair);
            }
            EXPECT_EQ(tavronet::CountLivingObjects().sockets, 0);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Hooks, TavroSocketReentry, testing::Range(0, static_cast<int>(Hook::kCount)),
                         [](const auto& run) { return std::string(kHookNames[run.param]); });

} // namespace
