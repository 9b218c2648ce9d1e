#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <tuple>
#include <vector>

#include "RecordingSocket.h"
#include "tavronet/platform/Event.h"
#include "tavronet/platform/SocketCalls.h"
#include "tavronet/platform/TestSeams.h"

namespace
{

// A RecordingSocket and its plain peer. Connected ones have had CONNECT and WRITE.
struct Pair
{
    explicit Pair(bool connected = true)
    {
        EXPECT_TRUE(socket->Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
        if (connected) {
            Connect();
            Hears("WRITE");
            EXPECT_EQ(socket->TakeLog(), "CONNECT WRITE");
        }
    }

    void Connect()
    {
        EXPECT_FALSE(socket->Connect(L"127.0.0.1", listener.Port()));
        EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK) << "also when it is made already";
        peer = listener.Accept();
    }

    sockaddr_storage Listen()
    {
        const sockaddr_storage address = BindToLoopback(socket->m_hSocket);
        EXPECT_EQ(platform::listen(socket->m_hSocket, 5), 0);
        return address;
    }

    // Waits for a notification.
    void Hears(const char* name)
    {
        EXPECT_TRUE(PumpUntil([&] { return log.find(name) != std::string::npos; })) << name;
    }

    // All that comes within a few milliseconds.
    std::string Quiet()
    {
        PumpUntilQuiet();
        return std::exchange(log, {});
    }

    std::string log;
    PlainSocket listener = PlainSocket::Listening(), peer;
    std::unique_ptr<RecordingSocket> socket = std::make_unique<RecordingSocket>(&log);
};

// Sends until the system takes no more. @return how many bytes it took.
std::size_t Fill(RecordingSocket& socket)
{
    const std::string block(65536, 'f');
    std::size_t total = 0;
    for (int sent; (sent = socket.Send(block.data(), static_cast<int>(block.size()))) >= 0;)
        total += static_cast<std::size_t>(sent);
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    return total;
}

TEST(AsyncSocketOrder, APeerThatAnswersAndClosesFirstIsReportedInOrder)
{
    Pair pair(false);
    pair.Connect();
    pair.peer.Writes("hello");
    pair.peer.Closes();
    std::string got;
    pair.socket->onNotification[FD_READ] = [&] { got += pair.socket->ReceiveText(); };
    EXPECT_EQ(pair.log, "") << "a call must not deliver";
    EXPECT_EQ(pair.Quiet(), "CONNECT WRITE READ CLOSE");
    EXPECT_EQ(got, "hello");
    EXPECT_EQ(pair.socket->Receive(got.data(), 1), 0) << "the end of the stream is told again";
}

TEST(AsyncSocketConnect, FailuresAreToldOnceAndLeaveTheHandleUsable)
{
    const UINT closedPort = PlainSocket::Listening().Port();
    const std::tuple<const wchar_t*, UINT, int, const char*> rows[] = {
        {L"127.0.0.1", closedPort, WSAEWOULDBLOCK, "CONNECT(10061)"},
        {L"0.0.0.0", closedPort, WSAEADDRNOTAVAIL, ""}, // the system would take it for this machine
        {L"::1", closedPort, WSAEAFNOSUPPORT, ""},
        {L"127.0.0.1", 65536, WSAEINVAL, ""},
        {L"", closedPort, WSAEINVAL, ""},
    };
    for (const auto& [host, port, error, log] : rows) {
        Pair pair(false);
        EXPECT_FALSE(pair.socket->Connect(host, port));
        EXPECT_EQ(WSAGetLastError(), error) << port;
        EXPECT_EQ(pair.Quiet(), log);
        pair.Connect();
        EXPECT_EQ(pair.Quiet(), "CONNECT WRITE");
    }
}

TEST(AsyncSocketConnect, NamesAreLookedUpWithoutBlocking)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the resolver calls back on threads that the sanitizer has not seen begin";
#endif
    const auto start = [](Pair& pair, const wchar_t* host) {
        EXPECT_FALSE(pair.socket->Connect(host, pair.listener.Port()));
        EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    };
    Pair known(false), unknown(false);
    start(known, L"localhost");
    start(unknown, L"no such host"); // cannot be a name: no name server is asked
    for (int i = 0; i < 20; ++i)     // more than look-ups run at a time; none of these may be touched later
    {
        Pair abandoned(false);
        start(abandoned, L"no such host either");
    }
    known.Hears("CONNECT WRITE");
    unknown.Hears("CONNECT(11001)");
}

TEST(AsyncSocketRead, ARefusedReadComesAgainOnlyWhenAskedFor)
{
    Pair pair;
    pair.peer.Writes("abcdef");
    pair.Hears("READ");
    EXPECT_EQ(pair.Quiet(), "READ") << "not served, not asked for";
    EXPECT_EQ(pair.socket->ReceiveText(2), "ab");
    EXPECT_EQ(pair.Quiet(), "READ") << "after a receive";
    EXPECT_TRUE(pair.socket->AsyncSelect(FD_ALL));
    EXPECT_EQ(pair.Quiet(), "WRITE READ") << "after selecting anew";
    const std::size_t total = Fill(*pair.socket);
    EXPECT_EQ(pair.Quiet(), "") << "the peer has not read";
    EXPECT_EQ(pair.peer.Reads(total).size(), total);
    EXPECT_EQ(pair.Quiet(), "WRITE READ") << "the write notification that follows a would-block";
    EXPECT_EQ(pair.socket->ReceiveText(), "cdef");
    EXPECT_EQ(pair.Quiet(), "") << "drained";
    pair.socket->RequestRead();
    EXPECT_EQ(pair.Quiet(), "READ") << "requested whatever the system has";
}

TEST(AsyncSocketWrite, AWouldBlockMetByAnotherWriterIsFollowedByANotification)
{
    Pair pair;
    pair.Quiet();
    const std::string part(65536, 'x');
    std::size_t total = 0;
    const auto write = [&] {
        return send(static_cast<int>(pair.socket->m_hSocket), part.data(), part.size(),
                    MSG_DONTWAIT | MSG_NOSIGNAL);
    };
    for (ssize_t sent; (sent = write()) > 0;)
        total += static_cast<std::size_t>(sent);
    pair.socket->RequestWrite();
    EXPECT_EQ(pair.Quiet(), "") << "full";
    EXPECT_EQ(pair.peer.Reads(total).size(), total);
    EXPECT_EQ(pair.Quiet(), "WRITE");
    pair.socket->RequestWrite();
    EXPECT_EQ(pair.Quiet(), "WRITE") << "it takes data already";
}

TEST(AsyncSocketRead, ADrainedSocketAnswersFromMemoryAndHearsOfTheNextBytes)
{
    Pair pair;
    UINT waiting = 99;
    char byte = 0;
    for (int i = 0; i < 3; ++i) {
        pair.peer.Writes("12345");
        pair.Hears("READ");
        EXPECT_EQ(pair.Quiet(), "READ");
        EXPECT_TRUE(pair.socket->WaitingBytes(waiting) && waiting == 5) << waiting;
        EXPECT_EQ(pair.socket->ReceiveText(2), "12");
        EXPECT_EQ(pair.socket->ReceiveText(3), "345");
        EXPECT_TRUE(pair.socket->WaitingBytes(waiting) && waiting == 0) << waiting;
        EXPECT_EQ(pair.socket->Receive(&byte, 1, MSG_PEEK), -1);
        EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    }
    // Selecting anew forgets that nothing waits: somebody may have read or written past the class.
    pair.peer.Writes("late");
    EXPECT_TRUE(pair.socket->AsyncSelect(FD_ALL));
    EXPECT_TRUE(pair.socket->WaitingBytes(waiting) && waiting == 4) << waiting;
}

TEST(AsyncSocketRead, BytesTakenPastTheClassLeaveNoReadBehind)
{
    Pair pair;
    pair.peer.Writes("secret");
    pair.socket->onNotification[FD_READ] = [&] {
        char bytes[100];
        EXPECT_EQ(recv(static_cast<int>(pair.socket->m_hSocket), bytes, sizeof bytes, MSG_DONTWAIT), 6);
        EXPECT_TRUE(pair.socket->AsyncSelect(FD_ALL));
    };
    pair.Hears("READ");
    EXPECT_EQ(pair.Quiet(), "READ WRITE");
    pair.peer.Writes("second");
    pair.Hears("READ");
}

// The system announces nothing in front of an urgent byte, nor tells what has come since it was asked.
TEST(AsyncSocketRead, WhatWasAnnouncedIsNotTakenForAllThereIs)
{
    for (const bool urgent : {false, true}) {
        SCOPED_TRACE(urgent);
        Pair pair;
        std::string got;
        pair.socket->onNotification[FD_READ] = [&] {
            UINT waiting = 0;
            const int most =
                pair.socket->WaitingBytes(waiting) && waiting > 0 ? static_cast<int>(waiting) : 100;
            if (got.empty()) {
                pair.peer.Writes("more");
                PumpUntilQuiet();
            }
            got += pair.socket->ReceiveText(most);
        };
        pair.peer.Writes("first ");
        if (urgent)
            pair.peer.Writes("!", MSG_OOB);
        EXPECT_TRUE(PumpUntil([&] { return got == "first more"; })) << got;
    }
}

TEST(AsyncSocketClose, ComesBehindTheInputAndOnce)
{
    const std::tuple<const char*, LONG, bool, bool, const char*> rows[] = {
        {"input first", FD_ALL, true, false, "WRITE READ CLOSE"},
        {"an owner that does not read is told all the same", FD_ALL, false, false, "WRITE READ CLOSE"},
        {"selecting anew is no storm", FD_ALL, true, true, "WRITE READ WRITE CLOSE"},
        {"input that is not selected is not waited for", FD_ALL & ~FD_READ, false, false, "WRITE CLOSE"},
    };
    for (const auto& row : rows) {
        const auto [why, selected, reads, selectsAnew, log] = row;
        Pair pair;
        pair.socket->onNotification[FD_READ] = [&row, &pair] {
            if (std::get<2>(row))
                pair.socket->ReceiveText();
            if (std::get<3>(row))
                pair.socket->AsyncSelect(FD_ALL);
        };
        pair.socket->AsyncSelect(selected);
        pair.peer.Writes("bye");
        pair.peer.Closes();
        pair.Hears("CLOSE");
        EXPECT_EQ(pair.log + pair.Quiet(), log) << why;
        EXPECT_EQ(pair.socket->ReceiveText(), reads ? "" : "bye") << why;
    }
}

TEST(AsyncSocketClose, AResetComesBehindTheBytesThatArrived)
{
    Pair pair;
    ASSERT_EQ(pair.socket->Send("x", 1), 1); // unread at the peer, so that its close is a reset
    pair.socket->onNotification[FD_READ] = [&] { EXPECT_EQ(pair.socket->ReceiveText(), "last"); };
    pair.peer.Writes("last");
    pair.peer.Closes();
    pair.Hears("CLOSE");
    EXPECT_EQ(pair.Quiet(), "READ CLOSE(10054)");

    char byte = 0;
    EXPECT_EQ(pair.socket->Receive(&byte, 1), -1);
    EXPECT_EQ(WSAGetLastError(), WSAECONNRESET) << "told although the system tells it only once";
    EXPECT_EQ(pair.socket->Send("y", 1), -1);
    EXPECT_EQ(WSAGetLastError(), WSAECONNRESET) << "not the broken pipe";
}

struct Kind
{
    LONG mask;
    const char* name;
    const char* log; // up to this notification
};

class AsyncSocketNotification : public testing::TestWithParam<Kind>
{
protected:
    // Brings a socket into the state, and the peer to the deed, of which the notification tells.
    static void Provoke(LONG kind, Pair& pair)
    {
        switch (kind) {
        case FD_READ: pair.peer.Writes("x"); return;
        case FD_OOB: pair.peer.Writes("!", MSG_OOB); return;
        case FD_CLOSE: pair.peer.Closes(); return;
        case FD_ACCEPT: pair.peer = PlainSocket::ConnectedTo(pair.Listen()); return;
        default: pair.Connect();
        }
    }
};

TEST_P(AsyncSocketNotification, MayDestroyCloseReopenAndThrow)
{
    const Kind kind = GetParam();
    for (const std::string deed : {"delete", "close", "reopen", "delete another", "throw"}) {
        SCOPED_TRACE(deed);
        Pair pair(kind.mask == FD_READ || kind.mask == FD_OOB || kind.mask == FD_CLOSE);
        Pair other;
        pair.socket->onNotification[kind.mask] = [&] {
            pair.socket->onNotification.clear();
            if (deed == "delete another")
                other.socket.reset();
            if (deed == "throw")
                throw 42;
            if (deed == "close" || deed == "reopen")
                pair.socket->Close();
            if (deed == "delete")
                pair.socket.reset();
            if (deed == "reopen") {
                EXPECT_TRUE(pair.socket->Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
                pair.Connect();
            }
        };
        other.peer.Writes("due in the same round");
        Provoke(kind.mask, pair);

        int thrown = 0;
        try {
            pair.Hears(kind.log);
        } catch (int number) {
            thrown = number;
        }
        EXPECT_EQ(thrown, deed == "throw" ? 42 : 0);
        const std::string notes = pair.Quiet();
        if (deed == "delete" || deed == "close") {
            EXPECT_EQ(notes, kind.log) << "nothing of the old handle may follow";
        }
        if (deed == "reopen") {
            EXPECT_EQ(notes, std::string(kind.log) + " CONNECT WRITE") << "the new handle starts afresh";
        }
        if (deed == "throw" && kind.mask == FD_READ) {
            EXPECT_EQ(pair.socket->ReceiveText(), "x");
            pair.peer.Writes("y");
            EXPECT_EQ(pair.Quiet(), "READ") << "goes on";
        }
        EXPECT_EQ(other.log, deed == "delete another" ? other.log : "READ") << "the others are served";
    }
}

INSTANTIATE_TEST_SUITE_P(Every, AsyncSocketNotification,
                         testing::Values(Kind{FD_CONNECT, "Connect", "CONNECT"},
                                         Kind{FD_WRITE, "Write", "CONNECT WRITE"},
                                         Kind{FD_OOB, "Urgent", "OOB"}, Kind{FD_ACCEPT, "Accept", "ACCEPT"},
                                         Kind{FD_READ, "Read", "READ"}, Kind{FD_CLOSE, "Close", "CLOSE"}),
                         [](const auto& run) { return std::string(run.param.name); });

TEST(AsyncSocketLifetime, ANewSocketAtTheSameAddressAndDescriptorGetsOnlyItsOwnNotifications)
{
    Pair pair;
    RecordingSocket* const oldAddress = pair.socket.get();
    const SOCKET oldHandle = pair.socket->m_hSocket;
    pair.peer.Writes("for the old one");
    pair.Hears("READ");
    pair.socket->RequestRead(); // due
    pair.log.clear();
    oldAddress->~RecordingSocket();
    new (oldAddress) RecordingSocket(&pair.log);
    ASSERT_TRUE(oldAddress->Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
    EXPECT_EQ(oldAddress->m_hSocket, oldHandle) << "the system uses descriptor numbers again";
    EXPECT_EQ(pair.Quiet(), "");
    pair.Connect();
    EXPECT_EQ(pair.Quiet(), "CONNECT WRITE");
}

TEST(AsyncSocketNesting, AStreamIsNotReenteredWhileOthersAreServed)
{
    Pair outer, inner;
    outer.socket->onNotification[FD_READ] = [&] {
        outer.socket->onNotification.clear();
        outer.socket->ReceiveText();
        outer.peer.Writes("more");
        outer.peer.Closes();
        inner.peer.Writes("x");
        outer.log += "[";
        PumpUntilQuiet();
        outer.log += "]";
    };
    outer.peer.Writes("first");
    outer.Hears("CLOSE");
    EXPECT_EQ(outer.log, "READ[] READ CLOSE");
    EXPECT_EQ(inner.log, "READ");
}

// A bound datagram socket, and a plain one that sends to it.
struct Datagrams
{
    // Receives one into `size` bytes.
    std::string Take(std::size_t size)
    {
        std::string text(size, '\0');
        const int got = socket.ReceiveFromHelper(text.data(), static_cast<int>(size), nullptr, nullptr, 0);
        EXPECT_GE(got, 0);
        return text.substr(0, static_cast<std::size_t>(got));
    }

    RecordingSocket socket;
    const BOOL created = socket.Socket(SOCK_DGRAM, FD_ALL, 0, AF_INET);
    PlainSocket peer = PlainSocket::ConnectedTo(BindToLoopback(socket.m_hSocket), SOCK_DGRAM);
};

TEST(AsyncSocketDatagram, EveryDatagramIsToldAndALongOneIsCut)
{
    Datagrams datagrams;
    for (const char* text : {"one", "", "a long datagram"})
        datagrams.peer.Writes(text);
    std::vector<std::string> got;
    datagrams.socket.onNotification[FD_READ] = [&] { got.push_back(datagrams.Take(6)); };
    PumpUntilQuiet();
    EXPECT_EQ(got, (std::vector<std::string>{"one", "", "a long"}));
    EXPECT_EQ(datagrams.socket.TakeLog(), "WRITE READ READ READ");
}

TEST(AsyncSocketDatagram, AFloodKeepsNoWaitFromEnding)
{
    Datagrams datagrams;
    int depth = 0, deepest = 0;
    datagrams.socket.onNotification[FD_READ] = [&] // each datagram brings the next two, and nests
    {
        datagrams.Take(1);
        datagrams.peer.Writes("x");
        datagrams.peer.Writes("x");
        deepest = std::max(deepest, ++depth);
        if (depth < 20)
            DispatchRound();
        --depth;
    };
    datagrams.peer.Writes("x");
    const HANDLE never = CreateEventW(nullptr, 1, 0, nullptr);
    const auto start = std::chrono::steady_clock::now();
    const auto elapsed = [&] { return std::chrono::steady_clock::now() - start; };
    while (elapsed() < std::chrono::milliseconds(200)) {
        if (MsgWaitForMultipleObjectsEx(1, &never, 50, kWakeOnAnyInput, 0) == 1)
            DispatchPending();
    }
    EXPECT_LT(elapsed(), std::chrono::milliseconds(1000));
    EXPECT_EQ(deepest, 8) << "datagrams beyond wait in the system";
    CloseHandle(never);
}

TEST(AsyncSocketAccept, AListenerDeliversNothingElseAndPassesItsSelectionOn)
{
    Pair listener(false);
    const sockaddr_storage address = listener.Listen();
    RecordingSocket accepted[3], none;
    int count = 0;
    listener.socket->onNotification[FD_ACCEPT] = [&] {
        sockaddr_storage from{};
        int length = sizeof from;
        EXPECT_TRUE(listener.socket->Accept(accepted[count++], reinterpret_cast<sockaddr*>(&from), &length));
        EXPECT_EQ(from.ss_family, AF_INET);
    };
    EXPECT_EQ(listener.Quiet(), "");
    PlainSocket clients[3];
    for (PlainSocket& client : clients)
        client = PlainSocket::ConnectedTo(address);
    clients[0].Writes("x");
    EXPECT_EQ(listener.Quiet(), "ACCEPT ACCEPT ACCEPT");
    EXPECT_EQ(accepted[0].TakeLog(), "WRITE READ");
    EXPECT_EQ(accepted[1].TakeLog(), "WRITE");
    EXPECT_FALSE(listener.socket->Accept(none));
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);

    listener.socket->Close(); // while connections linger
    ASSERT_TRUE(none.Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
    const auto* const again = reinterpret_cast<const sockaddr*>(&address);
    EXPECT_EQ(platform::bind(none.m_hSocket, again, sizeof address), 0);
    EXPECT_EQ(platform::listen(none.m_hSocket, 5), 0);
}

TEST(AsyncSocketHandle, AttachFindsOutKindAndStateAndDetachGivesBack)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const PlainSocket peer(ends[1]);
    peer.Writes("waits");
    RecordingSocket socket;
    ASSERT_TRUE(socket.Attach(static_cast<SOCKET>(ends[0]), FD_ALL));
    PumpUntilQuiet();
    EXPECT_EQ(socket.TakeLog(), "WRITE READ");

    socket.AsyncSelect(FD_ALL); // due again
    const PlainSocket back(static_cast<int>(socket.Detach()));
    PumpUntilQuiet();
    EXPECT_EQ(socket.TakeLog(), "");
    EXPECT_EQ(back.Reads(5), "waits");
}

// States in which the system goes on reporting something, or the owner leaves something undone.
TEST(AsyncSocketIdle, CostsNoProcessorTime)
{
    Pair paused, refused, ended, reset, unconnected(false);
    paused.socket->AsyncSelect(FD_ALL & ~FD_READ);
    paused.peer.Writes("unread");
    refused.peer.Writes("unread");
    ended.peer.Closes();
    reset.peer.Resets();
    PumpUntilQuiet();

    int wakeUps = 0;
    const std::clock_t before = std::clock();
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    for (; std::chrono::steady_clock::now() < end; ++wakeUps) {
        MsgWaitForMultipleObjectsEx(0, nullptr, 50, kWakeOnAnyInput, 0);
        DispatchPending();
    }
    EXPECT_LE(wakeUps, 6);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 50);
}

} // namespace
