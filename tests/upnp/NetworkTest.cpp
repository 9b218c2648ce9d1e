// What becomes of a datagram, and two months of a host, its network and a gateway on the far side of a cable.

#include <malloc.h>

#include "GatewayRecords.h"
#include "tavronet/platform/TestSeams.h"
#include "tavronet/upnp/UPnPDialect.h"
#include "tavronet/upnp/UPnPSSDPSocket.h"
#include "tests/support/Programs.h"

namespace
{

/// A network, and what it told its host.
struct NetworkOnALan : tavronet::OnPrivateLan
{
    void Begin(bool searches = false)
    {
        events.clear();
        network = std::make_unique<CUPnPNetwork>(&Note, this, UPnPDialectClassic, searches);
    }
    static void Note(void* self, unsigned int code, CUPnPObject* object)
    {
        static_cast<NetworkOnALan*>(self)->events.emplace_back(code, object);
    }
    void Answer(const Announced& announced) { network->NewUPnPDevice(MakeRecord(network.get(), announced)); }
    void Notify(const Announced& announced) { network->Notify(MakeRecord(network.get(), announced)); }

    using Event = std::pair<unsigned int, CUPnPObject*>;
    std::vector<Event> events;
    std::unique_ptr<CUPnPNetwork> network;
};

TEST_F(NetworkOnALan, WhichDatagramsAreOfGateways)
{
    const std::string usn = "USN: uuid:x::urn:schemas-upnp-org:device:", alive = "NTS: ssdp:alive\r\n";
    const std::string wan = usn + "WANConnectionDevice:1\r\n\r\n",
                      root = usn + "InternetGatewayDevice:1\r\n\r\n";
    const std::tuple<const char*, std::string, std::size_t, std::size_t> rows[] = {
        {"a search answer, whatever its type", "http/1.1 200 Ok\r\n" + root, 1, 0},
        {"the prefix stands at the very beginning", " HTTP/1.1 200 OK\r\n" + root, 0, 0},
        {"an announcement of a gateway", "notify * HTTP/1.1\r\n" + alive + wan, 1, 1},
        {"an announcement of anything else", "NOTIFY * HTTP/1.1\r\n" + alive + root, 0, 0},
        {"said behind the header", "NOTIFY * HTTP/1.1\r\nNT: x\r\n\r\n" + alive + wan, 0, 0},
        {"said behind a lone line feed", "NOTIFY * HTTP/1.1\r\nNT: x\n" + alive + wan, 0, 1},
        {"a byebye of anything", "NOTIFY * HTTP/1.1\r\nNTS: ssdp:byebye\r\n" + root, 0, 1},
        {"longer than what is read", "HTTP/1.1 200 OK\r\n" + std::string(5000, 'x'), 1, 0},
    };
    for (const auto& [why, text, devices, notifies] : rows) {
        Begin();
        const CUPnPSSDPSocket ear("127.0.0.1", 0, network.get());
        const auto voice =
            tavronet::PlainSocket::ConnectedTo(tavronet::BindToLoopback(ear.GetSocket()), SOCK_DGRAM);
        EXPECT_TRUE(voice.Writes(text));
        tavronet::PumpUntilQuiet();
        EXPECT_EQ(network->NumDevices(), devices) << why;
        EXPECT_EQ(events.size(), notifies) << why;
    }
}

TEST_F(NetworkOnALan, WhichAnswersAreTheSameDevice)
{
    const char* const url = "http://10.0.0.1:5000/d";
    const std::tuple<const char*, const char*, const char*, std::size_t> rows[] = {
        {"10.0.0.2", "http://b/", "UUID:one::URN:X", 1},
        {"10.0.0.2", "http://b/", "uuid:One::urn:y", 1}, // its UUID with another type
        {"10.0.0.2", "http://b/", "uuid:WAN::urn:y", 1}, // that of an embedded device
        {"10.0.0.2", "http://b/", "uuid:wan5", 2},
        {"10.0.0.1", "http://b/", "uuid:2", 1},
        {"10.0.0.2", url, "uuid:2", 1},
        {"10.0.0.2", "HTTP://10.0.0.1:5000/d", "uuid:2", 2},
    };
    for (const auto& [source, location, usn, devices] : rows) {
        Begin();
        Answer({.source = "10.0.0.1", .location = url, .usn = "uuid:One::urn:x"});
        CUPnPDevice* const first = network->GetUPnPDevice(0);
        network->Dialect().ReadDescription(*first, Description());
        Answer({.source = source, .location = location, .usn = usn, .cacheControl = "max-age=6"});
        EXPECT_EQ(network->NumDevices(), devices) << source << location << usn;
        EXPECT_EQ(first->GetMaxAge(), devices == 1 ? 6 : 1800) << "refreshed";
    }
}

TEST_F(NetworkOnALan, AnAnnouncementIsShownToTheHostAndThenActedOn)
{
    Begin();
    Notify({.localAddress = "10.0.0.9", .nts = "ssdp:alive"});
    Notify({.source = "10.0.0.7", .usn = "uuid:7", .nts = "ssdp:update"});
    Notify({.source = "10.0.0.8", .usn = "uuid:8", .nts = "ssdp:byebye"});
    EXPECT_TRUE(network->NumDevices() == 1 && events.size() == 3);
    CUPnPDevice* const record = network->FindDevice("10.0.0.9");
    record->GetType() = kGatewayType;
    Answer({.source = "10.0.0.6", .usn = "uuid:6"});
    network->GetUPnPDevice(1)->SetRelease(true); // undescribed: goes silently
    Notify({.nts = "ssdp:byebye"});
    for (std::size_t left = 2; left > 0; --left, network->Tickle())
        EXPECT_EQ(network->NumDevices(), left) << "one goes with each upkeep";
    ASSERT_TRUE(network->NumDevices() == 0 && events.size() == 5);
    EXPECT_EQ(events[4], (Event(UPnPEventDeviceReleased, record)));
}

TEST_F(NetworkOnALan, WhoGoesAwayMakesRoomInAFullRegistry)
{
    const TestClock clock;
    Begin();
    for (int i = 0; i < 130; ++i) {
        Answer({.source = "10.0.1." + std::to_string(i), .usn = "uuid:" + std::to_string(i)});
        network->GetUPnPDevice(std::min(i, 127))->GetType() = kGatewayType;
    }
    EXPECT_EQ(network->NumDevices(), 128U);
    network->GetUPnPDevice(0)->GetPortMaps().push_back(new CUPnPPortMap(70, "TCP", "127.0.0.1", ""));
    TestClock::Advance(1);
    for (int i = 2; i < 128; ++i)
        network->GetUPnPDevice(i)->SetMaxAge(1); // heard from later than the first two
    TestClock::Advance(600000);
    for (int tick = 0; tick < 2; ++tick, network->Tickle())
        EXPECT_EQ(network->NumDevices(), 128U - static_cast<unsigned>(tick)) << "room for one";
    EXPECT_EQ(network->NumDevices(), 127U);
    EXPECT_EQ(network->GetUPnPDevice("uuid:1"), nullptr) << "silent for longest of those without mappings";
}

TEST_F(NetworkOnALan, ADeviceGoesWithTheAddressThroughWhichItWasReached)
{
    Begin();
    for (const char* const local : {"192.0.2.7", "127.0.0.1", "192.0.2.7", ""}) {
        const std::string name = std::to_string(network->NumDevices());
        Answer({.localAddress = local, .source = name, .usn = "uuid:" + name});
        network->GetUPnPDevice(static_cast<int>(network->NumDevices()) - 1)->GetType() = kGatewayType;
    }
    network->Discover();
    network->Tickle();
    network->Tickle();
    ASSERT_EQ(network->NumDevices(), 2U);
    EXPECT_EQ(network->GetUPnPDevice(0)->GetIpAddr(), L"127.0.0.1");
}

constexpr const char* kHome = "10.77.1.1";
constexpr DWORD kMinuteMs = 60000;

/// A host that maps a port for half an hour a day, in the forty minutes for which its machine has a network.
struct LongLife : NetworkOnALan
{
    // A "day" is a part of the counter's turn: what happens at its wrap happens at the next one too.
    static constexpr DWORD kDayMs = 0xFFFFFFFF / 50, kDays = 61, kWrapDay = 4, kDisturbedMs = 15 * kMinuteMs;
    static constexpr int kMany = -1;
    using Files = std::filesystem::directory_iterator;

    /// What happens to the gateway, or on the way there.
    // It begins and, ten minutes later, perhaps ends; how often the gateway is dropped.
    using Disturbance = std::tuple<const char*, std::function<void()>, std::function<void()>, int>;

    void TearDown() override
    {
        network.reset();
        gateway.reset();
        EXPECT_EQ(tavronet::CountLivingObjects(), (tavronet::LivingObjects{0, 0}));
        EXPECT_EQ(Descriptors(), descriptors);
    }
    static long Descriptors()
    {
        CurrentThreadQueue(); // has some
        return std::ranges::distance(Files("/proc/self/fd"));
    }

    /// The gateway comes up, or comes up again, at another port and without any mappings.
    void Start(const std::string& address, const std::string& option = "--max-age=1800")
    {
        gateway.reset();
        gateway.emplace(std::vector<std::string>{"--address", address, option});
    }
    /// The host's loop, with upkeep as often as it has to be.
    void LiveUntil(DWORD ofDay)
    {
        while (lived < std::uint64_t{day} * kDayMs + ofDay) {
            const DWORD before = GetTickCount();
            const std::size_t known = network->NumDevices();
            TestClock::Advance(Searching() ? 500 : 30000);
            network->Tickle();
            // The answer to a search comes before the time goes on.
            const bool searches = network->NumDevices() == 0 && (known > 0 || Searching());
            EXPECT_TRUE(!searches || !gateway || unplugged || PumpUntil([this] { return Described(); }));
            DispatchPending();
            if (Described() && !unplugged && wantsMapping == Described()->GetIndivPortMaps().empty())
                wantsMapping ? Described()->AddPortMap(nullptr, 8080, "game", nullptr)
                             : Described()->DeletePortMap(nullptr, 8080, nullptr);
            lived += ElapsedMs(GetTickCount(), before); // waits for nothing took time, too
        }
    }
    bool Searching() const { return ElapsedMs(GetTickCount(), network->GetDiscoverTick()) < 10000; }
    CUPnPDevice* Described() const
    {
        CUPnPDevice* const device = network->GetUPnPDevice(0);
        return device != nullptr && device->DiscoverComplete() ? device : nullptr;
    }
    bool IsMapped() const
    {
        const CUPnPPortMap asked(8080, "TCP", "", "");
        return std::unique_ptr<CUPnPPortMap>(Described()->GetPortSpecificPortMap(nullptr, asked)) != nullptr;
    }
    /// The host knows the gateway where it is, and its mapping is there.
    bool AllIsWell() const
    {
        return Described() != nullptr && Text(Described()->GetDescURL()) == gateway->Url() &&
               network->NumDevices() == 1 && IsMapped();
    }

    void LiveOneDay(const Disturbance& disturbance)
    {
        const auto& [why, begins, ends, mayDrop] = disturbance;
        SCOPED_TRACE("day " + std::to_string(day) + ", on which the gateway " + why);
        unplugged.reset();
        LiveUntil(10 * kMinuteMs);
        wantsMapping = true;
        LiveUntil(kDisturbedMs);
        EXPECT_TRUE(AllIsWell()) << "before";
        events.clear();
        begins();
        LiveUntil(kDisturbedMs + 10 * kMinuteMs);
        if (ends)
            ends();
        LiveUntil(kDisturbedMs + 17 * kMinuteMs);
        EXPECT_TRUE(AllIsWell());
        const int checks = gateway->Logged("soap GetSpecificPortMappingEntry");
        LiveUntil(39 * kMinuteMs);
        EXPECT_GT(gateway->Logged("soap GetSpecificPortMappingEntry"), checks);
        EXPECT_TRUE(AllIsWell()) << "stays well";
        const auto drops = std::ranges::count(events, UPnPEventDeviceReleased, &Event::first);
        EXPECT_TRUE(drops == mayDrop || (mayDrop == kMany && drops > 2)) << drops;
        EXPECT_LT(Descriptors(), descriptors + 20);

        wantsMapping = false;
        LiveUntil(40 * kMinuteMs);
        EXPECT_FALSE(IsMapped());
        Start(kHome); // a reboot that nobody notices
        unplugged.emplace();
        LiveUntil(kDayMs);
    }

    // The wrap comes 15 s after the fifth day's disturbance has begun.
    TestClock clock{0 - (kWrapDay * kDayMs + kDisturbedMs + 15000)};
    DWORD day = 0;
    std::uint64_t lived = 0;
    const long descriptors = Descriptors();
    bool wantsMapping = false;
    std::optional<NoAdapters> unplugged; // a machine without a cable has no adapters
    std::optional<tavronet::GatewayProcess> gateway;
};

TEST_F(LongLife, TwoMonthsOfAGatewayThatRebootsAndMoves)
{
    const Disturbance disturbances[] = {
        {"reboots", [&] { Start(kHome); }, nullptr, 1},
        {"has the mapping deleted", [&] { gateway->Command("clear"); }, nullptr, 1},
        {"moves to another address", [&] { Start("10.77.2.1"); }, nullptr, 1},
        {"is off", [&] { gateway.reset(); }, [&] { Start(kHome); }, 1},
        {"is behind a cable that is out", [&] { unplugged.emplace(); }, [&] { unplugged.reset(); }, 0},
        {"calls itself expired", [&] { Start(kHome, "--max-age=-1"); }, [&] { Start(kHome); }, kMany},
    };
    Start(kHome);
    Begin(true);
    std::size_t heapBytes = 0; // of a day like the last
    for (; day < kDays; ++day) {
        LiveOneDay(disturbances[day % std::size(disturbances)]);
        if (day == kDays - 1 - 4 * std::size(disturbances))
            heapBytes = mallinfo2().uordblks;
    }
    EXPECT_LT(mallinfo2().uordblks, heapBytes + 32768) << "in five weeks";
}

TEST_F(LongLife, BeginsWithASearchThenOneASecondThenOneInFiveMinutes)
{
    Start(kHome, "--answer-copies=0");
    std::size_t sent = 0;
    for (const DWORD start : {1000000U, 0xFFFFFFFFU - 500}) { // the counter wraps between the searches
        TestClock::s_Now = start;
        Begin(true);
        const std::pair<DWORD, std::size_t> steps[] = {
            {0, 2}, {999, 0}, {1, 2}, {999, 0}, {7000, 2}, {1002, 0}, {289999, 0}, {1, 2}, {1000, 2},
        }; // two datagrams each time, as they get lost
        for (const auto& [passedMs, searches] : steps) {
            TestClock::Advance(passedMs);
            network->Tickle();
            sent += searches;
            PumpUntil([&] { return gateway->Requests().size() >= sent; });
            EXPECT_EQ(gateway->Requests().size(), sent) << passedMs << " from " << start;
        }
    }
    EXPECT_EQ(gateway->Requests().back(),
              "M-SEARCH * HTTP/1.1\r\nST: urn:schemas-upnp-org:device:WANConnectionDevice:1\r\nMX: 5\r\n"
              "MAN: \"ssdp:discover\"\r\nHOST: 239.255.255.250:1900\r\n\r\n");
}

} // namespace
