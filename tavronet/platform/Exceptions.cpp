#include "tavronet/platform/Exceptions.h"

#include <new>

#include "tavronet/platform/LastError.h"

namespace
{

// Never destroyed: a host's static object may run out of memory after our own statics are gone.
union Immortal
{
    constexpr Immortal() : exception() {}
    ~Immortal() {}

    CMemoryException exception;
};

constinit Immortal g_MemoryException;

LONG ResultCode(int error)
{
    return error == 0 ? 0 : static_cast<LONG>(0x80070000U | (static_cast<DWORD>(error) & 0xFFFFU));
}

} // namespace

CException::~CException() = default;

void CException::Delete()
{
    delete this;
}

CMemoryException::~CMemoryException() = default;

void CMemoryException::Delete() {}

COleException::COleException(int error) : m_sc(ResultCode(error)) {}

COleException::~COleException() = default;

void tavronet::ThrowMemoryException()
{
    throw &g_MemoryException.exception;
}

void tavronet::ThrowOleException()
{
    COleException* const exception = new (std::nothrow) COleException(WSAGetLastError());
    if (exception == nullptr)
        ThrowMemoryException();
    throw exception;
}
