#pragma once

#include <functional>
#include <string>
#include <utility>

#include "tavronet/socket/OpenSSLContract.h"

/// The toy protocol: a byte says hello, one closes, two with the high bit set carry a byte of data. Anything else
/// is clear text, which has no place in it.
inline constexpr char kToyHello[] = "\x01", kToyClose[] = "\x02";

inline std::string ToyData(const std::string& text)
{
    std::string wire;
    for (const int c : text)
        wire += {static_cast<char>(0x80 | (c >> 4 & 15)), static_cast<char>(0x80 | (c & 15))};
    return wire;
}

struct ToyReader
{
    void Feed(const std::string& wire)
    {
        for (const int c : wire) {
            if (c == kToyHello[0] || c == kToyClose[0])
                ++(c == kToyHello[0] ? hellos : closes);
            else if ((c & 0x80) == 0)
                clear += static_cast<char>(c);
            else if (m_High == 0)
                m_High = c;
            else
                plain += static_cast<char>(std::exchange(m_High, 0) << 4 | (c & 15));
        }
    }

    int hellos = 0, closes = 0;
    std::string plain, clear; // data, and what was outside of the protocol

private:
    int m_High = 0; // half a byte of data
};

/// An SSL provider without cryptography that does what a test says; the sockets' provider as long as it
/// lives.
class ToySSL
{
public:
    /// An answer beside those of SSLError: the I/O object says "again".
    static constexpr int kRetry = 100;

    ToySSL();
    ~ToySSL();
    ToySSL(const ToySSL&) = delete;
    ToySSL& operator=(const ToySSL&) = delete;

    COpenSSL table;
    /// What the n-th call that reads or writes answers instead of doing it; 0: it does it.
    std::function<int(int call, const std::string& entry)> fault;
    int calls = 0;
    std::string log;   // how contexts and sessions were set up
    int errors = 0;    // in the queue
    int alive = 0;     // contexts and sessions, none of which outlives it
    bool died = false; // a session, of a fatal error
    SSLPasswordCallback phrase = nullptr;
    void* phraseData = nullptr;
};
