#include <gtest/gtest.h>

#include "ScriptedProduct.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/TestSeams.h"

namespace
{

TEST(ProductSocket, TheTypeWordAndTheCompressionLevelAreReadBitByBit)
{
    for (const UINT level : {0U, 1U, 9U, 10U, 0x80000001U}) {
        struct Levelled : CTavroProductSocket
        {
            explicit Levelled(UINT given) : CTavroProductSocket(0, given) {}
            using CTavroProductSocket::GetCompressionLevel;
        };
        EXPECT_EQ(Levelled(level).GetCompressionLevel(),
                  level == 1 || level == 9 ? static_cast<int>(level) : 6);
    }
    for (UINT type = 0; type < 32; ++type) {
        const CTavroProductSocket socket(type);
        const UINT read = (socket.IsSSLType() ? 1U : 0U) + (socket.IsTLSType() ? 2U : 0U) +
                          (socket.IsSSHType() ? 4U : 0U) + (socket.IsZlibType() ? 8U : 0U) +
                          (socket.IsHTTPType() ? 16U : 0U);
        EXPECT_EQ(read, type);
        EXPECT_EQ(socket.IsHTTPSType(), (type & 16) != 0 && (type & 3) != 0) << type;
    }
}

TEST(ProductSocket, TenPendingPacketsOrAPauseStopReceptionAndWhoeverEndsItReadsWhatWasMissed)
{
    ProductPair pair;
    ScriptedProduct& socket = *pair.socket;
    socket.Collect();
    ASSERT_TRUE(pair.PumpUntilConnected());
    socket.PacketProcessed(); // there is none
    EXPECT_EQ(socket.GetPendingPackets(), 0U);

    for (int i = 0; i < 9; ++i)
        socket.IncrementPendingPackets();
    pair.peer.Writes("nine ");
    tavronet::PumpUntilQuiet();
    EXPECT_EQ(socket.received, "nine ");
    socket.IncrementPendingPackets();
    pair.peer.Writes("ten ");
    tavronet::PumpUntilQuiet();
    EXPECT_EQ(socket.received, "nine ");
    socket.PacketProcessed();
    EXPECT_EQ(socket.received, "nine ten ") << "read inside the call";

    pair.peer.Writes("due ");
    DispatchRound(); // it may have been taken down as due already
    socket.received.clear();
    socket.PauseReceive(true);
    socket.PauseReceive(true);
    pair.peer.Writes("paused ");
    socket.OnReceive(0); // as a host that polls
    tavronet::PumpUntilQuiet();
    EXPECT_EQ(socket.received, "");
    EXPECT_TRUE(socket.GetMissedReceive());
    socket.PauseReceive(false);
    EXPECT_EQ(socket.received, "paused ") << "read inside the call";
    pair.peer.Writes("more");
    EXPECT_TRUE(tavronet::PumpUntil([&] { return socket.received == "paused more"; }));

    pair.peer.Writes("?");
    socket.ProcessReceiveScript = [&](unsigned char*&, int& length) {
        socket.PauseReceive(true); // by the consumer itself, in the middle of a pass
        length = 0;
        return true;
    };
    tavronet::PumpUntilQuiet();
    socket.Collect();
    pair.peer.Writes("last words");
    for (int i = 0; i < 10; ++i)
        socket.IncrementPendingPackets();
    pair.peer.Closes();
    EXPECT_TRUE(tavronet::PumpUntil([&] { return !socket.GetConnected(); }));
    EXPECT_TRUE(socket.received.ends_with("last words")) << "the close delivers them whatever the gates say";
    EXPECT_EQ(socket.GetBytesIn(), socket.GetBytesInCompressed());
    EXPECT_EQ(socket.GetBytesIn(), 5 + 4 + 4 + 7 + 4 + 1 + 10);
}

TEST(ProductSocket, PostCloseIsAskedForAtTheStartOfEverySendThroughAnOpenGate)
{
    ProductPair pair;
    ScriptedProduct& socket = *pair.socket;
    int asked = 0;
    socket.PostCloseScript = [&] {
        ++asked;
        EXPECT_EQ(socket.Send("behind"), 6); // asks for nothing, and goes behind
    };
    socket.SetDeleteWhenDone(true);
    EXPECT_EQ(socket.Send("queued "), 7);
    EXPECT_EQ(asked, 0);
    EXPECT_FALSE(socket.CanClose());
    ASSERT_TRUE(pair.PumpUntilConnected());
    EXPECT_EQ(pair.peer.Reads(13), "queued behind");
    EXPECT_EQ(asked, 1);
    EXPECT_TRUE(socket.CanClose());
    EXPECT_EQ(socket.Send("now "), 4);
    EXPECT_EQ(pair.peer.Reads(10), "now behind");
    EXPECT_EQ(asked, 2);
    socket.SetDeleteWhenDone(false);
    EXPECT_EQ(socket.Send("on"), 2);
    EXPECT_EQ(asked, 2);
    EXPECT_EQ(socket.GetBytesOut(), 25);

    socket.SetExitSSLModeWhenDone(true);
    EXPECT_FALSE(socket.CanClose());
    socket.SetOkayToCloseDuringSSLShutdown(true);
    EXPECT_TRUE(socket.CanClose());
}

TEST(ProductSocket, OptionsAreSetOnceForEachHandleThatWasMade)
{
    ScriptedProduct socket;
    int set = 0;
    socket.SetSocketOptionsScript = [&] { ++set; };
    EXPECT_FALSE(socket.Create(0, SOCK_STREAM, FD_ALL, L"no address", 0));
    EXPECT_EQ(set, 0);
    EXPECT_EQ(socket.Listen(5), 0);
    EXPECT_EQ(socket.GetLastError(), WSAENOTSOCK);
    EXPECT_TRUE(socket.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0));
    EXPECT_EQ(set, 1);
    EXPECT_EQ(socket.Listen(5), 1);
    EXPECT_FALSE(socket.Attach(socket.GetSocket(), FD_ALL)) << "it has a handle";
    const SOCKET handle = socket.Detach();
    EXPECT_TRUE(socket.Attach(handle, FD_ALL));
    EXPECT_EQ(set, 2);

    socket.Close();
    socket.SetSocketOptionsScript = [&] { socket.Close(); };
    EXPECT_FALSE(socket.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0)) << "closed before it was told";
    auto* const dying = new ScriptedProduct;
    dying->SetSocketOptionsScript = [dying] { delete dying; };
    EXPECT_FALSE(dying->Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0));
}

} // namespace
