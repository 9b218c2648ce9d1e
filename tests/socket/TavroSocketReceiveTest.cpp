#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <set>
#include <vector>

#include "ScriptedSocket.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/TickCount.h"
#include "tests/support/LoopbackPair.h"

namespace
{

using Pair = tavronet::LoopbackPair<ScriptedSocket>;

constexpr int kPeek = 2;

/// A source of bytes in place of the system: each peek announces the next text, whatever the buffer's size.
struct Source
{
    explicit Source(ScriptedSocket& socket)
    {
        socket.OpenGate();
        socket.receiveData = [this](unsigned char* buffer, int length, int flags) {
            if (flags == kPeek)
                return next < texts.size() ? static_cast<int>(texts[next].size()) : -1;
            const std::string& text = texts[next++];
            std::memcpy(buffer, text.data(),
                        std::min<std::size_t>(text.size(), static_cast<std::size_t>(length)));
            return length;
        };
    }

    std::vector<std::string> texts;
    std::size_t next = 0;
};

TEST(TavroSocketReceive, BytesThatNobodyConsumesAccumulate)
{
    Pair pair;
    ASSERT_TRUE(pair.PumpUntilConnected());
    pair.socket->SetOnReceivePeekBufferSize(3); // the system tells the count, so this does not matter
    std::vector<std::string> offered;
    pair.socket->processReceive = [&](unsigned char*& buffer, int& length) {
        EXPECT_EQ(pair.socket->GetReceiveBuffer(), nullptr) << "held by the pass";
        EXPECT_EQ(buffer[length], 0);
        offered.push_back(ScriptedSocket::Text(buffer, length));
        return false;
    };
    for (const char* part : {"hello", " world!"}) {
        const std::size_t passes = offered.size();
        pair.peer.Writes(part);
        ASSERT_TRUE(tavronet::PumpUntil([&] { return offered.size() > passes; }));
    }
    EXPECT_EQ(offered, (std::vector<std::string>{"hello", "hello world!"}));
    EXPECT_EQ(pair.socket->Held(), "hello world!");
    EXPECT_EQ(pair.socket->GetReceiveBuffer()[12], 0);

    pair.peer.Closes();
    ASSERT_TRUE(tavronet::PumpUntil([&] { return !pair.socket->GetConnected(); }));
    EXPECT_NE(pair.socket->GetSocket(), INVALID_SOCKET) << "the peer's close does not close this end";
    EXPECT_EQ(ScriptedSocket::Text(pair.socket->TakeReceiveBuffer().Data(), 12), "hello world!");
    EXPECT_EQ(pair.socket->GetReceiveBuffer(), nullptr);
}

TEST(TavroSocketReceive, WhatTheConsumerLeavesIsKept)
{
    struct
    {
        const char* why;
        bool consumed;
        int skipped, left; // what it makes of buffer and length
        const char* kept;  // of "abcdefghijkl"
    } const rows[] = {
        {"nothing", false, 0, 12, "abcdefghijkl"},
        {"ten of twelve", true, 10, 2, "kl"},
        {"all", true, 12, 0, ""},
        {"all, told by a negative length", true, 0, -3, ""},
        {"the end is cut off", true, 0, 4, "abcd"},
        {"a claim of nothing counts, whatever it moved", false, 5, 7, "abcdefghijkl"},
        {"more left than there was: nothing consumed", true, 0, 13, "abcdefghijkl"},
        {"left behind the end: nothing consumed", true, 10, 3, "abcdefghijkl"},
        {"outside of the buffer: nothing consumed", true, -1, 4, "abcdefghijkl"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        ScriptedSocket socket;
        Source source(socket);
        source.texts = {"abcdefgh", "ijkl"};
        socket.processReceive = [&](unsigned char*& buffer, int& length) {
            if (length < 12)
                return false;
            buffer += row.skipped;
            length = row.left;
            return row.consumed;
        };
        socket.OnReceive(0);
        EXPECT_EQ(socket.Held(), row.kept);
        EXPECT_EQ(socket.GetReceiveBuffer() == nullptr, *row.kept == '\0');
        if (socket.GetReceiveBuffer() != nullptr) {
            EXPECT_EQ(socket.GetReceiveBuffer()[std::strlen(row.kept)], 0);
        }
    }
}

TEST(TavroSocketReceive, ARefusedNotificationIsNotedAndReplayed)
{
    ScriptedSocket socket;
    Source source(socket);
    source.texts = {"one", "two"};

    socket.OnReceive(WSAECONNRESET);
    EXPECT_TRUE(socket.GetMissedReceive()) << "an error code reads nothing";
    socket.OpenGate(false);
    socket.OnReceive(0);
    EXPECT_TRUE(socket.GetMissedReceive());
    EXPECT_EQ(socket.GetTick(), 0U);
    EXPECT_EQ(source.next, 0U);

    socket.OpenGate();
    socket.processReceive = [&](unsigned char*&, int&) { return socket.OpenGate(false), false; };
    socket.OnReceive(0);
    EXPECT_TRUE(socket.GetMissedReceive()) << "closed midway";
    EXPECT_EQ(socket.Held(), "one");
    EXPECT_NE(socket.GetTick(), 0U);

    socket.OpenGate();
    socket.processReceive = nullptr;
    socket.OnReceive(0);
    EXPECT_FALSE(socket.GetMissedReceive());
    EXPECT_EQ(socket.Held(), "onetwo");
}

TEST(TavroSocketReceive, HowTheSourceEndsDecidesWhatFollows)
{
    struct
    {
        const char* why;
        std::vector<Answer> answers; // peek, read, peek, read ...
        bool preRead;
        std::vector<int> toldNoData;
        const char* held;
        bool missed, closed;
    } const rows[] = {
        {"nothing waits", {{-1, WSAEWOULDBLOCK}}, true, {-1}, "held", false, false},
        {"the peer has closed", {{0}}, true, {0}, "held", false, false},
        {"not wanted", {{4}, {4}}, false, {}, "held", false, false},
        {"read, then nothing", {{4}, {4}, {-1, WSAEWOULDBLOCK}}, true, {-1}, "heldxxxx", false, false},
        {"less than announced", {{9}, {2}, {-1, WSAEWOULDBLOCK}}, true, {-1}, "heldxx", false, false},
        {"more than announced", {{2}, {9}, {-1, WSAEWOULDBLOCK}}, true, {-1}, "heldxx", false, false},
        {"failed after a peek", {{4}, {-1, WSAECONNRESET}}, true, {}, "held", true, false},
        {"aborted after a peek", {{4}, {-1, WSAECONNABORTED}}, true, {}, "held", true, true},
        {"an old abort is no abort", {{4}, {0}}, true, {}, "held", true, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        ScriptedSocket socket;
        socket.Create(0, 2, FD_ALL, L"127.0.0.1", 0);
        {
            Source source(socket);
            source.texts = {"held"};
            socket.OnReceive(0);
        }
        std::size_t call = 0;
        std::vector<int> toldNoData;
        socket.receiveData = [&](unsigned char* buffer, int length, int flags) {
            const Answer answer = row.answers.at(call++);
            if (answer.error != 0)
                WSASetLastError(answer.error);
            if (flags == 0 && answer.result > 0)
                std::memset(buffer, 'x', static_cast<std::size_t>(std::min(answer.result, length)));
            return answer.result;
        };
        socket.onReceivePreRead = [&] { return row.preRead; };
        socket.onReceiveNoDataContinue = [&](int peeked) { return toldNoData.push_back(peeked), false; };
        WSASetLastError(WSAECONNABORTED); // stale
        socket.OnReceive(0);
        EXPECT_EQ(toldNoData, row.toldNoData);
        EXPECT_EQ(socket.Held(), row.held);
        EXPECT_EQ(socket.GetMissedReceive(), row.missed);
        EXPECT_EQ(socket.GetSocket() == INVALID_SOCKET, row.closed);
    }
}

TEST(TavroSocketReceive, TheTransformingHookMayReplaceWhatArrived)
{
    using Hook = std::function<void(unsigned char*&, int&, int&)>;
    const auto replace = [](unsigned char*& buffer, const std::string& text) {
        delete[] buffer; // first: the new array may get the same address
        buffer = new unsigned char[text.size()];
        std::memcpy(buffer, text.data(), text.size());
    };
    struct
    {
        const char* why;
        Hook hook;
        const char* kept; // of "old" held and "new" arrived
    } const rows[] = {
        {"rewritten in place", [](unsigned char*& b, int&, int& held) { b[held] = 'N'; }, "oldNew"},
        {"shortened", [](unsigned char*&, int& received, int&) { received = 1; }, "oldn"},
        {"a negative count is none", [](unsigned char*&, int& received, int&) { received = -9; }, "old"},
        {"longer, in another array",
         [&](unsigned char*& b, int& received, int&) { replace(b, "oldNEWER"), received = 5; }, "oldNEWER"},
        {"the same length, in another array", [&](unsigned char*& b, int&, int&) { replace(b, "oldNEW"); },
         "oldNEW"},
        {"swallowed", [](unsigned char*& b, int& received, int&) { delete[] b, b = nullptr, received = 0; },
         ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        ScriptedSocket socket;
        Source source(socket);
        source.texts = {"old"};
        socket.OnReceive(0);
        source.texts.push_back("new");
        socket.onReceivePreProcessResponse = row.hook;
        socket.OnReceive(0);
        EXPECT_EQ(socket.Held(), row.kept);
    }
}

TEST(TavroSocketReceive, ThePeekAsksForTheSizeThatWasSet)
{
    struct
    {
        UINT set;
        int asked;
    } const rows[] = {{10240, 10240}, {10241, 10241}, {1, 1}, {0, 1}};
    for (const auto& row : rows) {
        ScriptedSocket socket;
        socket.OpenGate();
        socket.SetOnReceivePeekBufferSize(row.set);
        int asked = 0;
        socket.receiveData = [&](unsigned char* buffer, int length, int) {
            std::memset(buffer, 0, static_cast<std::size_t>(length)); // all of it is ours
            return asked = length, -1;
        };
        socket.OnReceive(0);
        EXPECT_EQ(asked, row.asked);
        EXPECT_EQ(socket.GetOnReceivePeekBufferSize(), row.set);
    }
}

TEST(TavroSocketReceive, ANotificationInsideAPassKeepsTheOrder)
{
    ScriptedSocket socket;
    Source source(socket);
    source.texts = {"1", "2", "3"};
    std::string offered;
    socket.processReceive = [&](unsigned char*& buffer, int& length) {
        offered += ScriptedSocket::Text(buffer, length) + "|";
        socket.OnReceive(0);
        return length == 3;
    };
    socket.OnReceive(0);
    EXPECT_EQ(offered, "1|12|123|");
    EXPECT_EQ(socket.Held(), "123") << "true with the length unchanged leaves all";
    EXPECT_FALSE(socket.GetMissedReceive());
}

TEST(TavroSocketReceive, ANotificationOfTheOldHandleEndsWithIt)
{
    ScriptedSocket socket;
    const auto renew = [&socket] {
        socket.Close();
        return socket.Create(0, 2, FD_ALL, L"127.0.0.1", 0);
    };
    ASSERT_EQ(renew(), 1);
    Source source(socket);
    source.texts = {"old", "new"};
    socket.processReceive = [&](unsigned char*&, int&) { return renew(), false; };
    socket.OnReceive(0);
    EXPECT_EQ(socket.Held(), "old") << "what is there for the new handle is not read yet";

    socket.receiveData = [&](unsigned char*, int, int flags) {
        if (flags == kPeek)
            return 1;
        renew();
        WSASetLastError(WSAECONNABORTED);
        return -1;
    };
    socket.OnReceive(0);
    EXPECT_NE(socket.GetSocket(), INVALID_SOCKET) << "the connection that broke was the old one";
}

TEST(TavroSocketReceive, ASourceWithoutEndLetsOthersHaveTheirTurn)
{
    Pair pair;
    ASSERT_TRUE(pair.PumpUntilConnected());
    tavronet::PumpUntilQuiet();
    int reads = 0, readsBeforeOthers = 0;
    pair.socket->receiveData = [&](unsigned char* buffer, int, int flags) {
        if (flags == 0)
            *buffer = 'x', ++reads;
        return reads < 100 || flags == 0 ? 1 : -1;
    };
    pair.socket->processReceive = [](unsigned char*&, int& length) { return length = 0, true; };
    pair.peer.Writes("x");
    PostThreadCall(
        CurrentThreadQueue(), [](void*) {}, nullptr);
    ASSERT_TRUE(tavronet::PumpUntil([&] { return reads > 0; }));
    readsBeforeOthers = reads;
    EXPECT_LE(readsBeforeOthers, 32);
    EXPECT_TRUE(tavronet::PumpUntil([&] { return reads >= 100; })) << "goes on without another notification";
}

TEST(TavroSocketReceive, AccumulatingMuchDoesNotRebuildTheBufferEachTime)
{
    ScriptedSocket socket;
    Source source(socket);
    source.texts.assign(5000, std::string(100, 'm'));
    std::set<const unsigned char*> arrays;
    socket.processReceive = [&](unsigned char*& buffer, int&) { return arrays.insert(buffer), false; };
    while (source.next < source.texts.size())
        socket.OnReceive(0);
    EXPECT_EQ(socket.Held().size(), 500'000U);
    EXPECT_LT(arrays.size(), 30U);
}

} // namespace
