#include "ToySSL.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <utility>

#include "tavronet/socket/TavroProductSocket.h"

namespace
{

ToySSL* toy = nullptr;

struct Session
{
    int handle = -1, error = 0;
    bool dead = false, helloSent = false, closeSent = false;
    ToyReader in;
    std::string out;     // encoded and not taken by the system
    std::string repeats; // the write that must be offered again
};

Session& Of(const ssl_st* session)
{
    return *reinterpret_cast<Session*>(const_cast<ssl_st*>(session));
}

/// A call that reads or writes: nothing of others may be taken for its outcome, and its descriptor must still be the
/// socket's. @return whether `work` was done; it throws the error that stops it, if the test does not want another.
bool Does(Session& session, const char* entry, const std::function<void()>& work, bool hasResult = false)
{
    sigset_t mask;
    EXPECT_EQ(errno, 0) << entry;
    EXPECT_EQ(toy->errors, 0) << entry;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGPIPE), 1) << entry;
    EXPECT_GE(fcntl(session.handle, F_GETFD), 0) << entry << " after the handle was closed";
    const int fault = toy->fault ? toy->fault(++toy->calls, entry) : 0;
    try {
        if (session.dead || (fault != 0 && !hasResult))
            throw session.dead ? int{kSSLErrorFatal} : fault;
        work();
        return true;
    } catch (int error) {
        session.error = error == ToySSL::kRetry ? int{kSSLErrorSyscall} : error;
        if (error == ToySSL::kRetry)
            errno = EAGAIN;
        const bool dies = error == kSSLErrorFatal || error == kSSLErrorSyscall;
        toy->errors += error == kSSLErrorFatal && !session.dead ? 1 : 0;
        session.dead = session.dead || dies;
        toy->died = toy->died || dies;
        return false;
    }
}

void Flush(Session& session)
{
    while (!session.out.empty()) {
        const ssize_t sent = send(session.handle, session.out.data(), session.out.size(), MSG_DONTWAIT);
        if (sent <= 0)
            throw int{errno == EAGAIN ? kSSLErrorWantWrite : kSSLErrorSyscall};
        session.out.erase(0, static_cast<std::size_t>(sent));
    }
}

/// Reads to the hello, or as much as a record may hold, and never a byte behind a close alert.
void Pull(Session& session, bool toHello = false)
{
    ToyReader& in = session.in;
    const auto isOver = [&] {
        return !in.clear.empty() || in.closes > 0 || in.plain.size() > 16000 || (toHello && in.hellos > 0);
    };
    char byte = 0;
    ssize_t got = 1;
    while (!isOver() && (got = recv(session.handle, &byte, 1, MSG_DONTWAIT)) > 0)
        in.Feed({byte});
    if (toHello ? in.hellos == 0 : in.plain.empty() && in.closes == 0)
        throw int{got < 0 && errno == EAGAIN ? kSSLErrorWantRead : kSSLErrorFatal};
}

template <bool server>
int Shake(ssl_st* of)
{
    Session& session = Of(of);
    const auto shake = [&] {
        if (server)
            Pull(session, true);
        if (!std::exchange(session.helloSent, true))
            session.out = kToyHello;
        Flush(session);
        Pull(session, true);
    };
    return Does(session, "shake", shake) ? 1 : -1;
}

template <bool takes>
int Read(ssl_st* of, void* buffer, int length)
{
    Session& session = Of(of);
    std::string& plain = session.in.plain;
    const auto read = [&] {
        Pull(session);
        if (plain.empty())
            throw int{kSSLErrorZeroReturn};
    };
    if (!Does(session, takes ? "read" : "peek", read, !plain.empty()))
        return session.error == kSSLErrorZeroReturn ? 0 : -1;
    const std::size_t count = plain.copy(static_cast<char*>(buffer), static_cast<std::size_t>(length));
    plain.erase(0, takes ? count : 0);
    return static_cast<int>(count);
}

int Write(ssl_st* of, const void* data, int length)
{
    Session& session = Of(of);
    const std::string text(static_cast<const char*>(data), static_cast<std::size_t>(length));
    const bool mayCome = !session.closeSent && (session.repeats.empty() || session.repeats == text);
    if (std::exchange(session.repeats, text).empty())
        session.out += ToyData(text);
    const auto write = [&session, mayCome] { return mayCome ? Flush(session) : throw int{kSSLErrorFatal}; };
    if (!Does(session, "write", write))
        return -1;
    session.repeats.clear();
    return length;
}

int Shutdown(ssl_st* of)
{
    Session& session = Of(of);
    int result = 1;
    const auto shut = [&session, &result] {
        const bool first = !std::exchange(session.closeSent, true);
        session.out += first ? kToyClose : "";
        Flush(session);
        result = first && (session.in.closes == 0 || !session.in.plain.empty()) ? 0 : 1;
        if (result == 1)
            Pull(session);
        if (result == 1 && !session.in.plain.empty())
            throw int{kSSLErrorFatal};
    };
    return Does(session, "shutdown", shut) ? result : -1;
}

/// What setting up calls.
int Noted(const std::string& entry, const CStringA& argument = "")
{
    toy->log += entry + argument.GetString() + ", ";
    return 1;
}

const ssl_method_st* Method(const char* name)
{
    Noted(name);
    return nullptr;
}

} // namespace

ToySSL::ToySSL()
{
    using Context = ssl_ctx_st*;
    using Path = const wchar_t*;
    toy = this;
    CTavroProductSocket::Init(&table);
    table.m_bLoaded = true;
    table.m_pSSL_method = [] { return Method("general"); };
    table.m_pSSL_method_mode1 = [] { return Method("mode 1"); };
    table.m_pSSL_CTX_new = [](const ssl_method_st*) {
        ++toy->alive;
        return reinterpret_cast<Context>(toy);
    };
    table.m_pSSL_CTX_free = [](Context) { --toy->alive; };
    table.m_pSSL_CTX_use_certificate_file = [](Context, Path file, int) { return Noted("cert ", file); };
    table.m_pSSL_CTX_set_default_passwd_cb = [](Context, SSLPasswordCallback set) { toy->phrase = set; };
    table.m_pSSL_CTX_set_default_passwd_cb_userdata = [](Context, void* data) { toy->phraseData = data; };
    table.m_pSSL_CTX_use_PrivateKey_file = [](Context, Path file, int) { return Noted("key ", file); };
    table.m_pSSL_CTX_load_verify_locations = [](Context, auto file, auto) { return Noted("ca ", file); };
    table.m_pSSL_CTX_trust_loaded = [](Context) { return Noted("trust"); };
    table.m_pSSL_CTX_set_cipher_list = [](Context, const char* list) {
        return Noted(std::string(list).find("!EXP:!LOW") != std::string::npos ? "standard" : "weak");
    };
    table.m_pSSL_CTX_ctrl = [](Context, int command, long argument, void*) -> long {
        return Noted(std::to_string(command) + " " + std::to_string(argument));
    };
    table.m_pSSL_set_host_name = [](ssl_st*, const char* name, int check) {
        return Noted(check != 0 ? "host checked " : "host ", name);
    };
    table.m_pSSL_new = [](Context) {
        ++toy->alive;
        return reinterpret_cast<ssl_st*>(new Session);
    };
    table.m_pSSL_free = [](ssl_st* session) {
        delete &Of(session);
        --toy->alive;
    };
    table.m_pBIO_new_socket = [](int handle, int) {
        return reinterpret_cast<bio_st*>(static_cast<std::intptr_t>(handle + 1));
    };
    table.m_pSSL_set_bio = [](ssl_st* session, bio_st* bio, bio_st*) {
        Of(session).handle = static_cast<int>(reinterpret_cast<std::intptr_t>(bio)) - 1;
    };
    table.m_pSSL_accept = Shake<true>;
    table.m_pSSL_connect = Shake<false>;
    table.m_pSSL_read = Read<true>;
    table.m_pSSL_peek = Read<false>;
    table.m_pSSL_write = Write;
    table.m_pSSL_shutdown = Shutdown;
    table.m_pSSL_get_error = [](const ssl_st* session, int) { return Of(session).error; };
    table.m_pBIO_sock_should_retry = [](int) { return errno == EAGAIN ? 1 : 0; };
    table.m_pSSL_get_current_cipher = [](const ssl_st* session) {
        return reinterpret_cast<const ssl_cipher_st*>(session);
    };
    table.m_pERR_get_error = [] { return static_cast<unsigned long>(toy->errors > 0 ? toy->errors-- : 0); };
    table.m_pERR_reason_error_string = [](unsigned long) { return "broken"; };
}

ToySSL::~ToySSL()
{
    EXPECT_EQ(alive, 0);
    CTavroProductSocket::Init(nullptr);
    toy = nullptr;
}
