#include <algorithm>
#include <ctime>
#include <memory>
#include <tuple>

#include "RecordingSocket.h"
#include "tavronet/platform/SocketCalls.h"

namespace
{

// A socket and its plain peer; connected ones have had CONNECT and WRITE.
struct Pair
{
    explicit Pair(bool connected = true)
    {
        EXPECT_TRUE(socket->Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
        if (connected)
            ExpectTold(log, "CONNECT WRITE", [this] { Connect(); });
    }

    void Connect()
    {
        EXPECT_FALSE(socket->Connect(L"127.0.0.1", listener.Port()));
        EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK) << "also when it is made already";
        peer = listener.Accept();
    }

    std::string log;
    PlainSocket listener = PlainSocket::Listening(), peer;
    std::unique_ptr<RecordingSocket> socket = std::make_unique<RecordingSocket>(log);
};

TEST(AsyncSocketConnect, OutcomesAreToldOnceAndLeaveTheHandleUsable)
{
    const UINT closedPort = PlainSocket::Listening().Port();
    const std::tuple<const wchar_t*, UINT, int, const char*> rows[] = {
        {L"127.0.0.1", closedPort, WSAEWOULDBLOCK, "CONNECT(10061)"},
        {L"0.0.0.0", closedPort, WSAEADDRNOTAVAIL, ""}, // the system would take it for this machine
        {L"::1", closedPort, WSAEAFNOSUPPORT, ""},
        {L"127.0.0.1", 65536, WSAEINVAL, ""},
#ifndef __SANITIZE_THREAD__ // it has not seen the resolver's threads begin
        {L"localhost", closedPort, WSAEWOULDBLOCK, "CONNECT(10061)"},
        {L"no such host", closedPort, WSAEWOULDBLOCK, "CONNECT(11001)"}, // no name: no server is asked
#endif
    };
    for (const auto& [host, port, error, told] : rows) {
        for (int i = 0; i < 10; ++i) // more than look-ups run at a time, and none has an effect later
            Pair(false).socket->Connect(std::get<0>(*std::rbegin(rows)), port);
        Pair pair(false);
        EXPECT_FALSE(pair.socket->Connect(host, port));
        EXPECT_EQ(WSAGetLastError(), error) << port;
        ExpectTold(pair.log, told);
        ExpectTold(pair.log, "CONNECT WRITE", [&] { pair.Connect(); });
    }
}

TEST(AsyncSocketReadAndWrite, AreToldAgainOnlyWhenAskedFor)
{
    Pair pair;
    RecordingSocket& socket = *pair.socket;
    ExpectTold(pair.log, "READ", [&] { pair.peer.Writes("abcdef"); });
    ExpectTold(pair.log, "READ", [&] { EXPECT_EQ(socket.ReceiveText(2), "ab"); });
    ExpectTold(pair.log, "WRITE READ", [&] { socket.AsyncSelect(FD_ALL); });
    ExpectTold(pair.log, "WRITE READ", [&] { socket.RequestWrite(); }); // it takes data already
    const std::string block(65536, 'f');
    std::size_t total = 0;
    for (int sent; (sent = socket.Send(block.data(), 65536)) > 0;)
        total += static_cast<std::size_t>(sent);
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    ExpectTold(pair.log, "", [&] { socket.RequestWrite(); });
    ExpectTold(pair.log, "WRITE READ", [&] { EXPECT_EQ(pair.peer.Reads(total).size(), total); });
    ExpectTold(pair.log, "", [&] { EXPECT_EQ(socket.ReceiveText(), "cdef"); });
    ExpectTold(pair.log, "READ", [&] { socket.RequestRead(); }); // whatever the system has
    EXPECT_EQ(socket.ReceiveText(), "10035");
    // Selecting forgets that nothing waits, and what waits is asked for before it is told.
    EXPECT_TRUE(pair.peer.Writes("late") && socket.AsyncSelect(FD_ALL) && socket.ReceiveText() == "late");
    ExpectTold(pair.log, "WRITE READ", [&] { pair.peer.Writes("abcdef"); });
    PlainSocket(dup(static_cast<int>(socket.m_hSocket))).ReadsWaiting(); // past the class
    ExpectTold(pair.log, "WRITE", [&] { socket.AsyncSelect(FD_ALL); });
    ExpectTold(pair.log, "READ", [&] { pair.peer.Writes("more"); });
}

// The system announces nothing in front of an urgent byte, nor tells what has come since it was asked.
TEST(AsyncSocketReadAndWrite, WhatWasAnnouncedIsNotTakenForAllThereIs)
{
    for (const bool urgent : {false, true}) {
        Pair pair;
        std::string got;
        pair.socket->onNotification[FD_READ] = [&] {
            UINT waiting = 0;
            pair.socket->WaitingBytes(waiting);
            if (got.empty() && !urgent)
                pair.peer.Writes("more");
            PumpUntilQuiet();
            got += pair.socket->ReceiveText(waiting > 0 ? static_cast<int>(waiting) : 100);
        };
        pair.peer.Writes("first");
        pair.peer.Writes(urgent ? "!" : "", MSG_OOB);
        pair.peer.Writes(urgent ? "more" : "");
        EXPECT_TRUE(PumpUntil([&] { return got == "firstmore"; })) << got;
    }
}

TEST(AsyncSocketClose, ComesBehindTheInputAndOnce)
{
    const std::tuple<LONG, bool, const char*> rows[] = {
        {FD_ALL, true, "CONNECT WRITE READ WRITE CLOSE"}, // also for an owner that selects anew
        {FD_ALL, false, "CONNECT WRITE READ CLOSE"},      // also for one that does not read
        {FD_ALL & ~FD_READ, false, "CONNECT WRITE CLOSE"},
    };
    for (const auto& [selected, reads, told] : rows) {
        Pair pair(false);
        pair.socket->AsyncSelect(selected);
        pair.socket->onNotification[FD_READ] = [&pair, reads = reads] {
            EXPECT_TRUE(!reads || (pair.socket->ReceiveText() == "bye" && pair.socket->AsyncSelect(FD_ALL)));
        };
        pair.Connect();
        pair.peer.Writes("bye");
        pair.peer.Closes();
        EXPECT_EQ(pair.log, "") << "a call must not deliver";
        ExpectTold(pair.log, told);
        EXPECT_EQ(pair.socket->ReceiveText(), reads ? "end" : "bye") << "told as often as asked";
    }
}

TEST(AsyncSocketClose, AResetComesBehindTheBytesThatArrived)
{
    Pair pair;
    pair.socket->Send("x", 1); // unread at the peer, so that its close is a reset
    pair.socket->onNotification[FD_READ] = [&] { EXPECT_EQ(pair.socket->ReceiveText(), "last"); };
    pair.peer.Writes("last");
    pair.peer.Closes();
    ExpectTold(pair.log, "READ CLOSE(10054)");
    EXPECT_EQ(pair.socket->ReceiveText(), "10054") << "told although the system tells it only once";
    EXPECT_EQ(pair.socket->Send("y", 1), -1);
    EXPECT_EQ(WSAGetLastError(), WSAECONNRESET) << "not the broken pipe";
}

TEST(AsyncSocketNotification, MayDeleteOtherSocketsAndReplaceItsOwnAtTheSameAddress)
{
    const std::tuple<LONG, const char*, std::function<void(Pair&)>> kinds[] = {
        {FD_CONNECT, "CONNECT", &Pair::Connect},
        {FD_WRITE, "CONNECT WRITE", &Pair::Connect},
        {FD_OOB, "OOB", [](Pair& pair) { pair.peer.Writes("!", MSG_OOB); }},
        {FD_READ, "READ", [](Pair& pair) { pair.peer.Writes("x"); }},
        {FD_CLOSE, "CLOSE", [](Pair& pair) { pair.peer.Closes(); }},
    };
    for (const auto& [kind, told, provoke] : kinds) {
        Pair pair(kind != FD_CONNECT && kind != FD_WRITE), other;
        pair.socket->onNotification[kind] = [&pair, &other] {
            RecordingSocket* const socket = pair.socket.get();
            other.socket.reset();
            socket->RequestRead(); // due when it dies
            socket->~RecordingSocket();
            new (socket) RecordingSocket(pair.log);
            EXPECT_TRUE(socket->Socket(SOCK_STREAM, FD_ALL, 0, AF_INET)); // a descriptor of the same number
            pair.Connect();
        };
        other.peer.Writes("perhaps due in the same round");
        ExpectTold(pair.log, std::string(told) + " CONNECT WRITE",
                   [&, &provoke = provoke] { provoke(pair); });
    }
}

TEST(AsyncSocketNotification, OfAStreamIsNotReenteredWhileOthersAreServed)
{
    Pair outer, inner;
    outer.socket->onNotification[FD_READ] = [&] {
        outer.socket->onNotification.clear();
        outer.socket->ReceiveText();
        outer.peer.Writes("more");
        outer.peer.Closes();
        ExpectTold(inner.log, "READ", [&] { inner.peer.Writes("x"); });
        outer.log += ".";
    };
    ExpectTold(outer.log, "READ. READ CLOSE", [&] { outer.peer.Writes("first"); });
}

TEST(AsyncSocketDatagram, EveryOneIsToldEightDeepAtMostAndALongOneIsCut)
{
    std::string log, got;
    RecordingSocket socket(log);
    ASSERT_TRUE(socket.Socket(SOCK_DGRAM, FD_ALL, 0, AF_INET));
    const auto peer = PlainSocket::ConnectedTo(BindToLoopback(socket.m_hSocket), SOCK_DGRAM);
    int depth = 0, deepest = 0;
    socket.onNotification[FD_READ] = [&] {
        char text[6];
        const int length = socket.ReceiveFromHelper(text, sizeof text, nullptr, nullptr, 0);
        got += std::string(text, static_cast<std::size_t>(length)) + ";";
        deepest = std::max(deepest, ++depth);
        DispatchRound();
        --depth;
    };
    for (const char* text : {"one", "", "a long datagram", "4", "5", "6", "7", "8", "9", "10"})
        peer.Writes(text);
    ExpectTold(log, "WRITE READ READ READ READ READ READ READ READ READ READ");
    EXPECT_EQ(got, "one;;a long;4;5;6;7;8;9;10;");
    EXPECT_EQ(deepest, 8) << "datagrams beyond wait in the system";
}

TEST(AsyncSocketAccept, AListenerPassesItsSelectionOnAndCanBeRestarted)
{
    Pair listener(false);
    const sockaddr_in address = BindToLoopback(listener.socket->m_hSocket);
    EXPECT_EQ(platform::listen(listener.socket->m_hSocket, 5), 0);
    const PlainSocket clients[] = {PlainSocket::ConnectedTo(address), PlainSocket::ConnectedTo(address)};
    std::string log;
    RecordingSocket first(log), second(log), again(log);
    ExpectTold(listener.log, "ACCEPT");
    ExpectTold(listener.log, "ACCEPT", [&] { EXPECT_TRUE(listener.socket->Accept(first)); });
    ExpectTold(log, "WRITE READ", [&] { clients[0].Writes("x"); });
    EXPECT_TRUE(listener.socket->Accept(second));
    EXPECT_FALSE(listener.socket->Accept(again));
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    listener.socket->Close(); // while connections linger
    ASSERT_TRUE(again.Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
    const auto* const record = reinterpret_cast<const sockaddr*>(&address);
    EXPECT_EQ(platform::bind(again.m_hSocket, record, sizeof address), 0);
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
    const std::clock_t before = std::clock();
    EXPECT_EQ(MsgWaitForMultipleObjectsEx(0, nullptr, 200, kWakeOnAnyInput, 0), WAIT_TIMEOUT);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 50);
}

} // namespace
