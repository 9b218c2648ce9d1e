/// The table through which CTavroProductSocket calls an SSL library. No SSL header is needed: the opaque
/// types below are OpenSSL's own, so that its functions fit the pointers.
#ifndef TAVRONET_SOCKET_OPENSSLCONTRACT_H
#define TAVRONET_SOCKET_OPENSSLCONTRACT_H

#include "tavronet/platform/Export.h"

struct bio_method_st;
struct bio_st;
struct ssl_cipher_st;
struct ssl_ctx_st;
struct ssl_method_st;
struct ssl_st;
struct x509_st;

/// Reads a pass phrase into `buffer`. @return its length, 0 for none.
using SSLPasswordCallback = int (*)(char* buffer, int size, int writing, void* userData);

/// What SSL_get_error answers.
enum SSLError
{
    kSSLErrorFatal = 1,
    kSSLErrorWantRead = 2,
    kSSLErrorWantWrite = 3,
    kSSLErrorWantX509Lookup = 4,
    kSSLErrorSyscall = 5,
    kSSLErrorZeroReturn = 6, // the peer's close alert
    kSSLErrorWantConnect = 7
};

/// What BIO_ctrl is asked about the socket I/O objects of a provider with m_bReadsAhead.
enum SSLBioCommand
{
    kSSLBioWaiting = 10, // how many bytes it has read ahead: OpenSSL's BIO_CTRL_PENDING
    /// Whether its last read took all that the system had, and nobody has asked since.
    kSSLBioTakeDrained = 0x5441,
    kSSLBioTakeAhead, // moves up to `long` bytes that it has read ahead to the pointer, and tells how many
    kSSLBioGiveAhead  // has it read the `long` bytes at the pointer before all else; 0 = failure
};

// OpenSSL's header makes a macro of this name.
#pragma push_macro("SSL_get_peer_certificate")
#undef SSL_get_peer_certificate

/// An SSL provider: a loaded flag and a table of entry points, filled in by the host and given to
/// CTavroProductSocket::Init. TavroNET::OpenSSL has one ready (tavronet/openssl/OpenSSLProvider.h).
///
/// Ownership: the host's; it outlives every socket in SSL mode. The library only reads it.
/// Entries: a function of OpenSSL under its own name, or the role that the comment tells. Any may be null.
/// Members of the same name call their entry when the provider is loaded and the entry present; otherwise
/// they do nothing and return 0 or null.
/// Thread: entries run on the threads of the sockets.
/// Want-read: the entry has taken all the input there was, or some of it; it is called again at once while input
/// waits, otherwise when some comes. Want-write: it is called again when the system takes data, whatever input
/// waits. Other errors are final.
/// An entry must not: delete or close a socket, call one, dispatch messages, throw.
/// May: leave errors in the thread's error queue; the library empties it before each call that reads or
/// writes.
class TAVRONET_API COpenSSL
{
public:
    bool m_bLoaded = false;

    /// The socket I/O objects of this provider never raise SIGPIPE: it need not be blocked around each call.
    bool m_bRaisesNoSignals = false;

    /// The socket I/O objects of this provider may take more from the system than they are asked for, and
    /// answer the commands of SSLBioCommand.
    bool m_bReadsAhead = false;

    // The table. Paths are wide as the library has them, except in SSL_CTX_load_verify_locations, whose
    // member converts them to UTF-8.

    /// For modes other than 1.
    const ssl_method_st* (*m_pSSL_method)() = nullptr;
    /// For mode 1, and when restricted.
    const ssl_method_st* (*m_pSSL_method_mode1)() = nullptr;
    ssl_ctx_st* (*m_pSSL_CTX_new)(const ssl_method_st*) = nullptr;
    void (*m_pSSL_CTX_free)(ssl_ctx_st*) = nullptr;
    int (*m_pSSL_CTX_use_certificate_file)(ssl_ctx_st*, const wchar_t* file, int type) = nullptr;
    void (*m_pSSL_CTX_set_default_passwd_cb)(ssl_ctx_st*, SSLPasswordCallback) = nullptr;
    void (*m_pSSL_CTX_set_default_passwd_cb_userdata)(ssl_ctx_st*, void*) = nullptr;
    int (*m_pSSL_CTX_use_PrivateKey_file)(ssl_ctx_st*, const wchar_t* file, int type) = nullptr;
    int (*m_pSSL_CTX_load_verify_locations)(ssl_ctx_st*, const char* file, const char* directory) = nullptr;
    /// After trusted CAs were loaded: from now on the peer must be one they vouch for. 0 = failure.
    int (*m_pSSL_CTX_trust_loaded)(ssl_ctx_st*) = nullptr;
    int (*m_pSSL_CTX_set_cipher_list)(ssl_ctx_st*, const char*) = nullptr;
    ssl_st* (*m_pSSL_new)(ssl_ctx_st*) = nullptr;
    void (*m_pSSL_set_bio)(ssl_st*, bio_st* reading, bio_st* writing) = nullptr;
    void (*m_pSSL_free)(ssl_st*) = nullptr;
    int (*m_pSSL_accept)(ssl_st*) = nullptr;
    int (*m_pSSL_connect)(ssl_st*) = nullptr;
    int (*m_pSSL_read)(ssl_st*, void*, int) = nullptr;
    int (*m_pSSL_peek)(ssl_st*, void*, int) = nullptr;
    int (*m_pSSL_write)(ssl_st*, const void*, int) = nullptr;
    /// Command 32 sets options.
    long (*m_pSSL_CTX_ctrl)(ssl_ctx_st*, int command, long argument, void*) = nullptr;
    int (*m_pSSL_get_error)(const ssl_st*, int result) = nullptr;
    int (*m_pSSL_shutdown)(ssl_st*) = nullptr;
    /// The caller frees it.
    x509_st* (*m_pSSL_get_peer_certificate)(const ssl_st*) = nullptr;
    void (*m_pSSL_set_accept_state)(ssl_st*) = nullptr;
    void (*m_pSSL_set_connect_state)(ssl_st*) = nullptr;
    const char* (*m_pSSL_CIPHER_get_name)(const ssl_cipher_st*) = nullptr;
    int (*m_pSSL_CIPHER_get_bits)(const ssl_cipher_st*, int* algorithmBits) = nullptr;
    const char* (*m_pSSL_CIPHER_get_version)(const ssl_cipher_st*) = nullptr;
    char* (*m_pSSL_CIPHER_description)(const ssl_cipher_st*, char*, int size) = nullptr;
    const ssl_cipher_st* (*m_pSSL_get_current_cipher)(const ssl_st*) = nullptr;
    int (*m_pBIO_free)(bio_st*) = nullptr;
    bio_st* (*m_pBIO_new_socket)(int handle, int closesHandle) = nullptr;
    const bio_method_st* (*m_pBIO_s_mem)() = nullptr;
    bio_st* (*m_pBIO_new)(const bio_method_st*) = nullptr;
    /// Of a handshake call; may ask errno.
    int (*m_pBIO_sock_should_retry)(int result) = nullptr;
    /// Command 115: {size_t length; char* data; ...}. Others: SSLBioCommand.
    long (*m_pBIO_ctrl)(bio_st*, int command, long, void*) = nullptr;
    void (*m_pX509_free)(x509_st*) = nullptr;
    int (*m_pPEM_write_bio_X509)(bio_st*, const x509_st*) = nullptr;
    unsigned long (*m_pERR_get_error)() = nullptr;
    const char* (*m_pERR_lib_error_string)(unsigned long) = nullptr;
    const char* (*m_pERR_func_error_string)(unsigned long) = nullptr;
    const char* (*m_pERR_reason_error_string)(unsigned long) = nullptr;
    /// Whether only approved algorithms may be used.
    int (*m_pSSL_restricted)() = nullptr;

    // Beyond the table, for SetSSLHostName.

    /// Tells the server which host is meant; with `check` its certificate must be for that host. 0 = failure.
    int (*m_pSSL_set_host_name)(ssl_st*, const char* name, int check) = nullptr;
    /// Why the peer's certificate was refused; null when it was not.
    const char* (*m_pSSL_verify_failure)(const ssl_st*) = nullptr;

    const ssl_method_st* SSL_method() const { return Call(m_pSSL_method); }
    const ssl_method_st* SSL_method_mode1() const { return Call(m_pSSL_method_mode1); }
    ssl_ctx_st* SSL_CTX_new(const ssl_method_st* method) const { return Call(m_pSSL_CTX_new, method); }
    void SSL_CTX_free(ssl_ctx_st* context) const { Call(m_pSSL_CTX_free, context); }
    int SSL_CTX_use_certificate_file(ssl_ctx_st* context, const wchar_t* file, int type) const
    {
        return Call(m_pSSL_CTX_use_certificate_file, context, file, type);
    }
    void SSL_CTX_set_default_passwd_cb(ssl_ctx_st* context, SSLPasswordCallback callback) const
    {
        Call(m_pSSL_CTX_set_default_passwd_cb, context, callback);
    }
    void SSL_CTX_set_default_passwd_cb_userdata(ssl_ctx_st* context, void* data) const
    {
        Call(m_pSSL_CTX_set_default_passwd_cb_userdata, context, data);
    }
    int SSL_CTX_use_PrivateKey_file(ssl_ctx_st* context, const wchar_t* file, int type) const
    {
        return Call(m_pSSL_CTX_use_PrivateKey_file, context, file, type);
    }
    int SSL_CTX_load_verify_locations(ssl_ctx_st* context, const wchar_t* file,
                                      const wchar_t* directory) const;
    int SSL_CTX_trust_loaded(ssl_ctx_st* context) const { return Call(m_pSSL_CTX_trust_loaded, context); }
    int SSL_CTX_set_cipher_list(ssl_ctx_st* context, const char* list) const
    {
        return Call(m_pSSL_CTX_set_cipher_list, context, list);
    }
    ssl_st* SSL_new(ssl_ctx_st* context) const { return Call(m_pSSL_new, context); }
    void SSL_set_bio(ssl_st* session, bio_st* reading, bio_st* writing) const
    {
        Call(m_pSSL_set_bio, session, reading, writing);
    }
    void SSL_free(ssl_st* session) const { Call(m_pSSL_free, session); }
    int SSL_accept(ssl_st* session) const { return Call(m_pSSL_accept, session); }
    int SSL_connect(ssl_st* session) const { return Call(m_pSSL_connect, session); }
    int SSL_read(ssl_st* session, void* buffer, int length) const
    {
        return Call(m_pSSL_read, session, buffer, length);
    }
    int SSL_peek(ssl_st* session, void* buffer, int length) const
    {
        return Call(m_pSSL_peek, session, buffer, length);
    }
    int SSL_write(ssl_st* session, const void* data, int length) const
    {
        return Call(m_pSSL_write, session, data, length);
    }
    long SSL_CTX_ctrl(ssl_ctx_st* context, int command, long argument, void* pointer) const
    {
        return Call(m_pSSL_CTX_ctrl, context, command, argument, pointer);
    }
    int SSL_get_error(const ssl_st* session, int result) const
    {
        return Call(m_pSSL_get_error, session, result);
    }
    int SSL_shutdown(ssl_st* session) const { return Call(m_pSSL_shutdown, session); }
    x509_st* SSL_get_peer_certificate(const ssl_st* session) const
    {
        return Call(m_pSSL_get_peer_certificate, session);
    }
    void SSL_set_accept_state(ssl_st* session) const { Call(m_pSSL_set_accept_state, session); }
    void SSL_set_connect_state(ssl_st* session) const { Call(m_pSSL_set_connect_state, session); }
    const char* SSL_CIPHER_get_name(const ssl_cipher_st* cipher) const
    {
        return Call(m_pSSL_CIPHER_get_name, cipher);
    }
    int SSL_CIPHER_get_bits(const ssl_cipher_st* cipher, int* bits) const
    {
        return Call(m_pSSL_CIPHER_get_bits, cipher, bits);
    }
    const char* SSL_CIPHER_get_version(const ssl_cipher_st* cipher) const
    {
        return Call(m_pSSL_CIPHER_get_version, cipher);
    }
    char* SSL_CIPHER_description(const ssl_cipher_st* cipher, char* buffer, int size) const
    {
        return Call(m_pSSL_CIPHER_description, cipher, buffer, size);
    }
    const ssl_cipher_st* SSL_get_current_cipher(const ssl_st* session) const
    {
        return Call(m_pSSL_get_current_cipher, session);
    }
    int BIO_free(bio_st* bio) const { return Call(m_pBIO_free, bio); }
    bio_st* BIO_new_socket(int handle, int closesHandle) const
    {
        return Call(m_pBIO_new_socket, handle, closesHandle);
    }
    const bio_method_st* BIO_s_mem() const { return Call(m_pBIO_s_mem); }
    bio_st* BIO_new(const bio_method_st* method) const { return Call(m_pBIO_new, method); }
    int BIO_sock_should_retry(int result) const { return Call(m_pBIO_sock_should_retry, result); }
    long BIO_ctrl(bio_st* bio, int command, long argument, void* pointer) const
    {
        return Call(m_pBIO_ctrl, bio, command, argument, pointer);
    }
    void X509_free(x509_st* certificate) const { Call(m_pX509_free, certificate); }
    int PEM_write_bio_X509(bio_st* bio, const x509_st* certificate) const
    {
        return Call(m_pPEM_write_bio_X509, bio, certificate);
    }
    unsigned long ERR_get_error() const { return Call(m_pERR_get_error); }
    const char* ERR_lib_error_string(unsigned long code) const { return Call(m_pERR_lib_error_string, code); }
    const char* ERR_func_error_string(unsigned long code) const
    {
        return Call(m_pERR_func_error_string, code);
    }
    const char* ERR_reason_error_string(unsigned long code) const
    {
        return Call(m_pERR_reason_error_string, code);
    }
    int SSL_restricted() const { return Call(m_pSSL_restricted); }
    int SSL_set_host_name(ssl_st* session, const char* name, int check) const
    {
        return Call(m_pSSL_set_host_name, session, name, check);
    }
    const char* SSL_verify_failure(const ssl_st* session) const
    {
        return Call(m_pSSL_verify_failure, session);
    }

private:
    template <typename Result, typename... Parameters>
    Result Call(Result (*entry)(Parameters...), Parameters... arguments) const
    {
        if (!m_bLoaded || entry == nullptr)
            return Result();
        return entry(arguments...);
    }
};

#pragma pop_macro("SSL_get_peer_certificate")

#endif
