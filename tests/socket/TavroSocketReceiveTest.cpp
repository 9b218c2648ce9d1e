#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <vector>

#include "ScriptedSocket.h"
#include "tavronet/platform/MessageQueue.h"

namespace
{

/// A socket with a source of bytes in place of the system: each peek announces the next text, whatever the
/// buffer's size.
struct SourceSocket : ScriptedSocket
{
    explicit SourceSocket(std::vector<std::string> source = {}) : texts(std::move(source))
    {
        SetOkayToSend(true);
        ReceiveDataScript = [this](unsigned char* buffer, int length, int flags) {
            if (flags == MSG_PEEK)
                return next < texts.size() ? static_cast<int>(texts[next].size()) : -1;
            texts[next++].copy(reinterpret_cast<char*>(buffer), static_cast<std::size_t>(length));
            return length;
        };
    }

    std::vector<std::string> texts;
    std::size_t next = 0;
};

TEST(TavroSocketReceive, WhatTheConsumerLeavesIsKept)
{
    const struct
    {
        const char* why;
        bool consumed;
        int skipped, left; // what it makes of buffer and length
        const char* kept;  // of "abcdefghijkl"
    } rows[] = {
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
        SourceSocket socket({"abcdefgh", "ijkl"});
        socket.ProcessReceiveScript = [&](unsigned char*& buffer, int& length) {
            if (length < 12)
                return false;
            buffer += row.skipped;
            length = row.left;
            return row.consumed;
        };
        socket.OnReceive(0);
        EXPECT_EQ(socket.Held(), row.kept) << row.why;
        const unsigned char* const end = socket.GetReceiveBuffer() + socket.GetReceiveBufferSize();
        EXPECT_TRUE(end == nullptr ? *row.kept == '\0' : *end == '\0') << row.why;
    }
}

TEST(TavroSocketReceive, ARefusedNotificationIsNotedAndReplayed)
{
    SourceSocket socket({"one", "two"});
    socket.OnReceive(WSAECONNRESET);
    EXPECT_TRUE(socket.GetMissedReceive()) << "an error code reads nothing";
    socket.SetOkayToSend(false);
    socket.OnReceive(0);
    EXPECT_TRUE(socket.GetMissedReceive());
    EXPECT_EQ(socket.next, 0U);

    socket.SetOkayToSend(true);
    socket.ProcessReceiveScript = [&](unsigned char*&, int&) { return socket.SetOkayToSend(false), false; };
    socket.OnReceive(0);
    EXPECT_TRUE(socket.GetMissedReceive()) << "closed midway";
    EXPECT_EQ(socket.Held(), "one");
    socket.SetOkayToSend(true);
    socket.OnReceive(0);
    EXPECT_EQ(socket.Held(), "onetwo");
}

TEST(TavroSocketReceive, HowTheSourceEndsDecidesWhatFollows)
{
    const struct
    {
        const char* why;
        std::vector<Answer> answers; // peek, read, peek, read ...
        std::vector<int> toldNoData;
        const char* held;
        bool missed, closed;
    } rows[] = {
        {"the peer has closed", {{0}}, {0}, "held", false, false},
        {"read, then nothing", {{4}, {4}, {-1, WSAEWOULDBLOCK}}, {-1}, "heldxxxx", false, false},
        {"less than announced", {{9}, {2}, {-1, WSAEWOULDBLOCK}}, {-1}, "heldxx", false, false},
        {"more than announced", {{2}, {9}, {-1, WSAEWOULDBLOCK}}, {-1}, "heldxx", false, false},
        {"failed after a peek", {{4}, {-1, WSAECONNRESET}}, {}, "held", true, false},
        {"aborted after a peek", {{4}, {-1, WSAECONNABORTED}}, {}, "held", true, true},
        {"an old abort is no abort", {{4}, {0}}, {}, "held", true, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        SourceSocket socket({"held"});
        socket.Renew();
        socket.OnReceive(0);
        std::size_t call = 0;
        std::vector<int> toldNoData;
        socket.ReceiveDataScript = [&](unsigned char* buffer, int length, int) {
            std::memset(buffer, 'x', static_cast<std::size_t>(length)); // all of it is ours
            return row.answers.at(call++).Give();
        };
        socket.OnReceiveNoDataContinueScript = [&](int peeked) {
            return toldNoData.push_back(peeked), false;
        };
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
    const struct
    {
        const char *newArray, *kept; // of "old" held and "new" arrived; an empty text: swallowed
        int received;
    } rows[] = {
        {nullptr, "oldn", 1},    {nullptr, "old", -9}, {"oldNEWER", "oldNEWER", 5},
        {"oldNEW", "oldNEW", 3}, {"", "", 0},
    };
    for (const auto& row : rows) {
        SourceSocket socket({"old"});
        socket.OnReceive(0);
        socket.texts.push_back("new");
        socket.OnReceivePreProcessResponseScript = [&](unsigned char*& buffer, int& received, int&) {
            received = row.received;
            if (row.newArray == nullptr)
                return;
            delete[] std::exchange(buffer, nullptr); // first: the new array may get the same address
            if (const std::size_t size = std::strlen(row.newArray))
                std::memcpy(buffer = new unsigned char[size], row.newArray, size);
        };
        socket.OnReceive(0);
        EXPECT_EQ(socket.Held(), row.kept);
    }
}

TEST(TavroSocketReceive, ANotificationInsideAPassKeepsTheOrder)
{
    SourceSocket socket({"1", "2", "3"});
    std::string offered;
    socket.ProcessReceiveScript = [&](unsigned char*& buffer, int& length) {
        EXPECT_EQ(socket.GetReceiveBuffer(), nullptr) << "held by the pass";
        EXPECT_EQ(buffer[length], 0);
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
    SourceSocket socket({"old", "new"});
    socket.Renew();
    socket.ProcessReceiveScript = [&](unsigned char*&, int&) { return socket.Renew(), false; };
    socket.OnReceive(0);
    EXPECT_EQ(socket.Held(), "old") << "what is there for the new handle is not read yet";

    socket.ReceiveDataScript = [&](unsigned char*, int, int flags) {
        if (flags == MSG_PEEK)
            return 1;
        socket.Renew();
        return Answer{-1, WSAECONNABORTED}.Give();
    };
    socket.OnReceive(0);
    EXPECT_NE(socket.GetSocket(), INVALID_SOCKET) << "the connection that broke was the old one";
}

TEST(TavroSocketReceive, ASourceWithoutEndLetsOthersHaveTheirTurn)
{
    Pair pair;
    ASSERT_TRUE(pair.PumpUntilConnected());
    int reads = 0;
    pair.socket->ReceiveDataScript = [&](unsigned char* buffer, int, int flags) {
        *buffer = 'x';
        return reads += flags == 0, reads < 100 || flags == 0 ? 1 : -1;
    };
    pair.socket->ProcessReceiveScript = [](unsigned char*&, int& length) { return length = 0, true; };
    pair.peer.Writes("x");
    ASSERT_TRUE(tavronet::PumpUntil([&] { return reads > 0; }));
    EXPECT_LE(reads, 32);
    EXPECT_TRUE(tavronet::PumpUntil([&] { return reads >= 100; })) << "goes on without another notification";
}

TEST(TavroSocketReceive, AccumulatingMuchDoesNotRebuildTheBufferEachTime)
{
    SourceSocket socket(std::vector<std::string>(5000, std::string(100, 'm')));
    std::set<const unsigned char*> arrays;
    socket.ProcessReceiveScript = [&](unsigned char*& buffer, int&) { return arrays.insert(buffer), false; };
    while (socket.next < socket.texts.size())
        socket.OnReceive(0);
    EXPECT_EQ(socket.Held().size(), 500'000U);
    EXPECT_LT(arrays.size(), 30U);
}

} // namespace
