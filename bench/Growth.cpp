// How time and memory grow with size. Prints a table, a line a size; exit status 1 when a doubling of a size costs more
// than 2.3 times in time or memory, beyond what cannot be measured.
//
// Everything is on 127.0.0.1 in one thread; time is processor time, the least of several runs.

#include <arpa/inet.h>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tavronet/tavronet.h"

namespace
{

constexpr double kWorstFactor = 2.3;
constexpr int kRuns = 10, kMostRuns = 60;
constexpr double kSmallestMs = 0.5; // what is less is noise
constexpr double kSmallestKiB = 64;

struct Cost
{
    double ms = 0, kib = 0;
};

double NowMs()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

double AllocatedKiB()
{
    const struct mallinfo2 info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd) / 1024;
}

std::string Times(int count, const std::string& text)
{
    std::string all;
    for (; count > 0; --count)
        all += text;
    return all;
}

/// Answers every request on 127.0.0.1 with `answer`, in pieces, one a round; then closes.
class Server
{
public:
    Server()
    {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        auto* const raw = reinterpret_cast<sockaddr*>(&address);
        if (bind(m_Listener, raw, length) != 0 || listen(m_Listener, 512) != 0 ||
            getsockname(m_Listener, raw, &length) != 0)
            std::perror("server");
        port = ntohs(address.sin_port);
    }
    ~Server() { close(m_Listener); }

    void Step()
    {
        if (m_Connection < 0)
            m_Connection = accept4(m_Listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        char request[4096];
        if (m_Connection < 0 || (m_Sent == 0 && recv(m_Connection, request, sizeof request, 0) <= 0))
            return;
        const ssize_t sent =
            send(m_Connection, &answer[m_Sent], std::min(piece, answer.size() - m_Sent), MSG_NOSIGNAL);
        m_Sent += sent > 0 ? static_cast<std::size_t>(sent) : 0;
        if (m_Sent < answer.size() && (sent > 0 || errno == EAGAIN))
            return;
        close(m_Connection);
        m_Connection = -1;
        m_Sent = 0;
    }
    void StepUntil(const std::function<bool()>& done)
    {
        while (!done()) {
            if (m_Sent + piece >= answer.size() && heldKiB == 0)
                heldKiB = AllocatedKiB();
            Step();
            DispatchRound();
        }
    }
    std::string Url(const std::string& path) const
    {
        return "http://127.0.0.1:" + std::to_string(port) + path;
    }

    std::string answer;
    std::size_t piece = 1448;
    double heldKiB = 0; // allocated when the last piece was to be sent
    unsigned port = 0;

private:
    const int m_Listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int m_Connection = -1;
    std::size_t m_Sent = 0;
};

std::string HttpAnswer(const std::string& body)
{
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string Description(int services, const std::string& more = "")
{
    return "<root>\r\n<device>\r\n<deviceType>urn:schemas-upnp-org:device:InternetGatewayDevice:1</"
           "deviceType>\r\n" +
           more + "<serviceList>\r\n" +
           Times(services,
                 "<service>\r\n<serviceType>urn:schemas-upnp-org:service:WANIPConnection:1</serviceType>\r\n"
                 "<controlURL>/ctl</controlURL>\r\n</service>\r\n") +
           "</serviceList>\r\n</device>\r\n</root>\r\n";
}

CUPnPDevice* Record(CUPnPNetwork& network, int number, const std::string& url)
{
    const std::string name = std::to_string(number);
    std::string datagram = "HTTP/1.1 200 OK\r\nLOCATION: " + url +
                           "\r\nCACHE-CONTROL: max-age=1800\r\nUSN: uuid:" + name +
                           "::urn:schemas-upnp-org:device:InternetGatewayDevice:1\r\n\r\n";
    const std::string source =
        "127.0." + std::to_string(number / 250) + "." + std::to_string(1 + number % 250);
    auto record = std::make_unique<CUPnPDevice>(nullptr, &network);
    record->Init("127.0.0.1", source.c_str(), 1900, datagram.data());
    return record.release();
}

/// A gateway registered and described.
CUPnPDevice* Register(CUPnPNetwork& network, Server& server)
{
    CUPnPDevice* const device = Record(network, 0, server.Url("/d"));
    network.NewUPnPDevice(device);
    server.StepUntil([&] { return device->DiscoverComplete(); });
    return device;
}

Cost Nodes(int dialect, int count)
{
    Server server;
    server.answer = HttpAnswer(Description(count));
    CUPnPNetwork network(nullptr, nullptr, dialect, false);
    const double start = NowMs(), before = AllocatedKiB();
    Register(network, server);
    return {NowMs() - start, AllocatedKiB() - before};
}

Cost Body(int dialect, int kib)
{
    const std::string line = "<x>" + std::string(55, 'x') + "</x>\r\n";
    const std::string text = Times(kib * 1024 / static_cast<int>(line.size()) - 16, line);
    Server server;
    server.answer = HttpAnswer(Description(1, text));
    CUPnPNetwork network(nullptr, nullptr, dialect, false);
    const double start = NowMs(), before = AllocatedKiB();
    Register(network, server);
    return {NowMs() - start, server.heldKiB - before};
}

/// One answer and one upkeep with so many described gateways registered.
Cost Registry(int devices)
{
    Server server;
    server.answer = HttpAnswer(Description(1));
    CUPnPNetwork network(nullptr, nullptr, UPnPDialectClassic, false);
    const double before = AllocatedKiB();
    for (int i = 0; i < devices; ++i) {
        CUPnPDevice* const device = Record(network, i, server.Url("/" + std::to_string(i)));
        network.NewUPnPDevice(device);
        device->GetType() = L"urn:schemas-upnp-org:device:InternetGatewayDevice:1";
    }
    const double kib = AllocatedKiB() - before, start = NowMs();
    for (int i = 0; i < 200; ++i) {
        network.NewUPnPDevice(Record(network, devices - 1, server.Url("/again")));
        network.Tickle();
    }
    return {NowMs() - start, kib};
}

/// Queues sends behind a shut gate, then delivers all.
Cost Sends(int count)
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listener, 1) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        std::perror("listener");
    const double start = NowMs(), before = AllocatedKiB();
    CTavroSocket socket;
    socket.Create(0, SOCK_STREAM, FD_ALL, L"127.0.0.1", AF_INET);
    socket.Connect(CString("127.0.0.1"), ntohs(address.sin_port));
    std::string message(100, 'm');
    for (int i = 0; i < count; ++i)
        socket.Send(reinterpret_cast<unsigned char*>(message.data()), 100, 0);
    const double kib = AllocatedKiB() - before;
    const int peer = accept(listener, nullptr, nullptr);
    static char block[65536];
    for (long left = 100L * count; left > 0;) {
        DispatchRound();
        for (ssize_t got = 1; got > 0;) {
            got = recv(peer, block, sizeof block, MSG_DONTWAIT);
            left -= std::max<ssize_t>(got, 0);
        }
    }
    close(peer);
    close(listener);
    return {NowMs() - start, kib};
}

Cost Actions(int count)
{
    Server server;
    server.answer = HttpAnswer(Description(1));
    CUPnPNetwork network(nullptr, nullptr, UPnPDialectClassic, false);
    CUPnPService* const service = Register(network, server)->FindConnectionService();
    server.answer = HttpAnswer("<NewExternalIPAddress>203.0.113.7</NewExternalIPAddress>\r\n");
    const double start = NowMs(), before = AllocatedKiB();
    for (int i = 0; i < count; ++i)
        service->Command(false, nullptr, "GetExternalIPAddress", "NewExternalIPAddress", "", nullptr);
    const double kib = AllocatedKiB() - before;
    server.StepUntil([&] { return service->GetAnswerSerial() == static_cast<unsigned>(count); });
    return {NowMs() - start, kib};
}

struct Subject
{
    const char* name;
    std::vector<int> sizes; // each twice the one before
    std::function<Cost(int)> measure;
};

/// Whether twice the size cost no more than it may.
bool IsAllowed(const Cost& half, const Cost& whole)
{
    return whole.ms <= kWorstFactor * std::max(half.ms, kSmallestMs) &&
           whole.kib <= kWorstFactor * std::max(half.kib, kSmallestKiB);
}

/// Measures all sizes in turn, so that a disturbance meets all of them, and anew while one seems to cost too much.
std::vector<Cost> Measure(const Subject& subject)
{
    std::vector<Cost> least(subject.sizes.size(), {1e9, 1e9});
    const auto tooMuch = [](const Cost& half, const Cost& whole) { return !IsAllowed(half, whole); };
    for (int run = 0; run < kMostRuns; ++run) {
        for (std::size_t i = 0; i < least.size(); ++i) {
            const Cost cost = subject.measure(subject.sizes[i]);
            least[i] = {std::min(least[i].ms, cost.ms), std::min(least[i].kib, cost.kib)};
        }
        if (run >= kRuns && std::ranges::adjacent_find(least, tooMuch) == least.end())
            break;
    }
    return least;
}

bool Show(const Subject& subject)
{
    bool allowed = true;
    Cost last;
    for (std::size_t i = 0; const Cost& cost : Measure(subject)) {
        const bool isFirst = last.ms == 0;
        const bool fine = isFirst || IsAllowed(last, cost);
        std::printf("%-34s %6d %9.2f ms %8.0f KiB", subject.name, subject.sizes[i++], cost.ms, cost.kib);
        if (!isFirst)
            std::printf("  x%.2f%s", cost.ms / last.ms, fine ? "" : "  TOO MUCH");
        std::printf("\n");
        allowed &= fine;
        last = cost;
    }
    return allowed;
}

} // namespace

int main()
{
    // Freed memory is kept: otherwise the C library's first touch of each page decides how the queues grow.
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    const std::vector<int> bodies{64, 128, 256, 512, 1020}, nodes{15, 31, 62, 125, 250, 500, 1000};
    const Subject subjects[] = {
        {"body, KiB, classic", bodies, [](int size) { return Body(UPnPDialectClassic, size); }},
        {"body, KiB, modern", bodies, [](int size) { return Body(UPnPDialectModern, size); }},
        {"description nodes, classic", nodes, [](int size) { return Nodes(UPnPDialectClassic, size); }},
        {"description nodes, modern", nodes, [](int size) { return Nodes(UPnPDialectModern, size); }},
        {"registered, 200 answers+upkeeps", {1, 2, 4, 8, 16, 32, 64, 128}, Registry},
        // Between the two, at 2 to 6 MiB, the bytes outgrow the processor's caches, a step of its own: 2.3 to 2.5.
        {"queued sends of 100 bytes", {1250, 2500, 5000, 10000, 20000}, Sends},
        {"many queued sends of 100 bytes", {40000, 80000, 160000}, Sends},
        {"queued actions", {16, 32, 64, 128, 256, 512, 1024}, Actions},
    };
    bool fine = true;
    for (const Subject& subject : subjects)
        fine &= Show(subject);
    return fine ? 0 : 1;
}
