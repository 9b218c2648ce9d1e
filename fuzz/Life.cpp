// A network's life from a string of bytes: what is heard, what the gateway answers, what the host does, and how the
// time passes. Everything real, on a network of its own in which nothing leaves this program.
//
// The first byte chooses the dialect, whether the network searches, and where its clock starts. Then each byte is a
// move, in letters (Life::Move), with its arguments in digits and texts up to '~'; the gateway takes its answers
// from the same string, at the time it is asked. Behind the end everything is '0': the gateway answers rightly.

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Input.h"
#include "LifeGateway.h"
#include "PrivateNetwork.h"
#include "Script.h"
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

DWORD g_Now = 0;

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
        CUPnPService* const service = m_pNetwork->FindService(LifeGateway::kAddress, kService);
        Expect(service == nullptr || m_pNetwork->FindDevice(LifeGateway::kAddress) != nullptr);
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
    LifeGateway m_Gateway;
    std::unique_ptr<CUPnPNetwork> m_pNetwork;
    std::unique_ptr<Ear> m_pEar;
    const HANDLE m_Cancel = CreateEventW(nullptr, 1, 0, nullptr);
    int m_OnEvent = 0; // moves that are left for events, and for posted calls
    int m_Posted = 0;
    int m_Moves = 0;
    int m_Depth = 0;
    int m_Idle = 0;
};

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
    if (EnterPrivateNetwork(LifeGateway::kAddress))
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
