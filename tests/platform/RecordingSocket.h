#pragma once

#include <gtest/gtest.h>

#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include "tavronet/platform/LastError.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/Wait.h"
#include "tests/support/PlainSocket.h"

using namespace tavronet;

/// A socket that writes down its notifications, and does what a test asks inside them.
class RecordingSocket : public CAsyncSocket
{
public:
    using CAsyncSocket::ReceiveFromHelper;
    using CAsyncSocket::WaitingBytes;

    explicit RecordingSocket(std::string* log = nullptr) : m_pLog(log != nullptr ? log : &m_Log) {}

    /// "CONNECT WRITE READ" or "CLOSE(10054)"; cleared by reading it.
    std::string TakeLog() { return std::exchange(*m_pLog, {}); }

    /// Receives up to `most` bytes in one call; "" when nothing is there.
    std::string ReceiveText(int most = 1000)
    {
        std::string text(static_cast<std::size_t>(most), '\0');
        const int got = Receive(text.data(), most);
        text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return text;
    }

    std::map<LONG, std::function<void()>> onNotification;

protected:
    void OnReceive(int error) override { Note("READ", FD_READ, error); }
    void OnSend(int error) override { Note("WRITE", FD_WRITE, error); }
    void OnOutOfBandData(int error) override { Note("OOB", FD_OOB, error); }
    void OnAccept(int error) override { Note("ACCEPT", FD_ACCEPT, error); }
    void OnConnect(int error) override { Note("CONNECT", FD_CONNECT, error); }
    void OnClose(int error) override { Note("CLOSE", FD_CLOSE, error); }

private:
    void Note(const char* name, LONG kind, int error)
    {
        *m_pLog += m_pLog->empty() ? "" : " ";
        *m_pLog += name;
        if (error != 0)
            *m_pLog += "(" + std::to_string(error) + ")";
        if (const auto action = onNotification.find(kind); action != onNotification.end()) {
            const auto run = action->second; // the action may destroy this socket
            run();
        }
    }

    std::string m_Log;
    std::string* m_pLog;
};
