#include "tavronet/upnp/UPnPService.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "GatewayRecords.h"
#include "ScriptedServer.h"
#include "tavronet/platform/Event.h"
#include "tavronet/platform/TestSeams.h"
#include "tavronet/upnp/Limits.h"

namespace
{

using Then = ScriptedServer::Then;

/// A service on a gateway that was heard from the loopback address.
class UPnPService : public testing::Test
{
protected:
    std::unique_ptr<CUPnPService> Make(const std::string& controlUrl, const char* type = kConnectionService)
    {
        auto made = std::make_unique<CUPnPService>(device.get());
        const std::string block = "<service>\r\n<serviceType>" + std::string(type) +
                                  "</serviceType>\r\n<controlURL>" + controlUrl +
                                  "</controlURL>\r\n</service>\r\n";
        const char* position = block.c_str();
        int remaining = static_cast<int>(block.size());
        made->BuildService(position, remaining);
        return made;
    }

    void Reset(const std::string& path = "/ctl") { service = Make(server.Url(path)); }

    bool GetAddress(HANDLE cancel = nullptr)
    {
        return service->Command(true, cancel, "GetExternalIPAddress", "NewExternalIPAddress", "", nullptr);
    }

    /// Runs a step inside the next wait.
    void InTheWait(std::function<void()> step)
    {
        m_Step = std::move(step);
        PostThreadCall(
            CurrentThreadQueue(), [](void* self) { static_cast<UPnPService*>(self)->m_Step(); }, this);
    }

    static std::string Address(const std::string& address)
    {
        return HttpAnswer("<NewExternalIPAddress>" + address + "</NewExternalIPAddress>\r\n");
    }

    static std::string ActionOf(const std::string& request)
    {
        const std::size_t begin = request.find('#') + 1;
        return request.substr(begin, request.find('"', begin) - begin);
    }

    ScriptedServer server;
    std::unique_ptr<CUPnPDevice> device{MakeRecord(nullptr, {})};
    std::unique_ptr<CUPnPService> service = Make(server.Url("/ctl"));

private:
    std::function<void()> m_Step;
};

TEST_F(UPnPService, TheRequestOfTheClassicDialectToTheByte)
{
    server.Answer(Address("203.0.113.7"));
    EXPECT_TRUE(service->Command(true, nullptr, "AddPortMapping", "NewRemoteHost", "", "NewExternalPort",
                                 "8080", "NewPortMappingDescription", "a&b <c>", nullptr));
    const std::string body =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
        "<s:Envelope s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\" "
        "xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\">\r\n"
        "   <s:Body>\r\n"
        "      <u:AddPortMapping xmlns:u=\"urn:schemas-upnp-org:service:WANIPConnection:1\">\r\n"
        "         <NewRemoteHost />\r\n"
        "         <NewExternalPort>8080</NewExternalPort>\r\n"
        "         <NewPortMappingDescription>a&b <c></NewPortMappingDescription>\r\n"
        "      </u:AddPortMapping>\r\n"
        "   </s:Body>\r\n"
        "</s:Envelope>";
    ASSERT_EQ(server.Requests().size(), 1U);
    EXPECT_EQ(server.Requests()[0], "POST /ctl HTTP/1.1\r\nHOST: 127.0.0.1:" + std::to_string(server.Port()) +
                                        "\r\nSOAPACTION: \"urn:schemas-upnp-org:service:WANIPConnection:1"
                                        "#AddPortMapping\"\r\nCONTENT-TYPE: text/xml ; charset=\"utf-8\"\r\n"
                                        "Content-Length: " +
                                        std::to_string(body.size()) + "\r\n\r\n" + body);
}

TEST_F(UPnPService, ArgumentsEndAtTheFirstNull)
{
    server.Answer(HttpAnswer(""));
    EXPECT_TRUE(service->Command(true, nullptr, "A", nullptr))
        << "no arguments, whatever the compiler takes it for";
    EXPECT_TRUE(service->GetCommandParams().empty());

    server.Answer(HttpAnswer(""));
    const char* const noText = nullptr;
    EXPECT_TRUE(service->Command(true, nullptr, "A", "One", "1", "Two", noText, "Three", "3", noText));
    EXPECT_EQ(service->GetCommandParams(), (std::vector<CString>{L"One", L"1"}));
}

struct AnswerRow
{
    const char* why;
    std::string bytes;
    int status;
    const wchar_t* value;
    const wchar_t* errorCode;
    const wchar_t* errorText;
};

TEST_F(UPnPService, WhatAnAnswerLeavesBehind)
{
    const std::string fault =
        "<errorCode>714</errorCode>\r\n<errorDescription>NoSuchEntryInArray</errorDescription>\r\n";
    const AnswerRow rows[] = {
        {"a value", Address("203.0.113.7"), 200, L"203.0.113.7", L"", L""},
        {"any letter case", HttpAnswer("<NEWexternalIPaddress>1.2.3.4</NEWexternalIPaddress>"), 200,
         L"1.2.3.4", L"", L""},
        {"an empty value leaves what was sent", Address(""), 200, L"sent", L"", L""},
        {"a prefixed element is not found",
         HttpAnswer("<m:NewExternalIPAddress>1.2.3.4</m:NewExternalIPAddress>"), 200, L"sent", L"", L""},
        {"a fault", HttpAnswer(fault, "500 Internal Server Error"), 500, L"sent", L"714",
         L"NoSuchEntryInArray"},
        {"fault texts count only in a fault", HttpAnswer(fault), 200, L"sent", L"", L""},
        {"no blank in it", "HTTP\r\nContent-Length:0\r\n\r\n", 200, L"sent", L"", L""},
    };
    for (const AnswerRow& row : rows) {
        SCOPED_TRACE(row.why);
        server.Answer(row.bytes);
        const UINT before = service->GetAnswerSerial();
        EXPECT_TRUE(service->Command(true, nullptr, "A", "NewExternalIPAddress", "sent", nullptr));
        EXPECT_EQ(service->GetAnswerSerial(), before + 1);
        EXPECT_EQ(service->GetResponseCode(), row.status);
        EXPECT_EQ(service->GetCommandParameterResult(0), CString(row.value));
        EXPECT_EQ(service->GetErrorCode(), row.errorCode);
        EXPECT_EQ(service->GetErrorDescription(), row.errorText);
    }
    for (const int index : {-1, 1, 0x7FFFFFFF})
        EXPECT_STREQ(service->GetCommandParameterResult(index), L"");
}

TEST_F(UPnPService, AConnectionThatEndsUnansweredEndsTheWait)
{
    server.Answer(Address("203.0.113.7"));
    ASSERT_TRUE(GetAddress());
    const auto start = std::chrono::steady_clock::now();

    server.Answer("", Then::Close);
    EXPECT_FALSE(GetAddress()) << "closed without an answer";
    server.Answer("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n", Then::Reset);
    EXPECT_FALSE(GetAddress()) << "broken in the header";
    {
        const ScriptedServer gone;
        service = Make(gone.Url("/ctl"));
    }
    EXPECT_FALSE(GetAddress()) << "refused";
    Reset();
    InTheWait([&] { service->ReleaseUPnPServiceSocket(false); });
    EXPECT_FALSE(GetAddress()) << "released by the host";

    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2))
        << "and none sat out its time";
}

TEST_F(UPnPService, AFailedCommandKeepsThePreviousAnswer)
{
    server.Answer(Address("203.0.113.7"));
    ASSERT_TRUE(GetAddress());
    server.Answer("", Then::Close);
    EXPECT_FALSE(GetAddress());
    EXPECT_EQ(service->GetResponseCode(), 200);
    EXPECT_STREQ(service->GetCommandParameterResult(0), L"203.0.113.7");
}

TEST_F(UPnPService, TheCancelEventEndsTheWait)
{
    const HANDLE cancel = CreateEventW(nullptr, 1, 0, nullptr);
    InTheWait([&] { SetEvent(cancel); });
    EXPECT_FALSE(GetAddress(cancel));
    EXPECT_TRUE(PumpUntil([&] { return server.Connections() == 0 || server.ClosedByClient(0); }));

    ResetEvent(cancel);
    server.Answer(Address("1.2.3.4"), Then::Close); // answers the request cut short, if it ever arrived whole
    server.Answer(Address("203.0.113.7"));
    EXPECT_TRUE(GetAddress(cancel)) << "the service is free again";
    CloseHandle(cancel);
}

TEST_F(UPnPService, WithoutAnAnswerTheWaitAndItsConnectionEndAfterTenSeconds)
{
    TestClock clock;
    InTheWait([&] { clock.Advance(9999); });
    server.Answer(Address("203.0.113.7"));
    EXPECT_TRUE(GetAddress());
    InTheWait([&] { clock.Advance(10000); });
    EXPECT_FALSE(GetAddress());
    PumpBriefly();
    EXPECT_TRUE(server.Connections() == 1 || server.ClosedByClient(1));
}

TEST_F(UPnPService, NothingIsSentWithoutAnEvent)
{
    tavronet::InjectFault(tavronet::FaultPoint::CreateEvent, INVALID_SOCKET, 8);
    EXPECT_FALSE(GetAddress());
    PumpBriefly();
    EXPECT_EQ(server.Connections(), 0U);
    tavronet::ClearFaults();
}

TEST_F(UPnPService, ActionsIssuedDuringAWaitFollowInOrderAndDisturbNothing)
{
    server.Answer(Address("203.0.113.7"), Then::Close);
    server.Answer(HttpAnswer("", "500 Oops"), Then::Close);
    server.Answer(HttpAnswer(""), Then::KeepOpen);
    bool queuedBlocking = false, queuedPlain = false;
    InTheWait([&] {
        queuedBlocking = service->Command(true, nullptr, "Second", nullptr);
        queuedPlain = service->Command(false, nullptr, "Third", "Name", "value", nullptr);
    });
    EXPECT_TRUE(GetAddress());
    EXPECT_TRUE(queuedBlocking);
    EXPECT_TRUE(queuedPlain);
    EXPECT_EQ(service->GetResponseCode(), 200)
        << "the caller finds its own answer, not that of a queued action";
    EXPECT_STREQ(service->GetCommandParameterResult(0), L"203.0.113.7");
    EXPECT_EQ(service->GetAnswerSerial(), 1U);

    EXPECT_TRUE(PumpUntil([&] { return service->GetAnswerSerial() == 3; }));
    ASSERT_EQ(server.Requests().size(), 3U);
    EXPECT_EQ(ActionOf(server.Requests()[1]), "Second");
    EXPECT_EQ(ActionOf(server.Requests()[2]), "Third");
    EXPECT_EQ(service->GetCommandResults(), (std::vector<CString>{L"Name", L"value"}));
}

TEST_F(UPnPService, AWaitThatFailsSendsTheNextActionInItsStead)
{
    const HANDLE cancel = CreateEventW(nullptr, 1, 0, nullptr);
    for (const bool cancelled : {true, false}) {
        SCOPED_TRACE(cancelled ? "cancelled" : "closed without an answer");
        const UINT before = service->GetAnswerSerial();
        InTheWait([&] {
            EXPECT_TRUE(service->Command(false, nullptr, "Second", nullptr));
            if (cancelled)
                SetEvent(cancel);
        });
        if (!cancelled)
            server.Answer("", Then::Close);
        EXPECT_FALSE(GetAddress(cancel));
        ResetEvent(cancel);
        server.AnswerBy([](const std::string&) { return std::pair(HttpAnswer(""), Then::KeepOpen); });
        EXPECT_TRUE(PumpUntil([&] { return service->GetAnswerSerial() == before + 1; }));
        EXPECT_EQ(ActionOf(server.Requests().back()), "Second");
    }
    CloseHandle(cancel);
}

TEST_F(UPnPService, AnActionIssuedBetweenTheAnswerAndTheEndOfTheWaitIsQueued)
{
    // The answer has been read, and its connection closed, while the same drain still runs the host's call.
    struct Issuer
    {
        CUPnPService* service;
        bool issued;

        static void Run(void* raw)
        {
            auto& self = *static_cast<Issuer*>(raw);
            ScriptedServer::MoveOn(); // the queue is never empty, so no wait does it
            if (self.service->GetAnswerSerial() == 0)
                PostThreadCall(CurrentThreadQueue(), &Run, raw);
            else
                self.issued =
                    self.service->Command(true, nullptr, "Second", "NewExternalIPAddress", "", nullptr);
        }
    } state{service.get(), false};
    server.Answer(Address("203.0.113.7"), Then::Close);
    server.Answer(Address("1.2.3.4"));
    PostThreadCall(CurrentThreadQueue(), &Issuer::Run, &state);
    EXPECT_TRUE(GetAddress());
    EXPECT_STREQ(service->GetCommandParameterResult(0), L"203.0.113.7");
    EXPECT_TRUE(PumpUntil([&] { return state.issued && service->GetAnswerSerial() == 2; }));
    EXPECT_STREQ(service->GetCommandParameterResult(0), L"1.2.3.4");
}

TEST_F(UPnPService, TheQueueIsBounded)
{
    EXPECT_TRUE(service->Command(false, nullptr, "First", nullptr));
    for (std::size_t i = 0; i < tavronet::kMaxQueuedActions; ++i)
        ASSERT_TRUE(service->Command(false, nullptr, "Waiting", nullptr));
    EXPECT_FALSE(service->Command(false, nullptr, "TooMany", nullptr));
    service->ReleaseCommandQueue();
    EXPECT_TRUE(service->Command(false, nullptr, "Waiting", nullptr));
}

TEST_F(UPnPService, AnActionThatCouldForgeAHeaderIsNotSent)
{
    EXPECT_FALSE(service->Command(true, nullptr, "Get Address", nullptr));
    Reset("/ctl HTTP/1.1");
    EXPECT_FALSE(GetAddress());
    service = Make(server.Url("/ctl"), "urn:x\nX-Forged: 1");
    EXPECT_FALSE(GetAddress());
    EXPECT_TRUE(server.Requests().empty());
}

TEST_F(UPnPService, AControlUrlOnThisMachineNeedsAGatewayHeardThere)
{
    device.reset(MakeRecord(nullptr, {.source = "10.77.9.1"}));
    Reset();
    EXPECT_FALSE(GetAddress());
    EXPECT_FALSE(service->Command(false, nullptr, "A", nullptr));
    EXPECT_EQ(server.Connections(), 0U);
}

TEST_F(UPnPService, UpkeepReleasesAnIdleConnectionAndGoesOnWithTheQueue)
{
    TestClock clock;
    EXPECT_TRUE(service->Command(false, nullptr, "Silent", nullptr));
    EXPECT_TRUE(service->Command(false, nullptr, "Next", nullptr));
    EXPECT_TRUE(PumpUntil([&] { return server.Requests().size() == 1; }));

    clock.Advance(tavronet::kIdleConnectionMs);
    EXPECT_TRUE(service->Tickle());
    PumpBriefly();
    EXPECT_EQ(server.Connections(), 1U) << "exactly 30 s is not yet idle";
    clock.Advance(1);
    EXPECT_TRUE(service->Tickle());
    EXPECT_TRUE(PumpUntil([&] { return server.Requests().size() == 2; }));
    EXPECT_EQ(ActionOf(server.Requests()[1]), "Next");
}

TEST_F(UPnPService, IdleTimeIsASumThatWrapsWithTheCounter)
{
    // Last activity, now, and whether the connection counts as idle.
    const struct
    {
        DWORD activity, now;
        bool released;
        const char* why;
    } rows[] = {
        {0xFFFFFFFFu - 1000, 0xFFFFFFFFu - 999, true, "the sum has wrapped, the counter has not"},
        {0xFFFFFFFFu - 40000, 0xFFFFFFFFu - 10001, false, "30 s less one before the wrap"},
        {0xFFFFFFFFu - 1000, 28999, false, "both have wrapped, exactly 30 s"},
        {0xFFFFFFFFu - 1000, 29000, true, "both have wrapped, and 30 s are over"},
    };
    for (const auto& row : rows) {
        TestClock clock(row.activity);
        ScriptedServer peer;
        service = Make(peer.Url("/ctl"));
        ASSERT_TRUE(service->Command(false, nullptr, "Silent", nullptr));
        ASSERT_TRUE(PumpUntil([&] { return peer.Requests().size() == 1; }));
        clock.Advance(row.now - row.activity);
        service->Tickle();
        const auto closed = [&] { return peer.ClosedByClient(0); };
        EXPECT_EQ(row.released ? PumpUntil(closed) : closed(), row.released) << row.why;
    }
}

TEST_F(UPnPService, ASlowSenderIsNotHeldForever)
{
    TestClock clock;
    EXPECT_TRUE(service->Command(false, nullptr, "Slow", nullptr));
    EXPECT_TRUE(PumpUntil([&] { return server.Requests().size() == 1; }));
    for (int i = 0; i < 6; ++i) {
        clock.Advance(10000);
        server.Write(0, "x"); // activity, but never an answer
        PumpBriefly(10);
        service->Tickle();
        EXPECT_FALSE(server.ClosedByClient(0));
    }
    clock.Advance(1);
    service->Tickle();
    EXPECT_TRUE(PumpUntil([&] { return server.ClosedByClient(0); }));
}

TEST_F(UPnPService, TwoGatewaysAnswerIndependently)
{
    ScriptedServer otherServer;
    const auto other = Make(otherServer.Url("/other"));
    server.Answer(Address("203.0.113.7"));
    otherServer.Answer(Address("198.51.100.1"));
    bool nested = false;
    InTheWait([&] {
        nested = other->Command(true, nullptr, "GetExternalIPAddress", "NewExternalIPAddress", "", nullptr);
    });
    EXPECT_TRUE(GetAddress());
    EXPECT_TRUE(nested);
    EXPECT_STREQ(service->GetCommandParameterResult(0), L"203.0.113.7");
    EXPECT_STREQ(other->GetCommandParameterResult(0), L"198.51.100.1");
}

} // namespace
