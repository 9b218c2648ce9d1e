// A network's life from a string of bytes: what is heard, what the gateway answers, what the host does, and how the
// time passes. Everything real, on a network of its own in which nothing leaves this program.
//
// The first byte chooses the dialect, whether the network searches, and where its clock starts. Then each byte is a
// move, in letters (Life::Move), with its arguments in digits and texts up to '~'; the gateway takes its answers
// from the same string, at the time it is asked. Behind the end everything is '0': the gateway answers rightly.

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Input.h"
#include "tavronet/platform/Event.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/TestSeams.h"
#include "tavronet/platform/TextConversion.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPNetwork.h"
#include "tavronet/upnp/UPnPSSDPSocket.h"
#include "tavronet/upnp/UPnPService.h"

namespace
{

constexpr const char* kGatewayAddress = "10.77.1.2"; // which is also ours

class Script
{
public:
    explicit Script(std::string_view bytes) : m_Rest(bytes) {}

    bool AtEnd() const { return m_Rest.empty(); }
    char Take()
    {
        if (AtEnd())
            return '0';
        const char byte = m_Rest.front();
        m_Rest.remove_prefix(1);
        return byte == '\n' ? Take() : byte;
    }
    /// The byte as a number below `count`; digits are what they look like.
    unsigned Number(unsigned count) { return static_cast<unsigned char>(Take() - '0') % count; }
    std::string Text()
    {
        const std::string text(m_Rest.substr(0, m_Rest.find('~')));
        m_Rest.remove_prefix(std::min(text.size() + 1, m_Rest.size()));
        return text;
    }

private:
    std::string_view m_Rest;
};

DWORD g_Now = 0;

// --- the gateway

std::string Element(const std::string& name, const std::string& content, const std::string& lineBreak)
{
    return "<" + name + ">" + content + "</" + name + ">" + lineBreak;
}

std::string Description(unsigned kind)
{
    const bool isModern = kind == 1;
    const std::string lineBreak = isModern ? "" : "\r\n";
    const std::string urn = "urn:schemas-upnp-org:";
    const char* const services[] = {"WANIPConnection:1", "WANIPConnection:2", "WANPPPConnection:1",
                                    "Layer3:1"};
    return "<root>" + lineBreak + "<device>" + lineBreak +
           Element("deviceType", urn + "device:InternetGatewayDevice:1", lineBreak) +
           Element("manufacturer", kind == 2 ? "Linksys" : "Tavro", lineBreak) +
           Element("UDN", "uuid:gw-1", lineBreak) + "<deviceList>" + lineBreak + "<device>" + lineBreak +
           Element("deviceType", urn + "device:WANConnectionDevice:1", lineBreak) + "<serviceList>" +
           lineBreak + "<service>" + lineBreak +
           Element("serviceType", urn + "service:" + services[kind], lineBreak) +
           Element("controlURL", "/ctl", lineBreak) + "</service>" + lineBreak + "</serviceList>" +
           lineBreak + "</device>" + lineBreak + "</deviceList>" + lineBreak + "</device>" + lineBreak +
           "</root>";
}

std::string Response(const std::string& body, const std::string& status = "200 OK")
{
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

/// An HTTP server with a mapping table, moved on by the thread that also runs the network.
class Gateway
{
public:
    explicit Gateway(Script& script)
        : m_Script(script), m_Listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{AF_INET, 0, {inet_addr(kGatewayAddress)}, {}};
        auto* const raw = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = sizeof address;
        Expect(bind(m_Listener, raw, length) == 0 && listen(m_Listener, 64) == 0);
        Expect(getsockname(m_Listener, raw, &length) == 0);
        m_Port = ntohs(address.sin_port);
    }
    ~Gateway()
    {
        for (const Connection& connection : m_Connections)
            close(connection.descriptor);
        close(m_Listener);
    }
    Gateway(const Gateway&) = delete;
    Gateway& operator=(const Gateway&) = delete;

    std::string Url() const
    {
        return std::string("http://") + kGatewayAddress + ":" + std::to_string(m_Port);
    }

    /// @return whether anything happened.
    bool Step()
    {
        bool moved = false;
        for (int accepted;
             (accepted = accept4(m_Listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0;) {
            m_Connections.push_back({accepted, {}, {}});
            moved = true;
        }
        for (Connection& connection : m_Connections)
            moved |= Serve(connection);
        std::erase_if(m_Connections, [](const Connection& connection) { return connection.descriptor < 0; });
        return moved;
    }

private:
    struct Connection
    {
        int descriptor;
        std::string request;
        std::string later; // sent in the next step
    };

    static void Close(Connection& connection) { close(std::exchange(connection.descriptor, -1)); }

    bool Serve(Connection& connection)
    {
        if (!connection.later.empty()) {
            Send(connection, std::exchange(connection.later, {}));
            return true;
        }
        char block[4096];
        const ssize_t got = recv(connection.descriptor, block, sizeof block, 0);
        if (got == 0 || (got < 0 && errno != EAGAIN)) {
            Close(connection);
            return true;
        }
        if (got > 0)
            connection.request.append(block, static_cast<std::size_t>(got));
        const std::string& request = connection.request;
        const bool isWhole = request.starts_with("GET ") ? request.ends_with("\r\n\r\n")
                                                         : request.find("</s:Envelope>") != request.npos;
        if (isWhole)
            Answer(connection, std::exchange(connection.request, {}));
        return got > 0;
    }

    static void Send(Connection& connection, const std::string& bytes)
    {
        send(connection.descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL); // not taken: as if lost
    }

    void Answer(Connection& connection, const std::string& request)
    {
        const std::string body = request.starts_with("GET ") ? Description(m_Script.Number(4)) : Act(request);
        const std::string right = body.empty() ? Response(Fault("714"), "500 Error") : Response(body);
        switch (m_Script.Number(12)) {
        case 1: return Send(connection, Response(Fault("501"), "500 Error"));
        case 2: Send(connection, "HTTP/1.1 200 OK\r\n\r\n" + body); return Close(connection);
        case 3: Send(connection, right.substr(0, right.size() / 2)); return Close(connection);
        case 4: return; // nobody will ever say anything
        case 5: return Close(connection);
        case 6: return Send(connection, m_Script.Text());
        case 7: return Send(connection, Response(m_Script.Text()));
        case 8: {
            char size[32];
            std::snprintf(size, sizeof size, "%zx\r\n", body.size());
            return Send(connection, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" +
                                        std::string(size) + body + "\r\n0\r\n\r\n");
        }
        case 9:
            Send(connection, right.substr(0, 20));
            connection.later = right.substr(20);
            return;
        case 10: return Send(connection, "HTTP/1.1 100 Continue\r\n\r\n" + right + right);
        case 11:
            return Send(connection, Response(std::string(2000, 'x'), "200 OK\r\nContent-Length: 2000000"));
        default: return Send(connection, right);
        }
    }

    static std::string Fault(const std::string& code)
    {
        return Element("errorCode", code, "\r\n") + Element("errorDescription", "No", "\r\n");
    }

    static std::string ValueOf(const std::string& request, const std::string& name)
    {
        const std::size_t start = request.find("<" + name + ">");
        if (start == request.npos)
            return {};
        const std::size_t value = start + name.size() + 2;
        return request.substr(value, request.find('<', value) - value);
    }

    /// @return the answer's body, empty for a fault.
    std::string Act(const std::string& request)
    {
        const std::string port = ValueOf(request, "NewExternalPort");
        if (request.find("#AddPortMapping") != request.npos)
            m_Mapped.insert(port);
        else if (request.find("#DeletePortMapping") != request.npos)
            return m_Mapped.erase(port) != 0 ? "<x>1</x>" : "";
        else if (request.find("#GetGeneric") != request.npos) {
            const auto index = std::strtoul(ValueOf(request, "NewPortMappingIndex").c_str(), nullptr, 10);
            return index < m_Mapped.size() ? Entry(*std::next(m_Mapped.begin(), static_cast<long>(index)))
                                           : "";
        } else if (request.find("#GetSpecific") != request.npos)
            return m_Mapped.contains(port) ? Entry(port) : "";
        return Element("NewExternalIPAddress", "203.0.113.7", "\r\n") + Element("NewNATEnabled", "1", "\r\n");
    }

    static std::string Entry(const std::string& port)
    {
        return Element("NewExternalPort", port, "\r\n") + Element("NewInternalPort", port, "\r\n") +
               Element("NewInternalClient", kGatewayAddress, "\r\n") + Element("NewEnabled", "1", "\r\n");
    }

    Script& m_Script;
    const int m_Listener;
    unsigned m_Port = 0;
    std::vector<Connection> m_Connections;
    std::set<std::string> m_Mapped; // external ports
};

// --- the network's ear

/// A discovery socket of an address that is none of ours, so that it has no system socket: its datagrams come from
/// the script.
class Ear : public CUPnPSSDPSocket
{
public:
    explicit Ear(CUPnPNetwork& network) : CUPnPSSDPSocket("10.77.9.9", 0, &network) {}

    void Hear(std::string datagram)
    {
        m_Datagram = std::move(datagram);
        OnReceive(0);
    }

protected:
    int ReceiveFromHelper(void* buffer, int length, sockaddr_storage* address, int*, int) override
    {
        const std::size_t count = std::min(m_Datagram.size(), static_cast<std::size_t>(length));
        std::memcpy(buffer, m_Datagram.data(), count);
        // Who names IPv6 addresses has one.
        if (m_Datagram.find("//[") == m_Datagram.npos)
            reinterpret_cast<sockaddr_in&>(*address) = {AF_INET, htons(1900), {inet_addr("10.77.1.1")}, {}};
        else
            reinterpret_cast<sockaddr_in6&>(*address) = {AF_INET6, htons(1900), 0, in6addr_loopback, 0};
        return static_cast<int>(count);
    }

private:
    std::string m_Datagram;
};

// --- the host

class Life
{
public:
    explicit Life(Script script) : m_Script(script), m_Gateway(m_Script)
    {
        const unsigned start = m_Script.Number(8);
        g_Now = (start & 4) != 0 ? 0xFFFFFFFFU - 45000U : 1000000U;
        SetTickSource([] { return g_Now; });
        SetWaitHook([](void* self) { static_cast<Life*>(self)->InTheWait(); }, this);
        m_pNetwork =
            std::make_unique<CUPnPNetwork>(&OnEvent, this, static_cast<int>(start & 1), (start & 2) == 0);
        m_pEar = std::make_unique<Ear>(*m_pNetwork);
    }

    ~Life()
    {
        m_Posted = 0;
        m_OnEvent = 0;
        m_pNetwork.reset();
        m_pEar.reset();
        Pump();
        CloseHandle(m_Cancel);
        SetWaitHook(nullptr, nullptr);
        SetTickSource(nullptr);
    }
    Life(const Life&) = delete;
    Life& operator=(const Life&) = delete;

    void Run()
    {
        while (m_pNetwork != nullptr && !m_Script.AtEnd() && m_Moves < kMaxMoves)
            MoveSafely();
    }

private:
    static constexpr int kMaxMoves = 200;
    static constexpr int kMaxDepth = 3; // of moves inside moves

    void MoveSafely()
    {
        try {
            Move();
        } catch (int) { // what the host throws, and nothing else
        }
    }

    CUPnPDevice* Device()
    {
        const auto count = static_cast<unsigned>(m_pNetwork->NumDevices());
        return count != 0 ? m_pNetwork->GetUPnPDevice(static_cast<int>(m_Script.Number(count))) : nullptr;
    }

    void Hear(const std::string& firstLine)
    {
        const char* const ages[] = {"max-age=1800", "max-age=1", "max-age=-5", "no-cache"};
        const std::string usn = "uuid:gw-" + std::to_string(1 + m_Script.Number(40));
        const unsigned where = m_Script.Number(4);
        const std::string location = where == 0   ? m_Gateway.Url() + "/d"
                                     : where == 1 ? m_Script.Text()
                                     : where == 2 ? m_Gateway.Url() + m_Script.Text()
                                                  : std::string();
        m_pEar->Hear(firstLine + "\r\nLOCATION: " + location +
                     "\r\nCACHE-CONTROL: " + ages[m_Script.Number(4)] + "\r\nUSN: " + usn +
                     "::urn:schemas-upnp-org:device:WANConnectionDevice:1\r\n\r\n");
    }

    void Move()
    {
        ++m_Moves;
        constexpr std::string_view kMoves = "abcdefghijklmnopqrstuvwxyzAG";
        const char byte = m_Script.Take();
        if (byte >= '0' && byte <= '9') // an argument too many
            return;
        const bool isMove = kMoves.find(byte) != kMoves.npos;
        const char move = isMove ? byte : kMoves[static_cast<unsigned char>(byte) % kMoves.size()];
        switch (move) {
        case 'h': return Hear("HTTP/1.1 200 OK");
        case 'u': return Hear("NOTIFY * HTTP/1.1\r\nNTS: ssdp:alive");
        case 'b': return Hear("NOTIFY * HTTP/1.1\r\nNTS: ssdp:byebye");
        case 'v': return m_pEar->Hear(m_Script.Text());
        case 'w': return PassTime();
        case 't': return m_pNetwork->Tickle();
        case 'o': return Pump();
        case 'f': return m_pNetwork->Discover();
        case 'q': m_pNetwork->SetDialect(1 - m_pNetwork->GetDialect()); return;
        case 'x': return m_pNetwork.reset();
        case 'y': throw 7;
        case 'j': ++m_OnEvent; return;
        case 'k': ++m_Posted; return PostThreadCall(CurrentThreadQueue(), &OnPosted, this);
        case 'c': return Cancel(m_Script.Number(3));
        default: break;
        }
        if (CUPnPDevice* const device = Device())
            Operate(move, *device);
    }

    void Operate(char move, CUPnPDevice& device)
    {
        const HANDLE cancel = m_pNetwork->GetCancelEvent();
        const unsigned port = 100 + 50 * m_Script.Number(5);
        std::vector<CUPnPPortMap*> list;
        CString address;
        char buffer[8];
        bool enabled = false;
        switch (move) {
        case 'a': device.AddPortMap(cancel, port, "game", port == 150 ? "UDP" : nullptr); break;
        case 'd': device.DeletePortMap(cancel, port, port == 150 ? "UDP" : nullptr); break;
        case 'e': device.GetExternalIPAddress(cancel, buffer, sizeof buffer); break;
        case 'g': device.GetPortMaps(cancel, list); break;
        case 'i': device.DeleteIndivPortMaps(cancel); break;
        case 'l': delete device.GetPortSpecificPortMap(cancel, CUPnPPortMap(port, "TCP", "", "")); break;
        case 'm': device.AddPortMaps(cancel, port, 1 + m_Script.Number(3), "game %d", "TCP"); break;
        case 'n': device.GetNATEnabled(cancel, enabled); break;
        case 'p': device.DeletePortMaps(cancel); break;
        case 'r': m_pNetwork->ReleaseUPnPDevice(&device); break;
        case 's': device.SetRelease(true); break;
        case 'z': device.RequestDescription(); break;
        case 'A': // an action that nobody waits for
            if (CUPnPService* const service = device.FindConnectionService())
                service->Command(false, nullptr, "GetExternalIPAddress", "NewExternalIPAddress", "", nullptr);
            break;
        default: return LookAt(device);
        }
        CUPnPDevice::ReleasePortMaps(list);
    }

    void LookAt(CUPnPDevice& device)
    {
        constexpr const char* kService = "urn:schemas-upnp-org:service:WANIPConnection:1";
        unsigned int start = 0, end = 0;
        device.GetStartEndPorts(start, end);
        Expect(start <= end);
        for (std::size_t i = 0; i < device.NumPortMaps(); ++i)
            Expect(device.GetPortMap(static_cast<int>(i)) != nullptr);
        Expect(device.MatchingDevice(Narrow(device.GetUSN())));
        Expect(m_pNetwork->GetUPnPDevice(&device) != nullptr);
        CUPnPService* const service = m_pNetwork->FindService(kGatewayAddress, kService);
        Expect(service == nullptr || m_pNetwork->FindDevice(kGatewayAddress) != nullptr);
        if (service != nullptr)
            service->ReleaseCommandQueue();
    }

    void PassTime()
    {
        constexpr DWORD kSteps[] = {1,     500,    1000,       10001,      30001,
                                    60001, 300001, 0x7FFFFFFF, 0x80000000, 1801000};
        g_Now += kSteps[m_Script.Number(10)];
    }

    void Cancel(unsigned how)
    {
        m_pNetwork->SetCancelEvent(how != 2 ? m_Cancel : nullptr);
        how == 0 ? SetEvent(m_Cancel) : ResetEvent(m_Cancel);
    }

    void Pump()
    {
        for (int idle = 0; idle < 3; ++idle) {
            const bool gatewayMoved = m_Gateway.Step();
            if (DispatchRound() || gatewayMoved)
                idle = -1;
        }
    }

    /// The gateway moves on. When it has nothing to say any more, the time passes.
    void InTheWait()
    {
        m_Idle = m_Gateway.Step() ? 0 : m_Idle + 1;
        if (m_Idle >= 5) {
            g_Now += 10000;
            m_Idle = 0;
        }
        PostThreadCall(
            CurrentThreadQueue(), [](void*) {}, nullptr); // has the wait look at the clock
    }

    /// A move inside a call of the library.
    void MoveWithin(int& allowed)
    {
        if (allowed == 0 || m_Depth >= kMaxDepth || m_Moves >= kMaxMoves || m_pNetwork == nullptr)
            return;
        --allowed;
        ++m_Depth;
        try {
            Move();
        } catch (...) {
            --m_Depth;
            throw;
        }
        --m_Depth;
    }
    static void OnEvent(void* self, unsigned int, CUPnPObject*)
    {
        auto& life = *static_cast<Life*>(self);
        life.MoveWithin(life.m_OnEvent);
    }
    static void OnPosted(void* self)
    {
        auto& life = *static_cast<Life*>(self);
        life.MoveWithin(life.m_Posted);
    }

    Script m_Script;
    Gateway m_Gateway;
    std::unique_ptr<CUPnPNetwork> m_pNetwork;
    std::unique_ptr<Ear> m_pEar;
    const HANDLE m_Cancel = CreateEventW(nullptr, 1, 0, nullptr);
    int m_OnEvent = 0; // moves that are left for events, and for posted calls
    int m_Posted = 0;
    int m_Moves = 0;
    int m_Depth = 0;
    int m_Idle = 0;
};

// --- a network of its own

bool SetUpInterface(const char* name, const char* address)
{
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, name);
    reinterpret_cast<sockaddr_in&>(request.ifr_addr) = {AF_INET, 0, {inet_addr(address)}, {}};
    bool isUp = ioctl(descriptor, SIOCSIFADDR, &request) == 0;
    request.ifr_flags = IFF_UP;
    isUp = isUp && ioctl(descriptor, SIOCSIFFLAGS, &request) == 0;
    close(descriptor);
    return isUp;
}

bool EnterPrivateNetwork()
{
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        return false;
    // Thousands of connections a second would otherwise use up the ports within a minute.
    std::ofstream("/proc/sys/net/ipv4/tcp_max_tw_buckets") << 0;
    return SetUpInterface("lo", "127.0.0.1") && SetUpInterface("lo:1", kGatewayAddress);
}

} // namespace

// A look-up under way belongs to a thread of the system's resolver, where the leak sanitizer does not look.
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:tavronet::NameLookup::Start\n";
}
extern "C" const char* __lsan_default_options()
{
    return "print_suppressions=0";
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    if (EnterPrivateNetwork())
        return 0;
    std::puts("SKIPPED: no network namespace here, and a description may name any address");
    std::exit(77);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const HeldInput input(data, size);
    Life(Script(input.View())).Run();
    Expect(tavronet::CountLivingObjects() == tavronet::LivingObjects{0, 0});
    return 0;
}
