#include "ScriptedProduct.h"

namespace
{

TEST(ProductSocket, PendingPacketsAndAPauseStopReceptionUntilWhoeverEndsThemOrTheClose)
{
    ProductPair pair;
    ScriptedProduct& socket = *pair.socket;
    socket.Collect();
    const auto arrives = [&](const std::string& bytes) {
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
    EXPECT_EQ(arrives("paused"), "") << "nothing is reported, nothing read";
    socket.OnReceive(0); // a host that polls
    EXPECT_TRUE(socket.GetMissedReceive());
    socket.PauseReceive(false);
    EXPECT_EQ(std::exchange(socket.received, ""), "paused") << "read inside the call";
    EXPECT_EQ(arrives("more"), "more");

    socket.PauseReceive(true);
    socket.IncrementPendingPackets();
    socket.ReceiveDataScript = [&](unsigned char* buffer, int length, int flags) {
        const int few = flags == 0 ? length : 3; // more passes than one notification makes
        return std::min(few, socket.BaseReceiveData(buffer, std::min(few, length), flags));
    };
    const std::string last(1000, 'x');
    EXPECT_EQ(arrives(last), "");
    pair.peer.Closes();
    EXPECT_TRUE(tavronet::PumpUntil([&] { return !socket.GetConnected(); }));
    EXPECT_EQ(socket.received, last) << "all that is left";
    EXPECT_EQ(socket.GetBytesIn(), 4 + 3 + 6 + 4 + 1000);
}

TEST(ProductSocket, AsksForPostCloseAtTheStartOfEverySendThroughAnOpenGate)
{
    ProductPair pair;
    ScriptedProduct& socket = *pair.socket;
    int asked = 0;
    socket.PostCloseScript = [&] {
        ++asked;
        EXPECT_EQ(socket.Send("behind "), 7); // asks for nothing, and goes behind
    };
    socket.SetDeleteWhenDone(true);
    EXPECT_EQ(socket.Send("queued "), 7);
    EXPECT_FALSE(socket.CanClose());
    EXPECT_EQ(pair.peer.Reads(14), "queued behind ");
    EXPECT_TRUE(socket.CanClose());
    EXPECT_EQ(socket.Send("now "), 4);
    EXPECT_EQ(pair.peer.Reads(11), "now behind ");
    socket.SetDeleteWhenDone(false);
    EXPECT_EQ(socket.Send("on"), 2);
    EXPECT_EQ(asked, 2);
    EXPECT_EQ(socket.GetBytesOut(), 27);
    socket.SetExitSSLModeWhenDone(true);
    socket.SetOkayToCloseDuringSSLShutdown(true);
    EXPECT_TRUE(socket.CanClose());
}

TEST(ProductSocket, SetsOptionsOnceForEachHandleThatWasMade)
{
    const auto taken = tavronet::PlainSocket::Listening();
    auto* const socket = new ScriptedProduct;
    const auto create = [socket](UINT port = 0) {
        return socket->Create(port, SOCK_STREAM, FD_ALL, L"127.0.0.1", 0);
    };
    int set = 0;
    socket->SetSocketOptionsScript = [&] { ++set; };
    EXPECT_FALSE(create(taken.Port()));
    EXPECT_EQ(WSAGetLastError(), WSAEADDRINUSE);
    EXPECT_EQ(socket->GetSocket(), INVALID_SOCKET);
    EXPECT_TRUE(create());
    EXPECT_TRUE(socket->Attach(socket->Detach(), FD_ALL));
    EXPECT_EQ(set, 2);

    socket->Close();
    socket->SetSocketOptionsScript = [=] { socket->Close(); };
    EXPECT_FALSE(create()) << "closed before it was told";
    socket->SetSocketOptionsScript = [=] { delete socket; };
    EXPECT_FALSE(create());
}

} // namespace
