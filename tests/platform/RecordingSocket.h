#pragma once

#include <gtest/gtest.h>

#include <map>

#include "tavronet/platform/LastError.h"
#include "tavronet/platform/Wait.h"
#include "tests/support/PlainSocket.h"

using namespace tavronet;

/// A socket that writes down its notifications, and does what a test asks inside them.
class RecordingSocket : public CAsyncSocket
{
public:
    using CAsyncSocket::ReceiveFromHelper;
    using CAsyncSocket::WaitingBytes;

    /// @param log what has been told, "CONNECT WRITE READ CLOSE(10054)"; outlives the socket.
    explicit RecordingSocket(std::string& log) : m_Log(log) {}

    /// One receive: the text, "end" at the end of the stream, or the error's number.
    std::string ReceiveText(int most = 1000)
    {
        char text[1000];
        const int got = Receive(text, most);
        const std::string failure = got == 0 ? "end" : std::to_string(WSAGetLastError());
        return got > 0 ? std::string(text, static_cast<std::size_t>(got)) : failure;
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
    void Note(const std::string& name, LONG kind, int error)
    {
        m_Log += (m_Log.empty() ? "" : " ") + name + (error != 0 ? "(" + std::to_string(error) + ")" : "");
        if (const auto action = onNotification[kind]) // a copy: it may destroy this socket
            action();
    }

    std::string& m_Log;
};

/// Does the deed, and expects these notifications to follow, and no others.
inline void ExpectTold(std::string& log, const std::string& told, const std::function<void()>& deed = {},
                       int line = __builtin_LINE())
{
    if (deed)
        deed();
    PumpUntil([&] { return log.size() >= told.size(); });
    PumpUntilQuiet();
    EXPECT_EQ(std::exchange(log, {}), told) << "line " << line;
}
