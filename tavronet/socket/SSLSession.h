/// A context and a session of an SSL provider, with the care that calls through its table need. Internal.
#ifndef TAVRONET_SOCKET_SSLSESSION_H
#define TAVRONET_SOCKET_SSLSESSION_H

#include "tavronet/platform/String.h"
#include "tavronet/platform/Types.h"
#include "tavronet/socket/OpenSSLContract.h"

namespace tavronet
{

/// What a call on the session came to.
struct SSLOutcome
{
    int result;
    int error;            // of SSL_get_error; 0 when the result is greater than 0
    bool drained = false; // a read has just taken all the input that the system had

    [[nodiscard]] bool WantsRead() const { return error == kSSLErrorWantRead; }
    [[nodiscard]] bool WantsWrite() const { return error == kSSLErrorWantWrite; }
    [[nodiscard]] bool WouldBlock() const { return WantsRead() || WantsWrite(); }
};

/// Owned by one socket. Runs no code of the host, save the provider and its pass phrase callback.
///
/// The calls that read or write do so on the descriptor number given to Start: it must still be that
/// socket's.
class SSLSession
{
public:
    /// @param provider outlives this.
    explicit SSLSession(const COpenSSL& provider) : m_Ssl(provider) {}
    ~SSLSession();
    SSLSession(const SSLSession&) = delete;
    SSLSession& operator=(const SSLSession&) = delete;

    /// Empties the provider's queue: an old error would be taken for one of what comes.
    static void DropErrors(const COpenSSL& ssl);

    // --- The context. Each returns false when the provider refuses.

    [[nodiscard]] bool MakeContext(UINT mode, bool noSSLv2, bool weakCiphers);
    [[nodiscard]] bool UseCertificateFile(const CStringW& path);
    void SetPasswordCallback(SSLPasswordCallback callback, void* userData);
    [[nodiscard]] bool UsePrivateKeyFile(const CStringW& path);
    /// From then on peers are verified.
    [[nodiscard]] bool TrustAuthorities(const CStringW& path);
    [[nodiscard]] bool TrustsAuthorities() const { return m_TrustsAuthorities; }

    // --- The session

    /// Whether the provider has the entries without which a session fails or never ends.
    [[nodiscard]] bool IsPossible() const
    {
        return m_Ssl.m_pSSL_set_bio != nullptr && m_Ssl.m_pSSL_peek != nullptr;
    }
    /// Makes it, for a connection on this handle. @param server accepts the handshake, otherwise begins it.
    [[nodiscard]] bool Start(SOCKET handle, bool server);
    /// Tells the server which host this client means, and has its certificate checked when authorities are
    /// trusted.
    /// @return false when that cannot be done.
    [[nodiscard]] bool SetHostName(const CStringA& name);
    [[nodiscard]] bool Started() const { return m_pSession != nullptr; }
    [[nodiscard]] bool IsServer() const { return m_Server; }

    /// One step of the handshake. An error that only asks for patience is want-read or want-write.
    SSLOutcome Shake();
    SSLOutcome Read(void* buffer, int length);
    SSLOutcome Peek(void* buffer, int length);
    SSLOutcome Write(const void* data, int length);
    /// A result of 0: the close alert is sent, the peer's is still to come.
    SSLOutcome Shutdown();

    // Of the socket I/O object, where the provider has one that reads ahead:

    /// How many bytes it has taken from the system and the session not yet from it.
    int WaitingAhead() const { return static_cast<int>(AskBio(kSSLBioWaiting)); }
    /// Takes from it what the session has not. @return bytes.
    int TakeAhead(void* buffer, int length)
    {
        return static_cast<int>(AskBio(kSSLBioTakeAhead, length, buffer));
    }
    /// For a session that has not begun: moves what `before` has read ahead to it.
    void Inherit(SSLSession& before);

    /// What SSL_get_error says without a result at hand.
    int LastError() const { return m_Ssl.SSL_get_error(m_pSession, -1); }

    // --- What is known of the peer

    /// Null before the handshake is done. The texts below are the provider's.
    const ssl_cipher_st* Cipher() const { return m_Ssl.SSL_get_current_cipher(m_pSession); }
    const COpenSSL& Provider() const { return m_Ssl; }
    /// As PEM text. @return false, with `certificate` unchanged, when the peer has sent none.
    bool PeerCertificate(CStringA& certificate) const;
    /// Why the certificate of the peer was refused; empty when it was not.
    CStringA VerifyFailure() const;

private:
    class CallScope;

    long AskBio(int command, long argument = 0, void* pointer = nullptr) const
    {
        return m_Ssl.m_bReadsAhead ? m_Ssl.BIO_ctrl(m_pBio, command, argument, pointer) : 0;
    }

    const COpenSSL& m_Ssl;
    ssl_ctx_st* m_pContext = nullptr; // owned
    ssl_st* m_pSession = nullptr;     // owned, and owner of the socket I/O object
    bio_st* m_pBio = nullptr;         // the session's
    bool m_Server = true;
    bool m_TrustsAuthorities = false;
};

} // namespace tavronet

#endif
