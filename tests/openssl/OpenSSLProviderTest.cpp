// The provider by itself; what it does for connections is in RealPeersTest.cpp.

#include "tavronet/openssl/OpenSSLProvider.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <utility>

#include "tavronet/platform/String.h"
#include "tests/openssl/Certificates.h"

using tavronet::Certificate;

namespace
{

const COpenSSL& ssl = *OpenSSLProvider();

constexpr int kPem = 1;
constexpr int kBytes = 300000; // more than a connection takes

struct Deleter
{
    void operator()(ssl_ctx_st* context) const { ssl.SSL_CTX_free(context); }
    void operator()(ssl_st* session) const { ssl.SSL_free(session); }
};
using Context = std::unique_ptr<ssl_ctx_st, Deleter>;
using Session = std::unique_ptr<ssl_st, Deleter>;

CStringW Path(const std::string& file)
{
    return CStringW(Certificate(file).c_str());
}

Context NewContext()
{
    return Context(ssl.SSL_CTX_new(ssl.SSL_method()));
}

Session NewServer(const std::string& name, const char* trusted = nullptr)
{
    const Context context = NewContext();
    EXPECT_EQ(ssl.SSL_CTX_use_certificate_file(context.get(), Path(name + ".pem"), kPem), 1);
    EXPECT_EQ(ssl.SSL_CTX_use_PrivateKey_file(context.get(), Path(name + ".key"), kPem), 1);
    if (trusted != nullptr) {
        EXPECT_EQ(ssl.SSL_CTX_load_verify_locations(context.get(), Path(trusted), nullptr), 1);
        EXPECT_EQ(ssl.SSL_CTX_trust_loaded(context.get()), 1);
    }
    return Session(ssl.SSL_new(context.get()));
}

/// Two sessions over a pair of sockets, shaken.
struct Connection
{
    Connection()
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair), 0);
        for (const auto& [session, handle] :
             {std::pair(server.get(), pair[0]), std::pair(client.get(), pair[1])}) {
            bio_st* const bio = ssl.BIO_new_socket(handle, 0);
            ssl.SSL_set_bio(session, bio, bio);
        }
        int ofServer = 0, ofClient = 0;
        for (int step = 0; step < 10 && (ofServer <= 0 || ofClient <= 0); ++step) {
            ofClient = ssl.SSL_connect(client.get());
            ofServer = ssl.SSL_accept(server.get());
        }
        EXPECT_TRUE(ofServer == 1 && ofClient == 1);
    }
    ~Connection()
    {
        Cut();
        close(pair[1]);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int ClientError(int result) const { return ssl.SSL_get_error(client.get(), result); }
    std::string ServerReads() const
    {
        std::string all, part(kBytes, '\0');
        for (int got; (got = ssl.SSL_read(server.get(), part.data(), kBytes)) > 0;)
            all.append(part, 0, static_cast<std::size_t>(got));
        return all;
    }
    void Cut()
    {
        if (pair[0] >= 0)
            close(std::exchange(pair[0], -1));
    }

    int pair[2];
    Session server = NewServer("server"), client{ssl.SSL_new(NewContext().get())};
};

} // namespace

TEST(OpenSSLProvider, ErrorsOfOthersAndDeadPeersDoNoHarm)
{
    Connection both;
    const std::string data(kBytes, 'x'), same = data;
    char byte = 0;
    const auto leaveError = [] { ERR_raise(ERR_LIB_USER, ERR_R_INTERNAL_ERROR); };
    leaveError();
    EXPECT_EQ(both.ClientError(ssl.SSL_read(both.client.get(), &byte, 1)), kSSLErrorWantRead);
    leaveError();
    EXPECT_EQ(both.ClientError(ssl.SSL_peek(both.client.get(), &byte, 1)), kSSLErrorWantRead);
    leaveError();
    EXPECT_EQ(both.ClientError(ssl.SSL_write(both.client.get(), data.data(), kBytes)), kSSLErrorWantWrite);

    std::string received = both.ServerReads();
    int written = -1;
    for (int round = 0; round < 100 && written <= 0; ++round) {
        written = ssl.SSL_write(both.client.get(), same.data(), kBytes); // from another place
        received += both.ServerReads();
    }
    EXPECT_EQ(written, kBytes);
    EXPECT_EQ(received, data);

    Connection other;
    both.Cut();
    other.Cut();
    EXPECT_EQ(both.ClientError(ssl.SSL_read(both.client.get(), &byte, 1)), kSSLErrorFatal); // no close alert
    EXPECT_LT(ssl.SSL_write(other.client.get(), "x", 1), 0); // without a signal
    EXPECT_LE(ssl.SSL_shutdown(other.client.get()), 0);
}

TEST(OpenSSLProvider, WhatTheListAndTheOptionsSayIsMadeSafe)
{
    EXPECT_EQ(ssl.SSL_CTX_set_cipher_list(NewContext().get(), "aNULL:@SECLEVEL=0"), 0);
    const Context context = NewContext();
    EXPECT_EQ(ssl.SSL_CTX_set_cipher_list(context.get(), "ALL:@SECLEVEL=0"), 1);
    ssl.SSL_CTX_ctrl(context.get(), 32, 0x1400000, nullptr);
    const Session session(ssl.SSL_new(context.get()));
    const STACK_OF(SSL_CIPHER)* const ciphers = SSL_get_ciphers(session.get());
    ASSERT_GT(sk_SSL_CIPHER_num(ciphers), 10);
    for (int i = 0; i < sk_SSL_CIPHER_num(ciphers); ++i)
        EXPECT_NE(SSL_CIPHER_get_auth_nid(sk_SSL_CIPHER_value(ciphers, i)), NID_auth_null);
    const std::uint64_t options = SSL_get_options(session.get());
    EXPECT_TRUE(options & SSL_OP_CIPHER_SERVER_PREFERENCE);
    EXPECT_FALSE(options & SSL_OP_NO_ANTI_REPLAY);
    EXPECT_EQ(ssl.SSL_CTX_new(nullptr), nullptr);
}

TEST(OpenSSLProvider, ContextsOfTheSameFilesAreSharedUntilOneChanges)
{
    const auto copyFiles = [](const std::string& name) {
        for (const char* kind : {".pem", ".key"})
            std::filesystem::copy_file(Certificate(name + kind),
                                       Certificate(std::string("shar\xc3\xa9") + kind),
                                       std::filesystem::copy_options::overwrite_existing);
    };
    copyFiles("server");
    const Session first = NewServer("shar\xc3\xa9"), second = NewServer("shar\xc3\xa9"), // the path is UTF-8
        other = NewServer("shar\xc3\xa9", "ca.pem");
    EXPECT_EQ(SSL_get_SSL_CTX(first.get()), SSL_get_SSL_CTX(second.get()));
    EXPECT_NE(SSL_get_SSL_CTX(first.get()), SSL_get_SSL_CTX(other.get()));
    EXPECT_EQ(SSL_get_verify_mode(second.get()), SSL_VERIFY_NONE);
    copyFiles("client");
    const Session third = NewServer("shar\xc3\xa9");
    EXPECT_NE(X509_cmp(SSL_get_certificate(first.get()), SSL_get_certificate(third.get())), 0);
}

TEST(OpenSSLProvider, FilesAreReadOrRefused)
{
    const struct
    {
        const char *certificate, *key, *phrase;
        int certificateRead, keyRead;
    } rows[] = {
        {"server.pem", "server.key", "", 1, 1},
        {"server.pem", "locked.key", "ten chars!", 1, 1},
        {"server.pem", "locked.key", "wrong", 1, 0}, // although the key is known by now
        {"server.pem", "client.key", "", 1, 0},      // another's
        {"no-such.pem", "no-such.key", "", 0, 0},
        {"server.key", "server.pem", "", 0, 0}, // the wrong way round
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.key) + " " + row.phrase);
        const Context context = NewContext();
        ssl.SSL_CTX_set_default_passwd_cb(context.get(), [](char* buffer, int size, int, void* phrase) {
            return snprintf(buffer, static_cast<std::size_t>(size), "%s", static_cast<const char*>(phrase));
        });
        ssl.SSL_CTX_set_default_passwd_cb_userdata(context.get(), const_cast<char*>(row.phrase));
        EXPECT_EQ(ssl.SSL_CTX_use_certificate_file(context.get(), Path(row.certificate), kPem),
                  row.certificateRead);
        EXPECT_EQ(ssl.SSL_CTX_use_PrivateKey_file(context.get(), Path(row.key), kPem), row.keyRead);
        const Session session(ssl.SSL_new(context.get())); // from here on the good ones are known
        EXPECT_EQ(session != nullptr, row.certificateRead == 1 && row.keyRead == 1);
        for (unsigned long code = 0; (code = ssl.ERR_get_error()) != 0;) {
            EXPECT_NE(ssl.ERR_lib_error_string(code), nullptr);
            EXPECT_STREQ(ssl.ERR_func_error_string(code), "");
            EXPECT_NE(ssl.ERR_reason_error_string(code), nullptr);
        }
    }
}
