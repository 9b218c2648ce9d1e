// Searches and datagrams on a private LAN, against plain sockets in its gateway's namespace.

#include <arpa/inet.h>

#include <optional>
#include <set>

#include "GatewayRecords.h"
#include "tavronet/platform/TestSeams.h"
#include "tavronet/upnp/UPnPSSDPSocket.h"
#include "tests/support/GatewayProcess.h"
#include "tests/support/OnPrivateLan.h"

namespace
{

/// A gateway that hears searches and answers none, and a voice that says to who searched what the test wants.
class DiscoveryOnALan : public tavronet::OnPrivateLan
{
protected:
    void SetUp() override
    {
        OnPrivateLan::SetUp();
        if (IsSkipped())
            return;
        const std::vector<std::string> options = {"--answer-copies", "0",         "--address",
                                                  "10.77.1.1",       "--address", "fd77:1::1"};
        gateway.emplace(options, tavronet::GatewayProcess::Place::GatewayOfLan);
    }
    void TearDown() override
    {
        network.reset();
        EXPECT_EQ(tavronet::CountLivingObjects(), (tavronet::LivingObjects{0, 0}));
    }

    /// The searches on IPv4, or IPv6, that were sent since the last call.
    std::vector<std::string> Heard(bool onIPv6 = false)
    {
        // What was sent before the first command has been read when the second one is.
        EXPECT_TRUE(gateway->Command("well") && gateway->Command("well"));
        const std::vector<tavronet::GatewayRequest> all = gateway->Requests();
        std::vector<std::string> heard;
        for (auto search = all.begin() + known; search != all.end(); ++search) {
            const bool isIPv6 = search->bytes.find("ff02::c") != std::string::npos;
            if (isIPv6 == onIPv6)
                heard.push_back(search->bytes);
            if (!isIPv6)
                searcher = search->peer;
        }
        known = static_cast<std::ptrdiff_t>(all.size());
        return heard;
    }
    void Say(const std::string& text) const
    {
        const int port = std::stoi(searcher.substr(searcher.find(':') + 1));
        const sockaddr_in to{AF_INET, htons(static_cast<std::uint16_t>(port)), {inet_addr("10.77.1.2")}, {}};
        const int voice = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        EXPECT_GE(
            sendto(voice, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
        close(voice);
        PumpBriefly(25);
    }

    void Start(bool searches = true)
    {
        network = std::make_unique<CUPnPNetwork>(&Callback, this, UPnPDialectClassic, searches);
        codes.clear();
    }
    static void Callback(void* raw, unsigned int code, CUPnPObject*)
    {
        auto& self = *static_cast<DiscoveryOnALan*>(raw);
        self.codes.push_back(code);
        if (code == self.actOn) {
            const auto act = self.action; // the action may end everything it was stored with
            act();
        }
    }
    std::size_t SearchesAfterTickle(DWORD passedMs)
    {
        clock.Advance(passedMs);
        network->Tickle();
        return Heard().size();
    }

    TestClock clock;
    std::optional<tavronet::GatewayProcess> gateway;
    std::ptrdiff_t known = 0;
    std::string searcher;
    std::unique_ptr<CUPnPNetwork> network;
    std::vector<unsigned int> codes;
    unsigned int actOn = ~0U;
    std::function<void()> action;
};

TEST_F(DiscoveryOnALan, SearchesAtOnceThenOnceASecondThenAfterFiveMinutes)
{
    for (const DWORD start : {1000000U, 0xFFFFFFFFu - 500}) { // the counter wraps between the searches
        TestClock::s_Now = start;
        Start();
        EXPECT_EQ(Heard(), std::vector<std::string>(
                               2, "M-SEARCH * HTTP/1.1\r\n"
                                  "ST: urn:schemas-upnp-org:device:WANConnectionDevice:1\r\n"
                                  "MX: 5\r\nMAN: \"ssdp:discover\"\r\nHOST: 239.255.255.250:1900\r\n\r\n"));
        const std::pair<DWORD, std::size_t> steps[] = {
            {999, 0}, {1, 2}, {999, 0}, {7000, 2}, {1002, 0}, {289999, 0}, {1, 2}, {1000, 2},
        };
        for (const auto& [passed, searches] : steps)
            EXPECT_EQ(SearchesAfterTickle(passed), searches) << passed << " from " << start;
    }
}

TEST_F(DiscoveryOnALan, SearchesForGatewaysOfEveryVersionInTheModernDialectWithoutFlooding)
{
    Start();
    EXPECT_NE(Heard(true).at(0).find("HOST: ff02::c:1900\r\n"), std::string::npos);
    EXPECT_TRUE(network->SetDialect(UPnPDialectModern));
    const std::vector<std::string> heard = Heard();
    const std::set<std::string> targets(heard.begin(), heard.end());
    EXPECT_EQ(targets.size(), heard.size()) << "each target once";
    EXPECT_LE(heard.size(), 8U);
    for (const char version : {'1', '2'}) {
        const std::string target =
            std::string("ST: urn:schemas-upnp-org:device:InternetGatewayDevice:") + version;
        EXPECT_EQ(std::ranges::count_if(
                      heard, [&](const auto& search) { return search.find(target) < search.size(); }),
                  1);
    }
    network->Discover();
    EXPECT_NE(Heard(true).at(0).find("HOST: [ff02::c]:1900\r\n"), std::string::npos);
}

TEST_F(DiscoveryOnALan, WhatBecomesOfADatagram)
{
    const std::string usn = "USN: uuid:x::urn:schemas-upnp-org:device:", alive = "NTS: ssdp:alive\r\n";
    const std::string wan = usn + "WANConnectionDevice:1\r\n\r\n",
                      root = usn + "InternetGatewayDevice:1\r\n\r\n";
    const std::tuple<const char*, std::string, std::size_t, int> rows[] = {
        {"a search answer, whatever its type", "http/1.1 200 Ok\r\n" + root, 1, 0},
        {"the prefix stands at the very beginning", " HTTP/1.1 200 OK\r\n" + root, 0, 0},
        {"an announcement of a gateway", "notify * HTTP/1.1\r\n" + alive + wan, 1, 1},
        {"an announcement of anything else", "NOTIFY * HTTP/1.1\r\n" + alive + root, 0, 0},
        {"a byebye of anything", "NOTIFY * HTTP/1.1\r\nNTS: ssdp:byebye\r\n" + root, 0, 1},
        {"longer than what is read", "HTTP/1.1 200 OK\r\n" + std::string(5000, 'x'), 1, 0},
    };
    for (const auto& [why, text, devices, notifies] : rows) {
        Start(false);
        CUPnPSSDPSocket socket("10.77.1.2", 0, network.get());
        EXPECT_TRUE(socket.Discover());
        Heard();
        Say(text);
        ASSERT_EQ(network->NumDevices(), devices) << why;
        CUPnPDevice* const device = network->GetUPnPDevice(0);
        EXPECT_TRUE(device == nullptr ||
                    (device->GetIpAddr() == L"10.77.1.2" && device->GetDeviceAddr() == L"10.77.1.2" &&
                     device->GetDevicePort() != 1900));
        EXPECT_EQ(std::ranges::count(codes, unsigned{UPnPEventDeviceNotify}), notifies) << why;
    }
}

TEST_F(DiscoveryOnALan, AnExpiredDeviceIsSearchedForAndTheHostMayDoAnythingMeanwhile)
{
    const std::function<void()> actions[] = {
        [this] { network.reset(); },
        [this] { network->Discover(); }, // replaces the socket
        [this] { network->ReleaseUPnPDevice(network->GetUPnPDevice(0)); },
        [] { throw 7; },
        [this] {
            EXPECT_FALSE(actOn == UPnPEventDeviceRediscover && network->DiscoverComplete()) << "a new period";
        },
    };
    for (std::size_t i = 0; i < 10; ++i) {
        SCOPED_TRACE(i);
        Start();
        Heard();
        Say("HTTP/1.1 200 OK\r\nUSN: uuid:x\r\nCACHE-CONTROL: max-age=-1\r\n\r\n");
        network->GetUPnPDevice(0)->GetType() = kGatewayType;
        action = actions[i / 2];
        actOn = i % 2 == 0 ? UPnPEventDeviceNotify : UPnPEventDeviceRediscover;
        try {
            for (int n = 0; n < 3 && i % 2 == 0; ++n) // the later ones find what the first left
                Say("NOTIFY * HTTP/1.1\r\nNTS: ssdp:alive\r\n"
                    "USN: uuid:y::urn:schemas-upnp-org:device:WANConnectionDevice:1\r\n\r\n");
            if (network != nullptr)
                SearchesAfterTickle(10001);
        } catch (int) {
            EXPECT_EQ(i / 2, 3U);
        }
        EXPECT_GT(std::ranges::count(codes, std::exchange(actOn, ~0U)), 0);
        EXPECT_TRUE(network == nullptr || SearchesAfterTickle(400000) > 0) << "upkeep still works";
    }
}

} // namespace
