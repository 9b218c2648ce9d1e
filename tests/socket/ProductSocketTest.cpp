#include <gtest/gtest.h>

#include "ScriptedProduct.h"
#include "tavronet/platform/MessageQueue.h"

namespace
{

TEST(ProductSocket, ReadsItsTypeWordAndLevelBitByBit)
{
    struct Levelled : CTavroProductSocket
    {
        using CTavroProductSocket::CTavroProductSocket;
        using CTavroProductSocket::GetCompressionLevel;
    };
    for (const UINT level : {0U, 1U, 9U, 10U, 0x80000001U})
        EXPECT_EQ(Levelled(0, level).GetCompressionLevel(), level == 1 ? 1 : level == 9 ? 9 : 6);
    for (UINT type = 0; type < 32; ++type) {
        const CTavroProductSocket socket(type);
        EXPECT_EQ(type, (socket.IsSSLType() ? 1U : 0U) + (socket.IsTLSType() ? 2U : 0U) +
                            (socket.IsSSHType() ? 4U : 0U) + (socket.IsZlibType() ? 8U : 0U) +
                            (socket.IsHTTPType() ? 16U : 0U));
        EXPECT_EQ(socket.IsHTTPSType(), (type & 16) != 0 && (type & 3) != 0) << type;
    }
}

TEST(ProductSocket, TenPendingPacketsOrAPauseStopReceptionAndWhoeverEndsThemReadsWhatWasMissed)
{
    ProductPair pair;
    ScriptedProduct& socket = *pair.socket;
    socket.Collect();
    ASSERT_TRUE(pair.PumpUntilConnected());
    const auto arrives = [&](const char* bytes) {
        pair.peer.Writes(bytes);
        tavronet::PumpUntilQuiet();
        return std::exchange(socket.received, "");
    };
    socket.PacketProcessed(); // there is none
    for (int i = 0; i < 9; ++i)
        socket.IncrementPendingPackets();
    EXPECT_EQ(arrives("nine"), "nine");
    socket.IncrementPendingPackets();
    EXPECT_EQ(arrives("ten"), "");
    socket.PacketProcessed();
    EXPECT_EQ(std::exchange(socket.received, ""), "ten") << "read inside the call";

    socket.PauseReceive(true);
    socket.PauseReceive(true);
    EXPECT_EQ(arrives("paused"), "") << "nothing is reported, nothing read";
    socket.OnReceive(0); // a host that polls
    EXPECT_TRUE(socket.GetMissedReceive());
    socket.PauseReceive(false);
    EXPECT_EQ(std::exchange(socket.received, ""), "paused") << "read inside the call";
    EXPECT_EQ(arrives("more"), "more");
    EXPECT_EQ(socket.GetBytesIn(), 4 + 3 + 6 + 4);
}

TEST(ProductSocket, TheCloseDeliversWhatIsLeftWhateverTheGatesSay)
{
    ProductPair pair;
    ScriptedProduct& socket = *pair.socket;
    ASSERT_TRUE(pair.PumpUntilConnected());
    socket.Collect();
    socket.PauseReceive(true);
    for (int i = 0; i < 10; ++i)
        socket.IncrementPendingPackets();
    socket.ReceiveDataScript = [&](unsigned char* buffer, int length, int flags) {
        const int few = flags == 0 ? length : 3; // more passes than one notification makes
        return std::min(few, socket.BaseReceiveData(buffer, std::min(few, length), flags));
    };
    const std::string last(1000, 'x');
    pair.peer.Writes(last);
    pair.peer.Closes();
    EXPECT_TRUE(tavronet::PumpUntil([&] { return !socket.GetConnected(); }));
    EXPECT_EQ(socket.received, last);
}

TEST(ProductSocket, AsksForPostCloseAtTheStartOfEverySendThroughAnOpenGate)
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
    EXPECT_TRUE(socket.CanClose());
    EXPECT_EQ(socket.Send("now "), 4);
    EXPECT_EQ(pair.peer.Reads(10), "now behind");
    EXPECT_EQ(asked, 2);
    EXPECT_EQ(socket.GetBytesOut(), 23);
    socket.SetDeleteWhenDone(false);
    socket.Send("on");
    EXPECT_EQ(asked, 2);

    socket.SetExitSSLModeWhenDone(true);
    EXPECT_FALSE(socket.CanClose());
    socket.SetOkayToCloseDuringSSLShutdown(true);
    EXPECT_TRUE(socket.CanClose());
}

TEST(ProductSocket, SetsOptionsOnceForEachHandleThatWasMade)
{
    ScriptedProduct socket;
    int set = 0;
    socket.SetSocketOptionsScript = [&] { ++set; };
    EXPECT_FALSE(socket.Create(0, SOCK_STREAM, FD_ALL, L"no address", 0));
    EXPECT_EQ(socket.Listen(5), 0);
    EXPECT_EQ(socket.GetLastError(), WSAENOTSOCK);
    EXPECT_EQ(set, 0);
    EXPECT_TRUE(socket.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0));
    EXPECT_EQ(socket.Listen(5), 1);
    EXPECT_FALSE(socket.Attach(socket.GetSocket(), FD_ALL)) << "it has a handle";
    EXPECT_TRUE(socket.Attach(socket.Detach(), FD_ALL));
    EXPECT_EQ(set, 2);

    socket.Close();
    socket.SetSocketOptionsScript = [&] { socket.Close(); };
    EXPECT_FALSE(socket.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0)) << "closed before it was told";
    auto* const dying = new ScriptedProduct;
    dying->SetSocketOptionsScript = [dying] { delete dying; };
    EXPECT_FALSE(dying->Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0));
}

} // namespace
