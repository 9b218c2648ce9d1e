#include <gtest/gtest.h>

#include <random>

#include "ScriptedProduct.h"
#include "tavronet/platform/TestSeams.h"

using tavronet::PumpUntil;
using tavronet::PumpUntilQuiet;

namespace
{

/// Text that shrinks to a third, or bytes that do not shrink.
std::string Made(std::size_t length, bool asText, std::mt19937& random)
{
    std::string made;
    while (made.size() < length)
        made += asText ? "gate" + std::to_string(random() % 64) : std::string(1, static_cast<char>(random()));
    return made.substr(0, length);
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
        PumpUntilQuiet(); // the gate opens
    }
    int Send(std::string text)
    {
        return socket.BaseSend(reinterpret_cast<unsigned char*>(text.data()), static_cast<int>(text.size()));
    }
    std::string Sends(const std::string& text)
    {
        EXPECT_EQ(Send(text), static_cast<int>(text.size()));
        return pair.peer.ReadsWaiting();
    }

    WithZLib zlib;
    ProductPair pair;
    ScriptedProduct& socket = *pair.socket;
    ZlibPeer peer;
    std::mt19937 random{1};
};

TEST_F(ProductCompression, EverySendCanBeInflatedAtOnce)
{
    Connect();
    socket.SetCompressionLevel(10);
    const std::string first = Sends("a short text");
    EXPECT_EQ(first.substr(0, 1), "\x78") << "zlib format, window of 32 KiB";
    EXPECT_EQ(peer.Inflated(first), "a short text") << "the present compressor keeps its level";
    for (unsigned i = 0; i < 3000; ++i) { // also those that fill the room of the output exactly
        const std::string text = Made(i % 50 + 1, i % 3 == 0, random);
        ASSERT_EQ(peer.Inflated(Sends(text)), text);
    }
    socket.SetNotZlibType();
    EXPECT_EQ(Sends("in clear"), "in clear");
    socket.SetZlibType();
    EXPECT_EQ(peer.Inflated(Sends("as if nothing")), "as if nothing");
    EXPECT_EQ(socket.GetBytesOut(), 12 + 60 * 1275 + 8 + 13);
    EXPECT_EQ(socket.SendData(nullptr, 0, 0), 0);
    EXPECT_EQ(pair.peer.ReadsWaiting().size(), 6U) << "an empty last block and the checksum";
    EXPECT_EQ(Sends("after"), "after") << "a stream that has ended takes nothing more";
    EXPECT_FALSE(socket.InitCompression(15)) << "there is no level 10";
    EXPECT_EQ(Sends("plain"), "plain");
}

// That no byte is lost or sent twice under load is seen in tests/load.
TEST_F(ProductCompression, AWriteUnderWayHoldsTheEndBackAndDiesWithItsConnection)
{
    Connect();
    EXPECT_EQ(Send(Made(1'000'000, false, random)), 1'000'000);
    EXPECT_FALSE(socket.CanClose());
    EXPECT_EQ(socket.SendData(nullptr, 0, 0), -1) << "the end comes behind what waits";
    pair.peer.Resets();
    PumpUntilQuiet();
    EXPECT_TRUE(socket.CanClose()) << "the write under way has failed";
    socket.Close();
    pair.Connect();
    Connect();
    EXPECT_EQ(ZlibPeer().Inflated(Sends("anew")), "anew") << "and nothing of the broken stream";
}

TEST_F(ProductCompression, WhatArrivesInPiecesIsDeliveredWholeBehindWhatWasHeld)
{
    Connect();
    socket.ProcessReceiveScript = [&](unsigned char*& buffer, int& length) {
        EXPECT_TRUE(buffer[0] == 'o' && buffer[length] == 0) << "nothing is offered before there is anything";
        return false;
    };
    std::string wire = peer.Deflated("one ");
    wire += peer.Deflated("two");
    for (const char byte : wire) {
        pair.peer.Writes(std::string(1, byte));
        PumpUntilQuiet();
    }
    const std::string large(1'000'000, 'x'); // far more than three times its deflated size
    pair.peer.Writes(peer.Deflated(large));
    EXPECT_TRUE(PumpUntil([&] { return socket.GetReceiveBufferSize() == 1'000'007; }));
    EXPECT_TRUE(socket.Held() == "one two" + large);
    EXPECT_EQ(socket.GetBytesIn(), 1'000'007);
    EXPECT_LT(socket.GetBytesInCompressed(), 2000);
}

TEST_F(ProductCompression, ABrokenStreamDeliversNothingMoreAndTellsTheHostOnce)
{
    const auto streams = [](const std::string& text, int flush) { return ZlibPeer().Deflated(text, flush); };
    const std::string good = streams("good", CZLibCompression::kFullFlush);
    const std::string ended = streams("good", CZLibCompression::kFinish);
    const std::string most(100'000, 'x'); // allowed in a block
    const std::tuple<std::string, std::size_t, int> rows[] = {
        // what arrives, how much of it is delivered, how often the host is told
        {"HTTP/1.1 400", 0, 1},
        {good + "\xFF\xFF\xFF", 4, 1},
        {streams(most, CZLibCompression::kFullFlush), 100'000, 0},
        {streams(most + "x", CZLibCompression::kFullFlush), 100'000, 1},
        {ended + "rest", 4, 1},
        {ended, 4, 0},
    };
    for (const auto& [wire, delivered, told] : rows) {
        SCOPED_TRACE(wire);
        Connect();
        socket.SetMaxInflatedBytes(100'000);
        int tells = 0;
        socket.NotifyInflateErrorScript = [&tells] { ++tells; };
        const auto arrives = [this](const std::string& bytes) {
            pair.peer.Writes(bytes);
            PumpUntilQuiet();
            return std::exchange(socket.received, "").size();
        };
        EXPECT_EQ(arrives(wire), delivered);
        EXPECT_EQ(tells, told);
        EXPECT_EQ(arrives("more") + arrives("and more"), 0U);
        EXPECT_EQ(tells, 1);
    }
}

} // namespace
