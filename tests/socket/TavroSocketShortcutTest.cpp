// The roads that only sockets without a SendData or ReceiveData of their own take.

#include <gtest/gtest.h>

#include <sys/ioctl.h>

#include <algorithm>
#include <random>
#include <vector>

#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/TestSeams.h"
#include "tests/support/LoopbackPair.h"

namespace
{

struct Stream : CTavroSocket
{
    bool ProcessReceive(unsigned char*& buffer, int& length) override
    {
        offered.emplace_back(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length));
        ended = buffer[length] == 0;
        const int consumed = consume(length);
        if (echoes)
            Send(buffer, consumed, 0);
        buffer += consumed;
        length -= consumed;
        return consumed > 0;
    }

    std::function<int(int)> consume = [](int length) { return length; };
    std::vector<std::string> offered;
    bool echoes = false;
    bool ended = false; // with a zero byte
    using CTavroSocket::GetReceiveBufferSize;
    using CTavroSocket::GetSendBufferSize;
};
using Pair = tavronet::LoopbackPair<Stream>;

std::string Pattern(std::size_t size)
{
    std::string text(size, '\0');
    std::generate(text.begin(), text.end(),
                  [random = std::minstd_rand(7)]() mutable { return static_cast<char>(random() >> 8); });
    return text;
}

TEST(TavroSocketShortcuts, OnePassHasAllThatWaits)
{
    Pair pair;
    ASSERT_TRUE(pair.PumpUntilConnected());
    const int room = 400'000;
    setsockopt(static_cast<int>(pair.socket->GetSocket()), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    const int spare = 64 * 1024;
    for (const int size : {1, spare - 1, spare, spare + 1, 150'000, 150'000, 1, 20}) {
        const std::string sent = Pattern(static_cast<std::size_t>(size));
        ASSERT_TRUE(pair.peer.Writes(sent));
        int waiting = 0;
        while (waiting < size && ioctl(static_cast<int>(pair.socket->GetSocket()), FIONREAD, &waiting) == 0) {
        }
        pair.socket->offered.clear();
        ASSERT_TRUE(tavronet::PumpUntil([&] { return !pair.socket->offered.empty(); }));
        EXPECT_EQ(pair.socket->offered, std::vector{sent}) << size;
        EXPECT_TRUE(pair.socket->ended) << size;
    }
}

TEST(TavroSocketShortcuts, AnEchoOfOddPiecesIsWhatWasSent)
{
    Pair pair;
    ASSERT_TRUE(pair.PumpUntilConnected());
    std::minstd_rand random(11);
    pair.socket->echoes = true;
    pair.socket->consume = [&](int length) {
        return length - static_cast<int>(random() % static_cast<unsigned int>(length / 2 + 1));
    };

    const std::string sent = Pattern(3'000'000);
    std::string echoed;
    for (std::size_t at = 0; at < sent.size();) {
        const std::size_t size = std::min<std::size_t>(random() % 60'000, sent.size() - at);
        ASSERT_TRUE(pair.peer.Writes(sent.substr(at, size)));
        at += size;
        DispatchPending();
        if (at - echoed.size() > 150'000) { // until then the way back fills up
            ASSERT_TRUE(tavronet::PumpUntil([&] {
                echoed += pair.peer.ReadsWaiting();
                return at - echoed.size() < 100'000;
            }));
        }
    }
    pair.socket->consume = [](int length) { return length; };
    pair.peer.Writes("!");
    echoed += pair.peer.Reads(sent.size() + 1 - echoed.size());
    EXPECT_TRUE(echoed == sent + "!");
}

TEST(TavroSocketShortcuts, WithoutMemoryNothingIsLost)
{
    Pair pair;
    ASSERT_TRUE(pair.PumpUntilConnected());
    std::string large = Pattern(100'000);
    tavronet::InjectFault(tavronet::FaultPoint::Allocate, INVALID_SOCKET, 0);
    EXPECT_THROW(
        pair.socket->Send(reinterpret_cast<unsigned char*>(large.data()), static_cast<int>(large.size()), 0),
        CMemoryException*);
    pair.socket->Send("next");
    EXPECT_EQ(pair.peer.Reads(4), "next") << "of the failed one nothing";

    pair.socket->consume = [](int) {
        tavronet::InjectFault(tavronet::FaultPoint::Allocate, INVALID_SOCKET, 0);
        return 0;
    };
    ASSERT_TRUE(pair.peer.Writes("held back"));
    EXPECT_TRUE(tavronet::PumpUntil([&] { return pair.socket->GetReceiveBufferSize() == 9; }));
    tavronet::ClearFaults();
}

} // namespace
