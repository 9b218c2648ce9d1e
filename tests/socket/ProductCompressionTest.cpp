#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "ScriptedProduct.h"
#include "tavronet/platform/TestSeams.h"

namespace
{

/// Text that shrinks to a third, or bytes that do not shrink.
std::string Made(std::size_t length, bool asText, std::mt19937& random)
{
    static const char* const words[] = {"gate", "queue", "socket ", "packet, ", "stream", "\r\n", "of ", "7"};
    std::string made;
    while (made.size() < length)
        made += asText ? std::string(words[random() % 8]) : std::string(1, static_cast<char>(random()));
    made.resize(length);
    return made;
}

class ProductCompression : public testing::Test
{
protected:
    void Connect()
    {
        socket.SetZlibType();
        ASSERT_TRUE(socket.InitCompression(15));
        socket.Collect();
        ASSERT_TRUE(pair.PumpUntilConnected());
        tavronet::PumpUntilQuiet(); // the gate opens
    }
    int Send(std::string text)
    {
        return socket.BaseSend(reinterpret_cast<unsigned char*>(text.data()), static_cast<int>(text.size()));
    }
    std::string Sends(const std::string& text)
    {
        EXPECT_EQ(socket.Send(text.c_str()), static_cast<int>(text.size()));
        return pair.peer.ReadsWaiting();
    }

    WithZLib zlib;
    ProductPair pair;
    ScriptedProduct& socket = *pair.socket;
    ZlibPeer peer;
};

TEST_F(ProductCompression, WithoutZlibTheConnectionStaysUncompressed)
{
    tavronet::SetZLibLibrary(nullptr);
    socket.SetZlibType();
    EXPECT_FALSE(socket.InitCompression(15));
    ASSERT_TRUE(pair.PumpUntilConnected());
    EXPECT_EQ(socket.Send("plain"), 5);
    EXPECT_EQ(pair.peer.Reads(5), "plain");
    tavronet::SetZLibLibrary(&zlib.library); // of the peer's streams
}

TEST_F(ProductCompression, EverySendCanBeInflatedAtOnce)
{
    Connect();
    socket.SetCompressionLevel(10);
    const std::string first = Sends("a short text");
    EXPECT_EQ(first.substr(0, 1), "\x78") << "zlib format, window of 32 KiB";
    EXPECT_EQ(peer.Inflated(first), "a short text") << "the present compressor keeps its level";
    EXPECT_EQ(peer.Inflated(Sends("and another")), "and another");
    socket.SetNotZlibType();
    EXPECT_EQ(Sends("in clear"), "in clear");
    socket.SetZlibType();
    EXPECT_EQ(peer.Inflated(Sends("as if nothing")), "as if nothing");
    EXPECT_EQ(socket.GetBytesOut(), 12 + 11 + 8 + 13);
    EXPECT_EQ(socket.SendData(nullptr, 0, 0), 0);
    EXPECT_EQ(pair.peer.ReadsWaiting().size(), 6U) << "an empty last block and the checksum";
    EXPECT_EQ(Sends("after"), "after") << "a stream that has ended takes nothing more";
    EXPECT_FALSE(socket.InitCompression(15)) << "there is no level 10";
    EXPECT_FALSE(socket.UsingCompression());
}

TEST_F(ProductCompression, ChunksOfEveryLengthAndKindComeOutAsTheyWentIn)
{
    std::mt19937 random(1);
    for (std::size_t length = 0; length < 1500; ++length) {
        const std::string text = Made(length, length % 3 == 0, random);
        ASSERT_EQ(peer.Inflated(peer.Deflated(text)), text) << length;
    }
}

TEST_F(ProductCompression, NoByteIsLostOrSentTwiceWhenTheSystemTakesOnlyAPart)
{
    Connect();
    std::mt19937 random(2);
    std::string sent, got;
    std::size_t counted = 0;
    int closed = 0;
    socket.SetOkayToSendScript = [&](bool allowed) {
        closed += allowed ? 0 : 1;
        socket.BaseSetOkayToSend(allowed);
    };
    socket.BytesOutCompressedScript = [&](int plain, int) {
        counted += static_cast<std::size_t>(plain);
        if (random() % 4 != 0)
            return;
        sent += "nested";
        EXPECT_EQ(socket.Send("nested"), 6); // behind whatever is under way
    };
    for (int i = 0; i < 300; ++i) {
        if (i % 8 == 0)
            tavronet::InjectFault(tavronet::FaultPoint::Send, socket.GetSocket(), WSAEWOULDBLOCK, i % 3);
        const std::string text = Made(1 + random() % 20000, i % 2 == 0, random);
        sent += text;
        EXPECT_EQ(Send(text), static_cast<int>(text.size()));
        if (i % 10 == 9) {
            EXPECT_FALSE(socket.CanClose());
            EXPECT_EQ(socket.SendData(nullptr, 0, 0), -1) << "the end comes behind what waits";
            got += peer.Inflated(pair.peer.ReadsWaiting());
            tavronet::PumpUntilQuiet();
        }
    }
    EXPECT_TRUE(tavronet::PumpUntil([&] {
        got += peer.Inflated(pair.peer.ReadsWaiting());
        return got.size() >= sent.size();
    }));
    tavronet::ClearFaults();
    EXPECT_TRUE(got == sent);
    EXPECT_EQ(counted, sent.size());
    EXPECT_GT(closed, 10);
    EXPECT_TRUE(socket.CanClose());
}

TEST_F(ProductCompression, AfterABrokenConnectionNothingOfItGoesToTheNext)
{
    Connect();
    std::mt19937 random(3);
    const std::string text = Made(1'000'000, false, random);
    EXPECT_EQ(Send(text), 1'000'000);
    EXPECT_FALSE(socket.CanClose());
    pair.peer.Resets();
    tavronet::PumpUntilQuiet();
    EXPECT_TRUE(socket.CanClose()) << "the write under way has failed";

    socket.Close();
    pair.Connect();
    Connect();
    EXPECT_EQ(peer.Inflated(Sends("anew")), "anew");
}

TEST_F(ProductCompression, WhatArrivesInPiecesIsDeliveredWholeBehindWhatWasHeld)
{
    Connect();
    std::vector<std::string> offered;
    socket.ProcessReceiveScript = [&](unsigned char*& buffer, int& length) {
        EXPECT_EQ(buffer[length], 0);
        offered.push_back(ScriptedSocket::Text(buffer, length));
        return false;
    };
    std::string wire = peer.Deflated("one ");
    wire += peer.Deflated("two");
    for (const char byte : wire) {
        pair.peer.Writes(std::string(1, byte));
        tavronet::PumpUntilQuiet();
    }
    ASSERT_FALSE(offered.empty());
    EXPECT_EQ(offered.front().substr(0, 1), "o") << "nothing is offered before there is anything";
    EXPECT_EQ(socket.Held(), "one two");

    const std::string large(1'000'000, 'x'); // far more than three times its deflated size
    pair.peer.Writes(peer.Deflated(large));
    EXPECT_TRUE(tavronet::PumpUntil([&] { return socket.GetReceiveBufferSize() == 1'000'007; }));
    EXPECT_TRUE(socket.Held() == "one two" + large);
    EXPECT_EQ(socket.GetBytesIn(), 1'000'007);
    EXPECT_LT(socket.GetBytesInCompressed(), 2000);
}

TEST_F(ProductCompression, ABrokenStreamDeliversNothingMoreAndTellsTheHostOnce)
{
    const struct
    {
        const char *why, *text, *behind;
        std::size_t repeated, delivered;
        int flush, told;
    } rows[] = {
        {"no deflate", "", "HTTP/1.1 400", 0, 0, CZLibCompression::kFullFlush, 1},
        {"spoilt behind a block", "good", "\xFF\xFF\xFF", 1, 4, CZLibCompression::kFullFlush, 1},
        {"one byte more than is allowed", "x", "", 100'001, 100'000, CZLibCompression::kFullFlush, 1},
        {"bytes behind the end", "good", "rest", 1, 4, CZLibCompression::kFinish, 1},
        {"an end is no error", "good", "", 1, 4, CZLibCompression::kFinish, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        ProductPair connection;
        ScriptedProduct& reader = *connection.socket;
        ZlibPeer writer;
        int told = 0;
        reader.NotifyInflateErrorScript = [&told] { ++told; };
        reader.SetZlibType();
        ASSERT_TRUE(reader.InitCompression(15));
        reader.SetMaxInflatedBytes(100'000);
        reader.Collect();
        std::string text;
        for (std::size_t i = 0; i < row.repeated; ++i)
            text += row.text;
        const auto arrives = [&](const std::string& bytes) {
            connection.peer.Writes(bytes);
            tavronet::PumpUntilQuiet();
            return std::exchange(reader.received, "").size();
        };
        EXPECT_EQ(arrives(writer.Deflated(std::string(100'000, 'x'))), 100'000U) << "exactly what is allowed";
        EXPECT_EQ(arrives((text.empty() ? "" : writer.Deflated(text, row.flush)) + row.behind),
                  row.delivered);
        EXPECT_EQ(told, row.told);
        EXPECT_EQ(arrives("more"), 0U);
        EXPECT_EQ(arrives("and more"), 0U);
        EXPECT_EQ(told, 1);
    }
}

} // namespace
