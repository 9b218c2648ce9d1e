// The receive pipeline and the datagrams.
//
// The road of a read notification, and what it costs:
//
//   OnReceive -> OkayToReceive, OnReceivePreRead
//     nothing held, and ReceiveData needs no peek:
//     -> read unasked                  one receive into the thread's spare array, which most messages fit;
//                                      no system call when the socket is known to be drained
//     otherwise, and while input comes in bulk:
//     -> peek: how much waits          FIONREAD; no system call when drained, as above
//     -> room behind the held bytes    the spare array, or one of the exact size; it doubles while a
//                                      consumer holds bytes back
//     -> read                          one receive
//     in both cases:
//     -> OnReceivePreProcessResponse   may transform what arrived
//     -> ProcessReceiveBuffer          ProcessReceive consumes; the rest stays in the array when it fills it
//                                      tolerably, otherwise it moves to a smaller one and the array is the
//                                      thread's spare one again
//     -> OkayToReceive                 closed: a missed receive; open: the next pass, which usually finds the
//                                      socket drained and ends the notification
//
// During a pass the bytes are held by its frame (Reading) and not by the socket: a hook that calls back in
// finds no half-built buffer, and a hook that deletes the socket leaves the frame whole.

#include "tavronet/socket/TavroSocket.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>

#include "tavronet/net/AddressText.h"
#include "tavronet/platform/ByteArray.h"
#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/SocketCalls.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/socket/SpareBuffer.h"
#include "tavronet/socket/VirtualEntry.h"

namespace
{

/// After so many passes of one notification the other sockets of the thread get their turn.
constexpr int kMaxReadPasses = 32;

/// A peek buffer up to this size stands on the stack; it holds nothing that anybody reads.
constexpr UINT kStackPeekBytes = 10240;

/// An array that is larger than twice its bytes and this is not kept for them.
constexpr int kTolerableWaste = 256;

/// Whether a consumer left a part of what it was offered. No pointers are compared that may be unrelated.
bool LiesWithin(const unsigned char* rest, int left, const unsigned char* buffer, int length)
{
    const auto skipped = reinterpret_cast<std::uintptr_t>(rest) - reinterpret_cast<std::uintptr_t>(buffer);
    const auto size = static_cast<std::uintptr_t>(length);
    return skipped <= size && (left <= 0 || static_cast<std::uintptr_t>(left) <= size - skipped);
}

} // namespace

/// An OnReceive that runs.
struct CTavroSocket::Reading
{
    Reading(CTavroSocket& owner, const tavronet::LifetimeGuard& ownerGuard,
            std::uint64_t handleOfNotification)
        : socket(owner), guard(ownerGuard), handle(handleOfNotification)
    {
        socket.m_pReading = this;
    }
    /// Not inlined: g++ would take the address in m_pReading for one that dangles when the socket has died.
    [[gnu::noinline]] ~Reading()
    {
        if (owns)
            delete[] array;
        if (guard.Alive())
            socket.m_pReading = nullptr;
    }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

    /// False when a hook has deleted the socket, or closed the handle that the notification was for.
    bool GoesOn() const { return guard.Alive() && socket.HandleId() == handle; }

    /// Takes the held bytes out of the socket, with room for `more` behind them. @return how many there are.
    int Detach(int more)
    {
        tavronet::ByteBuffer& held = socket.m_ReceiveBuffer;
        if (held.Holds())
            held.Reserve(more);
        else
            held = tavronet::TakeSpareBuffer(more);
        const int size = held.Size();
        Hold(std::move(held));
        return size;
    }

    void Hold(tavronet::ByteBuffer buffer)
    {
        capacity = buffer.Capacity();
        array = buffer.Release();
        owns = true;
    }

    /// Gives up the array.
    tavronet::ByteBuffer Let(int size)
    {
        owns = false;
        return {std::exchange(array, nullptr), size, capacity};
    }

    CTavroSocket& socket;
    const tavronet::LifetimeGuard& guard;
    const std::uint64_t handle;

    unsigned char* array = nullptr; // of the running pass
    int capacity = 0;               // of the array; 0 when a hook may have replaced it
    bool owns = false;              // the array: not yet given back to the socket
    bool untouched = false;         // the transforming hook left the array as it was
    bool askedAgain = false;        // another OnReceive was left to this one
    bool aborted = false;           // the connection is to be closed
};

bool CTavroSocket::OkayToReceive()
{
    return OkayToSend();
}

void CTavroSocket::OnReceive(int error)
{
    const std::uint64_t handle = HandleId();
    const tavronet::LifetimeGuard guard(*this);
    const bool allowed = OkayToReceive();
    if (!guard.Alive())
        return;
    if (!allowed || error != 0) {
        m_MissedReceive = true;
        return;
    }
    m_MissedReceive = false;
    if (m_pReading != nullptr) {
        m_pReading->askedAgain = true; // it reads on anyway: a pass inside its pass would break the order
        return;
    }

    const bool close = ReadPasses(guard, handle);
    if (!guard.Alive())
        return;
    m_Tick = GetTickCount();
    if (close)
        Close();
}

/// @return whether the connection was aborted and its handle is to be closed.
bool CTavroSocket::ReadPasses(const tavronet::LifetimeGuard& guard, std::uint64_t handle)
{
    Reading reading(*this, guard, handle);
    int passes = 0;
    while (reading.GoesOn() && ReadPass(reading)) {
        if (++passes == kMaxReadPasses) {
            reading.askedAgain = true; // the source may hold bytes that the system does not know of
            break;
        }
    }
    if (guard.Alive()) {
        m_CutShort = passes == kMaxReadPasses;
        if (reading.askedAgain)
            RequestRead();
    }
    return reading.aborted && reading.GoesOn();
}

bool CTavroSocket::TakeCutShort()
{
    const bool cut = m_CutShort;
    m_CutShort = false;
    return cut;
}

/// @return whether to start another pass.
bool CTavroSocket::ReadPass(Reading& reading)
{
    if (!OnReceivePreRead() || !reading.GoesOn())
        return false;

    reading.askedAgain = false;
    const int most = m_BulkInput || m_ReceiveBuffer.Holds() ? 0 : ReadsUnasked();
    if (most > 0) {
        const int received = ReadUnasked(reading, most);
        if (!reading.GoesOn())
            return false;
        return received > 0 ? PassOn(reading, received, 0) : OnReceiveNoDataContinue(received);
    }

    const int waiting = PeekWaiting();
    if (!reading.GoesOn())
        return false;
    if (waiting <= 0)
        return OnReceiveNoDataContinue(waiting);

    m_BulkInput = waiting > tavronet::kSpareBytes;
    const int held = reading.Detach(waiting);
    WSASetLastError(0); // a result of 0 says nothing by itself
    const int received = ReceiveData(reading.array + held, waiting, 0);
    const int error = WSAGetLastError();
    if (!reading.guard.Alive())
        return false;
    if (received <= 0) {
        KeepReceived(reading.array, reading.capacity, reading.array, held);
        reading.owns = false;
        reading.aborted = error == WSAECONNABORTED;
        m_MissedReceive = true;
        return false;
    }
    return PassOn(reading, std::min(received, waiting), held);
}

/// @return what the receive gave; the frame holds the array only when bytes came.
int CTavroSocket::ReadUnasked(Reading& reading, int most)
{
    reading.Detach(most);
    const int received = std::min(ReceiveData(reading.array, most, 0), most);
    if (received <= 0)
        tavronet::GiveSpareBuffer(reading.Let(0));
    const bool full = received == tavronet::kSpareBytes && reading.GoesOn();
    return full ? received + ReadRest(reading, received) : received;
}

/// The array is full: what else waits belongs to the same pass. @return how much that was.
int CTavroSocket::ReadRest(Reading& reading, int received)
{
    UINT waiting = 0;
    if (!WaitingBytes(waiting) || waiting == 0)
        return 0;
    m_BulkInput = true;
    const int more = static_cast<int>(std::min<UINT>(waiting, INT_MAX));
    tavronet::ByteBuffer all = reading.Let(received);
    int rest = 0;
    try {
        all.Reserve(more);
        rest = std::max(CAsyncSocket::Receive(all.Data() + received, more, 0), 0);
    } catch (CMemoryException* exception) {
        exception->Delete(); // what came is passed on, the rest goes on waiting
    }
    reading.Hold(std::move(all));
    return rest;
}

/// Hands what was read to the hooks. @return whether to start another pass.
bool CTavroSocket::PassOn(Reading& reading, int received, int held)
{
    if (!DeliverReceived(reading, received, held))
        return false;
    if (OkayToReceive())
        return true;
    if (reading.guard.Alive())
        m_MissedReceive = true; // whoever allows reading again runs OnReceive(0)
    return false;
}

/// How much a read may ask for. The buffer of the peek lives no longer than the question: an idle socket has
/// none.
int CTavroSocket::PeekWaiting()
{
    const UINT size = std::clamp<UINT>(m_OnReceivePeekBufferSize, 1, INT_MAX - 1);
    if (size > kStackPeekBytes) {
        const std::unique_ptr<unsigned char[]> buffer(tavronet::NewByteArray(size));
        return ReceiveData(buffer.get(), static_cast<int>(size), MSG_PEEK);
    }
    unsigned char buffer[kStackPeekBytes];
    return ReceiveData(buffer, static_cast<int>(size), MSG_PEEK);
}

int CTavroSocket::ReadsUnasked() const
{
    return tavronet::ReachesOwn<Transfer{&CTavroSocket::ReceiveData}>(*this) ? tavronet::kSpareBytes : 0;
}

int CTavroSocket::ReceiveData(unsigned char* buffer, int length, int flags)
{
    UINT waiting = 0;
    if (flags == MSG_PEEK && WaitingBytes(waiting) && waiting != 0)
        return static_cast<int>(std::min<UINT>(waiting, INT_MAX));
    return CAsyncSocket::Receive(buffer, length, flags);
}

/// Hands what was read to the transforming hook and to the consumer. @return whether the socket still lives.
bool CTavroSocket::DeliverReceived(Reading& reading, int received, int held)
{
    reading.array[held + received] = 0;
    reading.untouched = false;
    OnReceivePreProcessResponse(reading.array, received, held);
    if (!reading.guard.Alive())
        return false;
    if (!reading.untouched)
        reading.capacity = 0; // even an array at the same address may be another one
    if (reading.array == nullptr)
        return true;

    const std::int64_t offered = std::int64_t{std::max(held, 0)} + std::max(received, 0);
    int length = static_cast<int>(std::min<std::int64_t>(offered, tavronet::kMaxByteArraySize - 1));
    if (reading.untouched) {
        length = std::min(length, reading.capacity);
        reading.array[length] = 0;
    }
    ProcessReceiveBuffer(reading.array, length);
    if (!reading.guard.Alive())
        return false;
    reading.owns = false;
    return true;
}

bool CTavroSocket::ProcessReceiveBuffer(unsigned char*& buffer, int& length)
{
    const tavronet::LifetimeGuard guard(*this);
    unsigned char* rest = buffer;
    int left = length;
    const bool consumed = ProcessReceive(rest, left);
    if (!guard.Alive())
        return false; // the array is still the caller's

    if (!consumed || !LiesWithin(rest, left, buffer, length)) {
        rest = buffer;
        left = length;
    }
    const bool ofPass = m_pReading != nullptr && m_pReading->array == buffer;
    KeepReceived(buffer, ofPass ? m_pReading->capacity : 0, rest, left);
    if (ofPass)
        m_pReading->owns = false;
    buffer = m_ReceiveBuffer.Data();
    length = m_ReceiveBuffer.Size();
    return consumed && length == 0;
}

/// Makes `length` bytes of an array, from `rest` on, the receive buffer, and takes the array over. It stays
/// when its capacity is known (not 0) and not much too large; otherwise the bytes move.
void CTavroSocket::KeepReceived(unsigned char* array, int capacity, const unsigned char* rest, int length)
{
    tavronet::ByteBuffer kept;
    bool stays = capacity > 0 && capacity <= 2LL * length + kTolerableWaste;
    if (length > 0 && !stays) {
        try {
            kept.Append(rest, length);
        } catch (CMemoryException* exception) {
            if (capacity == 0)
                throw;
            exception->Delete();
            stays = true; // too large rather than lost
        }
    }
    if (length > 0 && stays) {
        if (rest != array)
            std::memmove(array, rest, static_cast<std::size_t>(length));
        kept = tavronet::ByteBuffer(std::exchange(array, nullptr), length, capacity);
    }
    m_ReceiveBuffer = std::move(kept);
    if (array != nullptr && capacity > 0)
        tavronet::GiveSpareBuffer({array, 0, capacity});
    else
        delete[] array;
}

// --- The hooks as they are without a derived class

bool CTavroSocket::OnReceivePreRead()
{
    return true;
}

bool CTavroSocket::OnReceiveNoDataContinue(int)
{
    return false;
}

void CTavroSocket::OnReceivePreProcessResponse(unsigned char*&, int&, int&)
{
    if (m_pReading != nullptr)
        m_pReading->untouched = true;
}

bool CTavroSocket::ProcessReceive(unsigned char*&, int&)
{
    return false;
}

int CTavroSocket::ReceiveData(void* buffer, int length, int flags)
{
    return ReceiveData(static_cast<unsigned char*>(buffer), length, flags);
}

// --- The receive buffer

void CTavroSocket::ReleaseReceiveBuffer()
{
    m_ReceiveBuffer = tavronet::ByteBuffer();
}

tavronet::ByteBuffer CTavroSocket::TakeReceiveBuffer()
{
    return std::move(m_ReceiveBuffer);
}

// --- Past the pipeline

int CTavroSocket::Receive(unsigned char* buffer, int length, int flags)
{
    return CAsyncSocket::Receive(buffer, length, flags);
}

int CTavroSocket::Receive(void* buffer, int length, int flags)
{
    return Receive(static_cast<unsigned char*>(buffer), length, flags);
}

int CTavroSocket::ReceiveFrom(void* buffer, int length, CStringW& address, UINT& port, int flags)
{
    sockaddr_storage_xp sender{};
    int senderLength = sizeof sender;
    const int received = ReceiveFromHelper(buffer, length, &sender, &senderLength, flags);
    if (received == SOCKET_ERROR)
        return received;

    if (sender.ss_family == AF_INET)
        port = ntohs(reinterpret_cast<const sockaddr_in&>(sender).sin_port);
    else if (sender.ss_family == AF_INET6)
        port = ntohs(reinterpret_cast<const sockaddr_in6&>(sender).sin6_port);
    address = GetIP(sender); // empty when the system names no sender
    return received;
}

int CTavroSocket::SendTo(const void* data, int length, UINT port, const wchar_t* address, int flags)
{
    sockaddr_storage_xp target;
    int targetLength = 0;
    if (!GetSockAddr(port, address, target, targetLength, AF_UNSPEC))
        return 0;
    return SendToHelper(data, length, &target, targetLength, flags);
}
