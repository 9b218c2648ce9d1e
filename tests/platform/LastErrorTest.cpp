#include "tavronet/platform/LastError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/SocketCalls.h"

namespace
{

TEST(LastError, SystemErrorsHaveTheCodesThatHostsCompareWith)
{
    const struct
    {
        int number;
        int code;
    } rows[] = {
        {0, 0},
        {EAGAIN, 10035},
        {EWOULDBLOCK, 10035},
        {EINPROGRESS, 10035},
        {EALREADY, 10037},
        {ENOTSOCK, 10038},
        {EBADF, 10038},
        {EDESTADDRREQ, 10039},
        {EMSGSIZE, 10040},
        {EPROTOTYPE, 10041},
        {ENOPROTOOPT, 10042},
        {EPROTONOSUPPORT, 10043},
        {ESOCKTNOSUPPORT, 10044},
        {EOPNOTSUPP, 10045},
        {EPFNOSUPPORT, 10046},
        {EAFNOSUPPORT, 10047},
        {EADDRINUSE, 10048},
        {EADDRNOTAVAIL, 10049},
        {ENETDOWN, 10050},
        {ENETUNREACH, 10051},
        {ENETRESET, 10052},
        {ECONNABORTED, 10053},
        {EPIPE, 10053},
        {ECONNRESET, 10054},
        {ENOBUFS, 10055},
        {ENOMEM, 10055},
        {EISCONN, 10056},
        {ENOTCONN, 10057},
        {ESHUTDOWN, 10058},
        {ETIMEDOUT, 10060},
        {ECONNREFUSED, 10061},
        {EHOSTDOWN, 10064},
        {EHOSTUNREACH, 10065},
        {EINTR, 10004},
        {EACCES, 10013},
        {EPERM, 10013},
        {EFAULT, 10014},
        {EINVAL, 10022},
        {EMFILE, 10024},
        {ENFILE, 10024},
        {ENOENT, 10022},
        {9999, 10022},
    };
    for (const auto& row : rows)
        EXPECT_EQ(tavronet::LastErrorFromErrno(row.number), row.code) << "errno " << row.number;
}

TEST(LastError, EachThreadHasItsOwn)
{
    WSASetLastError(WSAECONNRESET);
    int seen = -1;
    std::thread([&seen] {
        seen = WSAGetLastError();
        WSASetLastError(WSAEINTR);
    }).join();
    EXPECT_EQ(seen, 0);
    EXPECT_EQ(WSAGetLastError(), WSAECONNRESET);
}

TEST(LastError, ChangesOnFailureOnly)
{
    WSASetLastError(77);
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
    } catch (CException* exception) {
        const auto* const ole = dynamic_cast<COleException*>(exception);
        ASSERT_NE(ole, nullptr);
        EXPECT_EQ(static_cast<DWORD>(ole->m_sc), 0x80070000U + 10055U);
        exception->Delete();
    }

    CException* first = nullptr;
    for (int i = 0; i < 2; ++i) {
        try {
            tavronet::ThrowMemoryException();
        } catch (CException* exception) {
            EXPECT_NE(dynamic_cast<CMemoryException*>(exception), nullptr);
            exception->Delete();
            EXPECT_TRUE(first == nullptr || first == exception) << "one object serves every throw";
            first = exception;
        }
    }
}

} // namespace
