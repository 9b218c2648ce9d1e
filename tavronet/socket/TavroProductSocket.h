#ifndef TAVRONET_SOCKET_TAVROPRODUCTSOCKET_H
#define TAVRONET_SOCKET_TAVROPRODUCTSOCKET_H

#include <memory>

#include "tavronet/platform/Export.h"
#include "tavronet/platform/String.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/platform/Types.h"
#include "tavronet/socket/ByteBuffer.h"
#include "tavronet/socket/OpenSSLContract.h"
#include "tavronet/socket/TavroSocket.h"

class CZLibCompression;

namespace tavronet
{
struct SSLOutcome;
}

/// The bits of a connection's type word. Only the zlib bit has a meaning of its own here; derived classes give
/// the others theirs.
inline constexpr UINT kSSLType = 1;
inline constexpr UINT kTLSType = 2;
inline constexpr UINT kSSHType = 4;
inline constexpr UINT kZlibType = 8;
inline constexpr UINT kHTTPType = 16;

/// The connection class that hosts derive their own connections from.
///
/// What it adds to CTavroSocket: reception that stops while the host is behind, a pause, an orderly close that
/// loses nothing that has arrived, SSL entered and left on a living connection, and zlib streams.
///
/// Ownership: the creator deletes it, also from inside any hook or notification of its own.
/// Thread: every call and every notification on the thread that created the handle.
/// During a call: what CTavroSocket promises holds for the hooks below too. A hook may send, close, create anew,
///   change the mode, dispatch messages, throw, even delete this socket; the interrupted call then returns -1 or
///   false and touches nothing. Hooks that the destructor leads to are this class's own empty ones.
/// Order of the layers: what is sent is compressed and then encrypted; what arrives is decrypted, inflated, and
///   offered to ProcessReceive.
/// Memory: a connection that uses neither SSL nor compression holds no state of either.
class TAVRONET_API CTavroProductSocket : public CTavroSocket
{
public:
    /// @param type the type word; with the zlib bit the connection compresses from its first byte on. Where zlib
    ///        cannot be loaded it stays uncompressed: see UsingCompression.
    /// @param compressionLevel 1 (fast) ... 9 (small); anything else counts as 6.
    explicit CTavroProductSocket(UINT type = 0, UINT compressionLevel = 6);

    /// Leaves SSL mode as far as that goes without waiting, and closes the handle.
    ~CTavroProductSocket() override;

    // --- Type

    UINT GetType() const { return m_nType; }
    bool IsSSLType() const { return (m_nType & kSSLType) != 0; }
    bool IsTLSType() const { return (m_nType & kTLSType) != 0; }
    bool IsSSHType() const { return (m_nType & kSSHType) != 0; }
    bool IsZlibType() const { return (m_nType & kZlibType) != 0; }
    bool IsHTTPType() const { return (m_nType & kHTTPType) != 0; }
    bool IsHTTPSType() const { return IsHTTPType() && (IsSSLType() || IsTLSType()); }
    /// Switch the use of an existing compressor on and off; they make and release none.
    void SetZlibType() { m_nType |= kZlibType; }
    void SetNotZlibType() { m_nType &= ~kZlibType; }

    // --- Making, listening, closing

    /// As CAsyncSocket::Attach and CTavroSocket::Create, followed by SetSocketOptions.
    /// @return false with the last error, and a handle that was to be attached stays the caller's; also when
    /// SetSocketOptions has closed or deleted this socket, and with it the handle.
    virtual bool Attach(SOCKET handle, LONG events);
    virtual bool Create(UINT port, int type, LONG events, const wchar_t* address, int family);

    /// Lets the system take up to `backlog` connections that wait for Accept. @return 1, or 0 with the last
    /// error.
    int Listen(int backlog);

    /// Leaves SSL mode as far as that goes without waiting, and closes the handle. A write that was under way is
    /// dropped: its beginning went to a connection that is no more. So is, in SSL mode, what is queued: on the
    /// next connection it would go out in clear.
    void Close() override;

    /// Whether closing now loses nothing: nothing is queued or half written, no handshake is under way, and no
    /// closing exchange either, unless SetOkayToCloseDuringSSLShutdown allows that. Asked by hosts only.
    virtual bool CanClose();

    /// With it set, PostClose is called whenever a Send starts through an open gate. Nothing else: the class
    /// closes and deletes nothing by itself.
    bool GetDeleteWhenDone() const { return m_bDeleteWhenDone; }
    void SetDeleteWhenDone(bool deleteWhenDone) { m_bDeleteWhenDone = deleteWhenDone; }

    // --- Receiving

    /// Closes the receive gate, or opens it and reads what was missed meanwhile. While a handshake is under way
    /// a pause holds that up too.
    void PauseReceive(bool pause);

    /// The host is done with a packet counted by IncrementPendingPackets. When that opens the receive gate, what
    /// was missed is read at once.
    void PacketProcessed();

    /// Open while reception is not paused and fewer than ten packets are pending; always open while OnClose
    /// reads what is left.
    bool OkayToReceive() override;

    using CTavroSocket::GetReceiveBufferSize;
    using CTavroSocket::GetSendBufferSize;

    /// The error of the last operation: that of the SSL session once there is one, where everything that only
    /// asks for patience reads as WSAEWOULDBLOCK; otherwise WSAGetLastError().
    int GetLastError();

    // --- SSL mode

    /// Names the provider for all sockets; once, before any of them enters SSL mode. It outlives them.
    static void Init(COpenSSL* provider);
    /// One that is not loaded when none was named.
    static COpenSSL& GetOpenSSL();

    /// Enters SSL mode `mode`, or leaves it with mode 0. Does nothing when that is the mode already, which it is until
    /// a deferred leaving has ended. A Send with flags goes past the session, in clear.
    /// @param noSSLv2, weakCiphers options of the context.
    /// @param certFile, keyFile, trustedCAFile PEM files, empty for none; a refused one ends in its hook and the
    ///        mode stays 0.
    /// @param password of the private key; kept for GetSSLCertPassword.
    /// Until the handshake has completed what is sent waits; when it has, what was received in clear and not
    /// consumed is dropped. After a failed one sends are an error and what arrives is discarded. Bytes that are
    /// queued already go out inside the session: before an upgrade, wait for CanClose(). Nothing ends a
    /// handshake or a closing exchange that the peer does not go on with; Close always works.
    void SetSSLMode(UINT mode, bool noSSLv2, bool weakCiphers, const CStringW& certFile,
                    const CStringW& keyFile, const CStringW& trustedCAFile, const CStringA& password);
    /// SetSSLMode with mode 0. While bytes wait to be sent or a handshake is under way, and until the peer has
    /// answered the close alert, leaving is deferred: GetExitSSLModeWhenDone() tells. What stands behind the peer's
    /// alert comes by OnReceive, as clear text; a provider may have read it already, so that Receive would miss it.
    void StopSSLMode();

    /// For the next SetSSLMode of a client: which host is meant. The server is told; when trusted CAs are
    /// loaded, its certificate must be for that name or address. Empty, as at first: whoever the CAs vouch for.
    void SetSSLHostName(const CStringA& name);
    /// The part played in the next SetSSLMode: server (the default) or client, and whether a client loads the
    /// files too.
    void SetSSLServer(bool server, bool useCertificates)
    {
        m_bSSLServer = server;
        m_bSSLUseCertificates = useCertificates;
    }
    /// Whether a client, too, reports its handshake by NotifySSLAcceptSuccess.
    void SetSSLAcceptSuccessNotify(bool notify) { m_bSSLAcceptSuccessNotify = notify; }
    void SetOkayToCloseDuringSSLShutdown(bool okay) { m_bOkayToCloseDuringSSLShutdown = okay; }
    bool GetExitSSLModeWhenDone() const { return m_bExitSSLModeWhenDone; }
    void SetExitSSLModeWhenDone(bool exit) { m_bExitSSLModeWhenDone = exit; }
    /// Whether a handshake of this socket has completed and there is a session.
    bool GetSSL() const { return m_bSSLEstablished && HasSSLSession(); }
    const CStringA& GetSSLCertPassword() const;

    // --- Totals, in bytes

    long long GetBytesIn() const { return m_nBytesIn; }                       ///< after inflating
    long long GetBytesInCompressed() const { return m_nBytesInCompressed; }   ///< as they arrived
    long long GetBytesOut() const { return m_nBytesOut; }                     ///< before compressing
    long long GetBytesOutCompressed() const { return m_nBytesOutCompressed; } ///< as they left

protected:
    // --- For derived classes, which count what they have taken over and not worked off

    void TickleActivity() { m_dwLastActivityTick = GetTickCount(); }
    void ClearActivityTicks() { m_dwLastActivityTick = 0; }
    /// Ticks; when made, unless the derived class has said something later. 0 after ClearActivityTicks.
    DWORD GetLastActivityTick() const { return m_dwLastActivityTick; }
    void IncrementPendingPackets() { ++m_nPendingPackets; }
    UINT GetPendingPackets() const { return m_nPendingPackets; }
    /// While OnClose reads what is left on the closing connection.
    bool InOnClose() const { return m_bInOnClose; }

    // --- Compression

    /// The level of the next InitCompression; what deflate takes.
    int GetCompressionLevel() const { return m_nCompressionLevel; }
    void SetCompressionLevel(int level) { m_nCompressionLevel = level; }
    /// Makes a compressor, with both streams at their start, in place of one that there may be. It is used while
    /// the type word has the zlib bit. Both ends must start at the same byte of the connection.
    /// @param windowBits of zlib; 15 for the zlib format with a window of 32 KiB.
    /// @return false without a compressor: zlib is not there, or refuses the level.
    bool InitCompression(int windowBits);
    void ReleaseCompression();
    bool UsingCompression() const { return m_pZLibCompression != nullptr && IsZlibType(); }
    /// Null when there is none; owned by this socket.
    CZLibCompression* GetZLibCompression() const { return m_pZLibCompression.get(); }
    /// Whether the compressor holds back input for its next call.
    bool HasZLibRemainder() const;
    /// The most that the bytes of one read may inflate to; 64 MiB unless set. A stream that exceeds it counts as
    /// broken.
    int GetMaxInflatedBytes() const { return m_nMaxInflatedBytes; }
    void SetMaxInflatedBytes(int bytes) { m_nMaxInflatedBytes = bytes; }

    // --- SSL

    bool SSLAcceptPending() const { return m_bSSLAcceptPending; }
    /// The peer's certificate as PEM text. @return false, with `certificate` unchanged, when it has sent none.
    bool SSLGetPeerCertificate(CStringA& certificate);

    // --- Hooks of the base; overrides call them here

    void OnReceive(int error) override;
    void OnSend(int error) override;
    void OnConnect(int error) override;
    /// Also reads and delivers what is left, whatever the pause and the pending packets say. In SSL mode it comes
    /// for the peer's close alert too, and with WSAECONNABORTED when the session has broken; the handle is then
    /// closed right after it.
    void OnClose(int error) override;
    int ReceiveData(unsigned char* buffer, int length, int flags) override;
    /// Inflates what arrived, when compression is in use, and counts it. An override calls it first.
    void OnReceivePreProcessResponse(unsigned char*& buffer, int& received, int& held) override;
    /// Compresses and encrypts. Compressed bytes that the system does not take are kept and go out before
    /// anything else; the chunk counts as accepted then and the gate closes.
    /// Null `data` ends the compressed stream; -1 with WSAEWOULDBLOCK while earlier bytes wait, to be called
    /// again from OnSend.
    int SendData(unsigned char* data, int length, int flags) override;
    /// True, and as many as a pass may have, unless a derived class has a SendData or ReceiveData of its own.
    bool SendsFromAnyMemory() const override;
    int ReadsUnasked() const override;
    /// Also closed while bytes wait that were compressed or offered to the SSL session. Calls PostClose.
    bool OkayToSend() override;

    // --- Hooks of this class, in the order of their slots behind Attach, Create and CanClose

    /// The place to set socket options.
    /// Called:  by Attach and Create, once when they have succeeded.
    /// May:     anything. Base: does nothing.
    virtual void SetSocketOptions();

    /// The place to arrange the end of the connection.
    /// Called:  by OkayToSend, when SetDeleteWhenDone is on and the gate is open: at the start of each Send,
    ///          before its bytes are written. Not called again while it runs.
    /// May:     anything; but closing right here loses the bytes of the Send that asked. Post it instead.
    /// Base:    does nothing.
    virtual void PostClose();

    /// Tell how many bytes came and went, before compression and as on the wire.
    /// Called:  after each read, and after each write that the system has taken to its last byte.
    /// May:     anything. Base: adds to the totals above; an override calls it to keep them.
    virtual void BytesInCompressed(int plain, int wire);
    virtual void BytesOutCompressed(int plain, int wire);

    /// Called:  by SetSSLMode of a server whose handshake waits for the peer.
    /// May:     anything, as all hooks below. Base: does nothing, as all hooks below.
    virtual void NotifySSLAcceptPending();
    /// Called:  when a handshake has completed, on a client only with SetSSLAcceptSuccessNotify.
    /// The texts belong to the caller; `peerCertificate` is PEM, or empty when the peer has sent none; `bits` are
    /// those of the cipher.
    virtual void NotifySSLAcceptSuccess(const char* cipherName, const char* version, const char* description,
                                        const char* peerCertificate, int bits);
    /// Called:  when a handshake has failed or a context could not be made, with the provider's oldest error;
    ///          the reason also says what was wrong with a certificate that was refused.
    virtual void NotifySSLAcceptError(const char* library, const char* function, const char* reason);
    /// Called:  when SSL mode has been left.
    virtual void NotifySSLConnectionShutdown();
    /// Called:  when a file was refused, with its path; SSL mode is not entered.
    virtual void NotifySSLCantOpenCertFile(const wchar_t* path);
    virtual void NotifySSLCantOpenPrivateKeyFile(const wchar_t* path);
    virtual void NotifySSLCantLoadTrustedCAFile(const wchar_t* path);

    /// The peer's compressed stream cannot be read any further.
    /// Called:  once per compressor, when bytes arrive that are corrupt, inflate to more than
    ///          GetMaxInflatedBytes, or stand behind the end of the stream. What was inflated before is offered
    ///          to ProcessReceive afterwards, nothing after it.
    virtual void NotifyInflateError();

private:
    class FlagScope;
    struct SSLState; // context, session and what belongs to them
    struct SSLRefusal;

    /// Bytes that the compressor or the SSL session has counted in already: they go out as they are, before
    /// anything else.
    struct PendingWrite
    {
        tavronet::ByteBuffer bytes; // not written yet
        int plainLength;            // the uncompressed bytes that they stand for, with those already written
        int wireLength;             // what they were at first
        bool offeredToSession;      // the session expects exactly these bytes again
    };

    bool IsLastToTransform() const;
    void ReceiveThroughLayers(const tavronet::LifetimeGuard& guard, int error);
    bool IsBlocked() const { return m_bSSLAcceptPending || (m_bExitSSLModeWhenDone && !m_bSSLDrains); }
    int SendPlain(unsigned char* data, int length, int flags);
    int WriteToWire(unsigned char* data, int length, int flags);
    bool WriteOut(tavronet::ByteBuffer& bytes, int flags);
    int KeepForSession(unsigned char* data, int length);
    void KeepUnwritten(tavronet::ByteBuffer bytes, int plainLength, int wireLength);
    bool FlushPendingWrite();

    int SendCompressed(unsigned char* data, int length, int flags);
    bool InflateReceived(unsigned char*& buffer, int& received, int held);
    bool InflateInto(tavronet::ByteBuffer& bytes, const unsigned char* wire, int wireLength);

    SSLState& NeedSSLState();
    bool HasSSLSession() const;
    bool HasSSLWire() const;
    bool SSLHoldsSends() const;
    bool SSLTakesInput() const;
    SSLRefusal MakeSSLSession(UINT mode, bool noSSLv2, bool weakCiphers, const CStringW& certFile,
                              const CStringW& keyFile, const CStringW& trustedCAFile,
                              const CStringA& password);
    void StartHandshake(UINT mode);
    void SSLAccept();
    void NoteSSLWants(const tavronet::SSLOutcome& outcome);
    void FinishHandshake();
    void ReportSSLSuccess();
    void UseSession();
    void FailHandshake();
    void SSLSendAcceptError();
    void DropSendQueue();
    int SSLReceive(unsigned char* buffer, int length, int flags);
    bool WireHasEnded();
    int SSLReadsUnasked() const;
    bool SSLReadToEnd() const;
    int NotePeerClosed(int result);
    int EndBrokenSession(int result);
    int DiscardClearText();
    int SSLSend(unsigned char* data, int length, int flags);
    int SSLLastError();
    bool SSLIsBusy() const;
    bool ExchangeCloseAlerts();
    void LeaveSession();
    bool HasClearAhead() const;
    int ReceiveClearAhead(unsigned char* buffer, int length, int flags);
    void LookForInput(LONG events);
    void ReleaseSSL();
    void FreeSSLState();

    static COpenSSL* m_pOpenSSL;

    UINT m_nPendingPackets = 0; // handed to the host and not yet reported processed
    UINT m_nType;
    bool m_bReceiveEnabled : 1 = true;
    bool m_bDeleteWhenDone : 1 = false;
    bool m_bInflateBroken : 1 = false; // told the host once, inflates nothing more
    bool m_bTookInput : 1 = false;     // since OnClose asked

    bool m_bSSLEstablished : 1 = false;      // a handshake has completed once
    bool m_bSSLAcceptPending : 1 = false;    // a handshake is under way
    bool m_bSendDuringSSLAccept : 1 = false; // a write notification has come during one
    bool m_bExitSSLModeWhenDone : 1 = false; // leaving is deferred
    bool m_bOkayToCloseDuringSSLShutdown : 1 = false;
    bool m_bSSLServer : 1 = true;
    bool m_bSSLUseCertificates : 1 = true;
    bool m_bSSLAcceptSuccessNotify : 1 = false;
    bool m_bSSLWaitsToWrite : 1 = false;     // the session's last step but a write asked for room to write
    bool m_bSSLMustRepeat : 1 = false;       // its last write has to be offered again, the very same bytes
    bool m_bSSLWriteWaitsToRead : 1 = false; // and asked for input
    bool m_bSSLDrains : 1 = false;           // while leaving, what the peer still sends is read

    bool m_bInOnClose = false;
    bool m_bInPostClose = false;

    UINT m_nSSLMode = 0; // 0: off
    DWORD m_dwLastActivityTick;
    int m_nCompressionLevel;
    int m_nMaxInflatedBytes = 64 << 20;

    SSLState* m_pSSLState = nullptr; // owned, made by SetSSLMode
    std::unique_ptr<PendingWrite> m_pPendingWrite;
    std::unique_ptr<CZLibCompression> m_pZLibCompression;

    long long m_nBytesIn = 0;
    long long m_nBytesInCompressed = 0;
    long long m_nBytesOut = 0;
    long long m_nBytesOutCompressed = 0;
};

#endif
