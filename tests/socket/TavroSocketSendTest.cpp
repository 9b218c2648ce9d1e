#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <vector>

#include "ScriptedSocket.h"
#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/TestSeams.h"

namespace
{

// A class without a SendData of its own: its bytes go to the system from the caller's memory.
class UntouchedSocket : public CTavroSocket
{
public:
    using CTavroSocket::GetSendBuffer;
    template <typename Text>
    int Send(const Text& text)
    {
        return CTavroSocket::Send(text);
    }
    bool GateIsOpen() { return CTavroSocket::OkayToSend(); }
    std::string Queued() const { return ScriptedSocket::Text(GetSendBuffer(), GetSendBufferSize()); }
};

template <typename Socket>
class TavroSocketBytes : public testing::Test
{
};
using SocketClasses = testing::Types<ScriptedSocket, UntouchedSocket>;
TYPED_TEST_SUITE(TavroSocketBytes, SocketClasses);

TYPED_TEST(TavroSocketBytes, AreNotLostBeforeTheGateOpensNorWhenTheSystemTakesOnlyAPart)
{
    tavronet::LoopbackPair<TypeParam> pair;
    EXPECT_EQ(pair.socket->Send("one "), 4);
    EXPECT_EQ(pair.socket->Send(CStringA("two\0hidden", 10)), 3);
    EXPECT_EQ(pair.peer.ReadsWaiting(), "");
    ASSERT_TRUE(pair.PumpUntilConnected());
    EXPECT_EQ(pair.peer.Reads(7), "one two");
    EXPECT_EQ(pair.socket->GetSendBuffer(), nullptr);

    std::string first(1'000'000, '\0');
    for (std::size_t i = 0; i < first.size(); ++i)
        first[i] = static_cast<char>('a' + i * 7 % 26 + i / 4096 % 3); // differs at every place that matters
    const int length = static_cast<int>(first.size());
    EXPECT_EQ(pair.socket->Send(first.c_str()), length);
    EXPECT_TRUE(!pair.socket->Queued().empty() && first.ends_with(pair.socket->Queued()));
    EXPECT_EQ(pair.socket->Send("tail"), 4);
    EXPECT_TRUE(pair.peer.Reads(first.size() + 4) == first + "tail");
    EXPECT_TRUE(pair.socket->GateIsOpen());
    EXPECT_EQ(pair.socket->Queued(), "");

    pair.peer.Closes();
    EXPECT_TRUE(tavronet::PumpUntil([&] { return !pair.socket->GetConnected(); }));
    EXPECT_NE(pair.socket->GetSocket(), INVALID_SOCKET) << "the peer's close does not close this end";
}

TEST(TavroSocketSend, ASendDataThatRewritesItsBytesLeavesTheCallersAlone)
{
    Pair pair;
    ASSERT_TRUE(pair.PumpUntilConnected());
    pair.socket->SendDataScript = [&](unsigned char* data, int length, int) {
        EXPECT_EQ(data[length], 0);
        std::fill_n(data, length, static_cast<unsigned char>('x'));
        return pair.socket->BaseSendData(data, length);
    };
    const std::string text = "secret";
    EXPECT_EQ(pair.socket->Send(text.c_str()), 6);
    EXPECT_EQ(text, "secret");
    EXPECT_EQ(pair.peer.Reads(6), "xxxxxx");
}

TEST(TavroSocketSend, WhatSendDataAnswersDecidesWhatStaysQueued)
{
    const struct
    {
        const char *why, *queued, *sent; // queued before the gate opens
        std::vector<Answer> answers;
        int result;
        const char *offered, *left; // the chunks, one after the other
        bool open;
    } rows[] = {
        {"in two parts, queued bytes first", "xy", "abc", {{3}, {2}}, 3, "xyabc|bc|", "", true},
        {"more than offered counts as all", "", "abc", {{99}}, 3, "abc|", "", true},
        {"an empty send flushes", "xy", nullptr, {{2}}, 0, "xy|", "", true},
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
        socket.SendDataScript = [&](unsigned char* data, int length, int) {
            EXPECT_EQ(data[length], 0);
            offered += ScriptedSocket::Text(data, length) + "|";
            return row.answers.at(call++).Give();
        };
        socket.Send(row.queued);
        socket.SetOkayToSend(true);
        WSASetLastError(WSAEWOULDBLOCK); // stale
        EXPECT_EQ(socket.Send(row.sent), row.result);
        EXPECT_EQ(offered, row.offered);
        EXPECT_EQ(socket.Queued(), row.left);
        EXPECT_EQ(socket.GateIsOpen(), row.open);
    }
}

TEST(TavroSocketSend, SendsFromInsideHooksGoBehindTheRunningOne)
{
    ScriptedSocket socket;
    socket.SetOkayToSend(true);
    socket.OkayToSendScript = [&] { return socket.Send("2") == 1 && socket.GateIsOpen(); };
    std::string sent;
    socket.SendDataScript = [&](unsigned char* data, int length, int) {
        socket.Send(length == 4 ? "3" : "");
        sent += ScriptedSocket::Text(data, std::min(length, 3)); // leaves a rest
        return std::min(length, 3);
    };
    EXPECT_EQ(socket.Send("1111111"), 7);
    EXPECT_EQ(sent, "111111123");

    socket.SendDataScript = [&](unsigned char*, int, int) {
        socket.Send("nested");
        return Answer{-1, WSAEWOULDBLOCK}.Give();
    };
    socket.OkayToSendScript = nullptr;
    EXPECT_EQ(socket.Send("outer "), 6);
    EXPECT_EQ(socket.Queued(), "outer nested");
}

TEST(TavroSocketSend, AWriteNotificationInsideABlockedSendIsNotLost)
{
    ScriptedSocket socket;
    socket.SetOkayToSend(true);
    int calls = 0;
    socket.SendDataScript = [&](unsigned char*, int length, int) {
        if (++calls > 1)
            return length;
        socket.OnSend(0); // a hook that dispatches gets it in here
        return Answer{-1, WSAEWOULDBLOCK}.Give();
    };
    EXPECT_EQ(socket.Send("abc"), 3);
    EXPECT_EQ(socket.Queued(), "") << "no other write notification will come";
    EXPECT_TRUE(socket.GateIsOpen());
}

TEST(TavroSocketSend, AFlushMayBeRefusedAndItsBytesLookedAtAfterwards)
{
    ScriptedSocket socket;
    socket.Send("waits");
    socket.OkayToSendScript = [] { return false; };
    socket.OnSend(0);
    EXPECT_EQ(socket.Queued(), "waits");
    EXPECT_FALSE(socket.GateIsOpen()) << "as it was";

    socket.OkayToSendScript = nullptr;
    socket.SendDataScript = [](unsigned char*, int, int) { return 4; };
    std::string seen;
    socket.SendScript = [&](unsigned char* data, int length, int) {
        const int result = socket.BaseSend(data, length);
        seen = ScriptedSocket::Text(data, length);
        return result;
    };
    socket.OnSend(0);
    EXPECT_EQ(seen, "waits");
    EXPECT_TRUE(socket.GateIsOpen());
}

TEST(TavroSocketSend, ANewHandleGetsNothingOfTheOldOnes)
{
    ScriptedSocket socket;
    socket.Renew();
    socket.SetOkayToSend(true);
    socket.SendDataScript = [&](unsigned char*, int, int) {
        socket.Renew();
        socket.Send("for the new one");
        return 1;
    };
    EXPECT_EQ(socket.Send("for the old one"), -1);
    EXPECT_EQ(WSAGetLastError(), WSAECONNABORTED);
    EXPECT_EQ(socket.Queued(), "for the new one");
}

TEST(TavroSocketSend, ADerivedClassCanTakeTheBytesOver)
{
    ScriptedSocket socket;
    socket.SetOkayToSend(true);
    tavronet::ByteBuffer taken;
    unsigned char* chunk = nullptr;
    socket.SendDataScript = [&](unsigned char* data, int length, int) {
        if (length > 6)
            return length - 6; // the rest is offered once more
        if (!taken.Holds())
            taken = socket.TakeSendChunk();
        chunk = data;
        return Answer{-1, WSAEWOULDBLOCK}.Give();
    };
    EXPECT_EQ(socket.Send("mark: secret"), 12);
    EXPECT_EQ(ScriptedSocket::Text(taken.Data(), taken.Size()), "secret");
    EXPECT_EQ(socket.Queued(), "") << "taken over with TakeSendChunk";

    socket.SetOkayToSend(true);
    socket.SetOkayToSendScript = [&](bool) { socket.ClearSendBuffer(); };
    EXPECT_EQ(socket.Send("rule: hidden"), 12);
    EXPECT_EQ(ScriptedSocket::Text(chunk, 6), "hidden");
    EXPECT_EQ(socket.Queued(), "") << "taken over as the array of the queue";
    delete[] chunk;
}

TEST(TavroSocketSend, ALongQueueIsNeitherRebuiltNorMovedForEverySend)
{
    ScriptedSocket socket;
    std::set<const unsigned char*> arrays;
    for (int i = 0; i < 20'000; ++i) {
        socket.Send(std::string(100, 'm').c_str());
        arrays.insert(socket.GetSendBuffer());
    }
    EXPECT_LT(arrays.size(), 30U) << "arrays while growing";

    Pair pair;
    ASSERT_TRUE(pair.PumpUntilConnected());
    tavronet::PumpUntilQuiet();
    const unsigned char* next = nullptr;
    int moves = -1;
    pair.socket->SendDataScript = [&](unsigned char* data, int length, int) {
        moves += data != next;
        const int sent = pair.socket->BaseSendData(data, std::min(length, 1000));
        next = data + sent;
        return sent;
    };
    EXPECT_EQ(pair.socket->Send(std::string(100'000, 'x').c_str()), 100'000);
    EXPECT_EQ(moves, 0) << "the rest stays where it is";
}

TEST(TavroSocketSend, WithoutMemoryNothingChanges)
{
    ScriptedSocket socket;
    unsigned char byte = 0;
    socket.Send("kept");
    tavronet::InjectFault(tavronet::FaultPoint::Allocate, INVALID_SOCKET, WSA_NOT_ENOUGH_MEMORY);
    EXPECT_THROW(socket.Send(std::string(1000, 'x').c_str()), CMemoryException*);
    tavronet::ClearFaults();
    EXPECT_THROW(socket.BaseSend(&byte, INT32_MAX), CMemoryException*) << "beyond any array";
    EXPECT_EQ(socket.BaseSend(&byte, -1), 0);
    EXPECT_EQ(socket.Queued(), "kept");
}

} // namespace
