#include "tavronet/platform/SocketCalls.h"

#include <gtest/gtest.h>

#include "tavronet/platform/LastError.h"
#include "tests/support/PlainSocket.h"

using tavronet::PlainSocket;

TEST(SocketCalls, WaitingBytesAreOfTheFirstDatagramAndUnchangedOnFailure)
{
    const PlainSocket receiver(::socket(AF_INET, SOCK_DGRAM, 0));
    const auto sender = PlainSocket::ConnectedTo(tavronet::BindToLoopback(receiver.Handle()), SOCK_DGRAM);
    UINT count = 99;
    EXPECT_TRUE(platform::WaitingBytes(receiver.Handle(), count) && count == 0) << count;
    sender.Writes("seven b");
    sender.Writes("two");
    EXPECT_TRUE(platform::WaitingBytes(receiver.Handle(), count) && count == 7) << count;

    EXPECT_FALSE(platform::WaitingBytes(PlainSocket::Listening().Handle(), count));
    EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
    EXPECT_EQ(count, 7U);
    EXPECT_EQ(platform::listen((SOCKET{1} << 32) + receiver.Handle(), 1), -1) << "a handle is not cut";
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
}
