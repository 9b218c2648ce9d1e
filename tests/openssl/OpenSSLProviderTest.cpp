// The provider by itself; what it does for connections is in RealPeersTest.cpp.

#include "tavronet/openssl/OpenSSLProvider.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>

#include "tavronet/platform/String.h"
#include "tests/openssl/Certificates.h"

using tavronet::Certificate;

namespace
{

const COpenSSL& ssl = *OpenSSLProvider();

using Context = std::unique_ptr<ssl_ctx_st, void (*)(ssl_ctx_st*)>;
using Session = std::unique_ptr<ssl_st, void (*)(ssl_st*)>;

Context NewContext()
{
    return {ssl.SSL_CTX_new(ssl.SSL_method()), ssl.m_pSSL_CTX_free};
}

Session NewServer(const std::string& name, const char* trusted = nullptr)
{
    constexpr int kPem = 1;
    const Context context = NewContext();
    const auto path = [](const std::string& file) { return CStringW(Certificate(file).c_str()); };
    EXPECT_EQ(ssl.SSL_CTX_use_certificate_file(context.get(), path(name + ".pem"), kPem), 1);
    EXPECT_EQ(ssl.SSL_CTX_use_PrivateKey_file(context.get(), path(name + ".key"), kPem), 1);
    if (trusted != nullptr) {
        EXPECT_EQ(ssl.SSL_CTX_load_verify_locations(context.get(), path(trusted), nullptr), 1);
        EXPECT_EQ(ssl.SSL_CTX_trust_loaded(context.get()), 1);
    }
    return {ssl.SSL_new(context.get()), ssl.m_pSSL_free};
}

} // namespace

TEST(OpenSSLProvider, ErrorsOfOthersAndDeadPeersDoNoHarm)
{
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair), 0);
    const Session owned = NewServer("server");
    ssl_st* const session = owned.get();
    bio_st* const bio = ssl.BIO_new_socket(pair[0], 1);
    ssl.SSL_set_bio(session, bio, bio);
    ssl.SSL_set_accept_state(session);
    char byte = 0;
    const std::function<int()> calls[] = {
        [=] { return ssl.SSL_accept(session); }, [&] { return ssl.SSL_read(session, &byte, 1); },
        [&] { return ssl.SSL_peek(session, &byte, 1); }, [&] { return ssl.SSL_write(session, &byte, 1); }};
    for (const auto& call : calls) {
        ERR_raise(ERR_LIB_USER, ERR_R_INTERNAL_ERROR);
        EXPECT_EQ(ssl.SSL_get_error(session, call()), kSSLErrorWantRead);
    }
    close(pair[1]);
    EXPECT_EQ(ssl.SSL_get_error(session, ssl.SSL_accept(session)), kSSLErrorFatal) << "without a close alert";
    SSL_set_connect_state(session);
    EXPECT_LT(ssl.SSL_connect(session), 0) << "without a signal";
}

TEST(OpenSSLProvider, WhatTheListAndTheOptionsSayIsMadeSafe)
{
    EXPECT_EQ(ssl.SSL_CTX_set_cipher_list(NewContext().get(), "aNULL:@SECLEVEL=0"), 0);
    const Context context = NewContext();
    EXPECT_EQ(ssl.SSL_CTX_set_cipher_list(context.get(), "ALL:@SECLEVEL=0"), 1);
    ssl.SSL_CTX_ctrl(context.get(), 32, 0x1400000, nullptr);
    const Session session(ssl.SSL_new(context.get()), ssl.m_pSSL_free);
    const STACK_OF(SSL_CIPHER)* const ciphers = SSL_get_ciphers(session.get());
    ASSERT_GT(sk_SSL_CIPHER_num(ciphers), 10);
    for (int i = 0; i < sk_SSL_CIPHER_num(ciphers); ++i)
        EXPECT_NE(SSL_CIPHER_get_auth_nid(sk_SSL_CIPHER_value(ciphers, i)), NID_auth_null);
    EXPECT_EQ(SSL_get_options(session.get()) & (SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_NO_ANTI_REPLAY),
              SSL_OP_CIPHER_SERVER_PREFERENCE);
    EXPECT_EQ(ssl.SSL_CTX_new(nullptr), nullptr);
}

TEST(OpenSSLProvider, ContextsOfTheSameFilesAreSharedUntilOneChanges)
{
    const std::string name = "shar\xc3\xa9"; // the path is UTF-8
    const auto copyFiles = [&name](const std::string& from) {
        for (const char* kind : {".pem", ".key"})
            std::filesystem::copy_file(Certificate(from + kind), Certificate(name + kind),
                                       std::filesystem::copy_options::overwrite_existing);
    };
    copyFiles("server");
    const Session first = NewServer(name), second = NewServer(name), other = NewServer(name, "ca.pem");
    EXPECT_EQ(SSL_get_SSL_CTX(first.get()), SSL_get_SSL_CTX(second.get()));
    EXPECT_NE(SSL_get_SSL_CTX(first.get()), SSL_get_SSL_CTX(other.get()));
    EXPECT_EQ(SSL_get_verify_mode(second.get()), SSL_VERIFY_NONE);
    copyFiles("client");
    EXPECT_NE(X509_cmp(SSL_get_certificate(first.get()), SSL_get_certificate(NewServer(name).get())), 0);
}
