// SSL mode of the connection class: entering, the handshake, reading and writing, leaving.
//
//   SetSSLMode -> context, files -> session -> SSLAccept, a step of the handshake
//   notifications -> SSLAccept, until it is done or has failed
//   StopSSLMode -> our close alert; then notifications -> StopSSLMode, until the peer's has come -> plain
//
// What a phase means for bytes:
//
//   handshaking   sends wait, nothing is read
//   established   through the session
//   failed        sends are an error, what arrives is discarded: it may be from anybody
//   closing       sends wait and go out in clear afterwards; what the peer sent before its alert is delivered
//
// Leaving is deferred while bytes are queued for the session; what the peer sends meanwhile is delivered.

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/SocketCalls.h"
#include "tavronet/socket/SSLSession.h"
#include "tavronet/socket/SpareBuffer.h"
#include "tavronet/socket/TavroProductSocket.h"

using tavronet::SSLOutcome;
using tavronet::SSLSession;

namespace
{

constexpr int kDescriptionBytes = 1024;
constexpr int kLeavingPeekBytes = 100;
constexpr int kDiscardBytes = 16384;
constexpr int kMostRead = 16385; // a session reads a record at once: a full one is seen to be taken whole
constexpr int kMaxDiscards = 32; // a read notification; then the other sockets have their turn

enum class Phase
{
    Handshaking,
    Established,
    Failed,
    Closing
};

/// The pass phrase of the socket that is `userData`.
int CopyPassword(char* buffer, int size, int, void* userData)
{
    if (userData == nullptr) // of a provider that does not keep it
        return 0;
    const CStringA& password = static_cast<const CTavroProductSocket*>(userData)->GetSSLCertPassword();
    if (size < password.GetLength() + 1)
        return 0;
    std::memcpy(buffer, password.GetString(), static_cast<std::size_t>(password.GetLength()) + 1);
    return password.GetLength();
}

const char* OrEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

} // namespace

/// Made when first needed and kept, since it holds what the host has set.
struct CTavroProductSocket::SSLState
{
    CStringA hostName;
    CStringA password;    // of the private key
    unsigned entries = 0; // of SetSSLMode: tells it that a hook has entered or left a mode

    std::unique_ptr<SSLSession> session; // with its context
    std::unique_ptr<SSLSession> left;    // the one before, while bytes from behind its end wait in it
    std::uint64_t handle = 0;            // the one that the session writes to
    bool tookAll = false;                // the last read: of the record that it was about
    Phase phase = Phase::Handshaking;
    bool alertSent = false;     // ours
    bool writeFailed = false;   // for good
    bool peerClosed = false;    // its close alert has come
    bool clearTextHeld = false; // what is held may have arrived before the handshake
};

/// Why SSL mode was not entered; all null: the provider's queue of errors tells.
struct CTavroProductSocket::SSLRefusal
{
    void (CTavroProductSocket::*hook)(const wchar_t*) = nullptr; // for a file
    const CStringW* path = nullptr;
    const char* reason = nullptr;
};

COpenSSL* CTavroProductSocket::m_pOpenSSL = nullptr;

// --- The provider and what the host sets

void CTavroProductSocket::Init(COpenSSL* provider)
{
    m_pOpenSSL = provider;
}

COpenSSL& CTavroProductSocket::GetOpenSSL()
{
    static COpenSSL none;
    return m_pOpenSSL != nullptr ? *m_pOpenSSL : none;
}

CTavroProductSocket::SSLState& CTavroProductSocket::NeedSSLState()
{
    if (m_pSSLState == nullptr)
        m_pSSLState = new (std::nothrow) SSLState;
    if (m_pSSLState == nullptr)
        tavronet::ThrowMemoryException();
    return *m_pSSLState;
}

void CTavroProductSocket::SetSSLHostName(const CStringA& name)
{
    NeedSSLState().hostName = name;
}

const CStringA& CTavroProductSocket::GetSSLCertPassword() const
{
    static const CStringA none;
    return m_pSSLState != nullptr ? m_pSSLState->password : none;
}

bool CTavroProductSocket::HasSSLSession() const
{
    return m_pSSLState != nullptr && m_pSSLState->session != nullptr && m_pSSLState->session->Started();
}

/// Whether the session's descriptor is still this socket's: otherwise its number may name another file.
bool CTavroProductSocket::HasSSLWire() const
{
    return m_hSocket != INVALID_SOCKET && HandleId() == m_pSSLState->handle;
}

/// Whether what is sent waits for the handshake, or for the end of the session.
bool CTavroProductSocket::SSLHoldsSends() const
{
    return HasSSLSession() &&
           (m_pSSLState->phase == Phase::Handshaking || m_pSSLState->phase == Phase::Closing);
}

/// Whether input that still waits may be taken when a read notification comes at once. Otherwise something else
/// has to come first: room to write, the outcome of the connect, the end of what is sent, the host's leaving.
bool CTavroProductSocket::SSLTakesInput() const
{
    if (!HasSSLSession())
        return true;
    if (!HasSSLWire() || m_bSSLWaitsToWrite)
        return false;
    if (m_bSSLAcceptPending)
        return !GetConnecting();
    return !m_pSSLState->peerClosed || (m_bExitSSLModeWhenDone && !SSLIsBusy());
}

// --- Entering

void CTavroProductSocket::SetSSLMode(UINT mode, bool noSSLv2, bool weakCiphers, const CStringW& certFile,
                                     const CStringW& keyFile, const CStringW& trustedCAFile,
                                     const CStringA& password)
{
    if (mode == 0)
        return StopSSLMode();
    if (mode == m_nSSLMode)
        return;

    const bool leavesSession = HasSSLSession();
    LeaveSession();
    if (leavesSession)
        m_bExitSSLModeWhenDone = false; // this was about the session that is gone
    SSLState& state = NeedSSLState();
    ++state.entries;
    state.session.reset(new (std::nothrow) SSLSession(GetOpenSSL()));
    if (state.session == nullptr)
        tavronet::ThrowMemoryException();

    const SSLRefusal refused =
        MakeSSLSession(mode, noSSLv2, weakCiphers, certFile, keyFile, trustedCAFile, password);
    if (HasSSLSession())
        return StartHandshake(mode);
    if (leavesSession)
        DropSendQueue(); // meant for a session
    if (refused.hook != nullptr) {
        SSLSession::DropErrors(GetOpenSSL()); // the hook tells what they would
        (this->*refused.hook)(*refused.path);
    } else if (refused.reason != nullptr)
        NotifySSLAcceptError("TavroNET", "", refused.reason);
    else
        SSLSendAcceptError();
}

/// On success there is a session. @return what the host is to be told otherwise. The context of a refused
/// file is kept.
CTavroProductSocket::SSLRefusal CTavroProductSocket::MakeSSLSession(UINT mode, bool noSSLv2, bool weakCiphers,
                                                                    const CStringW& certFile,
                                                                    const CStringW& keyFile,
                                                                    const CStringW& trustedCAFile,
                                                                    const CStringA& password)
{
    SSLState& state = *m_pSSLState;
    SSLSession& session = *state.session;
    if (!session.MakeContext(mode, noSSLv2, weakCiphers))
        return {};
    if (m_bSSLServer || m_bSSLUseCertificates) {
        state.password = password;
        if (!certFile.IsEmpty() && !session.UseCertificateFile(certFile))
            return {.hook = &CTavroProductSocket::NotifySSLCantOpenCertFile, .path = &certFile};
        session.SetPasswordCallback(CopyPassword, this);
        if (!keyFile.IsEmpty() && !session.UsePrivateKeyFile(keyFile))
            return {.hook = &CTavroProductSocket::NotifySSLCantOpenPrivateKeyFile, .path = &keyFile};
        if (!trustedCAFile.IsEmpty() && !session.TrustAuthorities(trustedCAFile))
            return {.hook = &CTavroProductSocket::NotifySSLCantLoadTrustedCAFile, .path = &trustedCAFile};
    }
    if (!session.IsPossible())
        return {.reason = "the provider lacks entries of a session"};
    if (!session.Start(m_hSocket, m_bSSLServer)) {
        state.session.reset();
        return {};
    }
    if (!m_bSSLServer && !state.hostName.IsEmpty() && !session.SetHostName(state.hostName)) {
        state.session.reset();
        return {.reason = "the provider cannot check the host name"};
    }
    if (HasClearAhead())
        session.Inherit(*state.left);
    state.left.reset();
    state.handle = HandleId();
    state.phase = Phase::Handshaking;
    state.tookAll = state.alertSent = state.writeFailed = state.peerClosed = false;
    return {};
}

void CTavroProductSocket::StartHandshake(UINT mode)
{
    const SSLState& state = *m_pSSLState;
    const unsigned entry = state.entries;
    const tavronet::LifetimeGuard guard(*this);
    m_nSSLMode = mode; // a hook of the first step can leave it again
    SSLAccept();
    if (guard.Alive() && state.entries == entry && state.session->IsServer() && m_bSSLAcceptPending)
        NotifySSLAcceptPending();
}

// --- The handshake

void CTavroProductSocket::SSLAccept()
{
    if (!HasSSLSession())
        return SSLSendAcceptError();
    SSLState& state = *m_pSSLState;
    if (GetConnecting()) {
        m_bSSLAcceptPending = true;
        return;
    }
    if (state.phase == Phase::Established)
        return UseSession();
    if (state.phase != Phase::Handshaking)
        return;
    if (!HasSSLWire())
        return FailHandshake();

    const SSLOutcome outcome = state.session->Shake();
    if (outcome.result > 0)
        return FinishHandshake();
    if (!outcome.WouldBlock())
        return FailHandshake();
    m_bSSLAcceptPending = true;
    NoteSSLWants(outcome);
}

/// Has the step that would block repeated when it no longer would.
void CTavroProductSocket::NoteSSLWants(const SSLOutcome& outcome)
{
    m_bSSLWaitsToWrite = outcome.WantsWrite();
    if (m_bSSLWaitsToWrite)
        RequestWrite();
}

void CTavroProductSocket::FinishHandshake()
{
    SSLState& state = *m_pSSLState;
    const unsigned entry = state.entries;
    const tavronet::LifetimeGuard guard(*this);
    state.phase = Phase::Established;
    m_bSSLWaitsToWrite = false;
    ReleaseReceiveBuffer(); // it arrived in clear, from whoever stands between
    state.clearTextHeld = true;

    m_bSSLAcceptPending = true; // until UseSession
    try {
        ReportSSLSuccess();
    } catch (...) {
        if (guard.Alive())
            RequestRead();
        throw;
    }
    if (guard.Alive() && state.entries == entry && HasSSLWire())
        UseSession();
}

/// The second half of a completed handshake; again when the hook in between has dispatched or thrown.
void CTavroProductSocket::UseSession()
{
    m_bSSLAcceptPending = false;
    m_bSSLEstablished = true;
    LookForInput(FD_ALL);
    if (m_bSendDuringSSLAccept)
        OnSend(0);
}

void CTavroProductSocket::ReportSSLSuccess()
{
    const SSLSession& session = *m_pSSLState->session;
    const bool reports = session.IsServer() || m_bSSLAcceptSuccessNotify;
    const ssl_cipher_st* const cipher = reports ? session.Cipher() : nullptr;
    if (cipher == nullptr)
        return;

    const COpenSSL& ssl = session.Provider();
    int bits = 0;
    ssl.SSL_CIPHER_get_bits(cipher, &bits);
    CStringA certificate;
    session.PeerCertificate(certificate);
    char description[kDescriptionBytes] = "";
    ssl.SSL_CIPHER_description(cipher, description, kDescriptionBytes);
    const char* const version = OrEmpty(ssl.SSL_CIPHER_get_version(cipher));
    const char* const name = OrEmpty(ssl.SSL_CIPHER_get_name(cipher));
    NotifySSLAcceptSuccess(name, version, description, certificate, bits);
}

/// What was queued for the session is dropped: it must not go out in clear when the mode is left.
void CTavroProductSocket::FailHandshake()
{
    m_pSSLState->phase = Phase::Failed;
    m_bSSLAcceptPending = false;
    m_bSSLWaitsToWrite = false;
    DropSendQueue();
    SSLSendAcceptError();
}

void CTavroProductSocket::DropSendQueue()
{
    const std::unique_ptr<const unsigned char[]> queue(GetSendBuffer());
    ClearSendBuffer();
}

void CTavroProductSocket::SSLSendAcceptError()
{
    const SSLSession* const session = m_pSSLState != nullptr ? m_pSSLState->session.get() : nullptr;
    const COpenSSL& ssl = session != nullptr ? session->Provider() : GetOpenSSL();
    const unsigned long code = ssl.ERR_get_error();
    if (code == 0)
        return;

    CStringA reason(OrEmpty(ssl.ERR_reason_error_string(code)));
    const CStringA refused = session != nullptr ? session->VerifyFailure() : CStringA();
    if (!refused.IsEmpty())
        reason += ": " + refused;
    NotifySSLAcceptError(OrEmpty(ssl.ERR_lib_error_string(code)), OrEmpty(ssl.ERR_func_error_string(code)),
                         reason);
}

bool CTavroProductSocket::SSLGetPeerCertificate(CStringA& certificate)
{
    return HasSSLSession() && m_pSSLState->session->PeerCertificate(certificate);
}

// --- Reading and writing

int CTavroProductSocket::SSLReceive(unsigned char* buffer, int length, int flags)
{
    SSLState& state = *m_pSSLState;
    if (!HasSSLWire()) {
        WSASetLastError(WSAENOTSOCK);
        return SOCKET_ERROR;
    }
    if (state.phase == Phase::Handshaking || state.phase == Phase::Failed)
        return DiscardClearText();
    if (flags != 0 && flags != MSG_PEEK)
        return CTavroSocket::ReceiveData(buffer, length, flags);
    if (std::exchange(state.clearTextHeld, false))
        ReleaseReceiveBuffer(); // what the hook that asked for SSL left of its pass

    const bool peeks = flags == MSG_PEEK;
    if (!peeks && SSLReadToEnd()) {
        NoteDrained(); // again: to be told of more
        WSASetLastError(WSAEWOULDBLOCK);
        return SOCKET_ERROR;
    }
    const SSLOutcome outcome =
        peeks ? state.session->Peek(buffer, length) : state.session->Read(buffer, length);
    NoteSSLWants(outcome);
    if (outcome.drained)
        NoteDrained();
    if (!peeks)
        state.tookAll = outcome.WantsRead() || (outcome.result > 0 && outcome.result < length);
    if (outcome.result > 0)
        return outcome.result;

    const bool closed = outcome.error == kSSLErrorZeroReturn;
    const bool broken = !outcome.WouldBlock() && !closed;
    if (broken && !m_bInOnClose && !WireHasEnded()) // otherwise the system's notification is to tell
        return EndBrokenSession(outcome.result);
    WSASetLastError(broken ? WSAECONNRESET : WSAEWOULDBLOCK);
    if (closed && !m_bInOnClose)
        return NotePeerClosed(outcome.result);
    return peeks ? CTavroSocket::ReceiveData(buffer, length, MSG_PEEK) : outcome.result;
}

/// Whether the session has nothing to give before more comes, which will be reported.
bool CTavroProductSocket::SSLReadToEnd() const
{
    return IsDrained() && m_pSSLState->tookAll && m_pSSLState->session->WaitingAhead() == 0;
}

/// Whether the system has no more to read, so that the close notification follows.
bool CTavroProductSocket::WireHasEnded()
{
    unsigned char byte = 0;
    const int waiting = CAsyncSocket::Receive(&byte, 1, MSG_PEEK);
    return waiting == 0 || (waiting < 0 && WSAGetLastError() != WSAEWOULDBLOCK);
}

/// A session tells how much it holds only by a peek, which does all the work of a read.
int CTavroProductSocket::SSLReadsUnasked() const
{
    const SSLState& state = *m_pSSLState;
    if (state.phase != Phase::Established || state.peerClosed)
        return 0;
    const UINT wanted = GetOnReceivePeekBufferSize();
    return wanted == kDefaultPeekBytes ? kMostRead : static_cast<int>(std::clamp<UINT>(wanted, 1, kMostRead));
}

/// The peer's close alert. @return what the read came to, -1 when the close hook has deleted this socket.
int CTavroProductSocket::NotePeerClosed(int result)
{
    const bool toldBefore = std::exchange(m_pSSLState->peerClosed, true);
    if (toldBefore || m_bExitSSLModeWhenDone) // or it is the answer to ours
        return result;
    const tavronet::LifetimeGuard guard(*this);
    OnClose(0);
    WSASetLastError(WSAEWOULDBLOCK); // whatever the hook has left
    return guard.Alive() ? result : SOCKET_ERROR;
}

/// Nothing more can be read from this session although the connection lives: no notification would tell the host.
/// @return what the read came to, -1 when the close hook has deleted this socket.
int CTavroProductSocket::EndBrokenSession(int result)
{
    const tavronet::LifetimeGuard guard(*this);
    const std::uint64_t handle = HandleId();
    if (!std::exchange(m_pSSLState->peerClosed, true))
        OnClose(WSAECONNABORTED);
    if (!guard.Alive())
        return SOCKET_ERROR;
    if (HandleId() == handle)
        Close();
    WSASetLastError(WSAECONNABORTED);
    return guard.Alive() ? result : SOCKET_ERROR;
}

/// Without a handshake that has completed nobody knows who sends: what arrives is read and forgotten.
int CTavroProductSocket::DiscardClearText()
{
    unsigned char nowhere[kDiscardBytes];
    for (int i = 0; m_pSSLState->phase == Phase::Failed && i < kMaxDiscards; ++i) {
        if (CAsyncSocket::Receive(nowhere, kDiscardBytes, 0) <= 0)
            break;
    }
    WSASetLastError(WSAEWOULDBLOCK);
    return SOCKET_ERROR;
}

int CTavroProductSocket::SSLSend(unsigned char* data, int length, int flags)
{
    SSLState& state = *m_pSSLState;
    m_bSSLMustRepeat = m_bSSLWriteWaitsToRead = false;
    if (!HasSSLWire() || state.phase == Phase::Failed) {
        WSASetLastError(WSAECONNABORTED);
        return SOCKET_ERROR;
    }
    if (SSLHoldsSends()) {
        WSASetLastError(WSAEWOULDBLOCK);
        return SOCKET_ERROR;
    }
    if (flags != 0)
        return CTavroSocket::SendData(data, length, flags);

    const SSLOutcome outcome = state.session->Write(data, length);
    const bool leavingWaits = m_bExitSSLModeWhenDone && m_pPendingWrite == nullptr;
    if (outcome.WantsWrite() || leavingWaits) // which goes on when a notification comes
        RequestWrite();
    if (outcome.result > 0)
        return outcome.result;
    m_bSSLMustRepeat = outcome.WouldBlock();
    m_bSSLWriteWaitsToRead = outcome.WantsRead();
    state.writeFailed = !outcome.WouldBlock();
    WSASetLastError(
        WSAEWOULDBLOCK); // whatever it is: the bytes are kept, the end of the connection tells the rest
    return SOCKET_ERROR;
}

int CTavroProductSocket::SSLLastError()
{
    const int error = m_pSSLState->session->LastError();
    return error >= kSSLErrorWantRead && error <= kSSLErrorWantConnect ? WSAEWOULDBLOCK : error;
}

// --- Leaving

void CTavroProductSocket::StopSSLMode()
{
    if (m_nSSLMode == 0) {
        if (!HasSSLSession())
            m_bExitSSLModeWhenDone = false; // there is nothing to leave
        return;
    }

    const bool wire = HasSSLWire();
    // A peer that leaves, too, may take nothing more before it has got rid of what it has queued.
    const bool busy = SSLIsBusy();
    m_bSSLDrains = busy && !m_bSSLAcceptPending;
    if (wire && (busy || !ExchangeCloseAlerts())) {
        const bool deferredBefore = m_bExitSSLModeWhenDone;
        m_bExitSSLModeWhenDone = true;
        if (!deferredBefore && !m_bSSLAcceptPending)
            RequestWrite(); // for what is queued
        return;
    }
    m_bExitSSLModeWhenDone = false;
    ++m_pSSLState->entries;
    if (m_pSSLState->writeFailed || !wire)
        DropSendQueue(); // never in clear
    if (wire && m_pSSLState->phase == Phase::Failed)
        DiscardClearText(); // what a pause has held up
    LeaveSession();         // before the hook, in which this is a plain connection again
    LookForInput(m_bReceiveEnabled ? FD_ALL : FD_ALL & ~FD_READ); // what has waited behind the session
    NotifySSLConnectionShutdown();
}

/// Whether something is to be finished inside the session before it can be left.
bool CTavroProductSocket::SSLIsBusy() const
{
    const bool queued = m_pSSLState->phase == Phase::Established && GetSendBufferSize() > 0;
    const bool sends = !m_pSSLState->writeFailed && (queued || m_pPendingWrite != nullptr);
    return m_bSSLAcceptPending || sends;
}

/// A step of it. @return false when it goes on at later notifications.
bool CTavroProductSocket::ExchangeCloseAlerts()
{
    SSLState& state = *m_pSSLState;
    unsigned char scratch[kLeavingPeekBytes];
    const SSLOutcome peeked = state.session->Peek(scratch, kLeavingPeekBytes);
    // Looking for the peer's alert, the session would break over data in front of it.
    m_bSSLDrains = state.alertSent && peeked.result > 0;
    // A peek may have to write first, which must not come behind our alert.
    if (m_bSSLDrains || peeked.WantsWrite() || (state.alertSent && peeked.WouldBlock())) {
        NoteSSLWants(peeked);
        return false;
    }

    const SSLOutcome outcome = state.session->Shutdown();
    NoteSSLWants(outcome);
    if (outcome.result > 0)
        state.peerClosed = true;
    const bool sentNow = outcome.result == 0 && !std::exchange(state.alertSent, true);
    const bool goesOn = sentNow || outcome.WouldBlock();
    if (goesOn && std::exchange(state.phase, Phase::Closing) != Phase::Closing)
        LookForInput(m_bReceiveEnabled ? FD_ALL : FD_ALL & ~FD_READ); // the answer may be here
    return !goesOn;
}

/// Frees the session. What it has read ahead behind the peer's close alert belongs to whatever follows on this
/// connection; without one it is the beginning of a record.
void CTavroProductSocket::LeaveSession()
{
    if (HasSSLSession() && HasSSLWire() && m_pSSLState->peerClosed &&
        m_pSSLState->session->WaitingAhead() > 0)
        m_pSSLState->left = std::move(m_pSSLState->session);
    ReleaseSSL();
}

/// Whether clear text waits in the session that was left.
bool CTavroProductSocket::HasClearAhead() const
{
    return m_pSSLState != nullptr && m_pSSLState->left != nullptr && HasSSLWire();
}

/// As ReceiveData of a connection without a session.
int CTavroProductSocket::ReceiveClearAhead(unsigned char* buffer, int length, int flags)
{
    SSLSession& left = *m_pSSLState->left;
    if (flags & MSG_PEEK)
        return std::min(left.WaitingAhead(), length);
    const int taken = left.TakeAhead(buffer, length);
    if (left.WaitingAhead() == 0)
        m_pSSLState->left.reset();
    return taken;
}

/// As AsyncSelect, also for input that the session has taken from the system and not read, which nothing reports.
void CTavroProductSocket::LookForInput(LONG events)
{
    if (m_hSocket == INVALID_SOCKET)
        return;
    AsyncSelect(events);
    const bool ahead = HasSSLSession() ? m_pSSLState->session->WaitingAhead() > 0 : HasClearAhead();
    const bool failed = HasSSLSession() && m_pSSLState->phase == Phase::Failed; // and reads no more
    if (ahead && !failed)
        RequestRead();
}

/// Frees session and context, and what only the session could have sent.
void CTavroProductSocket::ReleaseSSL()
{
    if (m_pSSLState != nullptr)
        m_pSSLState->session.reset();
    if (m_pPendingWrite != nullptr && m_pPendingWrite->offeredToSession)
        m_pPendingWrite.reset();
    m_nSSLMode = 0;
    m_bSSLAcceptPending = false;
    m_bSSLWaitsToWrite = false;
    m_bSSLMustRepeat = false;
    m_bSSLWriteWaitsToRead = false;
    m_bSSLDrains = false;
}

void CTavroProductSocket::FreeSSLState()
{
    ReleaseSSL();
    delete std::exchange(m_pSSLState, nullptr);
}
