// The connection class: gates, closing, and the order in which what is sent and received passes through its
// layers. Those are in TavroProductSocketSSL.cpp and TavroProductSocketCompression.cpp.
//
//   Send -> OkayToSend          closed while a pending write waits
//        -> SendData -> deflate, when compressing
//                    -> the SSL session, when there is one, or the system
//                    -> what is left of a compressed or encrypted chunk becomes the pending write
//   write notification -> OnSend -> the pending write, then the queue
//
//   read notification -> OnReceive -> the handshake or the closing exchange, while one is under way
//        -> the pipeline -> ReceiveData from the SSL session, when there is one, or from the system
//                        -> OnReceivePreProcessResponse -> inflate, when compressing

#include "tavronet/socket/TavroProductSocket.h"

#include <new>
#include <utility>

#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/SocketCalls.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/socket/SpareBuffer.h"
#include "tavronet/socket/VirtualEntry.h"
#include "tavronet/socket/ZLibCompression.h"

namespace
{

constexpr UINT kMaxPendingPackets = 10; // the tenth stops reception
constexpr int kDefaultCompressionLevel = 6;
constexpr int kWindowBits = 15; // zlib format, window of 32 KiB

constexpr int kMostVainReadsAtClose = 1000; // a hook may ask for passes without end

constexpr LONG kPausedEvents = FD_ALL & ~FD_READ;

} // namespace

/// Sets a flag for the length of a scope, unless the socket dies in it.
class CTavroProductSocket::FlagScope
{
public:
    FlagScope(CTavroProductSocket& socket, bool& flag)
        : m_Guard(socket), m_Flag(flag), m_Previous(std::exchange(flag, true))
    {
    }
    ~FlagScope()
    {
        if (m_Guard.Alive())
            m_Flag = m_Previous;
    }
    FlagScope(const FlagScope&) = delete;
    FlagScope& operator=(const FlagScope&) = delete;

private:
    tavronet::LifetimeGuard m_Guard;
    bool& m_Flag;
    const bool m_Previous;
};

CTavroProductSocket::CTavroProductSocket(UINT type, UINT compressionLevel)
    : m_nType(type),
      m_dwLastActivityTick(GetTickCount()),
      m_nCompressionLevel(compressionLevel >= 1 && compressionLevel <= 9 ? static_cast<int>(compressionLevel)
                                                                         : kDefaultCompressionLevel)
{
    if (IsZlibType())
        InitCompression(kWindowBits); // without zlib it stays uncompressed
}

CTavroProductSocket::~CTavroProductSocket()
{
    StopSSLMode();
    CAsyncSocket::Close();
    FreeSSLState();
}

// --- Making, listening, closing

bool CTavroProductSocket::Attach(SOCKET handle, LONG events)
{
    const tavronet::LifetimeGuard guard(*this);
    if (!CAsyncSocket::Attach(handle, events))
        return false;
    SetSocketOptions();
    return guard.Alive() && m_hSocket != INVALID_SOCKET;
}

bool CTavroProductSocket::Create(UINT port, int type, LONG events, const wchar_t* address, int family)
{
    const tavronet::LifetimeGuard guard(*this);
    if (!CTavroSocket::Create(port, type, events, address, family))
        return false;
    SetSocketOptions();
    return guard.Alive() && m_hSocket != INVALID_SOCKET;
}

int CTavroProductSocket::Listen(int backlog)
{
    return platform::listen(m_hSocket, backlog) != SOCKET_ERROR ? 1 : 0;
}

void CTavroProductSocket::Close()
{
    const tavronet::LifetimeGuard guard(*this);
    StopSSLMode();
    if (!guard.Alive())
        return;
    CAsyncSocket::Close();
    m_pPendingWrite.reset();
    StopSSLMode(); // what it has deferred cannot go on without the handle
}

bool CTavroProductSocket::CanClose()
{
    const bool allSent = m_pPendingWrite == nullptr && GetSendBuffer() == nullptr;
    const bool leavingSSL = m_bExitSSLModeWhenDone && !m_bOkayToCloseDuringSSLShutdown;
    return allSent && !m_bSSLAcceptPending && !leavingSSL;
}

void CTavroProductSocket::OnConnect(int error)
{
    CTavroSocket::OnConnect(error);
    if (error == 0 && m_bSSLAcceptPending)
        SSLAccept();
}

// One notification reads only so much, and what it leaves would wait behind gates that nobody opens any more.
void CTavroProductSocket::OnClose(int error)
{
    const tavronet::LifetimeGuard guard(*this);
    const std::uint64_t handle = HandleId();
    CTavroSocket::OnClose(error);
    const FlagScope draining(*this, m_bInOnClose);
    int left = kMostVainReadsAtClose;
    const auto goesOn = [&] { return guard.Alive() && HandleId() == handle; };
    do {
        m_bTookInput = false;
        OnReceive(0);
    } while (goesOn() && TakeCutShort() && (m_bTookInput || --left > 0));
    if (goesOn() && m_bExitSSLModeWhenDone)
        StopSSLMode(); // no notification comes any more
}

int CTavroProductSocket::GetLastError()
{
    return GetSSL() ? SSLLastError() : WSAGetLastError();
}

// --- Receiving

bool CTavroProductSocket::OkayToReceive()
{
    return m_bInOnClose || (m_nPendingPackets < kMaxPendingPackets && m_bReceiveEnabled);
}

void CTavroProductSocket::PauseReceive(bool pause)
{
    const tavronet::LifetimeGuard guard(*this);
    const std::uint64_t handle = HandleId();
    const bool wasEnabled = m_bReceiveEnabled;
    m_bReceiveEnabled = !pause;
    if (m_bReceiveEnabled && !wasEnabled && GetMissedReceive())
        OnReceive(0);
    if (!guard.Alive() || handle == 0 || HandleId() != handle)
        return;
    if (m_bReceiveEnabled != wasEnabled && !m_bInOnClose)
        LookForInput(m_bReceiveEnabled ? FD_ALL : kPausedEvents);
}

void CTavroProductSocket::PacketProcessed()
{
    const tavronet::LifetimeGuard guard(*this);
    const bool wasOpen = OkayToReceive();
    if (!guard.Alive())
        return;
    if (m_nPendingPackets > 0)
        --m_nPendingPackets;
    if (!wasOpen && OkayToReceive() && guard.Alive() && GetMissedReceive())
        OnReceive(0);
}

void CTavroProductSocket::OnReceive(int error)
{
    const tavronet::LifetimeGuard guard(*this);
    try {
        ReceiveThroughLayers(guard, error);
    } catch (...) {
        if (guard.Alive() && HasSSLSession())
            RequestRead(); // what the session has taken from the system, nothing reports again
        throw;
    }
}

void CTavroProductSocket::ReceiveThroughLayers(const tavronet::LifetimeGuard& guard, int error)
{
    const std::uint64_t handle = HandleId();
    if (error == 0 && m_bExitSSLModeWhenDone)
        StopSSLMode();
    if (guard.Alive() && error == 0 && m_bSSLAcceptPending && HandleId() == handle)
        SSLAccept();
    if (!guard.Alive() || HandleId() != handle)
        return;

    const bool blocked = IsBlocked();
    if (blocked)
        SetMissedReceive(true);
    else
        CTavroSocket::OnReceive(error);
    if (!guard.Alive() || m_bInOnClose || handle == 0 || HandleId() != handle)
        return;

    if (!SSLTakesInput()) // what waits would be reported without end
        return;
    if (!OkayToReceive() || !guard.Alive() || HandleId() != handle)
        return;
    // Often there is nothing to report again, and the write notification that comes of it would cost every message
    // a turn of the loop.
    const bool readToEnd = HasSSLSession() ? SSLReadToEnd() : IsDrained();
    if (blocked || !readToEnd)
        LookForInput(FD_ALL);
}

int CTavroProductSocket::ReceiveData(unsigned char* buffer, int length, int flags)
{
    if (IsBlocked()) // also when a hook of the running pass has brought that about: what follows is not clear text
    {
        WSASetLastError(WSAEWOULDBLOCK);
        return SOCKET_ERROR;
    }
    const tavronet::LifetimeGuard guard(*this);
    const int received = HasSSLSession()   ? SSLReceive(buffer, length, flags)
                         : HasClearAhead() ? ReceiveClearAhead(buffer, length, flags)
                                           : CTavroSocket::ReceiveData(buffer, length, flags);
    if (guard.Alive() && received > 0)
        m_bTookInput = true;
    return received;
}

// --- Sending

bool CTavroProductSocket::OkayToSend()
{
    const bool open = CTavroSocket::OkayToSend() && m_pPendingWrite == nullptr;
    if (open && m_bDeleteWhenDone && !m_bInPostClose) {
        const FlagScope closing(*this, m_bInPostClose);
        PostClose();
    }
    return open;
}

void CTavroProductSocket::OnSend(int error)
{
    const tavronet::LifetimeGuard guard(*this);
    const std::uint64_t handle = HandleId();
    const auto goesOn = [&] { return guard.Alive() && HandleId() == handle; };
    const bool readWaits = m_bSSLWaitsToWrite;
    if (error == 0 && m_bSSLAcceptPending)
        SSLAccept();
    if (!goesOn())
        return;

    if (m_bSSLAcceptPending)
        m_bSendDuringSSLAccept = true;
    else if (m_pPendingWrite == nullptr || FlushPendingWrite())
        CTavroSocket::OnSend(error);
    if (goesOn() && readWaits)
        RequestRead();
    if (goesOn() && error == 0 && m_bExitSSLModeWhenDone)
        StopSSLMode();
}

int CTavroProductSocket::SendData(unsigned char* data, int length, int flags)
{
    // Bytes that were compressed or offered to the session go first; during a handshake, and between the close
    // alerts, nothing goes at all.
    if (m_pPendingWrite != nullptr || SSLHoldsSends()) {
        WSASetLastError(WSAEWOULDBLOCK);
        return SOCKET_ERROR;
    }
    if (UsingCompression())
        return SendCompressed(data, length, flags);
    return SendPlain(data, length, flags);
}

/// Sends a chunk as it is. @return how many bytes were accepted; -1 with the last error.
int CTavroProductSocket::SendPlain(unsigned char* data, int length, int flags)
{
    if (length <= 0)
        return length;
    const tavronet::LifetimeGuard guard(*this);
    const int sent = WriteToWire(data, length, flags);
    if (sent < 0 && HasSSLSession() && m_bSSLMustRepeat)
        return KeepForSession(data, length);
    if (sent >= 0)
        BytesOutCompressed(sent, sent);
    return guard.Alive() ? sent : SOCKET_ERROR;
}

/// Keeps bytes that the session has to be offered again. The chunk of a Send changes hands as it is, and the Send
/// learns that it would block. Other bytes are copied and count as accepted, and the gate closes.
int CTavroProductSocket::KeepForSession(unsigned char* data, int length)
{
    if (IsSendChunk(data, length)) {
        KeepUnwritten(TakeSendChunk(), length, length);
        WSASetLastError(WSAEWOULDBLOCK);
        return SOCKET_ERROR;
    }
    tavronet::ByteBuffer copy;
    copy.Append(data, length);
    const tavronet::LifetimeGuard guard(*this);
    KeepUnwritten(std::move(copy), length, length);
    SetOkayToSend(false);
    return guard.Alive() ? length : SOCKET_ERROR;
}

/// One write of the session or, without one, of the system.
int CTavroProductSocket::WriteToWire(unsigned char* data, int length, int flags)
{
    return HasSSLSession() ? SSLSend(data, length, flags) : CTavroSocket::SendData(data, length, flags);
}

/// Writes as much of `bytes` as goes and drops it from them. @return false with the last error on a hard error.
bool CTavroProductSocket::WriteOut(tavronet::ByteBuffer& bytes, int flags)
{
    while (bytes.Size() > 0) {
        WSASetLastError(0); // a result of 0 says nothing by itself
        const int written = WriteToWire(bytes.Data(), bytes.Size(), flags);
        if (written <= 0)
            return WSAGetLastError() == WSAEWOULDBLOCK;
        bytes.DropFront(written);
    }
    return true;
}

/// Makes `bytes` the pending write; there is none.
void CTavroProductSocket::KeepUnwritten(tavronet::ByteBuffer bytes, int plainLength, int wireLength)
{
    m_pPendingWrite.reset(new (std::nothrow)
                              PendingWrite{std::move(bytes), plainLength, wireLength, HasSSLSession()});
    if (m_pPendingWrite == nullptr)
        tavronet::ThrowMemoryException();
}

/// @return whether nothing is pending any more.
bool CTavroProductSocket::FlushPendingWrite()
{
    PendingWrite& pending = *m_pPendingWrite;
    if (!WriteOut(pending.bytes, 0)) {
        m_pPendingWrite.reset(); // the connection is broken, as whatever is queued behind will find
        return true;
    }
    if (pending.bytes.Size() > 0)
        return false;

    const tavronet::LifetimeGuard guard(*this);
    const std::unique_ptr<PendingWrite> written = std::move(m_pPendingWrite); // a hook finds it gone
    BytesOutCompressed(written->plainLength, written->wireLength);
    return guard.Alive() && m_pPendingWrite == nullptr;
}

bool CTavroProductSocket::SendsFromAnyMemory() const
{
    return tavronet::ReachesOwn<&CTavroProductSocket::SendData>(*this);
}

int CTavroProductSocket::ReadsUnasked() const
{
    if (!tavronet::ReachesOwn<&CTavroProductSocket::ReceiveData>(*this))
        return 0;
    return HasSSLSession() ? SSLReadsUnasked() : tavronet::kSpareBytes;
}

// --- The hooks as they are without a derived class

void CTavroProductSocket::BytesInCompressed(int plain, int wire)
{
    m_nBytesIn += plain;
    m_nBytesInCompressed += wire;
}

void CTavroProductSocket::BytesOutCompressed(int plain, int wire)
{
    m_nBytesOut += plain;
    m_nBytesOutCompressed += wire;
}

void CTavroProductSocket::SetSocketOptions() {}
void CTavroProductSocket::PostClose() {}
void CTavroProductSocket::NotifySSLAcceptPending() {}
void CTavroProductSocket::NotifySSLAcceptSuccess(const char*, const char*, const char*, const char*, int) {}
void CTavroProductSocket::NotifySSLAcceptError(const char*, const char*, const char*) {}
void CTavroProductSocket::NotifySSLConnectionShutdown() {}
void CTavroProductSocket::NotifySSLCantOpenCertFile(const wchar_t*) {}
void CTavroProductSocket::NotifySSLCantOpenPrivateKeyFile(const wchar_t*) {}
void CTavroProductSocket::NotifySSLCantLoadTrustedCAFile(const wchar_t*) {}
void CTavroProductSocket::NotifyInflateError() {}
