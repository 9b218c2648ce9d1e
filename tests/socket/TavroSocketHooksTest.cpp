#include <numeric>
#include <vector>

#include "ScriptedSocket.h"

namespace
{

constexpr Answer kBlocked{-1, WSAEWOULDBLOCK}, kReset{-1, WSAECONNRESET}, kAborted{-1, WSAECONNABORTED};

// --- Sending

constexpr auto kNotify = [](ScriptedSocket& socket) { socket.OnSend(0); };
constexpr auto kSend = [](ScriptedSocket& socket) { EXPECT_EQ(socket.Send("!"), 1); };
constexpr auto kRenew = [](ScriptedSocket& socket) { socket.Renew(), kSend(socket); };
constexpr auto kClear = [](ScriptedSocket& socket) { socket.ClearSendBuffer(); };

TEST(TavroSocketSend, WhatSendDataAnswersAndWhatHooksDoDecidesWhatStaysQueued)
{
    const struct
    {
        const char *why, *queued, *sent; // queued before the gate opens
        std::vector<Answer> answers;
        Answer outcome;             // of the Send
        const char *offered, *left; // offered: the chunks, one after the other
        bool open;
        const char* hook = ""; // where `act` is called, once
        void (*act)(ScriptedSocket&) = nullptr;
    } rows[] = {
        {"in parts, queued bytes first", "xy", "abc", {{3}, {2}}, {3}, "xyabc|bc|", "", true},
        {"more than offered is all", "", "abc", {{99}}, {3}, "abc|", "", true},
        {"an empty send flushes", "xy", "", {{2}}, {0}, "xy|", "", true},
        {"would block midway", "xy", "abc", {{4}, kBlocked}, {3}, "xyabc|c|", "c", false},
        {"0 can report it too", "", "abc", {{0, WSAEWOULDBLOCK}}, {3}, "abc|", "abc", false},
        {"0 without an error is one", "", "abc", {{0}}, {-1}, "abc|", "", true},
        {"an error drops all", "xy", "abc", {{1}, kReset}, kReset, "xyabc|yabc|", "", true},
        {"sent in the gate", "", "abc", {{2}, {1}, {1}}, {3}, "abc|c|!|", "", true, "OkayToSend", kSend},
        {"sent on the way", "", "abc", {{2}, {1}, {1}}, {3}, "abc|c|!|", "", true, "SendData", kSend},
        {"sent while it blocks", "", "abc", {kBlocked}, {3}, "abc|", "abc!", false, "SendData", kSend},
        {"writable meanwhile", "", "abc", {kBlocked, {3}}, {3}, "abc|abc|", "", true, "SendData", kNotify},
        {"another handle", "", "abc", {{1}}, kAborted, "abc|", "!", true, "SendData", kRenew},
        {"array taken over", "", "abc", {{1}, kBlocked}, {3}, "abc|bc|", "", false, "SetOkayToSend", kClear},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        ScriptedSocket socket;
        socket.Renew();
        if (*row.queued != '\0')
            socket.Send(row.queued);
        socket.SetOkayToSend(true);
        std::string offered;
        std::size_t call = 0;
        std::unique_ptr<unsigned char[]> taken;
        socket.SendDataScript = [&](unsigned char* data, int length, int) {
            EXPECT_EQ(data[length], 0);
            offered += ScriptedSocket::Text(data, length) + "|";
            const Answer& answer = row.answers.at(call++);
            std::fill_n(data, std::min(answer.result, length), 'T'); // it may transform what it takes
            // The array itself is offered, so that whoever forgets the queue can free it.
            taken.reset(row.act == +kClear && answer.result < 0 ? data : nullptr);
            return answer.Give();
        };
        bool acted = false;
        socket.around = [&](const std::string& hook, bool) {
            if (hook == row.hook && !std::exchange(acted, true))
                row.act(socket);
        };
        const std::string sent = row.sent;
        WSASetLastError(WSAEWOULDBLOCK); // stale
        EXPECT_EQ(socket.Send(sent.c_str()), row.outcome.result);
        EXPECT_TRUE(row.outcome.result >= 0 || WSAGetLastError() == row.outcome.error) << WSAGetLastError();
        EXPECT_EQ(sent, row.sent) << "the caller's own";
        EXPECT_EQ(offered, row.offered);
        EXPECT_EQ(socket.Queued(), row.left);
        EXPECT_EQ(socket.OkayToSend(), row.open);
    }
}

// --- Receiving

TEST(TavroSocketReceive, HowTheSourceEndsAndWhatTheConsumerLeavesDecideWhatIsKept)
{
    const std::vector<Answer> twelve{{8}, {8}, {4}, {4}, kBlocked};
    const struct
    {
        const char* why;
        std::vector<Answer> answers; // peek, read, peek, read ... of the alphabet
        const char *held, *outcome;  // what OnReceiveNoDataContinue was told, and what the socket tells
        std::size_t renewedBy = 99;  // answer
        bool consumes = false;       // of twelve bytes
        int skipped = 0, left = 12;
    } rows[] = {
        {"the peer has closed", {{2}, {2}, {0}}, "ab", "told 0"},
        {"less than announced", {{9}, {2}, kBlocked}, "ab", "told -1"},
        {"more than announced", {{2}, {9}, kBlocked}, "ab", "told -1"},
        {"failed after a peek", {{2}, {2}, {4}, kReset}, "ab", "missed"},
        {"aborted after a peek", {{2}, {2}, {4}, kAborted}, "ab", "missed, closed"},
        {"an old abort is no abort", {{2}, {2}, {4, WSAECONNABORTED}, {0}}, "ab", "missed"},
        {"another handle", {{2}, {2}}, "ab", "", 1},
        {"the other handle was aborted", {{2}, {2}, {4}, kAborted}, "ab", "missed", 3},
        {"ten are consumed", twelve, "kl", "told -1", 99, true, 10, 2},
        {"all, told by a negative length", twelve, "", "told -1", 99, true, 0, -3},
        {"the end is cut off", twelve, "abcd", "told -1", 99, true, 0, 4},
        {"nothing, whatever it moved", twelve, "abcdefghijkl", "told -1", 99, false, 5, 7},
        {"more left than there was", twelve, "abcdefghijkl", "told -1", 99, true, 0, 13},
        {"left behind the end", twelve, "abcdefghijkl", "told -1", 99, true, 10, 3},
        {"outside of the buffer", twelve, "abcdefghijkl", "told -1", 99, true, -1, 4},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        ScriptedSocket socket;
        socket.Renew();
        socket.SetOkayToSend(true);
        std::size_t call = 0;
        int read = 0;
        std::string outcome;
        socket.ReceiveDataScript = [&](unsigned char* buffer, int length, int flags) {
            std::iota(buffer, buffer + length, static_cast<unsigned char>('a' + read)); // all of it is ours
            if (call == row.renewedBy)
                socket.Renew();
            const Answer& answer = row.answers.at(call++);
            read += flags == 0 ? answer.result : 0;
            return answer.Give();
        };
        socket.OnReceiveNoDataContinueScript = [&](int peeked) {
            return outcome = "told " + std::to_string(peeked), false;
        };
        socket.ProcessReceiveScript = [&](unsigned char*& buffer, int& length) {
            EXPECT_EQ(buffer[length], 0);
            socket.OnReceive(0); // left to the running one
            if (length < 12)
                return false;
            buffer += row.skipped;
            length = row.left;
            return row.consumes;
        };
        socket.OnReceive(0);
        outcome += socket.GetMissedReceive() ? "missed" : "";
        outcome += socket.GetSocket() == INVALID_SOCKET ? ", closed" : "";
        EXPECT_EQ(outcome, row.outcome);
        EXPECT_EQ(socket.Held(), row.held);
    }
}

TEST(TavroSocketReceive, ASourceWithoutEndLetsOthersHaveTheirTurn)
{
    tavronet::LoopbackPair<ScriptedSocket> pair;
    int reads = 0;
    pair.socket->ReceiveDataScript = [&](unsigned char*, int length, int flags) {
        reads += flags == 0;
        return flags == 0 ? length : reads < 100 ? 1 : -1;
    };
    pair.peer.Writes("x");
    ASSERT_TRUE(tavronet::PumpUntil([&] { return reads > 0; }));
    EXPECT_LE(reads, 32);
    EXPECT_TRUE(tavronet::PumpUntil([&] { return reads == 100; })) << "without another notification";
}

} // namespace
