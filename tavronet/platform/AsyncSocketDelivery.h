#ifndef TAVRONET_PLATFORM_ASYNCSOCKETDELIVERY_H
#define TAVRONET_PLATFORM_ASYNCSOCKETDELIVERY_H

#include <cstdint>

#include "tavronet/platform/AsyncSocket.h"

namespace tavronet
{

/// What is known of a socket's present handle, kept in user space so that the system is asked rarely.
struct SocketState
{
    enum : UINT
    {
        // kind and stage
        Datagram = 1 << 0, // otherwise a stream
        IPv6 = 1 << 1,
        LookingUp = 1 << 2, // the host name of a connect is being looked up
        Connecting = 1 << 3,
        Connected = 1 << 4,
        Listening = 1 << 5,

        // what the system has
        Input = 1 << 6,   // reported ready and not read to the end since
        Unsure = 1 << 7,  // Input must be checked before it is believed
        Drained = 1 << 8, // certainly nothing waits until the next report
        Writable = 1 << 9,
        Urgent = 1 << 10, // the present urgent mark has been reported
        HungUp = 1 << 11, // the peer has closed its side, or the connection broke

        // what is owed to the owner
        ReadArmed = 1 << 12,
        ReadRequested = 1 << 13, // due whatever the system has
        WriteOwed = 1 << 14,     // due as soon as Writable
        UrgentOwed = 1 << 15,
        AcceptArmed = 1 << 16,
        ConnectOwed = 1 << 17, // the outcome is known
        CloseDone = 1 << 18,   // delivered for this connection

        Queued = 1 << 19 // its id waits in the thread's queue
    };
};

/// When readiness becomes a call: the one caller of OnReceive, OnSend and the other notifications.
class AsyncSocketDelivery
{
public:
    /// Takes down what the system reports; runs no foreign code.
    static void NoteReadiness(CAsyncSocket& socket, std::uint32_t what);

    /// Has the socket served by a later round when something may be due.
    static void Queue(CAsyncSocket& socket);

    /// Delivers what is due now, at most one notification of a kind, in the order connect, write, urgent,
    /// accept, read, close. @return whether anything was delivered.
    static bool Deliver(CAsyncSocket& socket);

    /// The connection is made: writing is owed and input is looked for.
    static void EnterConnected(CAsyncSocket& socket);

    /// The connect has ended with `error` and its notification is owed.
    static void EndConnect(CAsyncSocket& socket, int error);

private:
    class ReadScope;
    class RequeueScope;

    static LONG Possible(const CAsyncSocket& socket);
    static LONG Due(CAsyncSocket& socket);
    static bool InputWaits(CAsyncSocket& socket);
    static void NoteConnectOutcome(CAsyncSocket& socket, std::uint32_t what);
    static bool IsListener(CAsyncSocket& socket);
    static void DeliverOne(CAsyncSocket& socket, LONG kind);
};

} // namespace tavronet

#endif
