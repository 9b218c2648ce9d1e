#include "tavronet/platform/LastError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <utility>

#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/SocketCalls.h"

TEST(LastError, IsEachThreadsOwnAndChangesOnFailureOnly)
{
    for (const auto& [number, code] :
         {std::pair(EAGAIN, 10035), {EPIPE, 10053}, {ENFILE, 10024}, {9999, 10022}})
        EXPECT_EQ(tavronet::LastErrorFromErrno(number), code);
    WSASetLastError(77);
    std::thread([] {
        EXPECT_EQ(WSAGetLastError(), 0);
        WSASetLastError(WSAEINTR);
    }).join();
    char name[300];
    EXPECT_EQ(platform::gethostname(name, sizeof name), 0);
    EXPECT_EQ(WSAGetLastError(), 77);
    EXPECT_EQ(platform::listen(INVALID_SOCKET, 1), -1);
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
}

TEST(Exceptions, CarryTheLastErrorAndAreEndedByDelete)
{
    WSASetLastError(WSAENOBUFS);
    try {
        tavronet::ThrowOleException();
    } catch (COleException* exception) {
        EXPECT_EQ(static_cast<DWORD>(exception->m_sc), 0x80070000U + 10055U);
        exception->Delete();
    }
}
