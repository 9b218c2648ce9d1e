// A host may do anything inside a hook. One scenario - connect, queue, receive in parts, a send that blocks, the
// peer's close - runs for every hook, every action and both sides of the base's part. The address sanitizer
// finds what is touched after death; the end of the scenario finds flags that stayed set.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

#include "ScriptedSocket.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/TestSeams.h"

namespace
{

/// A socket that meets an action once, and the host around it.
class Scenario : public Pair
{
public:
    Scenario(const std::string& hook, const std::string& action, bool after) : m_Guard(*socket)
    {
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

    void RunToTheEnd()
    {
        Try([this] { socket->Send("queued"); });
        peer.Writes("part one");
        Try([] {});
        peer.Writes("part two");
        Try([this] { socket->Send(std::string(500'000, 'x').c_str()); }); // more than the system takes
        while (!peer.ReadsWaiting().empty())
            Try([] {});
        peer.Closes();
        Try([] {});
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
        m_Consumed.clear();
        Connect();
        socket->Send("again");
        EXPECT_EQ(peer.Reads(5), "again");
        peer.Writes("answer.");
        EXPECT_TRUE(tavronet::PumpUntil([this] { return m_Consumed == "answer"; })) << m_Consumed;
    }

private:
    /// What a host does around a call and in its message loop; only the action throws.
    void Try(const std::function<void()>& call)
    {
        for (const auto& step : {call, std::function<void()>(tavronet::PumpUntilQuiet)}) {
            try {
                if (m_Guard.Alive())
                    step();
            } catch (const int&) {
                tavronet::PumpUntilQuiet();
            }
        }
    }

    void Act(const std::string& action)
    {
        if (action == "delete")
            socket.reset();
        if (action == "close" || action == "renew")
            socket->Close();
        if (action == "renew")
            Connect();
        if (action == "send")
            socket->Send("nested");
        if (action == "receive")
            socket->OnReceive(0);
        if (action == "release")
            socket->ReleaseReceiveBuffer();
        if (action == "pump")
            DispatchPending();
        if (action == "throw")
            throw 1;
    }

    tavronet::LifetimeGuard m_Guard;
    bool m_Acted = false;
    std::string m_Consumed;
};

class TavroSocketReentry : public testing::TestWithParam<const char*>
{};

TEST_P(TavroSocketReentry, AnActionInAHookLeavesTheSocketWholeOrGone)
{
    for (const char* action : {"delete", "close", "renew", "send", "receive", "release", "pump", "throw"}) {
        for (const bool after : {false, true}) {
            SCOPED_TRACE(std::string(action) + (after ? " after the base's part" : " before"));
            {
                Scenario scenario(GetParam(), action, after);
                scenario.RunToTheEnd();
                scenario.ExpectWholeOrGone();
            }
            EXPECT_EQ(tavronet::CountLivingObjects().sockets, 0);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Hooks, TavroSocketReentry,
                         testing::Values("OkayToReceive", "OnReceivePreRead", "ReceiveData",
                                         "OnReceiveNoDataContinue", "OnReceivePreProcessResponse",
                                         "ProcessReceive", "ProcessReceiveBuffer", "Send", "SendData",
                                         "OkayToSend", "SetOkayToSend", "OnConnect", "OnReceive", "OnSend",
                                         "OnClose"),
                         [](const auto& run) { return std::string(run.param); });

} // namespace
