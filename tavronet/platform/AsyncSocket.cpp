// The calls an owner makes on a socket. They never lead into a notification: they do the system call, take
// down what it tells about the socket's state, and leave the rest to AsyncSocketDelivery.
//
// What a read or a write tells saves the next system call: a read that took all that was announced has
// drained the socket, a send that was taken in part has filled it, and both stay so until the system reports
// again.

#include "tavronet/platform/AsyncSocket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <new>

#include "tavronet/platform/AsyncSocketDelivery.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/MessageQueueObject.h"
#include "tavronet/platform/NameLookup.h"
#include "tavronet/platform/SocketCalls.h"
#include "tavronet/platform/TestSeams.h"
#include "tavronet/platform/TextConversion.h"

using tavronet::AsyncSocketDelivery;
using tavronet::FaultPoint;
using State = tavronet::SocketState;

namespace
{

constexpr UINT kMaxPort = 65535;

BOOL Fail(int error)
{
    WSASetLastError(error);
    return 0;
}

bool IsWildcard(const sockaddr_storage& address)
{
    if (address.ss_family == AF_INET)
        return reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr == INADDR_ANY;
    return address.ss_family == AF_INET6 &&
           IN6_IS_ADDR_UNSPECIFIED(&reinterpret_cast<const sockaddr_in6&>(address).sin6_addr);
}

int SocketOption(int descriptor, int option)
{
    int value = 0;
    socklen_t length = sizeof value;
    return getsockopt(descriptor, SOL_SOCKET, option, &value, &length) == 0 ? value : -1;
}

// The kind and stage of a socket that somebody else made; 0 with errno when the descriptor is no such socket.
bool Examine(int descriptor, UINT& state)
{
    const int type = SocketOption(descriptor, SO_TYPE);
    if (type != SOCK_STREAM && type != SOCK_DGRAM)
        return false;

    state = SocketOption(descriptor, SO_DOMAIN) == AF_INET6 ? UINT{State::IPv6} : 0;
    if (type == SOCK_DGRAM)
        state |= State::Datagram;
    else if (SocketOption(descriptor, SO_ACCEPTCONN) > 0)
        state |= State::Listening;
    else {
        sockaddr_storage peer{};
        socklen_t peerLength = sizeof peer;
        tcp_info info{};
        socklen_t infoLength = sizeof info;
        if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &peerLength) == 0)
            state |= State::Connected;
        else if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &infoLength) == 0 &&
                 info.tcpi_state == TCP_SYN_SENT)
            state |= State::Connecting;
    }
    return true;
}

} // namespace

CAsyncSocket::CAsyncSocket() = default;

CAsyncSocket::~CAsyncSocket()
{
    CAsyncSocket::Close();
}

// --- Getting and giving up a handle

BOOL CAsyncSocket::Socket(int type, LONG events, int protocol, int family)
{
    if (m_hSocket != INVALID_SOCKET)
        return Fail(WSAEINVAL);

    const int descriptor = socket(family, type | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol);
    if (descriptor < 0) {
        tavronet::SetLastErrorFromErrno();
        return 0;
    }
    const int on = 1;
    if (family == AF_INET6)
        setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    if (type == SOCK_STREAM)
        setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);

    UINT state = family == AF_INET6 ? UINT{State::IPv6} : 0;
    if (type == SOCK_DGRAM)
        state |= State::Datagram;
    if (AdoptHandle(descriptor, events, state))
        return 1;
    close(descriptor);
    return 0;
}

BOOL CAsyncSocket::Attach(SOCKET handle, LONG events)
{
    if (m_hSocket != INVALID_SOCKET)
        return Fail(WSAEINVAL);

    const int descriptor = static_cast<int>(handle);
    UINT state = 0;
    if (handle > INT_MAX || !Examine(descriptor, state))
        return Fail(WSAENOTSOCK);

    const int flags = fcntl(descriptor, F_GETFL);
    if (flags < 0 || fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) != 0) {
        tavronet::SetLastErrorFromErrno();
        return 0;
    }
    return AdoptHandle(descriptor, events, state);
}

// Takes a non-blocking descriptor in. @return 0 with the last error, the descriptor then stays the caller's.
BOOL CAsyncSocket::AdoptHandle(int descriptor, LONG events, UINT state)
{
    ThreadQueue queue;
    std::uint64_t id = 0;
    try {
        queue = CurrentThreadQueue();
        id = queue->Register(*this, descriptor);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    if (id == 0) {
        tavronet::SetLastErrorFromErrno();
        return 0;
    }
    tavronet::g_LivingSockets.fetch_add(1, std::memory_order_relaxed);
    m_hSocket = static_cast<SOCKET>(descriptor);
    m_Id = id;
    m_pQueue = std::move(queue);
    m_State = state;
    m_Events = static_cast<std::uint8_t>(events & FD_ALL);
    m_Announced = 0;
    m_Error = 0;

    if (state & (State::Connected | State::Datagram))
        m_State |= State::Writable | State::WriteOwed | State::ReadArmed;
    if (state & State::Listening)
        m_State |= State::AcceptArmed;
    AsyncSocketDelivery::Queue(*this);
    return 1;
}

SOCKET CAsyncSocket::Detach()
{
    return ReleaseHandle(true);
}

void CAsyncSocket::Close()
{
    const SOCKET handle = ReleaseHandle(false);
    if (handle != INVALID_SOCKET)
        close(static_cast<int>(handle));
}

// Forgets the handle and everything due; a new handle starts afresh under a new id.
SOCKET CAsyncSocket::ReleaseHandle(bool stayingOpen)
{
    const SOCKET handle = m_hSocket;
    if (m_State & State::LookingUp)
        tavronet::NameLookup::Abandon(*this);
    if (m_Id != 0) {
        m_pQueue->Unregister(m_Id, stayingOpen ? static_cast<int>(handle) : -1);
        tavronet::g_LivingSockets.fetch_sub(1, std::memory_order_relaxed);
    }
    m_hSocket = INVALID_SOCKET;
    m_Id = 0;
    m_State = 0;
    m_pQueue.reset();
    return handle;
}

BOOL CAsyncSocket::Accept(CAsyncSocket& other, sockaddr* address, int* addressLength)
{
    if (m_hSocket == INVALID_SOCKET)
        return Fail(WSAENOTSOCK);
    if (other.m_hSocket != INVALID_SOCKET)
        return Fail(WSAEINVAL);

    socklen_t length = addressLength != nullptr ? static_cast<socklen_t>(*addressLength) : 0;
    const int descriptor =
        accept4(static_cast<int>(m_hSocket), address, addressLength != nullptr ? &length : nullptr,
                SOCK_NONBLOCK | SOCK_CLOEXEC);
    const int error = errno;
    m_State |= State::AcceptArmed;
    // Out of descriptors or memory, a waiting connection would be reported for ever: wait for the next one
    // instead.
    const bool tryAgainAtOnce = descriptor >= 0 || error == ECONNABORTED || error == EINTR;
    m_State = tryAgainAtOnce ? m_State | State::Unsure : m_State & ~UINT{State::Input};
    AsyncSocketDelivery::Queue(*this);
    if (descriptor < 0)
        return Fail(tavronet::LastErrorFromErrno(error));

    if (addressLength != nullptr)
        *addressLength = static_cast<int>(length);
    if (other.AdoptHandle(descriptor, m_Events, (m_State & State::IPv6) | State::Connected))
        return 1;
    close(descriptor);
    return 0;
}

BOOL CAsyncSocket::AsyncSelect(LONG events)
{
    if (m_hSocket == INVALID_SOCKET)
        return Fail(WSAENOTSOCK);

    m_Events = static_cast<std::uint8_t>(events & FD_ALL);
    if (!(events & FD_CONNECT))
        m_State &= ~UINT{State::ConnectOwed};
    m_State &= ~UINT{State::Drained}; // somebody may have read past this class
    m_Announced = 0;
    m_State |= State::ReadArmed | State::AcceptArmed;
    if (m_State & State::Listening)
        m_State |= State::Input; // an Accept that failed for want of descriptors has given up on it
    if (m_State & State::Input)
        m_State |= State::Unsure;
    if (m_State & (State::Connected | State::Datagram))
        m_State |= State::WriteOwed;
    AsyncSocketDelivery::Queue(*this);
    return 1;
}

bool CAsyncSocket::IsDrained() const
{
    return m_Events == FD_ALL && (m_State & State::Drained) != 0;
}

void CAsyncSocket::RequestRead()
{
    if (m_hSocket == INVALID_SOCKET)
        return;
    m_State |= State::ReadRequested;
    AsyncSocketDelivery::Queue(*this);
}

void CAsyncSocket::RequestWrite()
{
    if (m_hSocket == INVALID_SOCKET)
        return;
    pollfd room{static_cast<int>(m_hSocket), POLLOUT, 0};
    const bool writable =
        poll(&room, 1, 0) == 1; // it may take data again already, and reports that only once
    m_State = (m_State & ~UINT{State::Writable}) | State::WriteOwed | (writable ? UINT{State::Writable} : 0);
    AsyncSocketDelivery::Queue(*this);
}

// --- Connecting

BOOL CAsyncSocket::Connect(const wchar_t* host, UINT port)
{
    if (m_hSocket == INVALID_SOCKET)
        return Fail(WSAENOTSOCK);
    if (host == nullptr || *host == L'\0' || port > kMaxPort)
        return Fail(WSAEINVAL);

    const tavronet::NarrowText text(host);
    sockaddr_storage address{};
    int addressLength = 0;
    if (tavronet::NumericAddress(text, port, address, addressLength))
        return ConnectHelper(&address, addressLength);

    if (m_State & (State::Connecting | State::LookingUp))
        return Fail(WSAEALREADY);
    if ((m_State & State::Connected) && !(m_State & State::Datagram))
        return Fail(WSAEISCONN);
    if (!tavronet::NameLookup::Start(*this, text, port))
        return Fail(WSAENOBUFS);
    m_State |= State::LookingUp;
    return Fail(WSAEWOULDBLOCK);
}

BOOL CAsyncSocket::ConnectHelper(const sockaddr_storage* address, int addressLength)
{
    if (m_hSocket == INVALID_SOCKET)
        return Fail(WSAENOTSOCK);
    if (address->ss_family != (m_State & State::IPv6 ? AF_INET6 : AF_INET))
        return Fail(WSAEAFNOSUPPORT);
    if (IsWildcard(*address)) // the system would connect to the machine itself
        return Fail(WSAEADDRNOTAVAIL);
    if (m_State & (State::Connecting | State::LookingUp | State::ConnectOwed))
        return Fail(WSAEALREADY);
    return ConnectTo(*address, addressLength);
}

BOOL CAsyncSocket::ConnectTo(const sockaddr_storage& address, int addressLength)
{
    const int descriptor = static_cast<int>(m_hSocket);
    const auto start = [&] {
        return connect(descriptor, reinterpret_cast<const sockaddr*>(&address),
                       static_cast<socklen_t>(addressLength));
    };
    int result = start();
    if (result != 0 && errno == ECONNABORTED) // the system's answer to the first attempt after a failed one
        result = start();
    if (m_State & State::Datagram)
        return result == 0 ? 1 : Fail(tavronet::LastErrorFromErrno(errno));
    if (result != 0 && errno != EINPROGRESS)
        return Fail(tavronet::LastErrorFromErrno(errno));

    m_State = (m_State & State::IPv6) | (m_State & State::Queued) | State::Connecting;
    m_Announced = 0;
    m_Error = 0;
    return Fail(WSAEWOULDBLOCK); // also when it is made already: the outcome always comes as a notification
}

// --- Sending and receiving

// Takes down a failed transfer. @return SOCKET_ERROR, with the last error set.
int CAsyncSocket::FailedTransfer(int systemError)
{
    int error = tavronet::LastErrorFromErrno(systemError);
    if (error == WSAECONNABORTED && m_Error != 0)
        error = m_Error; // the system only knows that the pipe is broken
    const bool broken = error == WSAECONNRESET || error == WSAETIMEDOUT; // and the system tells it this once
    if (broken && !(m_State & State::Datagram)) {
        if (m_Error == 0)
            m_Error = error;
        m_State = (m_State | State::HungUp | State::Unsure) & ~UINT{State::Drained};
        AsyncSocketDelivery::Queue(*this);
    }
    WSASetLastError(error);
    return SOCKET_ERROR;
}

int CAsyncSocket::Receive(void* buffer, int length, int flags)
{
    if (m_hSocket == INVALID_SOCKET || length < 0) {
        WSASetLastError(length < 0 ? WSAEINVAL : WSAENOTSOCK);
        return SOCKET_ERROR;
    }
    if (length == 0)
        return 0;
    if (tavronet::FaultInjected(FaultPoint::Receive, m_hSocket))
        return SOCKET_ERROR;

    int result = 0;
    if ((m_State & State::Drained) && !(flags & MSG_OOB)) {
        WSASetLastError(WSAEWOULDBLOCK);
        result = SOCKET_ERROR;
    } else {
        result = static_cast<int>(
            recv(static_cast<int>(m_hSocket), buffer, static_cast<std::size_t>(length), flags));
        NoteReceived(result, length, flags);
        if (result < 0)
            FailedTransfer(errno);
        else if (result == 0 && m_Error != 0 && !(m_State & State::Datagram))
            result = FailedTransfer(ECONNRESET); // the system has told the error already
    }
    if (!(m_State & State::CloseDone))
        m_State |= State::ReadArmed;
    AsyncSocketDelivery::Queue(*this);
    return result;
}

// What the result of a receive tells about the input left behind.
void CAsyncSocket::NoteReceived(int result, int length, int flags)
{
    if (flags & MSG_OOB)
        return;
    const bool nothingLeft = result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    if (m_State & State::Datagram) {
        m_State = nothingLeft ? m_State & ~UINT{State::Input} : m_State | State::Input | State::Unsure;
        return;
    }
    if (result > 0 && (flags & MSG_PEEK))
        return;

    bool drained = result <= 0 || result < length;
    if (result > 0 && m_Announced != 0) {
        const UINT taken = static_cast<UINT>(result);
        drained = taken >= m_Announced;
        m_Announced = drained ? 0 : m_Announced - taken;
    }
    if (result == 0)
        m_State |= State::HungUp;
    SetDrained(drained &&
               !(result > 0 && (m_State & State::Urgent))); // a receive stops in front of urgent data
}

void CAsyncSocket::SetDrained(bool drained)
{
    if (!drained)
        m_State |= State::Input | State::Unsure;
    else
        // A stream that has ended is asked again: its end is an answer of its own.
        m_State = (m_State & ~UINT{State::Input | State::Unsure}) |
                  (m_State & State::HungUp ? 0 : UINT{State::Drained});
}

void CAsyncSocket::NoteDrained()
{
    if (m_hSocket == INVALID_SOCKET)
        return;
    m_Announced = 0;
    SetDrained(!(m_State & State::Urgent)); // a receive stops in front of urgent data
    m_State |= State::ReadArmed;
    AsyncSocketDelivery::Queue(*this);
}

bool CAsyncSocket::WaitingBytes(UINT& count)
{
    if (m_State & State::Drained) {
        count = 0;
        return true;
    }
    int waiting = 0;
    if (m_hSocket == INVALID_SOCKET || ioctl(static_cast<int>(m_hSocket), FIONREAD, &waiting) != 0) {
        WSASetLastError(m_hSocket == INVALID_SOCKET ? WSAENOTSOCK : tavronet::LastErrorFromErrno(errno));
        return false;
    }
    if (waiting == 0 && (m_State & State::Urgent)) {
        WSASetLastError(WSAEOPNOTSUPP); // in front of urgent data the system does not tell
        return false;
    }
    count = static_cast<UINT>(waiting);
    if ((m_State & State::Connected) && !(m_State & State::Datagram)) {
        m_Announced = count;
        if (count == 0 && !(m_State & State::HungUp))
            m_State = (m_State & ~UINT{State::Input | State::Unsure}) | State::Drained;
    }
    return true;
}

int CAsyncSocket::Send(const void* data, int length, int flags)
{
    if (m_hSocket == INVALID_SOCKET || length < 0) {
        WSASetLastError(length < 0 ? WSAEINVAL : WSAENOTSOCK);
        return SOCKET_ERROR;
    }
    if (length == 0)
        return 0;
    if (tavronet::FaultInjected(FaultPoint::Send, m_hSocket)) {
        m_State |= State::WriteOwed;
        AsyncSocketDelivery::Queue(*this);
        return SOCKET_ERROR;
    }

    const bool full = (m_State & State::Connected) && !(m_State & State::Writable);
    errno = EAGAIN;
    const int sent = full ? SOCKET_ERROR
                          : static_cast<int>(send(static_cast<int>(m_hSocket), data,
                                                  static_cast<std::size_t>(length), flags | MSG_NOSIGNAL));
    if (sent >= 0) {
        if (sent < length)
            m_State &= ~UINT{State::Writable}; // the system reports when it takes data again
        return sent;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK)
        m_State = (m_State & ~UINT{State::Writable}) | State::WriteOwed;
    return FailedTransfer(errno);
}

int CAsyncSocket::ReceiveFromHelper(void* buffer, int length, sockaddr_storage* address, int* addressLength,
                                    int flags)
{
    if (m_hSocket == INVALID_SOCKET || length < 0) {
        WSASetLastError(length < 0 ? WSAEINVAL : WSAENOTSOCK);
        return SOCKET_ERROR;
    }
    if (tavronet::FaultInjected(FaultPoint::Receive, m_hSocket))
        return SOCKET_ERROR;

    socklen_t size = addressLength != nullptr ? static_cast<socklen_t>(*addressLength) : 0;
    const auto result =
        static_cast<int>(recvfrom(static_cast<int>(m_hSocket), buffer, static_cast<std::size_t>(length),
                                  flags, reinterpret_cast<sockaddr*>(address), &size));
    NoteReceived(result, length, flags);
    if (result < 0)
        FailedTransfer(errno);
    else if (addressLength != nullptr)
        *addressLength = static_cast<int>(size);
    if (!(m_State & State::CloseDone))
        m_State |= State::ReadArmed;
    AsyncSocketDelivery::Queue(*this);
    return result;
}

int CAsyncSocket::SendToHelper(const void* data, int length, const sockaddr_storage* address,
                               int addressLength, int flags)
{
    if (m_hSocket == INVALID_SOCKET || length < 0) {
        WSASetLastError(length < 0 ? WSAEINVAL : WSAENOTSOCK);
        return SOCKET_ERROR;
    }
    if (tavronet::FaultInjected(FaultPoint::SendTo, m_hSocket))
        return SOCKET_ERROR;

    const auto result =
        sendto(static_cast<int>(m_hSocket), data, static_cast<std::size_t>(length), flags | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(address), static_cast<socklen_t>(addressLength));
    if (result >= 0)
        return static_cast<int>(result);
    if (errno == EAGAIN || errno == EWOULDBLOCK)
        m_State = (m_State & ~UINT{State::Writable}) | State::WriteOwed;
    return FailedTransfer(errno);
}

// --- Notifications do nothing unless overridden

void CAsyncSocket::OnReceive(int) {}
void CAsyncSocket::OnSend(int) {}
void CAsyncSocket::OnOutOfBandData(int) {}
void CAsyncSocket::OnAccept(int) {}
void CAsyncSocket::OnConnect(int) {}
void CAsyncSocket::OnClose(int) {}
