#include "ToySSL.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "tavronet/socket/TavroProductSocket.h"

namespace
{

ToySSL* toy = nullptr;

struct Session
{
    int handle = -1;
    bool dead = false, helloSent = false, closeSent = false;
    int error = 0;
    ToyReader in;
    std::string out;     // encoded and not taken by the system
    std::string repeats; // the write that must be offered again

    [[nodiscard]] bool Has(char letter) const { return in.letters.find(letter) != std::string::npos; }
};

Session& Of(const ssl_st* session)
{
    return *reinterpret_cast<Session*>(const_cast<ssl_st*>(session));
}

int Answer(Session& session, int error)
{
    session.error = error == ToySSL::kRetry ? int{kSSLErrorSyscall} : error;
    if (error == ToySSL::kRetry)
        errno = EAGAIN;
    if ((error == kSSLErrorFatal || error == kSSLErrorSyscall) && !session.dead) {
        session.dead = toy->died = true;
        if (error == kSSLErrorFatal)
            toy->errors.push_back(7);
    }
    return error == kSSLErrorZeroReturn ? 0 : -1;
}

bool SigPipeIsBlocked()
{
    sigset_t mask;
    return pthread_sigmask(SIG_BLOCK, nullptr, &mask) == 0 && sigismember(&mask, SIGPIPE) == 1;
}

/// Every call that reads or writes begins here: nothing of others may be taken for its outcome, and its
/// descriptor must still be the socket's. @return the fault that the test wants; 0 for none.
int Fault(Session& session, const char* entry)
{
    EXPECT_EQ(errno, 0) << entry;
    EXPECT_TRUE(toy->errors.empty()) << entry;
    EXPECT_TRUE(SigPipeIsBlocked()) << entry;
    EXPECT_GE(fcntl(session.handle, F_GETFD), 0) << entry << " after the handle was closed";
    const int wanted = toy->fault ? toy->fault(++toy->calls, entry) : 0;
    return session.dead ? int{kSSLErrorFatal} : wanted;
}

/// @return 0 when everything has gone out.
int Flush(Session& session)
{
    while (!session.out.empty()) {
        const ssize_t sent = send(session.handle, session.out.data(), session.out.size(), MSG_DONTWAIT);
        if (sent <= 0)
            return errno == EAGAIN ? kSSLErrorWantWrite : kSSLErrorSyscall;
        session.out.erase(0, static_cast<std::size_t>(sent));
    }
    return 0;
}

/// Reads records, and never a byte behind them, until there is `enough`. @return 0 or an SSLError.
int Pull(Session& session, const std::function<bool()>& enough)
{
    char bytes[65536];
    while (!enough()) {
        const ssize_t got = recv(session.handle, bytes, session.in.Missing(), MSG_DONTWAIT);
        if (got <= 0)
            return got < 0 && errno == EAGAIN ? kSSLErrorWantRead : kSSLErrorFatal;
        session.in.raw.append(bytes, static_cast<std::size_t>(got));
        if (std::strchr("HDC", session.in.raw[0]) == nullptr)
            return kSSLErrorFatal;
        if (session.in.raw.size() >= 3 && session.in.Missing() == 0)
            session.in.Take();
    }
    return 0;
}

int Shake(ssl_st* of, bool server)
{
    Session& session = Of(of);
    if (const int fault = Fault(session, "shake"))
        return Answer(session, fault);
    const auto greeted = [&session] { return session.Has('H'); };
    int error = server ? Pull(session, greeted) : 0;
    if (error == 0 && !std::exchange(session.helloSent, true))
        session.out += ToyRecord('H');
    if (error == 0)
        error = Flush(session);
    if (error == 0)
        error = Pull(session, greeted);
    return error == 0 ? 1 : Answer(session, error);
}

int Read(ssl_st* of, void* buffer, int length, bool takes)
{
    Session& session = Of(of);
    const bool ready = !session.in.plain.empty();
    const int fault = Fault(session, takes ? "read" : "peek");
    if (fault != 0 && !ready)
        return Answer(session, fault);
    const int error = Pull(session, [&session] { return !session.in.plain.empty() || session.Has('C'); });
    if (error != 0 || session.in.plain.empty())
        return Answer(session, error != 0 ? error : int{kSSLErrorZeroReturn});
    const std::string part = session.in.plain.substr(0, static_cast<std::size_t>(length));
    std::memcpy(buffer, part.data(), part.size());
    if (takes)
        session.in.plain.erase(0, part.size());
    return static_cast<int>(part.size());
}

int Write(ssl_st* of, const void* data, int length)
{
    Session& session = Of(of);
    const std::string text(static_cast<const char*>(data), static_cast<std::size_t>(length));
    if (!session.repeats.empty() && text.compare(0, session.repeats.size(), session.repeats) != 0)
        return Answer(session, kSSLErrorFatal);
    if (session.closeSent)
        return Answer(session, kSSLErrorFatal);
    if (const int fault = Fault(session, "write"))
        return Answer(session, fault);
    if (session.repeats.empty())
        session.out = ToyData(text);
    session.repeats = text;
    if (const int error = Flush(session))
        return Answer(session, error);
    session.repeats.clear();
    return length;
}

int Shutdown(ssl_st* of)
{
    Session& session = Of(of);
    if (const int fault = Fault(session, "shutdown"))
        return Answer(session, fault);
    const bool first = !std::exchange(session.closeSent, true);
    if (first)
        session.out += ToyRecord('C');
    if (const int error = Flush(session))
        return Answer(session, error);
    if (first && !session.Has('C'))
        return 0;
    const int error = Pull(session, [&session] { return !session.in.plain.empty() || session.Has('C'); });
    if (error != 0 || !session.in.plain.empty())
        return Answer(session, error != 0 ? error : int{kSSLErrorFatal});
    return 1;
}

/// What setting up calls: noted, and refused when the test says so.
int Noted(const std::string& entry, const std::string& argument = "")
{
    toy->log += (toy->log.empty() ? "" : ", ") + entry + (argument.empty() ? "" : " ") + argument;
    if (toy->refused == entry)
        toy->errors.push_back(7);
    return toy->refused == entry ? 0 : 1;
}

template <typename Handle>
Handle* Some()
{
    static char something;
    return reinterpret_cast<Handle*>(&something);
}

bool Made(const char* object)
{
    const bool made = Noted(object) != 0;
    toy->alive += made ? 1 : 0;
    return made;
}

const ssl_method_st* Method(const char* name)
{
    Noted(name);
    return Some<const ssl_method_st>();
}

} // namespace

ToySSL::ToySSL()
{
    toy = this;
    CTavroProductSocket::Init(&table);
    table.m_bLoaded = true;
    table.m_pSSL_method = [] { return Method("general"); };
    table.m_pSSL_method_mode1 = [] { return Method("mode 1"); };
    table.m_pSSL_CTX_new = [](const ssl_method_st*) {
        return Made("context") ? Some<ssl_ctx_st>() : nullptr;
    };
    table.m_pSSL_CTX_free = [](ssl_ctx_st*) { --toy->alive; };
    table.m_pSSL_CTX_use_certificate_file = [](ssl_ctx_st*, const wchar_t* file, int) {
        return Noted("certificate", CStringA(file).GetString());
    };
    table.m_pSSL_CTX_set_default_passwd_cb = [](ssl_ctx_st*, SSLPasswordCallback callback) {
        toy->phrase = callback;
    };
    table.m_pSSL_CTX_set_default_passwd_cb_userdata = [](ssl_ctx_st*, void* data) { toy->phraseData = data; };
    table.m_pSSL_CTX_use_PrivateKey_file = [](ssl_ctx_st*, const wchar_t* file, int) {
        return Noted("key", CStringA(file).GetString());
    };
    table.m_pSSL_CTX_load_verify_locations = [](ssl_ctx_st*, const char* file, const char*) {
        return Noted("authorities", file);
    };
    table.m_pSSL_CTX_trust_loaded = [](ssl_ctx_st*) { return Noted("trust"); };
    table.m_pSSL_CTX_set_cipher_list = [](ssl_ctx_st*, const char* list) {
        const std::string text = list;
        const bool weak = text.find("+LOW:+EXP") != std::string::npos;
        return Noted(weak || text.find("!EXP:!LOW") == std::string::npos ? "weak" : "standard");
    };
    table.m_pSSL_CTX_ctrl = [](ssl_ctx_st*, int command, long argument, void*) -> long {
        return Noted("options", command == 32 && argument == 0x1400000 ? "no v2"
                                : argument == 0x400000                 ? ""
                                                                       : "?");
    };
    table.m_pSSL_restricted = [] { return toy->refused == "restricted" ? 1 : 0; };
    table.m_pSSL_set_host_name = [](ssl_st*, const char* name, int check) {
        return Noted("host", name + std::string(check != 0 ? " checked" : ""));
    };
    table.m_pSSL_new = [](ssl_ctx_st*) {
        return Made("session") ? reinterpret_cast<ssl_st*>(new Session) : nullptr;
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
    table.m_pSSL_accept = [](ssl_st* session) { return Shake(session, true); };
    table.m_pSSL_connect = [](ssl_st* session) { return Shake(session, false); };
    table.m_pSSL_read = [](ssl_st* session, void* buffer, int length) {
        return Read(session, buffer, length, true);
    };
    table.m_pSSL_peek = [](ssl_st* session, void* buffer, int length) {
        return Read(session, buffer, length, false);
    };
    table.m_pSSL_write = Write;
    table.m_pSSL_shutdown = Shutdown;
    table.m_pSSL_get_error = [](const ssl_st* session, int) { return Of(session).error; };
    table.m_pBIO_sock_should_retry = [](int) { return errno == EAGAIN ? 1 : 0; };
    table.m_pSSL_get_current_cipher = [](const ssl_st*) { return Some<const ssl_cipher_st>(); };
    table.m_pSSL_CIPHER_get_name = [](const ssl_cipher_st*) { return "TOY"; };
    table.m_pERR_get_error = [] {
        const unsigned long code = toy->errors.empty() ? 0 : toy->errors.front();
        if (code != 0)
            toy->errors.erase(toy->errors.begin());
        return code;
    };
    table.m_pERR_lib_error_string = [](unsigned long) { return "toy"; };
    table.m_pERR_reason_error_string = [](unsigned long code) { return code == 7 ? "broken" : nullptr; };
}

ToySSL::~ToySSL()
{
    CTavroProductSocket::Init(nullptr);
    toy = nullptr;
}
