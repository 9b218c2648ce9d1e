#include <gtest/gtest.h>

#include <memory>

#include "RecordingSocket.h"
#include "tavronet/platform/Event.h"
#include "tavronet/platform/SocketCalls.h"
#include "tavronet/platform/TestSeams.h"

namespace
{

// A connected RecordingSocket and its plain peer; CONNECT and WRITE have been delivered.
struct Pair
{
    Pair() : listener(PlainSocket::Listener())
    {
        EXPECT_TRUE(socket->Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
        EXPECT_FALSE(socket->Connect(L"127.0.0.1", listener.Port()));
        EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
        peer.emplace(listener.AcceptOne());
        EXPECT_TRUE(PumpUntil([&] { return log.find("WRITE") != std::string::npos; }));
        EXPECT_EQ(socket->TakeLog(), "CONNECT WRITE");
    }

    std::string log;
    PlainSocket listener;
    std::unique_ptr<RecordingSocket> socket = std::make_unique<RecordingSocket>(&log);
    std::optional<PlainSocket> peer;
};

// Sends until the system takes no more. @return how many bytes it took.
std::size_t Fill(RecordingSocket& socket)
{
    const std::string block(65536, 'f');
    std::size_t total = 0;
    for (;;) {
        const int sent = socket.Send(block.data(), static_cast<int>(block.size()));
        if (sent < 0)
            return total;
        total += static_cast<std::size_t>(sent);
    }
}

TEST(AsyncSocketOrder, APeerThatAnswersAndClosesFirstIsReportedInOrder)
{
    PlainSocket listener = PlainSocket::Listener();
    RecordingSocket socket;
    ASSERT_TRUE(socket.Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
    EXPECT_FALSE(socket.Connect(L"127.0.0.1", listener.Port()));
    PlainSocket peer = listener.AcceptOne();
    peer.Write("hello");
    peer.Close();

    std::string got;
    socket.onNotification[FD_READ] = [&] { got += socket.ReceiveText(); };
    EXPECT_EQ(socket.TakeLog(), "") << "a call must not deliver";
    EXPECT_TRUE(PumpUntil([&] { return !got.empty(); }));
    PumpBriefly();
    EXPECT_EQ(socket.TakeLog(), "CONNECT WRITE READ CLOSE");
    EXPECT_EQ(got, "hello");
    EXPECT_EQ(socket.Receive(got.data(), 1), 0) << "the end of the stream is told again";
}

TEST(AsyncSocketConnect, FailuresAreToldOnceAndNeverInsideTheCall)
{
    PlainSocket unused = PlainSocket::Listener();
    const UINT closedPort = unused.Port();
    unused.Close();
    struct
    {
        const char* why;
        const wchar_t* host;
        UINT port;
        int error;
        const char* log;
    } const rows[] = {
        {"nobody listens", L"127.0.0.1", closedPort, WSAEWOULDBLOCK, "CONNECT(10061)"},
        {"the wildcard would be this machine", L"0.0.0.0", closedPort, WSAEADDRNOTAVAIL, ""},
        {"family of the socket", L"::1", closedPort, WSAEAFNOSUPPORT, ""},
        {"no such port", L"127.0.0.1", 65536, WSAEINVAL, ""},
        {"no host", L"", closedPort, WSAEINVAL, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        RecordingSocket socket;
        ASSERT_TRUE(socket.Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
        EXPECT_FALSE(socket.Connect(row.host, row.port));
        EXPECT_EQ(WSAGetLastError(), row.error);
        PumpBriefly();
        EXPECT_EQ(socket.TakeLog(), row.log);
        EXPECT_NE(socket.m_hSocket, INVALID_SOCKET);
    }
}

TEST(AsyncSocketConnect, AFailedAttemptCanBeRepeatedOnTheSameHandle)
{
    PlainSocket listener = PlainSocket::Listener();
    PlainSocket unused = PlainSocket::Listener();
    const UINT closedPort = unused.Port();
    unused.Close();
    RecordingSocket socket;
    ASSERT_TRUE(socket.Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
    socket.Connect(L"127.0.0.1", closedPort);
    PumpBriefly();
    EXPECT_EQ(socket.TakeLog(), "CONNECT(10061)");

    EXPECT_FALSE(socket.Connect(L"127.0.0.1", listener.Port()));
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    PumpBriefly();
    EXPECT_EQ(socket.TakeLog(), "CONNECT WRITE");
}

// The resolver calls back on threads that the thread sanitizer has not seen begin; it cannot survive that.
#ifdef __SANITIZE_THREAD__
#define SKIP_WITH_THREAD_SANITIZER() GTEST_SKIP() << "the resolver's own threads are unknown to the sanitizer"
#else
#define SKIP_WITH_THREAD_SANITIZER()
#endif

TEST(AsyncSocketConnect, NamesAreLookedUpWithoutBlocking)
{
    SKIP_WITH_THREAD_SANITIZER();
    PlainSocket listener = PlainSocket::Listener();
    RecordingSocket socket;
    ASSERT_TRUE(socket.Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
    EXPECT_FALSE(socket.Connect(L"localhost", listener.Port()));
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    EXPECT_TRUE(PumpUntil([&] { return socket.TakeLog() == "CONNECT WRITE"; }));
}

// Names that cannot be host names, so that no name server is asked.
TEST(AsyncSocketConnect, UnknownNamesAreReportedAndAbandonedOnesAreNot)
{
    SKIP_WITH_THREAD_SANITIZER();
    RecordingSocket unknown;
    ASSERT_TRUE(unknown.Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
    EXPECT_FALSE(unknown.Connect(L"no such host", 80));
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    for (int i = 0; i < 20; ++i) // more than look-ups run at a time; none of these may be touched later
    {
        RecordingSocket abandoned;
        ASSERT_TRUE(abandoned.Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
        EXPECT_FALSE(abandoned.Connect(L"no such host either", 80));
        EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    }
    EXPECT_TRUE(PumpUntil([&] { return unknown.TakeLog() == "CONNECT(11001)"; }));
    PumpBriefly();
}

TEST(AsyncSocketSend, AWouldBlockIsFollowedByExactlyOneWrite)
{
    Pair pair;
    const std::size_t total = Fill(*pair.socket);
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    PumpBriefly();
    EXPECT_EQ(pair.socket->TakeLog(), "") << "the peer has not read";

    EXPECT_EQ(pair.peer->Read(total).size(), total);
    EXPECT_TRUE(PumpUntil([&] { return !pair.log.empty(); }));
    PumpBriefly();
    EXPECT_EQ(pair.socket->TakeLog(), "WRITE");
    EXPECT_EQ(pair.socket->Send("x", 1), 1);
}

TEST(AsyncSocketRead, ARefusedReadComesAgainOnlyWhenAskedFor)
{
    Pair pair;
    pair.peer->Write("abcdef");
    EXPECT_TRUE(PumpUntil([&] { return !pair.log.empty(); }));
    EXPECT_EQ(pair.socket->TakeLog(), "READ");

    const long before = ThreadCpuMs();
    PumpBriefly(100);
    EXPECT_EQ(pair.socket->TakeLog(), "") << "not served, not asked for";
    EXPECT_LT(ThreadCpuMs() - before, 20);

    EXPECT_EQ(pair.socket->ReceiveText(2), "ab");
    DispatchPending();
    EXPECT_EQ(pair.socket->TakeLog(), "READ") << "after a receive";

    EXPECT_TRUE(pair.socket->AsyncSelect(FD_ALL));
    DispatchPending();
    EXPECT_EQ(pair.socket->TakeLog(), "WRITE READ") << "after selecting anew";

    Fill(*pair.socket);
    ASSERT_GT(pair.peer->Read(3000000).size(), 0u);
    PumpBriefly();
    EXPECT_EQ(pair.socket->TakeLog(), "WRITE READ") << "after a write notification";

    EXPECT_EQ(pair.socket->ReceiveText(), "cdef");
    PumpBriefly();
    EXPECT_EQ(pair.socket->TakeLog(), "") << "drained";
    pair.socket->RequestRead();
    DispatchPending();
    EXPECT_EQ(pair.socket->TakeLog(), "READ") << "requested whatever the system has";
}

TEST(AsyncSocketRead, ADrainedSocketAnswersFromMemoryAndHearsOfTheNextBytes)
{
    Pair pair;
    for (int i = 0; i < 3; ++i) {
        pair.peer->Write("12345");
        EXPECT_TRUE(PumpUntil([&] { return !pair.log.empty(); }));
        EXPECT_EQ(pair.socket->TakeLog(), "READ");
        UINT waiting = 99;
        EXPECT_TRUE(pair.socket->WaitingBytes(waiting));
        EXPECT_EQ(waiting, 5u);
        EXPECT_EQ(pair.socket->ReceiveText(5), "12345");
        EXPECT_TRUE(pair.socket->WaitingBytes(waiting));
        EXPECT_EQ(waiting, 0u);
        char byte = 0;
        EXPECT_EQ(pair.socket->Receive(&byte, 1, MSG_PEEK), -1);
        EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    }
    // Selecting anew forgets that nothing waits: somebody may have read or written past the class.
    pair.peer->Write("late");
    ASSERT_EQ(recv(static_cast<int>(pair.socket->m_hSocket), &pair.log, 0, MSG_PEEK), 0);
    EXPECT_TRUE(pair.socket->AsyncSelect(FD_ALL));
    UINT waiting = 0;
    for (int i = 0; i < 100 && waiting == 0; ++i)
        EXPECT_TRUE(pair.socket->WaitingBytes(waiting)), pair.socket->AsyncSelect(FD_ALL);
    EXPECT_EQ(waiting, 4u);
}

TEST(AsyncSocketRead, BytesTakenPastTheClassLeaveNoReadBehind)
{
    Pair pair;
    pair.peer->Write("secret");
    pair.socket->onNotification[FD_READ] = [&] {
        char bytes[100];
        EXPECT_EQ(recv(static_cast<int>(pair.socket->m_hSocket), bytes, sizeof bytes, 0), 6);
        EXPECT_TRUE(pair.socket->AsyncSelect(FD_ALL));
    };
    EXPECT_TRUE(PumpUntil([&] { return !pair.log.empty(); }));
    PumpBriefly();
    EXPECT_EQ(pair.socket->TakeLog(), "READ WRITE");
    pair.peer->Write("second");
    EXPECT_TRUE(PumpUntil([&] { return !pair.log.empty(); }));
}

TEST(AsyncSocketClose, ComesBehindTheInputAndOnce)
{
    struct
    {
        const char* why;
        bool reads;
        bool selectsAnew;
        const char* log;
    } const rows[] = {
        {"input first", true, false, "READ CLOSE"},
        {"an owner that does not read is told all the same", false, false, "READ CLOSE"},
        {"selecting anew is no storm", true, true, "READ WRITE CLOSE"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        Pair pair;
        pair.socket->onNotification[FD_READ] = [&] {
            if (row.reads)
                pair.socket->ReceiveText();
            if (row.selectsAnew)
                pair.socket->AsyncSelect(FD_ALL);
        };
        pair.peer->Write("bye");
        pair.peer->Close();
        EXPECT_TRUE(PumpUntil([&] { return pair.log.find("CLOSE") != std::string::npos; }));
        const long before = ThreadCpuMs();
        PumpBriefly(60);
        EXPECT_EQ(pair.socket->TakeLog(), row.log);
        EXPECT_LT(ThreadCpuMs() - before, 20);
        EXPECT_NE(pair.socket->m_hSocket, INVALID_SOCKET);
    }
}

TEST(AsyncSocketClose, DoesNotWaitForInputThatIsNotSelected)
{
    Pair pair;
    pair.socket->AsyncSelect(FD_ALL & ~FD_READ);
    pair.peer->Write("unread");
    pair.peer->Close();
    EXPECT_TRUE(PumpUntil([&] { return pair.log.find("CLOSE") != std::string::npos; }));
    EXPECT_EQ(pair.socket->TakeLog(), "WRITE CLOSE");

    pair.socket->AsyncSelect(FD_ALL);
    PumpBriefly();
    EXPECT_EQ(pair.socket->TakeLog(), "WRITE READ");
    EXPECT_EQ(pair.socket->ReceiveText(), "unread");
}

TEST(AsyncSocketClose, AResetComesBehindTheBytesThatArrived)
{
    Pair pair;
    ASSERT_EQ(pair.socket->Send("x", 1), 1); // unread at the peer, so that its close is a reset
    pair.socket->onNotification[FD_READ] = [&] { EXPECT_EQ(pair.socket->ReceiveText(), "last"); };
    pair.peer->Write("last");
    pair.peer->Close();
    EXPECT_TRUE(PumpUntil([&] { return pair.log.find("CLOSE") != std::string::npos; }));
    EXPECT_EQ(pair.socket->TakeLog(), "READ CLOSE(10054)");

    char byte = 0;
    EXPECT_EQ(pair.socket->Receive(&byte, 1), -1);
    EXPECT_EQ(WSAGetLastError(), WSAECONNRESET) << "told although the system tells it only once";
    EXPECT_EQ(pair.socket->Send("y", 1), -1);
    EXPECT_EQ(WSAGetLastError(), WSAECONNRESET) << "not the broken pipe";
}

// What a host may do to a socket inside any of its notifications.
enum class Deed
{
    Delete,
    Close,
    Reopen,
    DeleteOther,
    Throw
};

class AsyncSocketNotification : public testing::TestWithParam<std::tuple<LONG, Deed>>
{};

TEST_P(AsyncSocketNotification, MayDestroyCloseReopenAndThrow)
{
    const auto [kind, deed] = GetParam();
    Pair pair;
    Pair other;
    std::string log;
    auto socket = std::make_unique<RecordingSocket>(&log);
    PlainSocket listener = PlainSocket::Listener();
    std::optional<PlainSocket> peer;
    int port = 0;
    if (kind == FD_ACCEPT) {
        ASSERT_TRUE(socket->Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
        const sockaddr_in any = PlainSocket::Loopback(0);
        ASSERT_EQ(platform::bind(socket->m_hSocket, reinterpret_cast<const sockaddr*>(&any), sizeof any), 0);
        ASSERT_EQ(platform::listen(socket->m_hSocket, 5), 0);
        port = static_cast<int>(PlainSocket::PortOf(static_cast<int>(socket->m_hSocket)));
    } else if (kind != FD_CONNECT && kind != FD_WRITE) {
        socket.swap(pair.socket);
        peer.emplace(std::move(*pair.peer));
    }
    std::string& notes = kind == FD_ACCEPT || kind == FD_CONNECT || kind == FD_WRITE ? log : pair.log;

    socket->onNotification[kind] = [&, kind = kind, deed = deed] {
        socket->onNotification.erase(kind); // once
        switch (deed) {
        case Deed::Delete: return socket.reset();
        case Deed::Close: return socket->Close();
        case Deed::Reopen:
            socket->Close();
            EXPECT_TRUE(socket->Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
            EXPECT_FALSE(socket->Connect(L"127.0.0.1", other.listener.Port()));
            return;
        case Deed::DeleteOther: return other.socket.reset();
        case Deed::Throw: throw 42;
        }
    };

    other.peer->Write("due in the same round");
    switch (kind) {
    case FD_CONNECT:
    case FD_WRITE:
        ASSERT_TRUE(socket->Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
        socket->Connect(L"127.0.0.1", listener.Port());
        peer.emplace(listener.AcceptOne());
        break;
    case FD_OOB: send(peer->Descriptor(), "!", 1, MSG_OOB); break;
    case FD_ACCEPT: {
        peer.emplace(::socket(AF_INET, SOCK_STREAM, 0));
        const sockaddr_in target = PlainSocket::Loopback(port);
        connect(peer->Descriptor(), reinterpret_cast<const sockaddr*>(&target), sizeof target);
        break;
    }
    case FD_READ: peer->Write("x"); break;
    case FD_CLOSE: peer->Close(); break;
    }

    bool threw = false;
    const char* name = kind == FD_CONNECT  ? "CONNECT"
                       : kind == FD_WRITE  ? "WRITE"
                       : kind == FD_OOB    ? "OOB"
                       : kind == FD_ACCEPT ? "ACCEPT"
                       : kind == FD_READ   ? "READ"
                                           : "CLOSE";
    const auto noted = [&] { return notes.find(name) != std::string::npos; };
    for (int i = 0; i < 200 && !noted(); ++i) {
        MsgWaitForMultipleObjectsEx(0, nullptr, 20, kWakeOnAnyInput, 0);
        try {
            DispatchPending();
        } catch (int) {
            threw = true;
        }
    }
    EXPECT_TRUE(noted());
    EXPECT_EQ(threw, deed == Deed::Throw);

    PumpBriefly(10);
    const std::string untilThen = notes.substr(0, notes.find(name)) + name;
    if (deed == Deed::Delete || deed == Deed::Close) {
        EXPECT_EQ(notes, untilThen) << "nothing of the old handle may follow";
    }
    if (deed == Deed::Reopen) {
        EXPECT_EQ(notes, untilThen + " CONNECT WRITE") << "the new handle starts afresh";
    }
    if (other.socket != nullptr) {
        EXPECT_EQ(other.socket->TakeLog(), "READ") << "the others are served";
    }
}

std::string CaseName(const testing::TestParamInfo<std::tuple<LONG, Deed>>& info)
{
    static const std::map<LONG, std::string> kinds{{FD_READ, "Read"},       {FD_WRITE, "Write"},
                                                   {FD_OOB, "Urgent"},      {FD_ACCEPT, "Accept"},
                                                   {FD_CONNECT, "Connect"}, {FD_CLOSE, "Close"}};
    static const char* const deeds[] = {"Delete", "Close", "Reopen", "DeleteOther", "Throw"};
    return kinds.at(std::get<0>(info.param)) + deeds[static_cast<int>(std::get<1>(info.param))];
}

INSTANTIATE_TEST_SUITE_P(EveryKind, AsyncSocketNotification,
                         testing::Combine(testing::Values(FD_CONNECT, FD_WRITE, FD_OOB, FD_ACCEPT, FD_READ,
                                                          FD_CLOSE),
                                          testing::Values(Deed::Delete, Deed::Close, Deed::Reopen,
                                                          Deed::DeleteOther, Deed::Throw)),
                         CaseName);

TEST(AsyncSocketLifetime, ANewSocketAtTheSameAddressAndDescriptorGetsOnlyItsOwnNotifications)
{
    Pair pair;
    RecordingSocket* const oldAddress = pair.socket.get();
    const SOCKET oldHandle = pair.socket->m_hSocket;
    pair.peer->Write("for the old one");
    PumpUntil([&] { return !pair.log.empty(); });
    pair.socket->RequestRead(); // due
    pair.socket->~RecordingSocket();
    auto* const fresh = new (oldAddress) RecordingSocket;
    ASSERT_TRUE(fresh->Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
    EXPECT_EQ(fresh->m_hSocket, oldHandle) << "the system uses descriptor numbers again";
    PumpBriefly();
    EXPECT_EQ(fresh->TakeLog(), "");
    fresh->Connect(L"127.0.0.1", pair.listener.Port());
    PumpBriefly();
    EXPECT_EQ(fresh->TakeLog(), "CONNECT WRITE");
}

TEST(AsyncSocketNesting, AStreamIsNotReenteredWhileOthersAreServed)
{
    Pair outer;
    Pair inner;
    bool nested = false;
    outer.socket->onNotification[FD_READ] = [&] {
        outer.socket->ReceiveText();
        if (std::exchange(nested, true))
            return;
        outer.peer->Write("more");
        outer.peer->Close();
        inner.peer->Write("x");
        outer.log += "[";
        PumpBriefly(30);
        outer.log += "]";
    };
    outer.peer->Write("first");
    EXPECT_TRUE(PumpUntil([&] { return outer.log.find("CLOSE") != std::string::npos; }));
    EXPECT_EQ(outer.socket->TakeLog(), "READ[] READ CLOSE");
    EXPECT_EQ(inner.socket->TakeLog(), "READ");
}

TEST(AsyncSocketDatagram, EveryDatagramIsToldAndALongOneIsCut)
{
    RecordingSocket socket;
    ASSERT_TRUE(socket.Socket(SOCK_DGRAM, FD_ALL, 0, AF_INET));
    const sockaddr_in any = PlainSocket::Loopback(0);
    ASSERT_EQ(platform::bind(socket.m_hSocket, reinterpret_cast<const sockaddr*>(&any), sizeof any), 0);
    DispatchPending();
    EXPECT_EQ(socket.TakeLog(), "WRITE");

    const sockaddr_in target =
        PlainSocket::Loopback(static_cast<int>(PlainSocket::PortOf(static_cast<int>(socket.m_hSocket))));
    const PlainSocket peer(::socket(AF_INET, SOCK_DGRAM, 0));
    for (const std::string text : {"one", "", "a long datagram"})
        sendto(peer.Descriptor(), text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&target),
               sizeof target);
    std::vector<std::string> got;
    socket.onNotification[FD_READ] = [&] {
        char bytes[6];
        sockaddr_storage from{};
        int fromLength = sizeof from;
        const int count = socket.ReceiveFromHelper(bytes, sizeof bytes, &from, &fromLength, 0);
        ASSERT_GE(count, 0);
        got.emplace_back(bytes, static_cast<std::size_t>(count));
    };
    PumpBriefly();
    EXPECT_EQ(got, (std::vector<std::string>{"one", "", "a long"}));
    EXPECT_EQ(socket.TakeLog(), "READ READ READ");
}

TEST(AsyncSocketDatagram, AFloodKeepsNoWaitFromEnding)
{
    RecordingSocket socket;
    ASSERT_TRUE(socket.Socket(SOCK_DGRAM, FD_ALL, 0, AF_INET));
    sockaddr_in address = PlainSocket::Loopback(0);
    ASSERT_EQ(platform::bind(socket.m_hSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    address =
        PlainSocket::Loopback(static_cast<int>(PlainSocket::PortOf(static_cast<int>(socket.m_hSocket))));
    const PlainSocket peer(::socket(AF_INET, SOCK_DGRAM, 0));
    const auto flood = [&] {
        sendto(peer.Descriptor(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    };
    int depth = 0, deepest = 0;
    socket.onNotification[FD_READ] = [&] // each datagram brings the next two, and nests
    {
        char byte = 0;
        socket.ReceiveFromHelper(&byte, 1, nullptr, nullptr, 0);
        flood();
        flood();
        deepest = std::max(deepest, ++depth);
        if (depth < 20)
            DispatchRound();
        --depth;
    };
    flood();
    const HANDLE never = CreateEventW(nullptr, 1, 0, nullptr);
    const auto start = std::chrono::steady_clock::now();
    const auto elapsed = [&] { return std::chrono::steady_clock::now() - start; };
    while (elapsed() < std::chrono::milliseconds(200)) {
        if (MsgWaitForMultipleObjectsEx(1, &never, 50, kWakeOnAnyInput, 0) == 1)
            DispatchPending();
    }
    EXPECT_LT(elapsed(), std::chrono::milliseconds(400));
    EXPECT_EQ(deepest, 8) << "datagrams beyond wait in the system";
    CloseHandle(never);
}

TEST(AsyncSocketAccept, AListenerDeliversNothingElseAndPassesItsSelectionOn)
{
    RecordingSocket listener;
    ASSERT_TRUE(listener.Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
    const sockaddr_in any = PlainSocket::Loopback(0);
    ASSERT_EQ(platform::bind(listener.m_hSocket, reinterpret_cast<const sockaddr*>(&any), sizeof any), 0);
    ASSERT_EQ(platform::listen(listener.m_hSocket, 5), 0);
    PumpBriefly();
    EXPECT_EQ(listener.TakeLog(), "");

    const sockaddr_in target =
        PlainSocket::Loopback(static_cast<int>(PlainSocket::PortOf(static_cast<int>(listener.m_hSocket))));
    std::vector<std::unique_ptr<RecordingSocket>> accepted;
    listener.onNotification[FD_ACCEPT] = [&] {
        accepted.push_back(std::make_unique<RecordingSocket>());
        sockaddr_storage from{};
        int length = sizeof from;
        EXPECT_TRUE(listener.Accept(*accepted.back(), reinterpret_cast<sockaddr*>(&from), &length));
        EXPECT_EQ(from.ss_family, AF_INET);
    };
    std::vector<PlainSocket> clients;
    for (int i = 0; i < 3; ++i) {
        clients.emplace_back(::socket(AF_INET, SOCK_STREAM, 0));
        ASSERT_EQ(
            connect(clients.back().Descriptor(), reinterpret_cast<const sockaddr*>(&target), sizeof target),
            0);
    }
    clients[0].Write("x");
    PumpBriefly();
    EXPECT_EQ(listener.TakeLog(), "ACCEPT ACCEPT ACCEPT");
    ASSERT_EQ(accepted.size(), 3u);
    EXPECT_EQ(accepted[0]->TakeLog(), "WRITE READ");
    EXPECT_EQ(accepted[1]->TakeLog(), "WRITE");

    RecordingSocket none;
    EXPECT_FALSE(listener.Accept(none));
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);

    listener.Close(); // while connections linger
    RecordingSocket again;
    ASSERT_TRUE(again.Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
    EXPECT_EQ(platform::bind(again.m_hSocket, reinterpret_cast<const sockaddr*>(&target), sizeof target), 0);
    EXPECT_EQ(platform::listen(again.m_hSocket, 5), 0);
}

TEST(AsyncSocketHandle, AttachFindsOutKindAndStateAndDetachGivesBack)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const PlainSocket peer(ends[1]);
    peer.Write("waits");
    RecordingSocket socket;
    ASSERT_TRUE(socket.Attach(static_cast<SOCKET>(ends[0]), FD_ALL));
    PumpBriefly();
    EXPECT_EQ(socket.TakeLog(), "WRITE READ");

    socket.AsyncSelect(FD_ALL); // due again
    PlainSocket back(static_cast<int>(socket.Detach()));
    PumpBriefly();
    EXPECT_EQ(socket.TakeLog(), "");
    EXPECT_EQ(back.Read(5), "waits");

    EXPECT_FALSE(socket.Attach(INVALID_SOCKET, FD_ALL));
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
    EXPECT_EQ(socket.m_hSocket, INVALID_SOCKET);
}

TEST(AsyncSocketHandle, ErrorsAreKeptByCloseAndBySuccess)
{
    RecordingSocket socket;
    WSASetLastError(12345);
    ASSERT_TRUE(socket.Socket(SOCK_STREAM, FD_ALL, 0, AF_INET));
    EXPECT_EQ(WSAGetLastError(), 12345);
    EXPECT_FALSE(socket.Socket(SOCK_STREAM, FD_ALL, 0, AF_INET)) << "one handle at a time";
    EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
    socket.Close();
    EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
    EXPECT_EQ(socket.Send("x", 1), -1);
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
}

// States in which the system goes on reporting something, or the owner leaves something undone.
TEST(AsyncSocketIdle, CostsNoProcessorTime)
{
    Pair paused;
    paused.socket->AsyncSelect(FD_ALL & ~FD_READ);
    paused.peer->Write("unread");
    Pair refused;
    refused.peer->Write("unread");
    Pair ended;
    ended.peer->Close();
    Pair reset;
    reset.peer->Reset();
    RecordingSocket unconnected;
    unconnected.Socket(SOCK_STREAM, FD_ALL, 0, AF_INET);
    PumpBriefly(50);

    const long before = ThreadCpuMs();
    const auto start = std::chrono::steady_clock::now();
    int wakeUps = 0;
    while (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(200)) {
        MsgWaitForMultipleObjectsEx(0, nullptr, 50, kWakeOnAnyInput, 0);
        DispatchPending();
        ++wakeUps;
    }
    EXPECT_LE(wakeUps, 6);
    EXPECT_LT(ThreadCpuMs() - before, 20);
}

} // namespace
