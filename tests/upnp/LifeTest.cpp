// Two months of a host, its network and a gateway on the far side of a cable, on the test's clock. The gateway
// is in the test's own thread, so a day passes in milliseconds.

#include <fcntl.h>
#include <malloc.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>

#include <cstring>
#include <filesystem>
#include <optional>
#include <thread>

#include "GatewayRecords.h"
#include "tavronet/platform/TestSeams.h"
#include "tests/support/OnPrivateLan.h"

namespace
{

constexpr const char* kHome = "10.77.1.1";
constexpr const char* kElsewhere = "10.77.1.3"; // where the gateway can move to
constexpr const char* kOurs = "10.77.1.2";
constexpr DWORD kMinuteMs = 60000;
constexpr DWORD kAnswerSpacingMs = 5000; // nobody answers each of the repetitions

sockaddr_in Address(const std::string& host, unsigned port)
{
    return {AF_INET, htons(static_cast<in_port_t>(port)), {inet_addr(host.c_str())}, {}};
}

/// A socket on the far side of the cable: it belongs to the network of the thread that makes it.
int FarSocket(int type)
{
    int made = -1;
    std::thread([&] {
        const std::string pid = std::getenv("TAVRONET_LAN_GATEWAY_PID");
        const int far = open(("/proc/" + pid + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
        if (setns(far, CLONE_NEWNET) == 0)
            made = socket(AF_INET, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        close(far);
    }).join();
    const int on = 1;
    EXPECT_EQ(setsockopt(made, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
    return made;
}

/// Hears the searches and answers them, serves its description and keeps a table of mappings.
class FarGateway
{
public:
    FarGateway()
    {
        ifreq alias{};
        std::strcpy(alias.ifr_name, "g1:1");
        const sockaddr_in elsewhere = Address(kElsewhere, 0), group = Address("239.255.255.250", 1900);
        std::memcpy(&alias.ifr_addr, &elsewhere, sizeof elsewhere);
        EXPECT_EQ(ioctl(m_Ear, SIOCSIFADDR, &alias), 0);
        const ip_mreq membership{group.sin_addr, Address(kHome, 0).sin_addr};
        EXPECT_EQ(setsockopt(m_Ear, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership), 0);
        EXPECT_EQ(bind(m_Ear, reinterpret_cast<const sockaddr*>(&group), sizeof group), 0);
    }
    ~FarGateway()
    {
        End();
        close(m_Ear);
    }

    /// Comes up, or moves. @param port 0 for any
    void Begin(const std::string& host, unsigned port = 0)
    {
        End();
        m_Server = std::make_unique<ScriptedServer>(FarSocket(SOCK_STREAM), host, port);
        m_Server->AnswerBy([this](const std::string& request) { return Reply(request); });
        m_Host = host;
        m_Voice = FarSocket(SOCK_DGRAM); // a datagram tells where its sender is
        const sockaddr_in from = Address(host, 0);
        EXPECT_EQ(bind(m_Voice, reinterpret_cast<const sockaddr*>(&from), sizeof from), 0);
    }
    void End()
    {
        m_Server.reset();
        close(std::exchange(m_Voice, -1));
    }
    void BeginAgain()
    {
        const unsigned port = static_cast<unsigned>(std::stoi(m_Server->Port()));
        Begin(std::string(m_Host), port);
    }

    bool IsUp() const { return m_Server != nullptr && !silent; }
    std::string Url() const { return m_Server != nullptr ? m_Server->Url("/d") : ""; }

    /// Answers the searches that have come. @return how many
    int Answer()
    {
        char datagram[2048];
        socklen_t length = sizeof m_Searcher;
        int searches = 0;
        while (recvfrom(m_Ear, datagram, sizeof datagram, 0, reinterpret_cast<sockaddr*>(&m_Searcher),
                        &length) > 0) {
            ++searches;
            if (ElapsedMs(GetTickCount(), m_AnswerTick) < kAnswerSpacingMs)
                continue;
            m_AnswerTick = GetTickCount();
            Say("HTTP/1.1 200 OK\r\nST: urn:schemas-upnp-org:device:WANConnectionDevice:1");
        }
        return searches;
    }
    /// To who searched last. @param begin of a datagram
    void Say(const std::string& begin) const
    {
        const std::string text =
            begin + "\r\nCACHE-CONTROL: max-age=" + std::to_string(maxAge) + "\r\nLOCATION: " + Url() +
            "\r\nUSN: uuid:gw-1::urn:schemas-upnp-org:device:WANConnectionDevice:1\r\n\r\n";
        sendto(m_Voice, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&m_Searcher),
               sizeof m_Searcher);
    }

    std::map<std::string, bool> table; // mapped ports, and whether each is switched on
    bool silent = false;               // takes every request and never answers
    int maxAge = 1800, lookUps = 0;

private:
    ScriptedServer::Reply Reply(const std::string& request)
    {
        if (silent) {
            if (request.starts_with("POST "))
                TheTimePasses(nullptr);
            return {"", false};
        }
        if (request.starts_with("GET "))
            return {HttpAnswer(Description()), kClose};
        const std::string port = Between(request, "<NewExternalPort>", "<");
        const std::string action = Between(request, "<u:", " ");
        if (action == "AddPortMapping")
            table[port] = true;
        else if (action == "DeletePortMapping")
            table.erase(port);
        else if (action == "GetSpecificPortMappingEntry" && ++lookUps > 0)
            return {table.contains(port) ? HttpAnswer(MapEntry(port, kOurs, table[port] ? "1" : "0"))
                                         : HttpAnswer("", "500 No such entry"),
                    kClose};
        return {HttpAnswer("<NewExternalIPAddress>203.0.113.7</NewExternalIPAddress>\r\n"), kClose};
    }
    const int m_Ear = FarSocket(SOCK_DGRAM);
    int m_Voice = -1;
    std::string m_Host;
    std::unique_ptr<ScriptedServer> m_Server;
    sockaddr_in m_Searcher{};
    DWORD m_AnswerTick = 0;
};

std::ptrdiff_t CountDescriptors()
{
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return std::distance(begin(descriptors), end(descriptors));
}

/// A host that maps a port for half an hour a day, in the forty minutes for which its machine has a network.
class LongLife : public tavronet::OnPrivateLan
{
protected:
    // A "day" is a part of the counter's turn: what happens at its wrap happens at the next one too.
    static constexpr DWORD kDayMs = 0xFFFFFFFF / 50, kDays = 61;
    static constexpr DWORD kPluggedMs = 40 * kMinuteMs, kMappedMs = 30 * kMinuteMs,
                           kDisturbedMs = 25 * kMinuteMs;
    static constexpr DWORD kWrapDay = 4;
    static constexpr int kAfterFourSearches = -1;

    /// What happens to the gateway, or on the way there.
    struct Disturbance
    {
        const char* why;
        std::function<void()> begin, end;
        DWORD lastsMs, wellAfterMs; // of which the host's mapping is back for good
        int drops;
    };

    void TearDown() override { Plug(true); }

    /// A machine without a cable has no adapters.
    void Plug(bool in)
    {
        if (in)
            unplugged.reset();
        else
            unplugged.emplace();
    }
    /// @param before of the next day's beginning
    void LiveUntil(DWORD before)
    {
        while (lived + before < dayEnds)
            Step();
    }
    void Step()
    {
        const bool searching = ElapsedMs(GetTickCount(), network->GetDiscoverTick()) < 10000;
        const DWORD before = GetTickCount();
        TestClock::Advance(searching ? 500 : 30000);
        network->Tickle();
        if (!unplugged) {
            Settle();
            KeepMapping();
        }
        lived += ElapsedMs(GetTickCount(), before); // waits for nothing took time, too
    }
    /// Delivers what is under way.
    void Settle()
    {
        bool busy = true;
        while (busy) {
            ScriptedServer::MoveOn();
            const int heard = gateway->Answer();
            busy = DispatchRound() || heard > 0;
        }
        // Where packets take a moment, a new device gets it.
        CUPnPDevice* const device = network->GetUPnPDevice(0);
        if (device != nullptr && !device->DiscoverComplete() && gateway->IsUp())
            PumpUntil([&, tries = 3]() mutable { return device->DiscoverComplete() || --tries == 0; });
    }
    void KeepMapping() const
    {
        CUPnPDevice* const device = Described();
        if (device == nullptr)
            return;
        if (wantsMapping && device->GetIndivPortMaps().empty())
            device->AddPortMap(nullptr, 8080, "game", nullptr);
        else if (!wantsMapping && !device->GetIndivPortMaps().empty())
            device->DeletePortMap(nullptr, 8080, nullptr);
    }
    CUPnPDevice* Described() const
    {
        CUPnPDevice* const device = network->GetUPnPDevice(0);
        return device != nullptr && device->DiscoverComplete() ? device : nullptr;
    }
    /// The mapping is on the gateway, and the host knows the gateway where it is.
    bool AllIsWell() const
    {
        const CUPnPDevice* const device = Described();
        return device != nullptr && gateway->IsUp() && Text(device->GetDescURL()) == gateway->Url() &&
               network->NumDevices() == 1 && gateway->table == std::map<std::string, bool>{{"8080", true}};
    }
    void LiveOneDay(const Disturbance& disturbance)
    {
        dayEnds += kDayMs;
        LiveUntil(kPluggedMs);
        Plug(true);
        LiveUntil(kMappedMs);
        wantsMapping = true;
        LiveUntil(kDisturbedMs);
        EXPECT_TRUE(AllIsWell()) << "before";

        events = {};
        disturbance.begin();
        LiveUntil(kDisturbedMs - disturbance.lastsMs);
        if (disturbance.end)
            disturbance.end();
        LiveUntil(kDisturbedMs - disturbance.lastsMs - disturbance.wellAfterMs);
        EXPECT_TRUE(AllIsWell());
        const int lookUps = gateway->lookUps;
        LiveUntil(kMinuteMs);
        EXPECT_TRUE(AllIsWell()) << "stays well";
        EXPECT_GT(gateway->lookUps, lookUps) << "is verified";
        if (disturbance.drops != kAfterFourSearches) {
            EXPECT_EQ(events[UPnPEventDeviceReleased], disturbance.drops);
        } else {
            EXPECT_GT(events[UPnPEventDeviceReleased], 0);
            EXPECT_GE(events[UPnPEventDeviceRediscover], 4 * events[UPnPEventDeviceReleased]);
        }
        EXPECT_LT(CountDescriptors(), descriptorsBefore + 12);

        wantsMapping = false;
        LiveUntil(30000);
        EXPECT_TRUE(gateway->table.empty());
        gateway->BeginAgain(); // a reboot that nobody notices
        Plug(false);
        LiveUntil(0);
    }
    static void Count(void* raw, unsigned int code, CUPnPObject*)
    {
        ++static_cast<LongLife*>(raw)->events.at(code);
    }

    // The wrap comes 15 s after the fifth day's disturbance has begun.
    TestClock clock{0 - (kWrapDay + 1) * kDayMs + kDisturbedMs - 15000};
    std::uint64_t lived = 0, dayEnds = 0;
    std::optional<NoAdapters> unplugged{std::in_place};
    std::ptrdiff_t descriptorsBefore = 0;
    std::array<int, 5> events{};
    bool wantsMapping = false;
    std::unique_ptr<FarGateway> gateway;
    std::unique_ptr<CUPnPNetwork> network;
};

TEST_F(LongLife, TwoMonthsOfAGatewayThatRebootsAndMoves)
{
    QueueDescriptor(); // the thread keeps it
    descriptorsBefore = CountDescriptors();
    gateway = std::make_unique<FarGateway>();
    gateway->Begin(kHome);
    network = std::make_unique<CUPnPNetwork>(&Count, this);

    const auto moveTo = [&](const char* host) { return [this, host] { gateway->Begin(host); }; };
    const auto sayGoodbye = [&] { gateway->Say("NOTIFY * HTTP/1.1\r\nNTS: ssdp:byebye"); };
    const auto turnOff = [&] { gateway->End(); };
    const auto switchOff = [&] { gateway->table["8080"] = false; };
    const auto hang = [&] { gateway->silent = true; };
    const auto beWell = [&] {
        gateway->silent = false;
        gateway->maxAge = 1800;
        gateway->BeginAgain();
    };
    const auto plug = [&](bool in) { return [this, in] { Plug(in); }; };
    constexpr DWORD kSearch = 150000, kFullDiscovery = 400000; // until it is found again
    const Disturbance disturbances[] = {
        {"reboots and keeps its mappings", beWell, nullptr, 0, 0, 0},
        {"moves to another port", moveTo(kHome), nullptr, 0, kSearch, 1},
        {"forgets its mappings", [&] { gateway->table.clear(); }, nullptr, 0, kSearch, 1},
        {"has the mapping switched off", switchOff, nullptr, 0, kSearch, 1},
        {"moves to another address", moveTo(kElsewhere), nullptr, 0, kSearch, 1},
        {"moves back", moveTo(kHome), nullptr, 0, kSearch, 1},
        {"is off for ten minutes", turnOff, moveTo(kHome), 10 * kMinuteMs, kFullDiscovery, 1},
        {"says goodbye and stays", sayGoodbye, nullptr, 0, kSearch, 1},
        {"hangs", hang, beWell, 3 * kMinuteMs, kFullDiscovery, 1},
        {"is behind a cable that is out", plug(false), plug(true), 11 * kMinuteMs, kFullDiscovery, 0},
        {"calls itself expired", [&] { gateway->maxAge = -1; }, beWell, 10 * kMinuteMs, kFullDiscovery,
         kAfterFourSearches},
    };
    std::size_t heapBytes = 0; // of a day like the last
    for (DWORD day = 0; day < kDays; ++day) {
        const Disturbance& disturbance = disturbances[day % std::size(disturbances)];
        SCOPED_TRACE("day " + std::to_string(day) + ", on which the gateway " + disturbance.why);
        LiveOneDay(disturbance);
        if (day == kDays - 1 - 4 * std::size(disturbances))
            heapBytes = mallinfo2().uordblks;
    }
    EXPECT_EQ(network->NumDevices(), 1U);
    EXPECT_LT(mallinfo2().uordblks, heapBytes + 32768) << "in six weeks";
    network.reset();
    gateway.reset();
    EXPECT_EQ(tavronet::CountLivingObjects(), (tavronet::LivingObjects{0, 0}));
    EXPECT_EQ(CountDescriptors(), descriptorsBefore);
}

} // namespace
