// Which notification is due when.
//
// The system reports edges, once each. A report sets bits (NoteReadiness), calls of the owner set and clear
// others (AsyncSocket.cpp), and Possible says what the bits add up to. Input that is only assumed - the
// report may have meant the end of the stream, or somebody may have read past this class - is checked with
// one system call before OnReceive is called for it, never otherwise.

#include "tavronet/platform/AsyncSocketDelivery.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "tavronet/platform/LastError.h"
#include "tavronet/platform/MessageQueueObject.h"

namespace tavronet
{
namespace
{

using State = SocketState;

constexpr int kMaxDatagramDepth = 8; // datagrams beyond wait in the system
constexpr LONG kInOrder[] = {FD_CONNECT, FD_WRITE, FD_OOB, FD_ACCEPT, FD_READ, FD_CLOSE};

int DescriptorOf(const CAsyncSocket& socket)
{
    return static_cast<int>(socket.m_hSocket);
}

int TakePendingError(int descriptor)
{
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
        error = errno;
    return LastErrorFromErrno(error);
}

} // namespace

// --- What the system reports

void AsyncSocketDelivery::NoteReadiness(CAsyncSocket& socket, std::uint32_t what)
{
    UINT& state = socket.m_State;
    if (state & State::Connecting) {
        NoteConnectOutcome(socket, what);
        if (!(state & State::Connected))
            return Queue(socket);
    }

    const bool established = (state & (State::Connected | State::Datagram)) != 0;
    if (!established && !IsListener(socket))
        return; // created and nothing more: reported as hung up and writable

    if (what & Readiness::Output)
        state |= State::Writable;
    if (what & Readiness::Input) {
        state = (state | State::Input) & ~UINT{State::Drained};
        socket.m_Announced = 0; // more has come since
        if (what & Readiness::HungUp)
            state |= State::Unsure; // perhaps only the end of the stream
    }
    if (!(what & Readiness::Urgent))
        state &= ~UINT{State::Urgent};
    else if (!(state & State::Urgent))
        state |= State::Urgent | State::UrgentOwed;

    if (what & Readiness::HungUp) {
        if (state & State::Datagram)
            state |= State::Input | State::Unsure; // an error to be read
        else
            state |= State::HungUp;
        state &= ~UINT{State::Drained};
    }
    if ((what & Readiness::Failed) && !(state & State::Datagram) && socket.m_Error == 0)
        socket.m_Error = TakePendingError(DescriptorOf(socket));
    Queue(socket);
}

void AsyncSocketDelivery::NoteConnectOutcome(CAsyncSocket& socket, std::uint32_t what)
{
    if (what & (Readiness::Output | Readiness::HungUp | Readiness::Failed))
        EndConnect(socket, TakePendingError(DescriptorOf(socket)));
}

void AsyncSocketDelivery::EndConnect(CAsyncSocket& socket, int error)
{
    socket.m_State &= ~UINT{State::Connecting | State::LookingUp};
    if (error == 0)
        EnterConnected(socket);
    socket.m_Error = error;
    if (socket.m_Events & FD_CONNECT)
        socket.m_State |= State::ConnectOwed;
    Queue(socket);
}

void AsyncSocketDelivery::EnterConnected(CAsyncSocket& socket)
{
    socket.m_State |= State::Connected | State::Writable | State::WriteOwed | State::ReadArmed;
}

bool AsyncSocketDelivery::IsListener(CAsyncSocket& socket)
{
    if (socket.m_State & State::Listening)
        return true;

    int listening = 0;
    socklen_t length = sizeof listening;
    getsockopt(DescriptorOf(socket), SOL_SOCKET, SO_ACCEPTCONN, &listening, &length);
    if (listening != 0)
        socket.m_State |= State::Listening | State::AcceptArmed;
    return listening != 0;
}

// --- What is due

LONG AsyncSocketDelivery::Possible(const CAsyncSocket& socket)
{
    const UINT state = socket.m_State;
    const auto all = [state](UINT bits) { return (state & bits) == bits; };

    if (state & State::ConnectOwed)
        return FD_CONNECT; // whatever else holds comes after it
    if (all(State::Listening | State::AcceptArmed | State::Input))
        return FD_ACCEPT & socket.m_Events;
    if (!(state & (State::Connected | State::Datagram)))
        return 0;

    LONG due = 0;
    if (all(State::WriteOwed | State::Writable))
        due |= FD_WRITE;
    if (state & State::UrgentOwed)
        due |= FD_OOB;

    const bool wantsRead = all(State::ReadArmed | State::Input) || (state & State::ReadRequested);
    const int maxDepth = state & State::Datagram ? kMaxDatagramDepth : 1;
    if (wantsRead)
        due |= FD_READ;
    if ((state & State::HungUp) && !(state & State::CloseDone) && !(due & FD_READ & socket.m_Events))
        due |= FD_CLOSE;
    if (socket.m_ReadDepth >= maxDepth)
        due &= ~(FD_READ | FD_CLOSE);
    return due & socket.m_Events;
}

// As Possible, with assumed input checked.
LONG AsyncSocketDelivery::Due(CAsyncSocket& socket)
{
    const LONG possible = Possible(socket);
    const bool assumed = (possible & (FD_READ | FD_ACCEPT)) && (socket.m_State & State::Unsure) &&
                         !(socket.m_State & State::ReadRequested);
    return assumed && !InputWaits(socket) ? Possible(socket) : possible;
}

// Settles Unsure: the end of the stream alone is no input.
bool AsyncSocketDelivery::InputWaits(CAsyncSocket& socket)
{
    bool waits = false;
    // In front of urgent data the system announces nothing, although bytes may wait behind it.
    if (socket.m_State & (State::Datagram | State::Listening | State::Urgent)) {
        pollfd poll{DescriptorOf(socket), POLLIN, 0};
        waits = ::poll(&poll, 1, 0) == 1;
    } else {
        int count = 0;
        waits = ioctl(DescriptorOf(socket), FIONREAD, &count) == 0 && count > 0;
    }
    socket.m_State &= ~UINT{State::Unsure};
    if (!waits)
        socket.m_State &= ~UINT{State::Input};
    return waits;
}

void AsyncSocketDelivery::Queue(CAsyncSocket& socket)
{
    if ((socket.m_State & State::Queued) || Possible(socket) == 0)
        return;
    socket.m_State |= State::Queued;
    socket.m_pQueue->PushDue(socket.m_Id);
}

// --- Delivering

// Counts a read or close notification on the stack, also when it throws; its end makes held-back ones due.
class AsyncSocketDelivery::ReadScope
{
public:
    explicit ReadScope(CAsyncSocket& socket) : m_Socket(socket), m_Guard(socket) { ++socket.m_ReadDepth; }
    ~ReadScope()
    {
        if (m_Guard.Alive())
            --m_Socket.m_ReadDepth;
    }
    ReadScope(const ReadScope&) = delete;
    ReadScope& operator=(const ReadScope&) = delete;

private:
    CAsyncSocket& m_Socket;
    LifetimeGuard m_Guard;
};

// Has what is left served by the next round, also when a notification throws.
class AsyncSocketDelivery::RequeueScope
{
public:
    explicit RequeueScope(CAsyncSocket& socket) : m_Socket(socket), m_Guard(socket) {}
    ~RequeueScope()
    {
        if (m_Guard.Alive() && m_Socket.m_Id != 0)
            Queue(m_Socket);
    }
    RequeueScope(const RequeueScope&) = delete;
    RequeueScope& operator=(const RequeueScope&) = delete;

    bool Alive() const { return m_Guard.Alive(); }

private:
    CAsyncSocket& m_Socket;
    LifetimeGuard m_Guard;
};

bool AsyncSocketDelivery::Deliver(CAsyncSocket& socket)
{
    socket.m_State &= ~UINT{State::Queued};
    const LONG due = Due(socket); // what becomes due from here on is left for the next round
    if (due == 0)
        return false;

    const std::uint64_t id = socket.m_Id;
    const RequeueScope scope(socket);
    for (const LONG kind : kInOrder) {
        if (!(due & kind & Possible(socket))) // an earlier notification may have served it
            continue;
        DeliverOne(socket, kind);
        if (!scope.Alive() || socket.m_Id != id)
            break;
    }
    return true;
}

void AsyncSocketDelivery::DeliverOne(CAsyncSocket& socket, LONG kind)
{
    UINT& state = socket.m_State;
    switch (kind) {
    case FD_CONNECT:
        state &= ~UINT{State::ConnectOwed};
        return socket.OnConnect(state & State::Connected ? 0 : socket.m_Error);
    case FD_WRITE:
        state &= ~UINT{State::WriteOwed};
        state |= State::ReadArmed; // an owner that reads only while it may write looks again now
        if (state & State::Input)
            state |= State::Unsure;
        return socket.OnSend(0);
    case FD_OOB: state &= ~UINT{State::UrgentOwed}; return socket.OnOutOfBandData(0);
    case FD_ACCEPT: state &= ~UINT{State::AcceptArmed}; return socket.OnAccept(0);
    case FD_READ: {
        state &= ~UINT{State::ReadArmed | State::ReadRequested};
        if (state & State::Input)
            state |= State::Unsure; // the owner may read past this class
        const ReadScope scope(socket);
        return socket.OnReceive(0);
    }
    case FD_CLOSE: {
        state = (state | State::CloseDone) & ~UINT{State::ReadArmed};
        const ReadScope scope(socket);
        return socket.OnClose(socket.m_Error);
    }
    }
}

} // namespace tavronet
