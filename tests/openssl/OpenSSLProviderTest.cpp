#include "tavronet/openssl/OpenSSLProvider.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "tavronet/platform/String.h"
#include "tests/openssl/Certificates.h"

using tavronet::Certificate;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{

#undef SSL_get_peer_certificate // OpenSSL's macro

const COpenSSL& ssl = *OpenSSLProvider();

constexpr int kPem = 1;
constexpr int kBytes = 300000; // more than a connection takes

/// What an end is set up with; empty for nothing. Names are those of make-certificates.
struct EndSetup
{
    std::string certificate, trusted, hostName;
};

struct ContextDeleter
{
    void operator()(ssl_ctx_st* context) const { ssl.SSL_CTX_free(context); }
};
using Context = std::unique_ptr<ssl_ctx_st, ContextDeleter>;

Context NewContext()
{
    return Context(ssl.SSL_CTX_new(ssl.SSL_method()));
}

CStringW Wide(const std::string& text)
{
    return CStringW(text.c_str());
}

/// One end of a connection.
class End
{
public:
    End(int descriptor, bool isServer, const EndSetup& setup) : m_Server(isServer), m_Descriptor(descriptor)
    {
        if (!setup.certificate.empty()) {
            const std::string name = Certificate(setup.certificate);
            EXPECT_EQ(ssl.SSL_CTX_use_certificate_file(m_Context.get(), Wide(name + ".pem"), kPem), 1);
            EXPECT_EQ(ssl.SSL_CTX_use_PrivateKey_file(m_Context.get(), Wide(name + ".key"), kPem), 1);
        }
        if (!setup.trusted.empty()) {
            EXPECT_EQ(
                ssl.SSL_CTX_load_verify_locations(m_Context.get(), Wide(Certificate(setup.trusted)), nullptr),
                1);
            EXPECT_EQ(ssl.SSL_CTX_trust_loaded(m_Context.get()), 1);
        }
        session = ssl.SSL_new(m_Context.get());
        bio_st* const bio = ssl.BIO_new_socket(descriptor, 0);
        ssl.SSL_set_bio(session, bio, bio);
        if (!setup.hostName.empty()) {
            EXPECT_EQ(ssl.SSL_set_host_name(session, setup.hostName.c_str(), !setup.trusted.empty()), 1);
        }
        isServer ? ssl.SSL_set_accept_state(session) : ssl.SSL_set_connect_state(session);
    }
    ~End()
    {
        ssl.SSL_free(session);
        Cut();
    }
    End(const End&) = delete;
    End& operator=(const End&) = delete;

    /// @return 0 when the handshake is done, otherwise what SSL_get_error says.
    int Step()
    {
        const int result = m_Server ? ssl.SSL_accept(session) : ssl.SSL_connect(session);
        return result > 0 ? 0 : ssl.SSL_get_error(session, result);
    }
    int Error(int result) { return ssl.SSL_get_error(session, result); }
    std::string Reads()
    {
        std::string text(kBytes, '\0');
        const int got = ssl.SSL_read(session, text.data(), kBytes);
        text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return text;
    }
    void Cut()
    {
        if (m_Descriptor >= 0)
            close(std::exchange(m_Descriptor, -1));
    }

    ssl_st* session = nullptr;

private:
    Context m_Context = NewContext();
    bool m_Server;
    int m_Descriptor;
};

struct Connection
{
    explicit Connection(const EndSetup& serverSetup = {"server", "", ""}, const EndSetup& clientSetup = {})
    {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair), 0);
        server = std::make_unique<End>(pair[0], true, serverSetup);
        client = std::make_unique<End>(pair[1], false, clientSetup);
    }

    /// Takes turns until both are done or one has failed. @return whether both are done.
    bool Shakes()
    {
        int ofClient = kSSLErrorWantRead, ofServer = kSSLErrorWantRead;
        const auto waits = [](int error) {
            return error == kSSLErrorWantRead || error == kSSLErrorWantWrite;
        };
        for (int round = 0; round < 20 && (waits(ofClient) || waits(ofServer)); ++round) {
            if (waits(ofClient))
                ofClient = client->Step();
            if (ofClient == kSSLErrorFatal)
                NoteFailure(*client);
            if (waits(ofServer))
                ofServer = server->Step();
            if (ofServer == kSSLErrorFatal)
                NoteFailure(*server);
        }
        return ofClient == 0 && ofServer == 0;
    }
    void NoteFailure(const End& end)
    {
        const char* const why = ssl.SSL_verify_failure(end.session);
        if (why != nullptr)
            failure = why;
    }

    std::unique_ptr<End> server, client;
    std::string failure; // of a certificate
};

std::string PeerCertificate(const End& end)
{
    x509_st* const certificate = ssl.SSL_get_peer_certificate(end.session);
    if (certificate == nullptr)
        return "";
    bio_st* const bio = ssl.BIO_new(ssl.BIO_s_mem());
    EXPECT_GT(ssl.PEM_write_bio_X509(bio, certificate), 0);
    struct
    {
        std::size_t length;
        char* data;
    }* memory = nullptr;
    ssl.BIO_ctrl(bio, 115, 0, static_cast<void*>(&memory));
    const std::string text(memory->data, memory->length);
    ssl.BIO_free(bio);
    ssl.X509_free(certificate);
    return text;
}

} // namespace

TEST(OpenSSLProvider, ASessionCarriesDataAndEndsWithACloseAlert)
{
    Connection both;
    ASSERT_TRUE(both.Shakes());
    const ssl_cipher_st* const cipher = ssl.SSL_get_current_cipher(both.client->session);
    char description[1024];
    int bits = 0;
    ssl.SSL_CIPHER_get_bits(cipher, &bits);
    EXPECT_GE(bits, 128);
    EXPECT_STREQ(ssl.SSL_CIPHER_get_version(cipher), "TLSv1.3");
    EXPECT_THAT(ssl.SSL_CIPHER_description(cipher, description, sizeof description),
                StartsWith(ssl.SSL_CIPHER_get_name(cipher)));
    EXPECT_THAT(PeerCertificate(*both.client), StartsWith("-----BEGIN CERTIFICATE-----\n"));
    EXPECT_EQ(PeerCertificate(*both.server), "");

    EXPECT_EQ(ssl.SSL_write(both.client->session, "hello", 5), 5);
    char peeked[2];
    EXPECT_EQ(ssl.SSL_peek(both.server->session, peeked, 2), 2);
    EXPECT_EQ(both.server->Reads(), "hello");

    EXPECT_EQ(ssl.SSL_shutdown(both.client->session), 0);
    EXPECT_EQ(both.server->Error(ssl.SSL_read(both.server->session, peeked, 2)), kSSLErrorZeroReturn);
    EXPECT_EQ(ssl.SSL_shutdown(both.server->session), 1);
    EXPECT_EQ(ssl.SSL_shutdown(both.client->session), 1);
}

TEST(OpenSSLProvider, CertificatesAreVerifiedOnceAnAuthorityIsTrusted)
{
    const struct
    {
        EndSetup server, client;
        const char* failure; // empty: the handshake is done
        const char* why;
    } rows[] = {
        {{"stranger", "", ""}, {"", "", ""}, "", "nobody is asked for"},
        {{"stranger", "", ""}, {"", "", "other.test"}, "", "nor is a name, without trust"},
        {{"server", "", ""}, {"", "ca.pem", ""}, "", "vouched for"},
        {{"server", "", ""}, {"", "ca.pem", "tavronet.test"}, "", "and for that name"},
        {{"server", "", ""}, {"", "ca.pem", "127.0.0.1"}, "", "or that address"},
        {{"server", "", ""}, {"", "ca.pem", "other.test"}, "hostname mismatch", "another name"},
        {{"server", "", ""}, {"", "ca.pem", "127.0.0.2"}, "IP address mismatch", "another address"},
        {{"server", "", ""}, {"", "other-ca.pem", ""}, "in certificate chain", "an unknown authority"},
        {{"stranger", "", ""}, {"", "ca.pem", ""}, "unable to get local issuer", "another authority"},
        {{"expired", "", ""}, {"", "ca.pem", ""}, "certificate has expired", "too old"},
        {{"server", "ca.pem", ""}, {"client", "ca.pem", ""}, "", "a client that is vouched for"},
        {{"server", "ca.pem", ""},
         {"stranger", "ca.pem", ""},
         "unable to get local issuer",
         "one that is not"},
        {{"server", "ca.pem", ""}, {"", "ca.pem", ""}, nullptr, "one that shows nothing"},
    };
    for (const auto& row : rows) {
        Connection both(row.server, row.client);
        EXPECT_EQ(both.Shakes(), row.failure != nullptr && *row.failure == '\0') << row.why;
        if (row.failure != nullptr) {
            EXPECT_THAT(both.failure, HasSubstr(row.failure)) << row.why;
        }
    }
}

TEST(OpenSSLProvider, ErrorsOfOthersAndDeadPeersDoNoHarm)
{
    Connection both;
    ASSERT_TRUE(both.Shakes());
    const std::string data(kBytes, 'x'), same = data;
    char byte = 0;
    const auto leaveError = [] { ERR_raise(ERR_LIB_USER, ERR_R_INTERNAL_ERROR); };

    leaveError();
    EXPECT_EQ(both.client->Error(ssl.SSL_read(both.client->session, &byte, 1)), kSSLErrorWantRead);
    leaveError();
    EXPECT_EQ(both.client->Error(ssl.SSL_peek(both.client->session, &byte, 1)), kSSLErrorWantRead);
    leaveError();
    EXPECT_EQ(both.client->Error(ssl.SSL_write(both.client->session, data.data(), kBytes)),
              kSSLErrorWantWrite);

    std::string received = both.server->Reads();
    int written = -1;
    for (int round = 0; round < 100 && written <= 0; ++round) {
        written = ssl.SSL_write(both.client->session, same.data(), kBytes); // from another place
        for (std::string part = both.server->Reads(); !part.empty(); part = both.server->Reads())
            received += part;
    }
    EXPECT_EQ(written, kBytes);
    EXPECT_EQ(received, data);

    both.server->Cut();
    EXPECT_EQ(both.client->Error(ssl.SSL_read(both.client->session, &byte, 1)),
              kSSLErrorFatal); // not a close alert
    Connection other;
    ASSERT_TRUE(other.Shakes());
    other.server->Cut();
    EXPECT_LT(ssl.SSL_write(other.client->session, "x", 1), 0); // without a signal
    EXPECT_LE(ssl.SSL_shutdown(other.client->session), 0);
}

TEST(OpenSSLProvider, WhatTheListAndTheOptionsSayIsMadeSafe)
{
    EXPECT_EQ(ssl.SSL_CTX_set_cipher_list(NewContext().get(), "aNULL:@SECLEVEL=0"), 0);
    const Context context = NewContext();
    EXPECT_EQ(ssl.SSL_CTX_set_cipher_list(context.get(), "ALL:@SECLEVEL=0"), 1);
    ssl.SSL_CTX_ctrl(context.get(), 32, 0x1400000, nullptr);
    ssl_st* const session = ssl.SSL_new(context.get());
    const STACK_OF(SSL_CIPHER)* const ciphers = SSL_get_ciphers(session);
    ASSERT_GT(sk_SSL_CIPHER_num(ciphers), 10);
    for (int i = 0; i < sk_SSL_CIPHER_num(ciphers); ++i)
        EXPECT_NE(SSL_CIPHER_get_auth_nid(sk_SSL_CIPHER_value(ciphers, i)), NID_auth_null);
    const std::uint64_t options = SSL_get_options(session);
    EXPECT_TRUE(options & SSL_OP_CIPHER_SERVER_PREFERENCE);
    EXPECT_FALSE(options & SSL_OP_NO_ANTI_REPLAY);
    ssl.SSL_free(session);
}

TEST(OpenSSLProvider, ContextsOfTheSameFilesAreSharedUntilOneChanges)
{
    const std::string copy = Certificate("shared");
    const auto copyFiles = [&copy](const std::string& name) {
        for (const char* kind : {".pem", ".key"})
            std::filesystem::copy_file(Certificate(name + kind), copy + kind,
                                       std::filesystem::copy_options::overwrite_existing);
    };
    const auto made = [](const EndSetup& setup) {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        close(pair[1]);
        return std::make_unique<End>(pair[0], true, setup);
    };
    copyFiles("server");
    const auto first = made({"shared", "", ""}), second = made({"shared", "", ""}),
               other = made({"shared", "ca.pem", ""});
    EXPECT_EQ(SSL_get_SSL_CTX(first->session), SSL_get_SSL_CTX(second->session));
    EXPECT_NE(SSL_get_SSL_CTX(first->session), SSL_get_SSL_CTX(other->session));
    EXPECT_EQ(SSL_get_verify_mode(second->session), SSL_VERIFY_NONE);
    copyFiles("client");
    const auto third = made({"shared", "", ""});
    EXPECT_NE(SSL_get_SSL_CTX(first->session), SSL_get_SSL_CTX(third->session));
    EXPECT_NE(X509_cmp(SSL_get_certificate(first->session), SSL_get_certificate(third->session)), 0);
}

TEST(OpenSSLProvider, FilesAreReadOrRefused)
{
    const std::string elsewhere = Certificate("cl\xc3\xa9.pem"); // the path is UTF-8
    std::filesystem::copy_file(Certificate("client.pem"), elsewhere,
                               std::filesystem::copy_options::overwrite_existing);
    const struct
    {
        std::string certificate, key;
        const char* phrase;
        int certificateRead, keyRead;
    } rows[] = {
        {"server.pem", "server.key", "", 1, 1},
        {"server.pem", "locked.key", "ten chars!", 1, 1},
        {"server.pem", "locked.key", "wrong", 1, 0}, // although the key is known by now
        {"server.pem", "client.key", "", 1, 0},      // another's
        {elsewhere.substr(elsewhere.rfind('/') + 1), "client.key", "", 1, 1},
        {"no-such.pem", "no-such.key", "", 0, 0},
        {"server.key", "server.pem", "", 0, 0}, // the wrong way round
    };
    for (const auto& row : rows) {
        const Context context = NewContext();
        ssl.SSL_CTX_set_default_passwd_cb(context.get(), [](char* buffer, int size, int, void* phrase) {
            return snprintf(buffer, static_cast<std::size_t>(size), "%s", static_cast<const char*>(phrase));
        });
        ssl.SSL_CTX_set_default_passwd_cb_userdata(context.get(), const_cast<char*>(row.phrase));
        EXPECT_EQ(ssl.SSL_CTX_use_certificate_file(context.get(), Wide(Certificate(row.certificate)), kPem),
                  row.certificateRead)
            << row.certificate;
        EXPECT_EQ(ssl.SSL_CTX_use_PrivateKey_file(context.get(), Wide(Certificate(row.key)), kPem),
                  row.keyRead)
            << row.key << " " << row.phrase;
        ssl_st* const session = ssl.SSL_new(context.get()); // from here on the good ones are known
        EXPECT_EQ(session != nullptr, row.certificateRead == 1 && row.keyRead == 1) << row.key;
        if (session != nullptr)
            ssl.SSL_free(session);
        for (unsigned long code = 0; (code = ssl.ERR_get_error()) != 0;) {
            EXPECT_NE(ssl.ERR_lib_error_string(code), nullptr);
            EXPECT_STREQ(ssl.ERR_func_error_string(code), "");
            EXPECT_NE(ssl.ERR_reason_error_string(code), nullptr);
        }
    }
    EXPECT_EQ(ssl.SSL_CTX_new(nullptr), nullptr);
}
