#include "tavronet/socket/SSLSession.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <memory>
#include <optional>

#include "tavronet/platform/SigPipeBlock.h"

namespace tavronet
{
namespace
{

constexpr int kPemFile = 1;
constexpr int kDoNotClose = 0;
constexpr UINT kFirstMode = 1;

constexpr int kSetOptions = 32; // command of SSL_CTX_ctrl
constexpr int kServerCipherPreference = 0x400000;
constexpr int kNoSSLv2 = 0x1000000;

constexpr int kGetMemoryBuffer = 115; // command of BIO_ctrl

constexpr char kStandardCiphers[] =
    "ALL:@STRENGTH:+HIGH:+TLSv1:+SSLv3:+SSLv2:+3DES:!EXP:!LOW:!DH:!aDH:!kEDH:!kDHr:!kDHd";
constexpr char kWeakCiphersToo[] =
    "ALL:@STRENGTH:+HIGH:+TLSv1:+SSLv3:+SSLv2:+3DES:+LOW:+EXP:!DH:!aDH:!kEDH:!kDHr:!kDHd";

constexpr int kInheritedAtOnce = 1024;

/// More errors than this no provider keeps; one that never runs out must not hold the thread.
constexpr int kMaxQueuedErrors = 64;

/// The start of OpenSSL's memory buffer.
struct MemoryBuffer
{
    std::size_t length;
    char* data;
};

} // namespace

/// Around a call that reads or writes. An old error, or an old errno, would be taken for its outcome, and a write
/// to a peer that has gone would end the process.
class SSLSession::CallScope
{
public:
    explicit CallScope(const COpenSSL& ssl)
    {
        DropErrors(ssl);
        if (!ssl.m_bRaisesNoSignals)
            m_Block.emplace();
        errno = 0;
    }

private:
    std::optional<SigPipeBlock> m_Block;
};

void SSLSession::DropErrors(const COpenSSL& ssl)
{
    for (int i = 0; i < kMaxQueuedErrors && ssl.ERR_get_error() != 0; ++i)
        continue;
}

SSLSession::~SSLSession()
{
    if (m_pSession != nullptr)
        m_Ssl.SSL_free(m_pSession);
    if (m_pContext != nullptr)
        m_Ssl.SSL_CTX_free(m_pContext);
}

// --- The context

bool SSLSession::MakeContext(UINT mode, bool noSSLv2, bool weakCiphers)
{
    const bool restricted = m_Ssl.SSL_restricted() != 0;
    m_pContext =
        m_Ssl.SSL_CTX_new(restricted || mode == kFirstMode ? m_Ssl.SSL_method_mode1() : m_Ssl.SSL_method());
    if (m_pContext == nullptr)
        return false;
    m_Ssl.SSL_CTX_ctrl(m_pContext, kSetOptions, kServerCipherPreference | (noSSLv2 ? kNoSSLv2 : 0), nullptr);
    if (!restricted)
        m_Ssl.SSL_CTX_set_cipher_list(m_pContext, weakCiphers ? kWeakCiphersToo : kStandardCiphers);
    return true;
}

bool SSLSession::UseCertificateFile(const CStringW& path)
{
    return m_Ssl.SSL_CTX_use_certificate_file(m_pContext, path, kPemFile) != 0;
}

void SSLSession::SetPasswordCallback(SSLPasswordCallback callback, void* userData)
{
    m_Ssl.SSL_CTX_set_default_passwd_cb(m_pContext, callback);
    m_Ssl.SSL_CTX_set_default_passwd_cb_userdata(m_pContext, userData);
}

bool SSLSession::UsePrivateKeyFile(const CStringW& path)
{
    return m_Ssl.SSL_CTX_use_PrivateKey_file(m_pContext, path, kPemFile) != 0;
}

bool SSLSession::TrustAuthorities(const CStringW& path)
{
    m_TrustsAuthorities = m_Ssl.SSL_CTX_load_verify_locations(m_pContext, path, nullptr) != 0 &&
                          m_Ssl.SSL_CTX_trust_loaded(m_pContext) != 0;
    return m_TrustsAuthorities;
}

// --- The session

bool SSLSession::Start(SOCKET handle, bool server)
{
    m_Server = server;
    m_pSession = m_Ssl.SSL_new(m_pContext);
    if (m_pSession != nullptr)
        m_pBio = m_Ssl.BIO_new_socket(static_cast<int>(handle), kDoNotClose);
    if (m_pBio == nullptr)
        return false;
    m_Ssl.SSL_set_bio(m_pSession, m_pBio, m_pBio);
    if (server)
        m_Ssl.SSL_set_accept_state(m_pSession);
    else
        m_Ssl.SSL_set_connect_state(m_pSession);
    return true;
}

bool SSLSession::SetHostName(const CStringA& name)
{
    const int check = m_TrustsAuthorities ? 1 : 0;
    return m_Ssl.SSL_set_host_name(m_pSession, name, check) != 0 || check == 0;
}

SSLOutcome SSLSession::Shake()
{
    const CallScope scope(m_Ssl);
    const int result = m_Server ? m_Ssl.SSL_accept(m_pSession) : m_Ssl.SSL_connect(m_pSession);
    if (result > 0)
        return {result, 0};
    const bool retry = m_Ssl.BIO_sock_should_retry(result) != 0; // first of all: it may ask errno
    SSLOutcome outcome{result, m_Ssl.SSL_get_error(m_pSession, result)};
    if (retry && !outcome.WouldBlock())
        outcome.error = kSSLErrorWantRead;
    return outcome;
}

SSLOutcome SSLSession::Read(void* buffer, int length)
{
    const CallScope scope(m_Ssl);
    AskBio(kSSLBioTakeDrained); // what an earlier call has found may be wrong by now
    const int result = m_Ssl.SSL_read(m_pSession, buffer, length);
    const bool drained = AskBio(kSSLBioTakeDrained) != 0;
    return {result, result > 0 ? 0 : m_Ssl.SSL_get_error(m_pSession, result), drained};
}

SSLOutcome SSLSession::Peek(void* buffer, int length)
{
    const CallScope scope(m_Ssl);
    const int result = m_Ssl.SSL_peek(m_pSession, buffer, length);
    SSLOutcome outcome{result, result > 0 ? 0 : m_Ssl.SSL_get_error(m_pSession, result)};
    // Behind the peer's alert OpenSSL still tells what the call before wanted.
    if (result == 0 && outcome.WouldBlock())
        outcome.error = kSSLErrorZeroReturn;
    return outcome;
}

SSLOutcome SSLSession::Write(const void* data, int length)
{
    const CallScope scope(m_Ssl);
    const int result = m_Ssl.SSL_write(m_pSession, data, length);
    return {result, result > 0 ? 0 : m_Ssl.SSL_get_error(m_pSession, result)};
}

SSLOutcome SSLSession::Shutdown()
{
    const CallScope scope(m_Ssl);
    const int result = m_Ssl.SSL_shutdown(m_pSession);
    return {result, result >= 0 ? 0 : m_Ssl.SSL_get_error(m_pSession, -1)};
}

void SSLSession::Inherit(SSLSession& before)
{
    unsigned char bytes[kInheritedAtOnce];
    for (int count = 0; (count = before.TakeAhead(bytes, sizeof bytes)) > 0;)
        AskBio(kSSLBioGiveAhead, count, bytes);
}

// --- What is known of the peer

bool SSLSession::PeerCertificate(CStringA& certificate) const
{
    const auto freeCertificate = [this](x509_st* object) { m_Ssl.X509_free(object); };
    const auto freeBio = [this](bio_st* object) { m_Ssl.BIO_free(object); };

    const std::unique_ptr<x509_st, decltype(freeCertificate)> peer(m_Ssl.SSL_get_peer_certificate(m_pSession),
                                                                   freeCertificate);
    if (peer == nullptr)
        return false;
    const bio_method_st* const memory = m_Ssl.BIO_s_mem();
    const std::unique_ptr<bio_st, decltype(freeBio)> bio(memory != nullptr ? m_Ssl.BIO_new(memory) : nullptr,
                                                         freeBio);
    if (bio == nullptr || m_Ssl.PEM_write_bio_X509(bio.get(), peer.get()) <= 0)
        return false;
    MemoryBuffer* text = nullptr;
    m_Ssl.BIO_ctrl(bio.get(), kGetMemoryBuffer, 0, static_cast<void*>(&text));
    if (text == nullptr || text->length == 0)
        return false;
    certificate = CStringA(text->data, static_cast<int>(std::min<std::size_t>(text->length, INT_MAX)));
    return true;
}

CStringA SSLSession::VerifyFailure() const
{
    return m_TrustsAuthorities && Started() ? CStringA(m_Ssl.SSL_verify_failure(m_pSession)) : CStringA();
}

} // namespace tavronet
