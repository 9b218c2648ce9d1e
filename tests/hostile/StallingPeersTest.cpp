// Gateways that never come to an end.

#include "tavronet/upnp/Limits.h"
#include "tests/hostile/Meter.h"
#include "tests/upnp/GatewayRecords.h"

namespace
{

class StallingPeer : public testing::TestWithParam<int>
{
protected:
    void Register(const std::string& location)
    {
        network.NewUPnPDevice(MakeRecord(&network, {.location = location}));
    }
    CUPnPService* AwaitService()
    {
        EXPECT_TRUE(PumpUntil([&] { return network.GetUPnPDevice(0)->FindConnectionService() != nullptr; }));
        return network.GetUPnPDevice(0)->FindConnectionService();
    }
    bool AwaitRequests(std::size_t count)
    {
        return PumpUntil([&] { return server.Requests().size() == count; });
    }
    /// Sends a byte a second on the last connection until the client closes. @return after how many seconds
    int Drip()
    {
        const std::size_t connection = server.Connections() - 1;
        int seconds = 0;
        for (; !server.ClosedByClient(connection) && seconds < 600; ++seconds) {
            server.Write(connection, "x");
            TestClock::Advance(1000);
            PumpBriefly(1);
            network.Tickle();
        }
        server.End(connection);
        return seconds;
    }

    NoAdapters noAdapters;
    ScriptedServer server;
    CUPnPNetwork network{nullptr, nullptr, GetParam(), false};
};

TEST_P(StallingPeer, ASlowSenderIsGivenUpWithinAMinute)
{
    const TestClock clock;
    tavronet::Meter meter([] { ScriptedServer::MoveOn(); });
    server.AnswerBy([](const std::string& request) {
        return request.find("/d") < request.size() ? ScriptedServer::Reply(HttpAnswer(Description()), kClose)
                                                   : ScriptedServer::Reply("HTTP/1.1 200 OK\r\n", false);
    });
    Register(server.Url("/slow"));
    ASSERT_TRUE(AwaitRequests(1));
    EXPECT_LE(Drip(), 31);
    EXPECT_EQ(network.NumDevices(), 0U) << "a device nobody described";

    Register(server.Url("/d"));
    CUPnPService* const service = AwaitService();
    ASSERT_NE(service, nullptr);
    for (const char* const action : {"A", "B"})
        EXPECT_TRUE(service->Command(false, nullptr, action, nullptr));
    ASSERT_TRUE(AwaitRequests(3));
    EXPECT_LE(Drip(), 61);
    EXPECT_TRUE(AwaitRequests(4)) << "the action behind it has its turn";
    meter.Check(2);
}

TEST_P(StallingPeer, ATableWithoutEndIsReadToItsLastIndexOrAsLongAsItsTextsAreShort)
{
    const bool all = tavronet::kHoldFactor == 1 && GetParam() == UPnPDialectClassic;
    const int entries =
        all ? tavronet::kMaxPortMapEntries : 4000; // the rest would take minutes where code is slow
    server.Answer(HttpAnswer(Description()), kClose);
    Register(server.Url("/d"));
    ASSERT_NE(AwaitService(), nullptr);
    tavronet::Meter meter([&] {
        ScriptedServer::MoveOn();
        if (server.Requests().size() == server.Connections())
            server.Forget();
    });
    for (const std::string& description : {std::string("a game"), std::string(2000, 'x')}) {
        server.AnswerBy([&, answered = 0](const std::string&) mutable {
            const std::string entry =
                "<NewExternalPort>8080</NewExternalPort>\r\n<NewProtocol>TCP</NewProtocol>\r\n"
                "<NewInternalPort>8080</NewInternalPort>\r\n"
                "<NewInternalClient>192.168.1.20</NewInternalClient>\r\n"
                "<NewEnabled>1</NewEnabled>\r\n<NewPortMappingDescription>" +
                description + "</NewPortMappingDescription>\r\n";
            const bool ends = !all && ++answered > entries;
            return ScriptedServer::Reply(HttpAnswer(entry, ends ? "500 Over" : "200 OK"), kClose);
        });
        std::vector<CUPnPPortMap*> list;
        EXPECT_TRUE(network.GetUPnPDevice(0)->GetPortMaps(nullptr, list));
        const std::size_t most = tavronet::kMaxPortMapCharacters / description.size() + 1;
        EXPECT_LE(list.size(), most);
        EXPECT_GE(list.size(), std::min(static_cast<std::size_t>(entries), most * 9 / 10));
        CUPnPDevice::ReleasePortMaps(list);
    }
    meter.Check();
}

INSTANTIATE_TEST_SUITE_P(Dialects, StallingPeer, testing::Values(UPnPDialectClassic, UPnPDialectModern));

} // namespace
