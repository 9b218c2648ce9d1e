#ifndef TAVRONET_PLATFORM_ASYNCSOCKET_H
#define TAVRONET_PLATFORM_ASYNCSOCKET_H

#include <cstdint>

#include "tavronet/platform/Lifetime.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/Types.h"

struct sockaddr_storage;
struct sockaddr;

namespace tavronet
{
class AsyncSocketDelivery;
class NameLookup;
} // namespace tavronet

/// The notifications that AsyncSelect selects.
inline constexpr LONG FD_READ = 1;
inline constexpr LONG FD_WRITE = 2;
inline constexpr LONG FD_OOB = 4;
inline constexpr LONG FD_ACCEPT = 8;
inline constexpr LONG FD_CONNECT = 16;
inline constexpr LONG FD_CLOSE = 32;
inline constexpr LONG FD_ALL = 63;

/// A non-blocking socket whose events arrive as calls on the thread that gave it its handle.
///
/// Thread: every call and every notification on that thread.
/// Notifications: delivered only by dispatch (MessageQueue.h), never from inside one of the calls below.
/// A notification may destroy, close and re-create this or any other socket, dispatch again, and throw.
/// Results: non-zero for success, 0 or -1 with WSAGetLastError() for failure; success leaves the last error.
class TAVRONET_API CAsyncSocket : public tavronet::Lifetime
{
public:
    CAsyncSocket();

    /// Closes the handle without calling an override of Close; nothing is delivered afterwards. May run
    /// inside any of the object's own notifications.
    virtual ~CAsyncSocket();

    /// Creates the handle and selects `events`. IPv6 sockets are IPv6-only; stream sockets may reuse an
    /// address that lingers.
    /// @param type 1 stream, 2 datagram.  @param family AF_INET or AF_INET6.
    /// @return 0 with 10022 when there already is a handle, which is kept.
    BOOL Socket(int type, LONG events, int protocol, int family);

    /// Takes ownership of an existing system socket; finds out its kind and state.
    /// @return 0 when that fails; the handle then stays the caller's.
    BOOL Attach(SOCKET handle, LONG events);

    /// Gives the handle back to the caller, who closes it. Nothing due is delivered.
    SOCKET Detach();

    /// Takes one waiting connection into `other`, which must have no handle, with this socket's selection.
    /// Makes FD_ACCEPT available again whatever the result; -1 is never returned.
    /// @param address null, or filled with the peer's address; `addressLength` then holds its size.
    /// @return 0 with 10035 when no connection waits.
    virtual BOOL Accept(CAsyncSocket& other, sockaddr* address = nullptr, int* addressLength = nullptr);

    /// Closes the handle and forgets everything due; harmless without a handle. Keeps the last error.
    virtual void Close();

    /// Replaces the selection. What is selected and holds now becomes due again (a waiting end of the stream
    /// is no FD_READ); the rest is due no more. Costs no system call.
    BOOL AsyncSelect(LONG events = FD_ALL);

    /// Makes FD_READ due in the next round although the system may have no input: for owners that hold back
    /// input of their own. Ignored without a handle.
    void RequestRead();

    /// Makes FD_WRITE due when the system takes data again: for owners that let somebody else write to the
    /// handle, who has met a would-block. To be called right after it.
    void RequestWrite();

    /// Connects to numeric address text, or looks the text up as an IPv4 host name without blocking.
    /// @return 0 with 10035 when under way, the outcome then arrives as FD_CONNECT; a stream never completes
    ///         inside the call. Any other last error: failed, and no FD_CONNECT follows.
    BOOL Connect(const wchar_t* host, UINT port);

    /// One receive. @return bytes; 0 when the peer has closed (or length is 0); -1, 10035 when nothing is
    /// there. Makes FD_READ available again whatever the result.
    virtual int Receive(void* buffer, int length, int flags = 0);

    /// One send; never raises a signal.
    /// @return bytes taken, possibly fewer than `length`; -1, 10035 when the system takes none now: FD_WRITE
    ///         follows when it does again.
    virtual int Send(const void* data, int length, int flags = 0);

    /// The system socket, INVALID_SOCKET when there is none. Raw calls on it (options, bind, listen, names)
    /// are fine at any time.
    SOCKET m_hSocket = INVALID_SOCKET;

protected:
    /// Input may wait, or an end of the stream behind bytes not read. Called once until Receive,
    /// ReceiveFromHelper or AsyncSelect makes it available again.
    virtual void OnReceive(int error);
    /// The socket takes data: after connecting, after creation (datagram), and after every would-block.
    virtual void OnSend(int error);
    virtual void OnOutOfBandData(int error);
    virtual void OnAccept(int error);
    /// The outcome of a connect: 0 or the socket error.
    virtual void OnConnect(int error);
    /// Once per connection: the peer has closed its side (0) or the connection broke (the socket error).
    /// Input that arrived before comes first. The handle stays open.
    virtual void OnClose(int error);

    /// Connects to an address record; the last step of Connect. For datagrams it sets the default peer and
    /// succeeds at once.
    virtual BOOL ConnectHelper(const sockaddr_storage* address, int addressLength);
    /// One datagram and its sender. @return bytes; -1 with the last error. Makes FD_READ available again.
    virtual int ReceiveFromHelper(void* buffer, int length, sockaddr_storage* address, int* addressLength,
                                  int flags);
    /// One datagram to `address`. @return bytes; -1 with the last error.
    virtual int SendToHelper(const void* data, int length, const sockaddr_storage* address, int addressLength,
                             int flags);

    /// Tells how many bytes wait (stream) or how long the first datagram is. Costs no system call while the
    /// socket is known to be drained.
    /// @return false with the last error when the system cannot tell; `count` is then unchanged.
    bool WaitingBytes(UINT& count);

    /// Whether everything is selected and the input has been read to its end, so that AsyncSelect would only tell
    /// once more that the socket takes data. Costs no system call.
    bool IsDrained() const;

    /// For owners that let somebody else read from the handle, who has just found that the system has no more:
    /// as if a receive had found it. Costs no system call.
    void NoteDrained();

    /// Names the present handle: never 0, never used twice on a thread, 0 without a handle. A hook that
    /// closed and re-created the socket has changed it.
    std::uint64_t HandleId() const { return m_Id; }

private:
    friend class tavronet::AsyncSocketDelivery;
    friend class tavronet::NameLookup;

    BOOL AdoptHandle(int descriptor, LONG events, UINT state);
    BOOL ConnectTo(const sockaddr_storage& address, int addressLength);
    void LookUpAndConnect(const char* host, UINT port);
    void NoteReceived(int result, int length, int flags);
    void SetDrained(bool drained);
    SOCKET ReleaseHandle(bool stayingOpen);
    int FailedTransfer(int systemError);

    std::uint64_t m_Id = 0;       // the queue's name for the present handle
    ThreadQueue m_pQueue;         // shared, so that a socket may outlive its thread
    UINT m_State = 0;             // bits of AsyncSocketDelivery.h
    UINT m_Announced = 0;         // bytes the system has announced and nobody has read since
    int m_Error = 0;              // the connection's first error, which the system tells only once
    std::uint8_t m_Events = 0;    // selected notifications
    std::uint8_t m_ReadDepth = 0; // FD_READ and FD_CLOSE notifications on the stack
};

#endif
