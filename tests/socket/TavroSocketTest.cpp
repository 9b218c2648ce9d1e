#include <sys/ioctl.h>

#include <set>

#include "ScriptedSocket.h"
#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/TestSeams.h"

namespace
{

TEST(TavroSocketDatagrams, TravelByAddressTextInBothFamilies)
{
    for (const wchar_t* address : {L"127.0.0.1", L"::1"}) {
        CTavroSocket socket;
        CStringW own, from;
        UINT ownPort = 0, port = 0;
        if (socket.Create(0, SOCK_DGRAM, FD_ALL, address, AF_UNSPEC) == 0 && *address == L':')
            continue; // a machine without IPv6
        EXPECT_TRUE(socket.GetSockName(own, ownPort));
        EXPECT_EQ(socket.SendTo("ping", 4, ownPort, address, 0), 4);
        EXPECT_EQ(socket.SendTo("ping", 4, ownPort, L"localhost", 0), 0) << "no names";
        char buffer[4] = {};
        EXPECT_EQ(socket.ReceiveFrom(buffer, 3, from, port, 0), 3) << "a longer datagram is cut";
        EXPECT_STREQ(buffer, "pin");
        EXPECT_EQ(socket.ReceiveFrom(buffer, 3, from, port, 0), -1);
        EXPECT_EQ(from, address) << "unchanged by the failure";
        EXPECT_EQ(port, ownPort);
    }
}

// Streams, through every hook and, without a SendData and a ReceiveData of its own, by the short roads.
template <typename Socket>
struct TavroSocketBytes : testing::Test
{
    tavronet::LoopbackPair<Socket> pair;
};
using SocketClasses = testing::Types<ScriptedSocket, ScriptedHooks<CTavroSocket>>;
TYPED_TEST_SUITE(TavroSocketBytes, SocketClasses);

TYPED_TEST(TavroSocketBytes, AreNotLostBeforeTheGateOpensNorWhenTheSystemTakesOnlyAPart)
{
    auto& [listener, peer, socket] = this->pair;
    socket->SendScript = [&](unsigned char* data, int length, int) {
        const std::string bytes = ScriptedSocket::Text(data, length);
        const int result = socket->BaseSend(data, length);
        EXPECT_TRUE(ScriptedSocket::Text(data, length) == bytes) << "an override may look at them afterwards";
        return result;
    };
    std::set<const unsigned char*> arrays;
    std::string sent;
    for (int i = 0; i < 300; ++i) {
        socket->Send(std::to_string(i).c_str());
        sent += std::to_string(i);
        arrays.insert(socket->GetSendBuffer());
    }
    EXPECT_LT(arrays.size(), 20U) << "the queue is not rebuilt for every send";
    EXPECT_TRUE(peer.Reads(sent.size()) == sent);

    sent = Noise(1'000'000);
    EXPECT_EQ(socket->Send(sent.c_str()), 1'000'000);
    EXPECT_TRUE(!socket->Queued().empty() && sent.ends_with(socket->Queued()));
    EXPECT_EQ(socket->Send(CStringA("tail\0hidden", 11)), 4);
    EXPECT_TRUE(peer.Reads(1'000'004) == sent + "tail");
    EXPECT_TRUE(socket->OkayToSend());
}

TYPED_TEST(TavroSocketBytes, ThatWaitAreOfferedInOnePassAlsoWhenThePeerHasClosed)
{
    auto& [listener, peer, socket] = this->pair;
    ASSERT_TRUE(this->pair.PumpUntilConnected());
    const int room = 400'000, handle = static_cast<int>(socket->GetSocket());
    setsockopt(handle, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    std::string offered;
    socket->ProcessReceiveScript = [&](unsigned char*& buffer, int& length) {
        EXPECT_EQ(buffer[length], 0);
        offered += ScriptedSocket::Text(buffer, std::exchange(length, 0)) + " pass";
        return true;
    };
    // A first read has room for 65536; what was more is asked about the next time.
    for (const int size : {65535, 65537, 1000, 65536, 150'000, 150'000, 20}) {
        const std::string sent = Noise(static_cast<std::size_t>(size));
        ASSERT_TRUE(peer.Writes(sent));
        for (int waiting = 0; waiting < size;)
            ASSERT_EQ(ioctl(handle, FIONREAD, &waiting), 0);
        if (size == 20)
            peer.Closes();
        tavronet::PumpUntilQuiet();
        EXPECT_TRUE(std::exchange(offered, "") == sent + " pass") << size;
    }
    EXPECT_FALSE(socket->GetConnected());
    EXPECT_NE(socket->GetSocket(), INVALID_SOCKET) << "the peer's close does not close this end";
}

TYPED_TEST(TavroSocketBytes, AreAsBeforeWhenMemoryRunsOut)
{
    auto& [listener, peer, socket] = this->pair;
    const auto runOut = [] { InjectFault(tavronet::FaultPoint::Allocate, INVALID_SOCKET, 0); };
    unsigned char large[100'000] = "not sent";
    socket->Send("queued");
    runOut();
    EXPECT_THROW(socket->BaseSend(large, sizeof large), CMemoryException*);
    EXPECT_EQ(peer.Reads(6), "queued");
    runOut();
    EXPECT_THROW(socket->BaseSend(large, sizeof large), CMemoryException*);
    EXPECT_THROW(socket->BaseSend(large, INT32_MAX), CMemoryException*) << "beyond any array";
    EXPECT_EQ(socket->BaseSend(large, -1), 0);
    socket->Send("next");
    EXPECT_EQ(peer.Reads(4), "next") << "of the failed ones nothing";

    socket->ProcessReceiveScript = [&](auto&...) { return runOut(), false; };
    peer.Writes("held back");
    EXPECT_TRUE(tavronet::PumpUntil([&] { return socket->Held() == "held back"; }));
    tavronet::ClearFaults();
}

} // namespace
