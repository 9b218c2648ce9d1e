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
    tavronet::LoopbackPair<Socket> connected;
};
using SocketClasses = testing::Types<ScriptedSocket, ScriptedHooks<CTavroSocket>>;
TYPED_TEST_SUITE(TavroSocketBytes, SocketClasses);

TYPED_TEST(TavroSocketBytes, AreNotLostBeforeTheGateOpensNorWhenTheSystemTakesOnlyAPart)
{
    auto& pair = this->connected;
    pair.socket->SendScript = [&](unsigned char* data, int length, int) {
        const std::string bytes = ScriptedSocket::Text(data, length);
        const int result = pair.socket->BaseSend(data, length);
        EXPECT_TRUE(ScriptedSocket::Text(data, length) == bytes) << "an override may look at them afterwards";
        return result;
    };
    std::set<const unsigned char*> arrays;
    std::string sent;
    for (int i = 0; i < 300; ++i) {
        pair.socket->Send(std::to_string(i).c_str());
        sent += std::to_string(i);
        arrays.insert(pair.socket->GetSendBuffer());
    }
    EXPECT_LT(arrays.size(), 20U) << "the queue is not rebuilt for every send";
    EXPECT_TRUE(pair.peer.Reads(sent.size()) == sent);

    sent = Noise(1'000'000);
    EXPECT_EQ(pair.socket->Send(sent.c_str()), 1'000'000);
    EXPECT_TRUE(!pair.socket->Queued().empty() && sent.ends_with(pair.socket->Queued()));
    EXPECT_EQ(pair.socket->Send(CStringA("tail\0hidden", 11)), 4);
    EXPECT_TRUE(pair.peer.Reads(1'000'004) == sent + "tail");
    EXPECT_TRUE(pair.socket->OkayToSend());
}

TYPED_TEST(TavroSocketBytes, ThatWaitAreOfferedInOnePassAlsoWhenThePeerHasClosed)
{
    auto& pair = this->connected;
    ASSERT_TRUE(pair.PumpUntilConnected());
    const int room = 400'000, handle = static_cast<int>(pair.socket->GetSocket());
    setsockopt(handle, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    std::string offered;
    pair.socket->ProcessReceiveScript = [&](unsigned char*& buffer, int& length) {
        EXPECT_EQ(buffer[length], 0);
        offered += ScriptedSocket::Text(buffer, std::exchange(length, 0)) + " pass";
        return true;
    };
    // A first read has room for 65536; what was more is asked about the next time.
    for (const int size : {65535, 65537, 1000, 65536, 150'000, 150'000, 20}) {
        const std::string sent = Noise(static_cast<std::size_t>(size));
        ASSERT_TRUE(pair.peer.Writes(sent));
        for (int waiting = 0; waiting < size;)
            ASSERT_EQ(ioctl(handle, FIONREAD, &waiting), 0);
        if (size == 20)
            pair.peer.Closes();
        tavronet::PumpUntilQuiet();
        EXPECT_TRUE(std::exchange(offered, "") == sent + " pass") << size;
    }
    EXPECT_FALSE(pair.socket->GetConnected());
    EXPECT_NE(pair.socket->GetSocket(), INVALID_SOCKET) << "the peer's close does not close this end";
}

TYPED_TEST(TavroSocketBytes, AreAsBeforeWhenMemoryRunsOut)
{
    auto& pair = this->connected;
    const auto runOut = [] { InjectFault(tavronet::FaultPoint::Allocate, INVALID_SOCKET, 0); };
    unsigned char large[100'000] = "not sent";
    pair.socket->Send("queued");
    runOut();
    EXPECT_THROW(pair.socket->BaseSend(large, sizeof large), CMemoryException*);
    EXPECT_EQ(pair.peer.Reads(6), "queued");
    runOut();
    EXPECT_THROW(pair.socket->BaseSend(large, sizeof large), CMemoryException*);
    EXPECT_THROW(pair.socket->BaseSend(large, INT32_MAX), CMemoryException*) << "beyond any array";
    EXPECT_EQ(pair.socket->BaseSend(large, -1), 0);
    pair.socket->Send("next");
    EXPECT_EQ(pair.peer.Reads(4), "next") << "of the failed ones nothing";

    pair.socket->ProcessReceiveScript = [&](auto&...) { return runOut(), false; };
    pair.peer.Writes("held back");
    EXPECT_TRUE(tavronet::PumpUntil([&] { return pair.socket->Held() == "held back"; }));
    tavronet::ClearFaults();
}

} // namespace
