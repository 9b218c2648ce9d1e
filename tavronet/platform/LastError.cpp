#include "tavronet/platform/LastError.h"

#include <cerrno>

namespace
{

// Set and read on the path of every message: found without a call, which four bytes of a library may be.
[[gnu::tls_model("initial-exec")]] thread_local int t_LastError = 0;

} // namespace

int WSAGetLastError()
{
    return t_LastError;
}

void WSASetLastError(int error)
{
    t_LastError = error;
}

int tavronet::LastErrorFromErrno(int number)
{
    switch (number) {
    case 0: return 0;
    case EAGAIN: // the same number as EWOULDBLOCK
    case EINPROGRESS: return WSAEWOULDBLOCK;
    case EALREADY: return WSAEALREADY;
    case ENOTSOCK:
    case EBADF: return WSAENOTSOCK;
    case EDESTADDRREQ: return WSAEDESTADDRREQ;
    case EMSGSIZE: return WSAEMSGSIZE;
    case EPROTOTYPE: return WSAEPROTOTYPE;
    case ENOPROTOOPT: return WSAENOPROTOOPT;
    case EPROTONOSUPPORT: return WSAEPROTONOSUPPORT;
    case ESOCKTNOSUPPORT: return WSAESOCKTNOSUPPORT;
    case EOPNOTSUPP: return WSAEOPNOTSUPP;
    case EPFNOSUPPORT: return WSAEPFNOSUPPORT;
    case EAFNOSUPPORT: return WSAEAFNOSUPPORT;
    case EADDRINUSE: return WSAEADDRINUSE;
    case EADDRNOTAVAIL: return WSAEADDRNOTAVAIL;
    case ENETDOWN: return WSAENETDOWN;
    case ENETUNREACH: return WSAENETUNREACH;
    case ENETRESET: return WSAENETRESET;
    case ECONNABORTED:
    case EPIPE: return WSAECONNABORTED;
    case ECONNRESET: return WSAECONNRESET;
    case ENOBUFS:
    case ENOMEM: return WSAENOBUFS;
    case EISCONN: return WSAEISCONN;
    case ENOTCONN: return WSAENOTCONN;
    case ESHUTDOWN: return WSAESHUTDOWN;
    case ETIMEDOUT: return WSAETIMEDOUT;
    case ECONNREFUSED: return WSAECONNREFUSED;
    case EHOSTDOWN: return WSAEHOSTDOWN;
    case EHOSTUNREACH: return WSAEHOSTUNREACH;
    case EINTR: return WSAEINTR;
    case EACCES:
    case EPERM: return WSAEACCES;
    case EFAULT: return WSAEFAULT;
    case EMFILE:
    case ENFILE: return WSAEMFILE;
    default: return WSAEINVAL;
    }
}

void tavronet::SetLastErrorFromErrno()
{
    WSASetLastError(LastErrorFromErrno(errno));
}
