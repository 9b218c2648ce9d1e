#pragma once

#include <map>

#include "ScriptedSocket.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/TestSeams.h"

/// A socket that meets an action once, and the host around it.
template <typename Socket>
class HookScenario : public tavronet::LoopbackPair<Socket>
{
public:
    using tavronet::LoopbackPair<Socket>::peer;
    using tavronet::LoopbackPair<Socket>::socket;

    HookScenario(const std::string& hook, const std::string& action, bool after) : m_Guard(*socket)
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
            [this] { socket->Send("queued"); },
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
    virtual std::string LastBytes() { return ""; }

    virtual void Act(const std::string& action)
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
        };
        actions.at(action)();
    }

private:
    tavronet::LifetimeGuard m_Guard;
    bool m_Acted = false;
    std::string m_Consumed;
};

/// Has a scenario meet every action before and after the base's part of a hook.
template <typename Scenario>
void MeetEvery(std::initializer_list<const char*> actions, const std::string& hook)
{
    for (const char* action : actions) {
        for (const bool after : {false, true}) {
            SCOPED_TRACE(std::string(action) + (after ? " after the base's part" : " before"));
            {
                Scenario scenario(hook, action, after);
                scenario.RunToTheEnd();
                scenario.ExpectWholeOrGone();
            }
            EXPECT_EQ(tavronet::CountLivingObjects().sockets, 0);
        }
    }
}
