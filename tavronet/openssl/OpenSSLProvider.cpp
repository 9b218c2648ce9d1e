// The table, entry by entry. Most are functions of OpenSSL; what stands above the table corrects those that
// OpenSSL 3 no longer has, that depend on what others left behind in the thread's error queue, or whose
// default is not safe.

#include "tavronet/openssl/OpenSSLProvider.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <new>
#include <string>

#include "tavronet/openssl/ContextRecipe.h"
#include "tavronet/openssl/SocketBio.h"
#include "tavronet/platform/String.h"

using tavronet::ContextRecipe;
using tavronet::FileState;

namespace
{

constexpr int kSetOptions = 32;           // a command of old, now a function of its own
constexpr long kNoSSLv2Of1_0 = 0x1000000; // since then the bit means something else, and there is no SSLv2

constexpr char kNeverUsable[] = ":!aNULL:!eNULL";

// --- Contexts: recipes, see there. Only the entries below take them apart.

ContextRecipe& Of(ssl_ctx_st* context)
{
    return *reinterpret_cast<ContextRecipe*>(context);
}

ssl_ctx_st* NewContext(const SSL_METHOD* method)
{
    if (method == nullptr)
        return nullptr;
    return reinterpret_cast<ssl_ctx_st*>(new (std::nothrow) ContextRecipe(method));
}

void FreeContext(ssl_ctx_st* context)
{
    delete &Of(context);
}

SSL* NewSession(ssl_ctx_st* context)
{
    return Of(context).NewSession();
}

long ControlContext(ssl_ctx_st* context, int command, long argument, void* pointer)
{
    const std::string name = "ctrl " + std::to_string(command) + " " + std::to_string(argument);
    const auto control = [=](SSL_CTX* made) {
        if (command != kSetOptions)
            return SSL_CTX_ctrl(made, command, argument, pointer) != 0;
        SSL_CTX_set_options(made, static_cast<std::uint64_t>(argument & ~kNoSSLv2Of1_0));
        return true;
    };
    return Of(context).Add(name, control) ? 1 : 0;
}

int SetCipherList(ssl_ctx_st* context, const char* list)
{
    const std::string safe = std::string(list) + kNeverUsable;
    return Of(context).Add("ciphers " + safe, [safe](SSL_CTX* made) {
        return SSL_CTX_set_cipher_list(made, safe.c_str()) == 1;
    });
}

int UseCertificateFile(ssl_ctx_st* context, const wchar_t* file, int type)
{
    const CStringA path(file);
    const auto use = [path, type](SSL_CTX* made) {
        return (type == SSL_FILETYPE_PEM ? SSL_CTX_use_certificate_chain_file(made, path)
                                         : SSL_CTX_use_certificate_file(made, path, type)) == 1;
    };
    return Of(context).Add("certificate " + FileState(path) + std::to_string(type), use);
}

void SetPasswordCallback(ssl_ctx_st* context, pem_password_cb* callback)
{
    Of(context).passwordCallback = callback;
}

void SetPasswordData(ssl_ctx_st* context, void* data)
{
    Of(context).passwordData = data;
}

/// Of the pass phrase: the key may be known, but only to those who know this too.
std::string PhraseDigest(const ContextRecipe& recipe)
{
    char phrase[PEM_BUFSIZE] = "";
    const int length = recipe.passwordCallback != nullptr
                           ? recipe.passwordCallback(phrase, sizeof phrase, 0, recipe.passwordData)
                           : 0;
    std::string digest(SHA256_DIGEST_LENGTH, '\0');
    SHA256(reinterpret_cast<unsigned char*>(phrase), static_cast<std::size_t>(std::max(length, 0)),
           reinterpret_cast<unsigned char*>(digest.data()));
    OPENSSL_cleanse(phrase, sizeof phrase);
    return digest;
}

int UsePrivateKeyFile(ssl_ctx_st* context, const wchar_t* file, int type)
{
    ContextRecipe& recipe = Of(context);
    const CStringA path(file);
    const auto use = [path, type, callback = recipe.passwordCallback,
                      data = recipe.passwordData](SSL_CTX* made) {
        SSL_CTX_set_default_passwd_cb(made, callback);
        SSL_CTX_set_default_passwd_cb_userdata(made, data);
        const bool used = SSL_CTX_use_PrivateKey_file(made, path, type) == 1;
        SSL_CTX_set_default_passwd_cb(made, nullptr); // the context may outlive them
        SSL_CTX_set_default_passwd_cb_userdata(made, nullptr);
        return used;
    };
    return recipe.Add("key " + FileState(path) + std::to_string(type) + PhraseDigest(recipe), use);
}

int LoadAuthorities(ssl_ctx_st* context, const char* file, const char* directory)
{
    const std::string files = file != nullptr ? file : "",
                      directories = directory != nullptr ? directory : "";
    const auto load = [files, directories](SSL_CTX* made) {
        return SSL_CTX_load_verify_locations(made, files.empty() ? nullptr : files.c_str(),
                                             directories.empty() ? nullptr : directories.c_str()) == 1;
    };
    return Of(context).Add("authorities " + FileState(files.c_str()) + directories, load);
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

int TrustLoaded(ssl_ctx_st* context)
{
    const auto trust = [](SSL_CTX* made) {
        SSL_CTX_set_verify(made, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        return NameLoadedCAs(made);
    };
    return Of(context).Add("trust", trust);
}

// --- Sessions

/// An error left in the queue by somebody else would be taken for the outcome of this call.
template <auto function, typename... Arguments>
int WithoutOldErrors(Arguments... arguments)
{
    ERR_clear_error();
    return function(arguments...);
}

/// A peer that asks for new keys while it still sends may be answered behind our close alert, where it takes what comes
/// for clear text.
int Shutdown(SSL* session)
{
    ERR_clear_error();
    const int result = SSL_shutdown(session);
    if (result >= 0) // our alert has been sent
        BIO_ctrl(SSL_get_wbio(session), tavronet::kDropWrites, 0, nullptr);
    return result;
}

bool IsAddress(const char* name)
{
    unsigned char bytes[sizeof(in6_addr)];
    return inet_pton(AF_INET, name, bytes) == 1 || inet_pton(AF_INET6, name, bytes) == 1;
}

/// A dot at the end, which says that the name is whole, is no part of it. One at the start would stand for any host of a
/// domain: refused.
int SetHostName(SSL* session, const char* givenName, int check)
{
    std::string text = givenName;
    if (text.ends_with('.'))
        text.pop_back();
    if (text.starts_with('.'))
        return 0;
    const char* const name = text.c_str();
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
    provider.m_bReadsAhead = true;

    provider.m_pSSL_method = TLS_method;
    provider.m_pSSL_method_mode1 = TLS_method;
    provider.m_pSSL_CTX_new = NewContext;
    provider.m_pSSL_CTX_free = FreeContext;
    provider.m_pSSL_CTX_use_certificate_file = UseCertificateFile;
    provider.m_pSSL_CTX_set_default_passwd_cb = SetPasswordCallback;
    provider.m_pSSL_CTX_set_default_passwd_cb_userdata = SetPasswordData;
    provider.m_pSSL_CTX_use_PrivateKey_file = UsePrivateKeyFile;
    provider.m_pSSL_CTX_load_verify_locations = LoadAuthorities;
    provider.m_pSSL_CTX_trust_loaded = TrustLoaded;
    provider.m_pSSL_CTX_set_cipher_list = SetCipherList;
    provider.m_pSSL_new = NewSession;
    provider.m_pSSL_set_bio = SSL_set_bio;
    provider.m_pSSL_free = SSL_free;
    provider.m_pSSL_accept = WithoutOldErrors<SSL_accept>;
    provider.m_pSSL_connect = WithoutOldErrors<SSL_connect>;
    provider.m_pSSL_read = WithoutOldErrors<SSL_read>;
    provider.m_pSSL_peek = WithoutOldErrors<SSL_peek>;
    provider.m_pSSL_write = WithoutOldErrors<SSL_write>;
    provider.m_pSSL_CTX_ctrl = ControlContext;
    provider.m_pSSL_get_error = SSL_get_error;
    provider.m_pSSL_shutdown = Shutdown;
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
