// Actions and what is made of them: what is sent, what is kept, and how each wait for an answer ends.

#include "GatewayRecords.h"
#include "tavronet/platform/Event.h"
#include "tavronet/upnp/Limits.h"

namespace
{

struct Exchange : testing::Test, GatewayDevice
{
    Exchange()
    {
        Describe();
        service = device->FindConnectionService();
    }
    ~Exchange() override { CloseHandle(cancel); }

    bool GetAddress() { return device->GetExternalIPAddress(cancel); }
    bool Send(const char* action) { return service->Command(false, nullptr, action, nullptr); }
    bool AwaitAnswer(UINT serial, const std::string& action)
    {
        const auto answered = [&] { return service->GetAnswerSerial() == serial; };
        return PumpUntil(answered) && Text(service->GetCommand()) == action;
    }

    bool Add(unsigned port, const char* kind = nullptr) { return device->AddPortMap(cancel, port, "", kind); }
    /// How often the gateway was asked for `action`.
    std::ptrdiff_t Asked(const std::string& action) const
    {
        const auto isIt = [&](const auto& request) { return Between(request, "#", "\"") == action; };
        return std::ranges::count_if(server.Requests(), isIt);
    }

    const HANDLE cancel = CreateEventW(nullptr, /*manualReset*/ 0, 0, nullptr); // reset once it was seen
    CUPnPService* service = nullptr;
};

TEST_F(Exchange, TheClassicRequestsToTheByteEndTheirArgumentsAtTheFirstNull)
{
    const char* const noText = nullptr;
    EXPECT_TRUE(service->Command(true, nullptr, "AddPortMapping", "NewRemoteHost", "", "NewDescription",
                                 "a&b <c>", "NewProtocol", noText, "NewPort", "3", noText));
    const std::string body =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
        "<s:Envelope s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\" "
        "xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\">\r\n   <s:Body>\r\n"
        "      <u:AddPortMapping xmlns:u=\"urn:schemas-upnp-org:service:WANIPConnection:1\">\r\n"
        "         <NewRemoteHost />\r\n         <NewDescription>a&b <c></NewDescription>\r\n"
        "      </u:AddPortMapping>\r\n   </s:Body>\r\n</s:Envelope>";
    EXPECT_EQ(server.Requests()[0], "GET /d HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    EXPECT_EQ(server.Requests()[1],
              "POST /ctl HTTP/1.1\r\nHOST: 127.0.0.1:" + server.Port() +
                  "\r\nSOAPACTION: \"urn:schemas-upnp-org:service:WANIPConnection:1#AddPortMapping\"\r\n"
                  "CONTENT-TYPE: text/xml ; charset=\"utf-8\"\r\nContent-Length: " +
                  std::to_string(body.size()) + "\r\n\r\n" + body);
}

TEST_F(Exchange, ActionsIssuedDuringAWaitFollowInOrderAndDisturbNothing)
{
    server.Answer(HttpAnswer("<NewExternalIPAddress>1.2.3.4</NewExternalIPAddress>"), kClose);
    server.Answer(HttpAnswer("", "500 Oops"), kClose);
    InTheWait([&] {
        EXPECT_TRUE(service->Command(true, nullptr, "Second", nullptr)) << "does not wait";
        EXPECT_TRUE(service->Command(false, nullptr, "Third", "Name", "value", nullptr));
        for (std::size_t i = 2; i < tavronet::kMaxQueuedActions; ++i)
            EXPECT_TRUE(Send("More"));
        EXPECT_FALSE(Send("TooMany"));
    });
    EXPECT_TRUE(GetAddress());
    EXPECT_EQ(service->GetResponseCode(), 200) << "the caller's own answer, not that of a queued action";
    EXPECT_EQ(Text(device->ExternalIPAddress()), "1.2.3.4");
    EXPECT_TRUE(AwaitAnswer(2, "Second"));
    EXPECT_EQ(service->GetResponseCode(), 500);
    EXPECT_TRUE(AwaitAnswer(3, "Third"));
    EXPECT_EQ(service->GetCommandResults(), (std::vector<CString>{L"Name", L"value"}));
    service->ReleaseCommandQueue();
}

TEST_F(Exchange, AWaitThatFailsSendsTheNextActionInItsStead)
{
    const std::function<void()> failures[] = {
        [&] { SetEvent(cancel); }, [&] { server.End(server.Connections() - 1); },
        [&] { server.Write(server.Connections() - 1, "HTTP/1.1 200 OK\r\nContent-Length: 2000000\r\n\r\n"); },
        [] { TestClock::Advance(10000); }, // the counter has wrapped
    };
    TestClock::s_Now = 0xFFFFFFFFU - 5000;
    for (UINT serial = 1; const auto& failure : failures) {
        server.AnswerBy([&](const std::string& request) {
            if (request.find("#Second") < request.size())
                return gateway(request);
            EXPECT_TRUE(Send("Second"));
            InTheWait(failure);
            return ScriptedServer::Reply();
        });
        EXPECT_FALSE(GetAddress());
        EXPECT_TRUE(AwaitAnswer(serial++, "Second"));
    }
}

TEST_F(Exchange, OneRecordPerPortIsKeptUntilItsMappingIsDeleted)
{
    EXPECT_TRUE(Add(8080) && Add(8080) && Add(6000) && Add(6000, "UDP"));
    EXPECT_TRUE(device->DeletePortMap(cancel, 6000, nullptr)); // the record is the UDP one's by now
    EXPECT_EQ(device->GetIndivPortMaps(), (std::map<unsigned, unsigned>{{8080, 8080}}));
    EXPECT_TRUE(device->DeleteIndivPortMaps(cancel));
    EXPECT_EQ(Asked("DeletePortMapping"), 3) << "8080 once, 6000 of each protocol";

    auto& own = device->GetPortMaps();
    own.push_back(new CUPnPPortMap(70, "TCP", "127.0.0.1", ""));
    InTheWait([&] { own.push_back(new CUPnPPortMap(71, "TCP", "127.0.0.1", "")); });
    EXPECT_TRUE(device->DeletePortMaps(cancel));
    ASSERT_EQ(own.size(), 1U);
    EXPECT_EQ(own[0]->ExternalPort(), 71U) << "came meanwhile, so its mapping is still there";
}

TEST_F(Exchange, SomeMakersPortsAreDisabledBeforeTheyAreDeleted)
{
    server.Answer(HttpAnswer("<device>\r\n<manufacturer>LinkSys Inc.</manufacturer>\r\n" +
                             Description().substr(Description().find("<deviceType>"))),
                  kClose);
    Describe();
    PortMapList& list = device->GetPortMaps() = Records({80, 161, 162, 8080});
    EXPECT_TRUE(device->AddPortMaps(cancel, list) && device->DeletePortMaps(cancel, list));
    EXPECT_EQ(Asked("AddPortMapping"), 4 + 2);
    EXPECT_FALSE(list[0]->Enabled() || list[1]->Enabled() || !list[3]->Enabled());
}

TEST_F(Exchange, AListStopsAtTheFirstFailureAndKeepsWhatWasDone)
{
    PortMapList& own = device->GetPortMaps() = Records({1, 2, 3});
    server.Answer(HttpAnswer("", "500 Refused"));
    server.Answer(HttpAnswer(""));
    server.Answer("", kClose);
    EXPECT_FALSE(device->AddPortMaps(cancel, own));
    // The third has no answer of its own: that of the second counts.
    EXPECT_TRUE(!own[0]->GetAdded() && own[1]->GetAdded() && own[2]->GetAdded());
    EXPECT_FALSE(device->Tickle());
    EXPECT_TRUE(device->Tickle()) << "the failure is told once";
    server.Answer(HttpAnswer(""));
    server.Answer("", kClose);
    EXPECT_FALSE(device->DeletePortMaps(cancel));
    EXPECT_TRUE(own.size() == 3 && own[0]->GetDeleted() && !own[1]->GetDeleted());
    server.Answer("", kClose);
    EXPECT_FALSE(device->GetPortMaps(cancel, own));
    EXPECT_TRUE(own.empty()) << "only a whole table is a list";

    EXPECT_TRUE(Add(8080));
    device->SetRelease(true);
    EXPECT_FALSE(Add(80) || device->DeleteIndivPortMaps(cancel)) << "of a device to be released";
}

TEST_F(Exchange, RangesAreMappedWhereTheGatewayHasRoom)
{
    const std::tuple<const char*, std::set<std::string>, unsigned, unsigned, unsigned, unsigned, int> rows[] = {
        // refused ports, one that is taken, first and count; where the range ends up, or 0, and how many adds it takes
        {"free", {}, 0, 60, 3, 60, 3},
        {"right above", {}, 61, 60, 2, 62, 2},
        {"refused", {"71"}, 0, 70, 2, 72, 4},
        {"four refusals, one port", {"70", "71", "72", "73"}, 0, 70, 1, 74, 5},
        {"five refusals", {"70", "72", "74", "76", "78"}, 0, 70, 2, 0, 10},
        {"pushed beyond it", {}, 65533, 65533, 3, 0, 0},
        {"no port", {}, 0, 60, 0, 0, 0},
        {"the sum wraps", {}, 0, 0xFFFFFFFF, 2, 0, 0},
    };
    for (const auto& [why, refused, taken, first, count, at, adds] : rows) {
        SCOPED_TRACE(why);
        Describe();
        gateway.table.clear();
        gateway.refused = refused;
        EXPECT_TRUE(taken == 0 || Add(taken));
        const auto asked = Asked("AddPortMapping");
        EXPECT_EQ(device->AddPortMaps(cancel, first, count, "%d", nullptr), at != 0);
        EXPECT_EQ(Asked("AddPortMapping"), asked + adds);
        unsigned start = 0, end = 0;
        device->GetStartEndPorts(start, end);
        EXPECT_TRUE(start == at && end == (at != 0 ? at + count - 1 : 0));
        EXPECT_EQ(gateway.table.size(), device->NumPortMaps() + (taken != 0)) << "nothing else is left";
    }
    InTheWait([&] { SetEvent(cancel); });
    EXPECT_FALSE(device->AddPortMaps(cancel, 90, 2, "%d", nullptr) || gateway.table.contains("90"));
}

} // namespace
