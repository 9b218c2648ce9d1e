#ifndef TESTS_PLATFORM_RECORDINGSOCKET_H
#define TESTS_PLATFORM_RECORDINGSOCKET_H

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tavronet/platform/AsyncSocket.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/Wait.h"

/// A socket that writes down its notifications, and does what a test asks inside them.
class RecordingSocket : public CAsyncSocket
{
public:
    using CAsyncSocket::ConnectHelper;
    using CAsyncSocket::ReceiveFromHelper;
    using CAsyncSocket::SendToHelper;
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

/// A plain system socket on 127.0.0.1; closed with the object.
class PlainSocket
{
public:
    explicit PlainSocket(int descriptor) : m_Descriptor(descriptor) {}
    PlainSocket(PlainSocket&& other) noexcept : m_Descriptor(std::exchange(other.m_Descriptor, -1)) {}
    ~PlainSocket() { Close(); }

    static PlainSocket Listener()
    {
        PlainSocket listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_in any = Loopback(0);
        bind(listener.m_Descriptor, reinterpret_cast<const sockaddr*>(&any), sizeof any);
        listen(listener.m_Descriptor, 64);
        return listener;
    }

    PlainSocket AcceptOne() const
    {
        return PlainSocket(accept4(m_Descriptor, nullptr, nullptr, SOCK_CLOEXEC));
    }

    static sockaddr_in Loopback(int port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    UINT Port() const { return PortOf(m_Descriptor); }

    static UINT PortOf(int descriptor)
    {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }

    void Write(const std::string& text) const
    {
        ASSERT_EQ(send(m_Descriptor, text.data(), text.size(), MSG_NOSIGNAL), ssize_t(text.size()));
    }

    std::string Read(std::size_t count) const
    {
        std::string text(count, '\0');
        const auto got = recv(m_Descriptor, text.data(), count, MSG_WAITALL);
        text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return text;
    }

    void Close()
    {
        if (m_Descriptor >= 0)
            close(std::exchange(m_Descriptor, -1));
    }

    /// Ends the connection with a reset.
    void Reset()
    {
        const linger atOnce{1, 0};
        setsockopt(m_Descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        Close();
    }

    int Descriptor() const { return m_Descriptor; }

private:
    int m_Descriptor;
};

/// Dispatches until `done` holds; false when that takes longer than five seconds.
inline bool PumpUntil(const std::function<bool()>& done)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        MsgWaitForMultipleObjectsEx(0, nullptr, 20, kWakeOnAnyInput, 0);
        DispatchPending();
    }
    return true;
}

/// Dispatches what is due and what the system reports within the next milliseconds.
inline void PumpBriefly(int milliseconds = 20)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    do {
        DispatchPending();
        MsgWaitForMultipleObjectsEx(0, nullptr, 5, kWakeOnAnyInput, 0);
    } while (std::chrono::steady_clock::now() < deadline);
    DispatchPending();
}

/// The processor time this thread has used, in milliseconds.
inline long ThreadCpuMs()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

#endif
