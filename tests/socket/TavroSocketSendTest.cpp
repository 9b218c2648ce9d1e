#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <vector>

#include "ScriptedSocket.h"
#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/TestSeams.h"
#include "tests/support/LoopbackPair.h"

namespace
{

using Pair = tavronet::LoopbackPair<ScriptedSocket>;

/// Text with a different character at every place that matters.
std::string Pattern(std::size_t length)
{
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i)
        text[i] = static_cast<char>('a' + i * 7 % 26 + i / 4096 % 3);
    return text;
}

TEST(TavroSocketSend, BytesSentBeforeTheGateOpensArriveInOrder)
{
    Pair pair;
    EXPECT_EQ(pair.socket->Send("one "), 4);
    EXPECT_EQ(pair.socket->Send(CStringA("two\0hidden", 10)), 3);
    EXPECT_EQ(pair.socket->Queued(), "one two");
    EXPECT_EQ(pair.socket->GetSendBuffer()[7], 0);
    EXPECT_EQ(pair.peer.HasReceived(), "");

    ASSERT_TRUE(pair.PumpUntilConnected());
    EXPECT_EQ(pair.peer.Reads(7), "one two");
    EXPECT_TRUE(pair.socket->GateIsOpen());
    EXPECT_EQ(pair.socket->GetSendBuffer(), nullptr);
    EXPECT_NE(pair.socket->GetTick(), 0U);
}

TEST(TavroSocketSend, NothingIsLostWhenTheSystemTakesOnlyAPart)
{
    Pair pair;
    ASSERT_TRUE(pair.PumpUntilConnected());
    tavronet::PumpUntilQuiet();

    const std::string first = Pattern(1'000'000);
    const int length = static_cast<int>(first.size());
    EXPECT_EQ(pair.socket->Send(first.c_str()), length);
    const int unsent = pair.socket->GetSendBufferSize();
    EXPECT_GT(unsent, 0);
    EXPECT_LT(unsent, length);
    EXPECT_EQ(pair.socket->Queued(), first.substr(first.size() - static_cast<std::size_t>(unsent)));
    EXPECT_FALSE(pair.socket->GateIsOpen());

    EXPECT_EQ(pair.socket->Send("tail"), 4);
    EXPECT_EQ(pair.socket->GetSendBufferSize(), unsent + 4);
    EXPECT_TRUE(pair.peer.Reads(first.size() + 4) == first + "tail");
    EXPECT_TRUE(pair.socket->GateIsOpen());
    EXPECT_EQ(pair.socket->GetSendBufferSize(), 0);
}

TEST(TavroSocketSend, WhatSendDataAnswersDecidesWhatStaysQueued)
{
    struct
    {
        const char* why;
        const char* queued; // before the gate opens
        const char* sent;
        std::vector<Answer> answers;
        int result;
        const char* offered; // the chunks, one after the other
        const char* left;
        bool open;
    } const rows[] = {
        {"all at once", "", "abc", {{3}}, 3, "abc|", "", true},
        {"in two parts, queued bytes first", "xy", "abc", {{3}, {2}}, 3, "xyabc|bc|", "", true},
        {"more than offered counts as all", "", "abc", {{99}}, 3, "abc|", "", true},
        {"nothing to send", "", "", {{1}}, 0, "", "", true},
        {"an empty send flushes", "xy", "", {{2}}, 0, "xy|", "", true},
        {"would block at once", "xy", "abc", {{-1, WSAEWOULDBLOCK}}, 3, "xyabc|", "xyabc", false},
        {"would block midway", "xy", "abc", {{4}, {-1, WSAEWOULDBLOCK}}, 3, "xyabc|c|", "c", false},
        {"0 can report it too", "", "abc", {{0, WSAEWOULDBLOCK}}, 3, "abc|", "abc", false},
        {"a 0 without error is an error", "", "abc", {{0}}, -1, "abc|", "", true},
        {"a hard error drops all", "xy", "abc", {{1}, {-1, WSAECONNRESET}}, -1, "xyabc|yabc|", "", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        ScriptedSocket socket;
        std::string offered;
        std::size_t call = 0;
        socket.sendData = [&](unsigned char* data, int length, int) {
            EXPECT_EQ(data[length], 0);
            offered += ScriptedSocket::Text(data, length) + "|";
            const Answer answer = row.answers.at(call++);
            if (answer.error != 0)
                WSASetLastError(answer.error);
            return answer.result;
        };
        if (*row.queued != '\0')
            socket.Send(row.queued);
        socket.OpenGate();
        WSASetLastError(WSAEWOULDBLOCK); // stale
        EXPECT_EQ(socket.Send(row.sent), row.result);
        EXPECT_EQ(offered, row.offered);
        EXPECT_EQ(socket.Queued(), row.left);
        EXPECT_EQ(socket.GateIsOpen(), row.open);
    }
}

TEST(TavroSocketSend, NoDataAndNegativeLengthsSendNothing)
{
    ScriptedSocket socket;
    unsigned char bytes[] = "abc";
    socket.Send("queued");
    EXPECT_EQ(socket.Send(static_cast<unsigned char*>(nullptr), 5, 0), 0);
    EXPECT_EQ(socket.Send(bytes, -1, 0), 0);
    EXPECT_EQ(socket.Send(static_cast<const char*>(nullptr)), 0);
    EXPECT_EQ(socket.Queued(), "queued");
}

TEST(TavroSocketSend, AWriteNotificationOpensTheGateOfAnEmptyQueue)
{
    ScriptedSocket socket;
    socket.OnSend(0);
    EXPECT_TRUE(socket.GateIsOpen());
}

TEST(TavroSocketSend, SendsFromInsideHooksGoBehindTheRunningOne)
{
    Pair pair;
    ASSERT_TRUE(pair.PumpUntilConnected());
    tavronet::PumpUntilQuiet();

    int asked = 0;
    pair.socket->okayToSend = [&] {
        ++asked;
        EXPECT_EQ(pair.socket->Send("2"), 1);
        return pair.socket->GateIsOpen();
    };
    pair.socket->sendData = [&](unsigned char* data, int length, int flags) {
        if (length > 5) {
            EXPECT_EQ(pair.socket->Send("3"), 1);
        }
        return pair.socket->BaseSendData(data, std::min(length, 5), flags); // leaves a rest
    };
    EXPECT_EQ(pair.socket->Send("1111111"), 7);
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(pair.peer.Reads(9), "111111123");
}

TEST(TavroSocketSend, ARestStaysInFrontOfWhatAHookHasQueued)
{
    ScriptedSocket socket;
    socket.OpenGate();
    socket.sendData = [&](unsigned char*, int, int) {
        socket.Send("nested");
        WSASetLastError(WSAEWOULDBLOCK);
        return -1;
    };
    EXPECT_EQ(socket.Send("outer "), 6);
    EXPECT_EQ(socket.Queued(), "outer nested");
}

TEST(TavroSocketSend, AWriteNotificationInsideABlockedSendIsNotLost)
{
    ScriptedSocket socket;
    socket.OpenGate();
    int calls = 0;
    socket.sendData = [&](unsigned char*, int length, int) {
        if (++calls > 1)
            return length;
        WSASetLastError(WSAEWOULDBLOCK);
        socket.OnSend(0); // a hook that dispatches gets it in here
        WSASetLastError(WSAEWOULDBLOCK);
        return -1;
    };
    EXPECT_EQ(socket.Send("abc"), 3);
    EXPECT_EQ(socket.Queued(), "") << "no other write notification will come";
    EXPECT_TRUE(socket.GateIsOpen());
}

TEST(TavroSocketSend, AFlushThatIsRefusedLeavesTheGateAsItWas)
{
    ScriptedSocket socket;
    socket.Send("waits");
    socket.okayToSend = [] { return false; };
    socket.OnSend(0);
    EXPECT_EQ(socket.Queued(), "waits");
    EXPECT_FALSE(socket.GateIsOpen());
}

TEST(TavroSocketSend, ANewHandleGetsNothingOfTheOldOnes)
{
    ScriptedSocket socket;
    socket.Create(0, 2, FD_ALL, L"127.0.0.1", 0);
    socket.OpenGate();
    int calls = 0;
    socket.sendData = [&](unsigned char*, int, int) {
        ++calls;
        socket.Close();
        socket.Create(0, 2, FD_ALL, L"127.0.0.1", 0);
        socket.Send("for the new one");
        return 1;
    };
    EXPECT_EQ(socket.Send("for the old one"), -1);
    EXPECT_EQ(WSAGetLastError(), WSAECONNABORTED);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(socket.Queued(), "for the new one");
}

TEST(TavroSocketSend, AnOverrideOfSendCanLookAtTheFlushedBytesAfterwards)
{
    ScriptedSocket socket;
    socket.Send("flushed later");
    std::string seen;
    socket.sendData = [](unsigned char*, int, int) { return 4; };
    socket.send = [&](unsigned char* data, int length, int flags) {
        const int result = socket.BaseSend(data, length, flags);
        seen = ScriptedSocket::Text(data, length);
        return result;
    };
    socket.OnSend(0);
    EXPECT_EQ(seen, "flushed later");
    EXPECT_TRUE(socket.GateIsOpen());
}

TEST(TavroSocketSend, ADerivedClassCanTakeTheBytesOver)
{
    ScriptedSocket socket;
    socket.OpenGate();
    tavronet::ByteBuffer taken;
    unsigned char* chunk = nullptr;
    bool byMark = true;
    socket.sendData = [&](unsigned char* data, int length, int) {
        if (length > 6)
            return length - 6; // the rest is offered once more
        if (byMark)
            taken = socket.TakeSendChunk();
        EXPECT_TRUE(!byMark || taken.Data() == data);
        chunk = data;
        WSASetLastError(WSAEWOULDBLOCK);
        return -1;
    };
    EXPECT_EQ(socket.Send("mark: secret"), 12);
    EXPECT_EQ(ScriptedSocket::Text(taken.Data(), taken.Size()), "secret");
    EXPECT_EQ(socket.Queued(), "") << "taken over with TakeSendChunk";

    byMark = false;
    socket.OpenGate();
    socket.setOkayToSend = [&](bool) { socket.ClearSendBuffer(); };
    EXPECT_EQ(socket.Send("rule: hidden"), 12);
    EXPECT_EQ(ScriptedSocket::Text(chunk, 6), "hidden");
    EXPECT_EQ(socket.Queued(), "") << "taken over as the array of the queue";
    delete[] chunk;
}

TEST(TavroSocketSend, ALongQueueIsNeitherRebuiltNorMovedForEverySend)
{
    ScriptedSocket socket;
    const std::string message(100, 'm');
    std::set<const unsigned char*> arrays;
    for (int i = 0; i < 20'000; ++i) {
        socket.Send(message.c_str());
        arrays.insert(socket.GetSendBuffer());
    }
    EXPECT_EQ(socket.GetSendBufferSize(), 2'000'000);
    EXPECT_LT(arrays.size(), 30U) << "arrays while growing";

    Pair pair;
    ASSERT_TRUE(pair.PumpUntilConnected());
    tavronet::PumpUntilQuiet();
    const unsigned char* next = nullptr;
    int moves = -1;
    pair.socket->sendData = [&](unsigned char* data, int length, int flags) {
        moves += data != next;
        const int sent = pair.socket->BaseSendData(data, std::min(length, 1000), flags);
        next = data + sent;
        return sent;
    };
    EXPECT_EQ(pair.socket->Send(std::string(100'000, 'x').c_str()), 100'000);
    EXPECT_EQ(moves, 0) << "the rest stays where it is";
}

TEST(TavroSocketSend, WithoutMemoryNothingChanges)
{
    ScriptedSocket socket;
    socket.Send("kept");
    tavronet::InjectFault(tavronet::FaultPoint::Allocate, INVALID_SOCKET, WSA_NOT_ENOUGH_MEMORY);
    EXPECT_THROW(socket.Send(Pattern(1000).c_str()), CMemoryException*);
    tavronet::ClearFaults();
    unsigned char byte = 0;
    EXPECT_THROW(socket.Send(&byte, INT32_MAX, 0), CMemoryException*) << "beyond any array";
    EXPECT_EQ(socket.Queued(), "kept");
    EXPECT_EQ(socket.Send(" too"), 4);
    EXPECT_EQ(socket.Queued(), "kept too");
}

} // namespace
