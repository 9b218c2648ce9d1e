#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tavronet/socket/OpenSSLContract.h"

/// One direction of the toy protocol: records of a letter, two bytes of length and as many bytes, turned over
/// so that clear text shows. H hello, D data, C close alert.
inline std::string ToyRecord(char letter, std::string text = "")
{
    const std::size_t length = text.size();
    for (char& c : text)
        c = static_cast<char>(c ^ 0x5a);
    return std::string{letter, static_cast<char>(length >> 8), static_cast<char>(length & 0xff)} + text;
}

inline std::string ToyData(const std::string& text)
{
    std::string records;
    for (std::size_t at = 0; at < text.size(); at += 16000)
        records += ToyRecord('D', text.substr(at, 16000));
    return records;
}

/// Takes whole records out of what has arrived.
struct ToyReader
{
    /// How many bytes are missing to the next whole record.
    [[nodiscard]] std::size_t Missing() const
    {
        const auto byte = [this](std::size_t at) {
            return static_cast<std::size_t>(static_cast<unsigned char>(raw[at]));
        };
        const std::size_t wanted = raw.size() < 3 ? 3 : 3 + byte(1) * 256 + byte(2);
        return wanted - raw.size();
    }
    /// Reads on when `raw` holds a whole record. Other letters: it is no record, and nothing is after it.
    void Take()
    {
        letters += raw[0];
        for (std::size_t at = 3; at < raw.size(); ++at)
            plain += static_cast<char>(raw[at] ^ 0x5a);
        raw.clear();
    }
    void Feed(const std::string& bytes)
    {
        for (const char c : bytes) {
            raw += c;
            if (raw.size() >= 3 && Missing() == 0)
                Take();
        }
    }

    std::string raw, letters, plain;
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
    std::string log;     // how contexts and sessions were set up
    std::string refused; // the entry that fails
    std::vector<unsigned long> errors;
    int alive = 0;     // contexts and sessions
    bool died = false; // a session, of a fatal error
    SSLPasswordCallback phrase = nullptr;
    void* phraseData = nullptr;
};
