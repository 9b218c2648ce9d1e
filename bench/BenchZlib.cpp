// What a compressed connection costs beside zlib alone: chunks of text through CTavroProductSocket against deflate
// and inflate in a loop, at the same level and flush. Processor time of the thread; the far end is another one.

#include <sys/socket.h>
#include <time.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/Wait.h"
#include "tavronet/socket/TavroProductSocket.h"

namespace
{

constexpr UINT kZlib = 8;

struct Load
{
    int level = 6;
    std::size_t chunkBytes = 16384;
    std::vector<std::string> chunks;
    std::size_t bytes = 0;
};

double ThreadSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// Words, the early ones often: deflates as text does.
std::string Text(std::size_t length)
{
    std::vector<std::string> words;
    unsigned seed = 7;
    const auto next = [&seed] { return (seed = seed * 1103515245 + 12345) / 65536 % 32768; };
    for (int i = 0; i < 4000; ++i) {
        std::string word;
        for (unsigned letters = 2 + next() % 8; letters > 0; --letters)
            word += "etaoinshrdlucmfwypvbgkqjxz"[next() % 26 * next() % 26 / 4 % 26];
        words.push_back(word);
    }
    std::string text;
    while (text.size() < length)
        text += words[static_cast<std::size_t>(next()) * next() / 32768 % words.size()] +
                (next() % 12 == 0 ? ".\n" : " ");
    text.resize(length);
    return text;
}

void Must(bool done, const char* what)
{
    if (done)
        return;
    std::fprintf(stderr, "%s failed\n", what);
    std::exit(1);
}

/// @return processor time; `wire` gets the deflated chunks.
double BareDeflate(const Load& load, std::vector<std::string>& wire)
{
    z_stream stream{};
    Must(deflateInit2(&stream, load.level, Z_DEFLATED, 15, 8, Z_DEFAULT_STRATEGY) == Z_OK, "deflateInit2");
    std::string out(2 * load.chunkBytes + 64, '\0');
    wire.clear();
    const double start = ThreadSeconds();
    double copying = 0;
    for (const std::string& chunk : load.chunks) {
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(chunk.data()));
        stream.avail_in = static_cast<uInt>(chunk.size());
        stream.next_out = reinterpret_cast<Bytef*>(out.data());
        stream.avail_out = static_cast<uInt>(out.size());
        Must(deflate(&stream, Z_FULL_FLUSH) == Z_OK, "deflate");
        const double copy = ThreadSeconds();
        wire.emplace_back(out.data(), out.size() - stream.avail_out);
        copying += ThreadSeconds() - copy;
    }
    const double seconds = ThreadSeconds() - start - copying;
    deflateEnd(&stream);
    return seconds;
}

double BareInflate(const Load& load, const std::vector<std::string>& wire)
{
    z_stream stream{};
    Must(inflateInit2(&stream, 15) == Z_OK, "inflateInit2");
    std::string out(load.chunkBytes + 64, '\0');
    const double start = ThreadSeconds();
    for (const std::string& chunk : wire) {
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(chunk.data()));
        stream.avail_in = static_cast<uInt>(chunk.size());
        stream.next_out = reinterpret_cast<Bytef*>(out.data());
        stream.avail_out = static_cast<uInt>(out.size());
        Must(inflate(&stream, Z_SYNC_FLUSH) == Z_OK, "inflate");
    }
    const double seconds = ThreadSeconds() - start;
    inflateEnd(&stream);
    return seconds;
}

class Connection : public CTavroProductSocket
{
public:
    explicit Connection(int level) : CTavroProductSocket(kZlib, static_cast<UINT>(level)) {}
    std::size_t received = 0;
    bool Compresses() const { return UsingCompression(); }

private:
    bool ProcessReceive(unsigned char*&, int& length) override
    {
        received += static_cast<std::size_t>(length);
        length = 0;
        return true;
    }
};

/// A connection over a pair of local sockets, and the descriptor of the far end.
struct Ends
{
    explicit Ends(int level) : near(level)
    {
        int pair[2] = {-1, -1};
        Must(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0, "socketpair");
        Must(near.Attach(static_cast<SOCKET>(pair[0]), FD_ALL), "Attach");
        Must(near.Compresses(), "zlib");
        far = pair[1];
        DispatchPending();
    }
    ~Ends() { close(far); }
    Ends(const Ends&) = delete;
    Ends& operator=(const Ends&) = delete;

    Connection near;
    int far = -1;
};

void Pump()
{
    MsgWaitForMultipleObjectsEx(0, nullptr, 100, kWakeOnAnyInput, 0);
    DispatchPending();
}

double SocketDeflate(const Load& load)
{
    Ends ends(load.level);
    std::thread drain([&ends] {
        char buffer[65536];
        while (read(ends.far, buffer, sizeof buffer) > 0) {
        }
    });
    const double start = ThreadSeconds();
    for (const std::string& chunk : load.chunks) {
        auto* const data = reinterpret_cast<unsigned char*>(const_cast<char*>(chunk.data()));
        Must(ends.near.CTavroSocket::Send(data, static_cast<int>(chunk.size()), 0) > 0, "Send");
        while (!ends.near.CanClose())
            Pump();
    }
    const double seconds = ThreadSeconds() - start;
    Must(ends.near.GetBytesOut() == static_cast<long long>(load.bytes), "counting what was sent");
    ends.near.Close();
    drain.join();
    return seconds;
}

double SocketInflate(const Load& load, const std::vector<std::string>& wire)
{
    Ends ends(load.level);
    std::thread feed([&] {
        for (const std::string& chunk : wire)
            Must(write(ends.far, chunk.data(), chunk.size()) == static_cast<ssize_t>(chunk.size()), "write");
    });
    const double start = ThreadSeconds();
    while (ends.near.received < load.bytes)
        Pump();
    const double seconds = ThreadSeconds() - start;
    feed.join();
    return seconds;
}

double Median(std::vector<double> values)
{
    std::ranges::sort(values);
    return values[values.size() / 2];
}

} // namespace

int main(int count, char** arguments)
{
    Load load;
    load.level = count > 1 ? std::atoi(arguments[1]) : 6;
    load.chunkBytes = count > 2 ? static_cast<std::size_t>(std::atoi(arguments[2])) : 16384;
    const std::size_t total = 16 << 20;
    const std::string text = Text(total);
    for (std::size_t at = 0; at < total; at += load.chunkBytes)
        load.chunks.push_back(text.substr(at, load.chunkBytes));
    load.bytes = total;

    std::vector<std::string> wire;
    std::vector<double> bareOut, socketOut, bareIn, socketIn;
    for (int round = 0; round < 7; ++round) { // interleaved: what else runs meets all of them
        bareOut.push_back(BareDeflate(load, wire));
        socketOut.push_back(SocketDeflate(load));
        bareIn.push_back(BareInflate(load, wire));
        socketIn.push_back(SocketInflate(load, wire));
    }
    std::size_t wireBytes = 0;
    for (const std::string& chunk : wire)
        wireBytes += chunk.size();

    const auto report = [total](const char* what, double bare, double socket) {
        const double mebibytes = static_cast<double>(total) / (1 << 20);
        std::printf("%-8s bare %7.1f MiB/s   socket %7.1f MiB/s   ratio %.3f\n", what, mebibytes / bare,
                    mebibytes / socket, bare / socket);
    };
    std::printf("level %d, chunks of %zu bytes, %.2f of their size on the wire\n", load.level,
                load.chunkBytes, static_cast<double>(wireBytes) / static_cast<double>(total));
    report("send", Median(bareOut), Median(socketOut));
    report("receive", Median(bareIn), Median(socketIn));
    report("both", Median(bareOut) + Median(bareIn), Median(socketOut) + Median(socketIn));
    return 0;
}
