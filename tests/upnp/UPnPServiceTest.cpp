// The actions of a service: what is sent, what an answer leaves, and how each wait ends.

#include "tavronet/upnp/UPnPService.h"

#include "GatewayRecords.h"
#include "tavronet/platform/Event.h"
#include "tavronet/platform/TestSeams.h"
#include "tavronet/upnp/Limits.h"

namespace
{

/// A service on a gateway that was heard from the loopback address.
class UPnPService : public testing::Test
{
protected:
    ~UPnPService() override { CloseHandle(cancel); }

    std::unique_ptr<CUPnPService> Make(const std::string& controlUrl,
                                       const std::string& type = kConnectionService)
    {
        auto made = std::make_unique<CUPnPService>(device.get());
        const std::string block = "<service>\r\n<serviceType>" + type + "</serviceType>\r\n<controlURL>" +
                                  controlUrl + "</controlURL>\r\n</service>\r\n";
        const char* position = block.c_str();
        int remaining = static_cast<int>(block.size());
        made->BuildService(position, remaining);
        return made;
    }

    bool GetAddress()
    {
        return service->Command(true, cancel, "GetExternalIPAddress", "NewExternalIPAddress", "", nullptr);
    }
    bool Send(const char* action) { return service->Command(false, nullptr, action, nullptr); }
    bool AwaitRequests(std::size_t count)
    {
        return PumpUntil([&] { return server.Requests().size() == count; });
    }
    bool AwaitSerial(UINT serial)
    {
        return PumpUntil([&] { return service->GetAnswerSerial() == serial; });
    }
    std::string Value() const { return Text(service->GetCommandParameterResult(0)); }

    static std::string Address(const std::string& address)
    {
        return HttpAnswer("<NewExternalIPAddress>" + address + "</NewExternalIPAddress>\r\n");
    }
    std::string LastAction() const { return Between(server.Requests().back(), "#", "\""); }

    ScriptedServer server;
    const HANDLE cancel = CreateEventW(nullptr, 1, 0, nullptr);
    std::unique_ptr<CUPnPDevice> device{MakeRecord(nullptr, {})};
    std::unique_ptr<CUPnPService> service = Make(server.Url("/ctl"));
};

TEST_F(UPnPService, TheClassicRequestToTheByteEndsItsArgumentsAtTheFirstNull)
{
    server.Answer(HttpAnswer(""));
    const char* const noText = nullptr;
    EXPECT_TRUE(service->Command(true, nullptr, "AddPortMapping", "NewRemoteHost", "", "NewDescription",
                                 "a&b <c>", "NewProtocol", noText, "NewPort", "3", noText));
    const std::string body =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
        "<s:Envelope s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\" "
        "xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\">\r\n"
        "   <s:Body>\r\n"
        "      <u:AddPortMapping xmlns:u=\"urn:schemas-upnp-org:service:WANIPConnection:1\">\r\n"
        "         <NewRemoteHost />\r\n"
        "         <NewDescription>a&b <c></NewDescription>\r\n"
        "      </u:AddPortMapping>\r\n"
        "   </s:Body>\r\n"
        "</s:Envelope>";
    EXPECT_EQ(server.Requests().at(0),
              "POST /ctl HTTP/1.1\r\nHOST: 127.0.0.1:" + server.Port() +
                  "\r\nSOAPACTION: \"urn:schemas-upnp-org:service:WANIPConnection:1"
                  "#AddPortMapping\"\r\nCONTENT-TYPE: text/xml ; charset=\"utf-8\"\r\n"
                  "Content-Length: " +
                  std::to_string(body.size()) + "\r\n\r\n" + body);
}

TEST_F(UPnPService, WhatAnAnswerLeavesBehind)
{
    const std::string fault = "<errorCode>714</errorCode>\r\n<errorDescription>None</errorDescription>\r\n";
    const std::tuple<const char*, std::string, int, const char*, const char*> rows[] = {
        {"any letter case", HttpAnswer("<NEWexternalIPaddress>1.2.3.4</NEWexternalIPaddress>"), 200,
         "1.2.3.4", ""},
        {"an empty value leaves what was sent", Address(""), 200, "sent", ""},
        {"a prefix is not known", HttpAnswer("<m:NewExternalIPAddress>1</m:NewExternalIPAddress>"), 200,
         "sent", ""},
        {"a fault", HttpAnswer(fault, "500 Internal Server Error"), 500, "sent", "714None"},
        {"fault texts count only in a fault", HttpAnswer(fault), 200, "sent", ""},
        {"no blank in it", "HTTP\r\nContent-Length:0\r\n\r\n", 200, "sent", ""},
    };
    for (const auto& [why, bytes, status, value, error] : rows) {
        SCOPED_TRACE(why);
        server.Answer(bytes);
        const UINT before = service->GetAnswerSerial();
        EXPECT_TRUE(service->Command(true, nullptr, "A", "NewExternalIPAddress", "sent", nullptr));
        EXPECT_EQ(service->GetAnswerSerial(), before + 1);
        EXPECT_EQ(service->GetResponseCode(), status);
        EXPECT_EQ(Value(), value);
        EXPECT_EQ(Text(service->GetErrorCode()) + Text(service->GetErrorDescription()), error);
    }
}

TEST_F(UPnPService, AConnectionThatEndsUnansweredEndsTheWaitAndKeepsTheLastAnswer)
{
    server.Answer(Address("203.0.113.7"));
    ASSERT_TRUE(GetAddress());
    const auto start = std::chrono::steady_clock::now();

    server.Answer("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n", kClose);
    EXPECT_FALSE(GetAddress()) << "broken in the header";
    EXPECT_EQ(Value(), "203.0.113.7");
    InTheWait([&] { service->ReleaseUPnPServiceSocket(false); });
    EXPECT_FALSE(GetAddress()) << "released by the host";
    {
        const ScriptedServer gone;
        service = Make(gone.Url("/ctl"));
    }
    EXPECT_FALSE(GetAddress()) << "refused";
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << "none sat out its time";
}

TEST_F(UPnPService, NothingIsSentThatMayNotBe)
{
    tavronet::InjectFault(tavronet::FaultPoint::CreateEvent, INVALID_SOCKET, 8);
    EXPECT_FALSE(GetAddress()) << "no event to wait for";
    tavronet::ClearFaults();
    EXPECT_FALSE(service->Command(true, nullptr, "Get Address", nullptr)) << "would forge a header";
    service = Make(server.Url("/ctl HTTP/1.1"));
    EXPECT_FALSE(GetAddress());
    service = Make(server.Url("/ctl"), "urn:x\nX-Forged: 1");
    EXPECT_FALSE(GetAddress());
    PumpBriefly();
    EXPECT_TRUE(server.Requests().empty());

    const std::size_t connections = server.Connections();
    device.reset(MakeRecord(nullptr, {.source = "10.77.9.1"}));
    service = Make(server.Url("/ctl"));
    EXPECT_FALSE(GetAddress()) << "this machine, named by a gateway that was heard elsewhere";
    EXPECT_EQ(server.Connections(), connections);
}

TEST_F(UPnPService, ActionsIssuedDuringAWaitFollowInOrderAndDisturbNothing)
{
    server.Answer(Address("203.0.113.7"), kClose);
    server.Answer(HttpAnswer("", "500 Oops"), kClose);
    server.Answer(HttpAnswer(""));
    InTheWait([&] {
        EXPECT_TRUE(service->Command(true, nullptr, "Second", nullptr)) << "does not wait";
        EXPECT_TRUE(service->Command(false, nullptr, "Third", "Name", "value", nullptr));
        for (std::size_t i = 2; i < tavronet::kMaxQueuedActions; ++i)
            EXPECT_TRUE(Send("More"));
        EXPECT_FALSE(Send("TooMany"));
    });
    EXPECT_TRUE(GetAddress());
    EXPECT_EQ(service->GetResponseCode(), 200) << "the caller's own answer, not that of a queued action";
    EXPECT_EQ(Value(), "203.0.113.7");
    EXPECT_EQ(service->GetAnswerSerial(), 1U);

    EXPECT_TRUE(AwaitSerial(2));
    EXPECT_EQ(service->GetResponseCode(), 500);
    EXPECT_TRUE(AwaitSerial(3));
    EXPECT_EQ(LastAction(), "Third");
    EXPECT_EQ(service->GetCommandResults(), (std::vector<CString>{L"Name", L"value"}));
    service->ReleaseCommandQueue();
}

TEST_F(UPnPService, AWaitThatFailsSendsTheNextActionInItsStead)
{
    for (const bool cancelled : {true, false}) {
        SCOPED_TRACE(cancelled ? "cancelled" : "closed without an answer");
        const UINT before = service->GetAnswerSerial();
        InTheWait([&] {
            EXPECT_TRUE(Send("Second"));
            if (cancelled)
                SetEvent(cancel);
        });
        if (!cancelled)
            server.Answer("", kClose);
        EXPECT_FALSE(GetAddress());
        ResetEvent(cancel);
        server.AnswerBy([](const std::string&) { return std::pair(HttpAnswer(""), false); });
        EXPECT_TRUE(AwaitSerial(before + 1));
        EXPECT_EQ(LastAction(), "Second");
    }
}

TEST_F(UPnPService, AnActionIssuedBetweenTheAnswerAndTheEndOfTheWaitIsQueued)
{
    // The answer has been read, and its connection closed, while the same drain still runs the host's call.
    bool issued = false;
    std::function<void()> issue = [&] {
        ScriptedServer::MoveOn(); // the queue is never empty, so no wait does it
        if (service->GetAnswerSerial() == 0)
            InTheWait(issue);
        else
            issued = service->Command(true, nullptr, "Second", "NewExternalIPAddress", "", nullptr);
    };
    server.Answer(Address("203.0.113.7"), kClose);
    server.Answer(Address("1.2.3.4"));
    InTheWait(issue);
    EXPECT_TRUE(GetAddress());
    EXPECT_EQ(Value(), "203.0.113.7");
    EXPECT_TRUE(AwaitSerial(2));
    EXPECT_TRUE(issued);
    EXPECT_EQ(Value(), "1.2.3.4");
}

} // namespace
