// The table, entry by entry. Most are functions of OpenSSL; what stands above the table corrects those that
// OpenSSL 3 no longer has, that depend on what others left behind in the thread's error queue, or whose
// default is not safe.

#include "tavronet/openssl/OpenSSLProvider.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <string>

#include "tavronet/openssl/SocketBio.h"
#include "tavronet/platform/String.h"

namespace
{

constexpr int kSetOptions = 32;           // a command of old, now a function of its own
constexpr long kNoSSLv2Of1_0 = 0x1000000; // since then the bit means something else, and there is no SSLv2

constexpr char kNeverUsable[] = ":!aNULL:!eNULL";

// --- Contexts

SSL_CTX* NewContext(const SSL_METHOD* method)
{
    SSL_CTX* const context = SSL_CTX_new(method);
    if (context == nullptr)
        return nullptr;
    // A write is repeated from where its bytes then stand; an idle session holds no buffers.
    SSL_CTX_set_mode(context, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_TICKET);
    SSL_CTX_set_num_tickets(context, 0); // nobody could come back with one
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    return context;
}

long ControlContext(SSL_CTX* context, int command, long argument, void* pointer)
{
    if (command == kSetOptions)
        return static_cast<long>(
            SSL_CTX_set_options(context, static_cast<std::uint64_t>(argument & ~kNoSSLv2Of1_0)));
    return SSL_CTX_ctrl(context, command, argument, pointer);
}

int SetCipherList(SSL_CTX* context, const char* list)
{
    return SSL_CTX_set_cipher_list(context, (std::string(list) + kNeverUsable).c_str());
}

int UseCertificateFile(SSL_CTX* context, const wchar_t* file, int type)
{
    const CStringA path(file);
    if (type == SSL_FILETYPE_PEM)
        return SSL_CTX_use_certificate_chain_file(context, path);
    return SSL_CTX_use_certificate_file(context, path, type);
}

int UsePrivateKeyFile(SSL_CTX* context, const wchar_t* file, int type)
{
    return SSL_CTX_use_PrivateKey_file(context, CStringA(file), type);
}

/// Tells clients whose certificates are welcome. @return false when memory is exhausted.
bool NameLoadedCAs(SSL_CTX* context)
{
    STACK_OF(X509_OBJECT)* const objects = X509_STORE_get0_objects(SSL_CTX_get_cert_store(context));
    for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
        X509* const certificate = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i));
        if (certificate != nullptr && SSL_CTX_add_client_CA(context, certificate) != 1)
            return false;
    }
    return true;
}

int TrustLoaded(SSL_CTX* context)
{
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    return NameLoadedCAs(context) ? 1 : 0;
}

// --- Sessions

/// An error left in the queue by somebody else would be taken for the outcome of this call.
template <auto function, typename... Arguments>
int WithoutOldErrors(Arguments... arguments)
{
    ERR_clear_error();
    return function(arguments...);
}

bool IsAddress(const char* name)
{
    unsigned char bytes[sizeof(in6_addr)];
    return inet_pton(AF_INET, name, bytes) == 1 || inet_pton(AF_INET6, name, bytes) == 1;
}

int SetHostName(SSL* session, const char* name, int check)
{
    X509_VERIFY_PARAM* const parameters = SSL_get0_param(session);
    if (IsAddress(name)) // has no place among the names that a client tells
        return check == 0 || X509_VERIFY_PARAM_set1_ip_asc(parameters, name) == 1;
    if (SSL_set_tlsext_host_name(session, name) != 1)
        return 0;
    X509_VERIFY_PARAM_set_hostflags(parameters, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    return check == 0 || X509_VERIFY_PARAM_set1_host(parameters, name, 0) == 1;
}

const char* VerifyFailure(const SSL* session)
{
    const long result = SSL_get_verify_result(session);
    return result != X509_V_OK ? X509_verify_cert_error_string(result) : nullptr;
}

// --- Errors

const char* OrEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

const char* LibraryText(unsigned long code)
{
    return OrEmpty(ERR_lib_error_string(code));
}

const char* FunctionText(unsigned long)
{
    return ""; // OpenSSL 3 keeps none
}

const char* ReasonText(unsigned long code)
{
    return OrEmpty(ERR_reason_error_string(code));
}

int IsRestricted()
{
    return EVP_default_properties_is_fips_enabled(nullptr);
}

COpenSSL MakeProvider()
{
    COpenSSL provider;
    provider.m_bLoaded = true;
    provider.m_bRaisesNoSignals = true;

    provider.m_pSSL_method = TLS_method;
    provider.m_pSSL_method_mode1 = TLS_method;
    provider.m_pSSL_CTX_new = NewContext;
    provider.m_pSSL_CTX_free = SSL_CTX_free;
    provider.m_pSSL_CTX_use_certificate_file = UseCertificateFile;
    provider.m_pSSL_CTX_set_default_passwd_cb = SSL_CTX_set_default_passwd_cb;
    provider.m_pSSL_CTX_set_default_passwd_cb_userdata = SSL_CTX_set_default_passwd_cb_userdata;
    provider.m_pSSL_CTX_use_PrivateKey_file = UsePrivateKeyFile;
    provider.m_pSSL_CTX_load_verify_locations = SSL_CTX_load_verify_locations;
    provider.m_pSSL_CTX_trust_loaded = TrustLoaded;
    provider.m_pSSL_CTX_set_cipher_list = SetCipherList;
    provider.m_pSSL_new = SSL_new;
    provider.m_pSSL_set_bio = SSL_set_bio;
    provider.m_pSSL_free = SSL_free;
    provider.m_pSSL_accept = WithoutOldErrors<SSL_accept>;
    provider.m_pSSL_connect = WithoutOldErrors<SSL_connect>;
    provider.m_pSSL_read = WithoutOldErrors<SSL_read>;
    provider.m_pSSL_peek = WithoutOldErrors<SSL_peek>;
    provider.m_pSSL_write = WithoutOldErrors<SSL_write>;
    provider.m_pSSL_CTX_ctrl = ControlContext;
    provider.m_pSSL_get_error = SSL_get_error;
    provider.m_pSSL_shutdown = WithoutOldErrors<SSL_shutdown>;
    provider.m_pSSL_get_peer_certificate = SSL_get1_peer_certificate;
    provider.m_pSSL_set_accept_state = SSL_set_accept_state;
    provider.m_pSSL_set_connect_state = SSL_set_connect_state;
    provider.m_pSSL_CIPHER_get_name = SSL_CIPHER_get_name;
    provider.m_pSSL_CIPHER_get_bits = SSL_CIPHER_get_bits;
    provider.m_pSSL_CIPHER_get_version = SSL_CIPHER_get_version;
    provider.m_pSSL_CIPHER_description = SSL_CIPHER_description;
    provider.m_pSSL_get_current_cipher = SSL_get_current_cipher;
    provider.m_pBIO_free = BIO_free;
    provider.m_pBIO_new_socket = tavronet::NewSocketBio;
    provider.m_pBIO_s_mem = BIO_s_mem;
    provider.m_pBIO_new = BIO_new;
    provider.m_pBIO_sock_should_retry = BIO_sock_should_retry;
    provider.m_pBIO_ctrl = BIO_ctrl;
    provider.m_pX509_free = X509_free;
    provider.m_pPEM_write_bio_X509 = PEM_write_bio_X509;
    provider.m_pERR_get_error = ERR_get_error;
    provider.m_pERR_lib_error_string = LibraryText;
    provider.m_pERR_func_error_string = FunctionText;
    provider.m_pERR_reason_error_string = ReasonText;
    provider.m_pSSL_restricted = IsRestricted;
    provider.m_pSSL_set_host_name = SetHostName;
    provider.m_pSSL_verify_failure = VerifyFailure;
    return provider;
}

} // namespace

COpenSSL* OpenSSLProvider()
{
    static COpenSSL provider = MakeProvider();
    return &provider;
}
