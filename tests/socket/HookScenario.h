#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

#include "ScriptedSocket.h"
#include "tavronet/platform/MessageQueue.h"

/// A socket that meets an action once, and the host around it.
template <typename Socket>
class HookScenario : public tavronet::LoopbackPair<Socket>
{
public:
    using tavronet::LoopbackPair<Socket>::peer;
    using tavronet::LoopbackPair<Socket>::socket;

    HookScenario(const std::string& hook, const std::string& action, bool after) : m_Guard(*socket)
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
        peer.Writes(OnTheWire("part one"));
        Try([] {});
        peer.Writes(OnTheWire("part two"));
        Try([this] { socket->Send(Bulk().c_str()); });
        while (!peer.ReadsWaiting().empty())
            Try([] {});
        peer.Writes(LastBytes());
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
        this->Connect();
        StartStreams();
        socket->Send("again");
        std::string got;
        EXPECT_TRUE(tavronet::PumpUntil([&] { return (got += Plain(peer.ReadsWaiting())) == "again"; }))
            << got;
        peer.Writes(OnTheWire("answer."));
        EXPECT_TRUE(tavronet::PumpUntil([this] { return m_Consumed == "answer"; })) << m_Consumed;
    }

protected:
    /// What the peer's bytes look like on the wire, and the other way round.
    virtual std::string OnTheWire(const std::string& text) { return text; }
    virtual std::string Plain(const std::string& wire) { return wire; }
    virtual void StartStreams() {}
    virtual std::string LastBytes() { return ""; }

    virtual void Act(const std::string& action)
    {
        if (action == "delete")
            socket.reset();
        if (action == "close" || action == "renew")
            socket->Close();
        if (action == "renew")
            this->Connect();
        if (action == "attach") // the same connection, another life of its handle
            socket->CAsyncSocket::Attach(socket->Detach(), FD_ALL);
        if (action == "notify")
            socket->OnSend(0);
        if (action == "select") {
            socket->SetOkayToSend(false);
            socket->AsyncSelect();
            socket->RequestRead();
        }
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

private:
    /// More than the system takes at once, also when deflated.
    static const std::string& Bulk()
    {
        static const std::string bulk = [] {
            std::string made(500'000, ' ');
            unsigned seed = 1;
            for (char& c : made)
                c = static_cast<char>('!' + (seed = seed * 1103515245 + 12345) / 65536 % 90);
            return made;
        }();
        return bulk;
    }

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

    tavronet::LifetimeGuard m_Guard;
    bool m_Acted = false;
    std::string m_Consumed;
};
