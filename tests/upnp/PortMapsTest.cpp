// The operations of a device against a gateway: what is sent, what is kept, and what each failure leaves.

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "GatewayRecords.h"
#include "tavronet/platform/Event.h"
#include "tavronet/platform/TextConversion.h"
#include "tavronet/upnp/UPnPService.h"
#include "tests/support/GatewayProcess.h"

namespace
{

using PortMapList = std::vector<CUPnPPortMap*>;

std::string Text(const CString& wide)
{
    return std::string(Narrow(wide).View());
}

/// A described device of one gateway, in a network that searches nowhere.
class GatewayFixture : public testing::Test
{
protected:
    explicit GatewayFixture(int dialect = UPnPDialectClassic)
        : m_Network(std::make_unique<CUPnPNetwork>(nullptr, nullptr, dialect))
    {
    }
    ~GatewayFixture() override
    {
        CUPnPDevice::ReleasePortMaps(m_List);
        m_Device.reset();
        CloseHandle(m_Cancel);
    }

    void Start(std::vector<std::string> arguments = {})
    {
        m_Gateway = std::make_unique<tavronet::GatewayProcess>(arguments);
        ASSERT_TRUE(m_Gateway->Started());
        m_Device.reset(MakeRecord(m_Network.get(), {.location = m_Gateway->Url()}));
        m_Device->RequestDescription();
        ASSERT_TRUE(PumpUntil([&] { return m_Device->DiscoverComplete(); }));
    }

    bool Add(unsigned port, const char* protocol = nullptr)
    {
        return m_Device->AddPortMap(m_Cancel, port, "game", protocol);
    }

    /// The mappings that the gateway holds, "8080 TCP game, ...".
    std::string Table()
    {
        PortMapList list;
        EXPECT_TRUE(m_Device->GetPortMaps(m_Cancel, list));
        std::string table;
        for (const CUPnPPortMap* entry : list)
            table += (table.empty() ? "" : ", ") + Text(entry->GetExternalPort()) + " " +
                     Text(entry->GetProtocol()) + " " + Text(entry->GetPortMappingDescription());
        CUPnPDevice::ReleasePortMaps(list);
        return table;
    }

    /// How often the gateway was asked for `action`.
    int Asked(const std::string& action) const
    {
        int count = 0;
        for (const auto& request : m_Gateway->Requests())
            count += request.bytes.find("#" + action + "\"") != std::string::npos;
        return count;
    }
    std::string LastRequest() const { return m_Gateway->Requests().back().bytes; }

    void Fault(const std::string& fault) { EXPECT_TRUE(m_Gateway->Command("fault " + fault)); }

    /// Has `call` run in the wait of the next exchange.
    void InTheWait(std::function<void()> call)
    {
        m_Call = std::move(call);
        PostThreadCall(
            CurrentThreadQueue(), [](void* self) { static_cast<GatewayFixture*>(self)->m_Call(); }, this);
    }

    NoAdapters m_NoAdapters;
    const HANDLE m_Cancel = CreateEventW(nullptr, 1, 0, nullptr);
    std::unique_ptr<tavronet::GatewayProcess> m_Gateway;
    std::unique_ptr<CUPnPNetwork> m_Network;
    std::unique_ptr<CUPnPDevice> m_Device;
    PortMapList m_List;
    std::function<void()> m_Call;
};

/// Both dialects, each with a gateway that needs it.
class PortMaps : public GatewayFixture, public testing::WithParamInterface<int>
{
protected:
    PortMaps() : GatewayFixture(GetParam()) {}

    void StartAny(std::vector<std::string> arguments = {})
    {
        if (GetParam() == UPnPDialectModern)
            arguments.insert(arguments.end(),
                             {"--description", "one-line,version2,prefixed", "--soap-style",
                              "one-line,prefixed,entities", "--transfer", "chunked-keep-alive"});
        Start(arguments);
    }
};

TEST_P(PortMaps, TheGatewayIsAskedForItsAddressAndTranslation)
{
    StartAny({"--external-ip", "203.0.113.7", "--nat", "1"});
    CString address;
    EXPECT_TRUE(m_Device->GetExternalIPAddress(m_Cancel, address));
    EXPECT_EQ(Text(address), "203.0.113.7");
    EXPECT_EQ(m_Device->GetCmndRespCode(), 200);
    EXPECT_TRUE(m_Device->GetExternalIPAddress(m_Cancel));
    EXPECT_EQ(Text(m_Device->ExternalIPAddress()), "203.0.113.7");

    char buffer[20];
    std::memset(buffer, 'x', sizeof(buffer));
    EXPECT_TRUE(m_Device->GetExternalIPAddress(m_Cancel, buffer, sizeof(buffer)));
    EXPECT_EQ(std::string(buffer, sizeof(buffer)), "203.0.113.7" + std::string(9, '\0'));
    EXPECT_TRUE(m_Device->GetExternalIPAddress(m_Cancel, buffer, 4));
    EXPECT_STREQ(buffer, "203");

    bool enabled = false;
    EXPECT_TRUE(m_Device->GetNATEnabled(m_Cancel, enabled));
    EXPECT_TRUE(enabled && m_Device->NATEnabled());
    EXPECT_TRUE(m_Gateway->Command("nat 0"));
    EXPECT_TRUE(m_Device->GetNATEnabled(m_Cancel, enabled));
    EXPECT_FALSE(enabled || m_Device->NATEnabled());
}

TEST_P(PortMaps, APortIsMappedListedLookedUpAndDeleted)
{
    StartAny();
    EXPECT_TRUE(Add(8080));
    std::string arguments = LastRequest();
    arguments = arguments.substr(arguments.find("         <NewRemoteHost"));
    EXPECT_EQ(
        arguments.substr(0, arguments.find("      </u:")),
        "         <NewRemoteHost />\r\n         <NewExternalPort>8080</NewExternalPort>\r\n"
        "         <NewProtocol>TCP</NewProtocol>\r\n         <NewInternalPort>8080</NewInternalPort>\r\n"
        "         <NewInternalClient>127.0.0.1</NewInternalClient>\r\n         <NewEnabled>1</NewEnabled>\r\n"
        "         <NewPortMappingDescription>game</NewPortMappingDescription>\r\n"
        "         <NewLeaseDuration>0</NewLeaseDuration>\r\n");
    EXPECT_EQ(m_Device->GetIndivPortMaps(), (std::map<unsigned, unsigned>{{8080, 8080}}));
    EXPECT_TRUE(Add(6000));
    EXPECT_TRUE(Add(6000, "UDP"));
    EXPECT_EQ(Table(), "8080 TCP game, 6000 TCP game, 6000 UDP game");
    EXPECT_EQ(Asked("GetGenericPortMappingEntry"), 4); // the one behind the last ends it

    const std::unique_ptr<CUPnPPortMap> found(
        m_Device->GetPortSpecificPortMap(m_Cancel, CUPnPPortMap(6000, "UDP", "", "")));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->InternalPort(), 6000U);
    EXPECT_STREQ(found->GetProtocol(), L"UDP"); // not answered: as asked
    EXPECT_STREQ(found->GetInternalClient(), L"127.0.0.1");
    EXPECT_EQ(m_Device->GetPortSpecificPortMap(m_Cancel, CUPnPPortMap(6001, "UDP", "", "")), nullptr);

    EXPECT_TRUE(m_Device->DeletePortMap(m_Cancel, 8080, nullptr));
    EXPECT_EQ(Table(), "6000 TCP game, 6000 UDP game");
    EXPECT_EQ(m_Device->GetIndivPortMaps(), (std::map<unsigned, unsigned>{{6000, 6000}}));
}

TEST_P(PortMaps, ARefusalIsAnAnswer)
{
    StartAny({"--refuse", "700-709:718"});
    EXPECT_TRUE(Add(705));
    EXPECT_EQ(m_Device->GetCmndRespCode(), 500);
    EXPECT_EQ(Text(m_Device->GetCmndErrorCode()), "718");
    EXPECT_FALSE(m_Device->GetCmndErrorDescription().IsEmpty());
    EXPECT_TRUE(m_Device->GetIndivPortMaps().empty());
    CUPnPPortMap record(705, "TCP", "127.0.0.1", "x");
    record.SetAdded(true);
    EXPECT_TRUE(m_Device->AddPortMap(m_Cancel, &record));
    EXPECT_FALSE(record.GetAdded());

    EXPECT_TRUE(m_Device->DeletePortMap(m_Cancel, 705, "UDP"));
    EXPECT_EQ(Text(m_Device->GetCmndErrorCode()), "714");
    EXPECT_TRUE(m_Device->Tickle()) << "a refusal is no reason to drop the gateway";

    m_Device->GetPortMaps() = {new CUPnPPortMap(4000, "TCP", "", "")};
    EXPECT_TRUE(m_Device->DeletePortMaps(m_Cancel));
    EXPECT_EQ(m_Device->NumPortMaps(), 0U) << "released although the gateway refused";
}

INSTANTIATE_TEST_SUITE_P(Dialects, PortMaps, testing::Values(UPnPDialectClassic, UPnPDialectModern));

class ClassicPortMaps : public GatewayFixture
{
protected:
    /// The same with a gateway whose every answer the test gives.
    void StartScripted(ScriptedServer& server)
    {
        server.Answer(HttpAnswer(Description()));
        m_Device.reset(MakeRecord(m_Network.get(), {.location = server.Url("/d")}));
        m_Device->RequestDescription();
        ASSERT_TRUE(PumpUntil([&] { return m_Device->DiscoverComplete(); }));
    }
};

TEST_F(ClassicPortMaps, OneRecordPerPortIsKeptUntilItsMappingIsDeleted)
{
    Start();
    EXPECT_TRUE(Add(8080) && Add(8080) && Add(6000) && Add(6000, "UDP"));
    EXPECT_TRUE(m_Device->DeletePortMap(m_Cancel, 6000, nullptr)); // the record is the UDP one's by now
    EXPECT_TRUE(m_Device->DeletePortMap(m_Cancel, 9999, nullptr)); // refused
    const int deletes = Asked("DeletePortMapping");
    EXPECT_TRUE(m_Device->DeleteIndivPortMaps(m_Cancel));
    EXPECT_EQ(Asked("DeletePortMapping"), deletes + 2); // 8080 once, 6000 UDP
    EXPECT_EQ(Table(), "");
    EXPECT_TRUE(m_Device->DeleteIndivPortMaps(m_Cancel));
    EXPECT_EQ(Asked("DeletePortMapping"), deletes + 2);
}

TEST_F(ClassicPortMaps, AnIndividualDeletionTakesTheRecordOfItsProtocolOnly)
{
    ScriptedServer server;
    StartScripted(server);
    server.AnswerBy(
        [](const std::string&) { return std::pair(HttpAnswer(""), ScriptedServer::Then::KeepOpen); });
    EXPECT_TRUE(Add(6000, "UDP"));
    EXPECT_TRUE(m_Device->DeletePortMap(m_Cancel, 6000, nullptr));
    EXPECT_TRUE(m_Device->DeleteIndivPortMaps(m_Cancel));
    EXPECT_NE(server.Requests().back().find(">UDP<"), std::string::npos) << "the record was kept";

    EXPECT_TRUE(Add(6000, "UDP"));
    EXPECT_TRUE(m_Device->DeletePortMap(m_Cancel, 6000, "udp"));
    const std::size_t requests = server.Requests().size();
    EXPECT_TRUE(m_Device->DeleteIndivPortMaps(m_Cancel));
    EXPECT_EQ(server.Requests().size(), requests) << "no record is left";
}

TEST_F(ClassicPortMaps, SomeMakersPortsAreDisabledBeforeTheyAreDeleted)
{
    Start({"--manufacturer", "LinkSys Inc."});
    for (const unsigned port : {80U, 161U, 162U, 8080U})
        m_List.push_back(new CUPnPPortMap(port, "TCP", "127.0.0.1", "x"));
    EXPECT_TRUE(m_Device->AddPortMaps(m_Cancel, m_List));
    EXPECT_TRUE(m_Device->DeletePortMaps(m_Cancel, m_List));
    EXPECT_EQ(Asked("AddPortMapping"), 4 + 2);
    EXPECT_FALSE(m_List[0]->Enabled() || m_List[1]->Enabled());
    EXPECT_TRUE(m_List[2]->Enabled() && m_List[3]->Enabled());
    for (const CUPnPPortMap* record : m_List)
        EXPECT_TRUE(record->GetDeleted());
    EXPECT_EQ(Table(), "");
}

TEST_F(ClassicPortMaps, WithoutAConnectionServiceOnlyDeletingSucceeds)
{
    m_Device.reset(MakeRecord(m_Network.get(), {}));
    CString address(L"before");
    bool enabled = true;
    CUPnPPortMap record(1, "TCP", "", "");
    m_List = {new CUPnPPortMap(record)};
    EXPECT_FALSE(m_Device->GetExternalIPAddress(m_Cancel, address));
    EXPECT_EQ(Text(address), "before");
    EXPECT_FALSE(m_Device->GetNATEnabled(m_Cancel, enabled));
    EXPECT_FALSE(enabled);
    EXPECT_FALSE(Add(1));
    EXPECT_FALSE(m_Device->AddPortMap(m_Cancel, &record));
    EXPECT_FALSE(m_Device->AddPortMaps(m_Cancel, m_List));
    EXPECT_FALSE(m_Device->GetPortMaps(m_Cancel, m_List));
    EXPECT_EQ(m_List.size(), 1U);
    EXPECT_EQ(m_Device->GetPortSpecificPortMap(m_Cancel, record), nullptr);
    EXPECT_TRUE(m_Device->DeletePortMap(m_Cancel, 1, nullptr));
    EXPECT_TRUE(m_Device->DeletePortMaps(m_Cancel, m_List));
    EXPECT_TRUE(m_Device->DeletePortMaps(m_Cancel));
    EXPECT_TRUE(m_Device->DeleteIndivPortMaps(m_Cancel));
}

/// Every operation that has something to send, with its result.
struct Operation
{
    const char* name;
    bool (*run)(CUPnPDevice& device, HANDLE cancel, PortMapList& list);
};

const Operation kOperations[] = {
    {"ExternalAddress",
     [](CUPnPDevice& device, HANDLE cancel, PortMapList&) {
         char buffer[8] = "before";
         const bool result = device.GetExternalIPAddress(cancel, buffer, sizeof(buffer));
         EXPECT_TRUE(result || std::string(buffer) == "before");
         return result;
     }},
    {"KeptAddress",
     [](CUPnPDevice& device, HANDLE cancel, PortMapList&) { return device.GetExternalIPAddress(cancel); }},
    {"NAT",
     [](CUPnPDevice& device, HANDLE cancel, PortMapList&) {
         bool enabled = true;
         const bool result = device.GetNATEnabled(cancel, enabled);
         EXPECT_TRUE(result || !enabled);
         return result;
     }},
    {"AddRecord", [](CUPnPDevice& device, HANDLE cancel,
                     PortMapList& list) { return device.AddPortMap(cancel, list[0]); }},
    {"AddPort", [](CUPnPDevice& device, HANDLE cancel,
                   PortMapList&) { return device.AddPortMap(cancel, 7, "d", nullptr); }},
    {"AddList",
     [](CUPnPDevice& device, HANDLE cancel, PortMapList& list) { return device.AddPortMaps(cancel, list); }},
    {"DeletePort",
     [](CUPnPDevice& device, HANDLE cancel, PortMapList&) { return device.DeletePortMap(cancel, 7, "UDP"); }},
    {"DeleteList", [](CUPnPDevice& device, HANDLE cancel,
                      PortMapList& list) { return device.DeletePortMaps(cancel, list); }},
    {"DeleteOwnList",
     [](CUPnPDevice& device, HANDLE cancel, PortMapList&) { return device.DeletePortMaps(cancel); }},
    {"DeleteIndividual",
     [](CUPnPDevice& device, HANDLE cancel, PortMapList&) { return device.DeleteIndivPortMaps(cancel); }},
    {"List",
     [](CUPnPDevice& device, HANDLE cancel, PortMapList& list) { return device.GetPortMaps(cancel, list); }},
    {"ListIntoOwn", [](CUPnPDevice& device, HANDLE cancel,
                       PortMapList&) { return device.GetPortMaps(cancel, device.GetPortMaps()); }},
    {"LookUp",
     [](CUPnPDevice& device, HANDLE cancel, PortMapList& list) {
         const std::unique_ptr<CUPnPPortMap> found(device.GetPortSpecificPortMap(cancel, *list[0]));
         return found != nullptr;
     }},
};

class EveryOperation : public GatewayFixture, public testing::WithParamInterface<Operation>
{
protected:
    void StartWithMappings(const std::vector<std::string>& arguments = {})
    {
        Start(arguments);
        for (const unsigned port : {80U, 81U, 82U}) {
            m_List.push_back(new CUPnPPortMap(port, "TCP", "127.0.0.1", "x"));
            m_Device->GetPortMaps().push_back(new CUPnPPortMap(port + 100, "TCP", "127.0.0.1", "x"));
        }
        ASSERT_TRUE(m_Device->AddPortMaps(m_Cancel, m_List));
        ASSERT_TRUE(m_Device->AddPortMaps(m_Cancel, m_Device->GetPortMaps()));
        ASSERT_TRUE(Add(300) && Add(301));
    }
    bool Run() { return GetParam().run(*m_Device, m_Cancel, m_List); }
    bool IsListing() const { return std::string(GetParam().name) == "List"; }
};

TEST_P(EveryOperation, SucceedsUndisturbed)
{
    StartWithMappings();
    EXPECT_TRUE(Run());
    EXPECT_TRUE(m_Device->Tickle());
}

TEST_P(EveryOperation, SendsNothingForADeviceToBeReleased)
{
    StartWithMappings();
    const std::size_t requests = m_Gateway->Requests().size();
    m_Device->SetRelease(true);
    EXPECT_FALSE(Run());
    EXPECT_EQ(m_Gateway->Requests().size(), requests);
    EXPECT_FALSE(m_Device->Tickle());
    m_Device->SetRelease(false);
    EXPECT_TRUE(m_Device->Tickle()) << "nothing was tried, so nothing failed";
}

TEST_P(EveryOperation, FailsWhenTheConnectionEndsUnanswered)
{
    StartWithMappings();
    Fault("close-early soap:0");
    EXPECT_FALSE(Run());
    EXPECT_EQ(m_List.empty(), IsListing()) << "a failed listing empties its list, nothing else does";
    EXPECT_FALSE(m_Device->Tickle()) << "the gateway is dropped";
    EXPECT_TRUE(m_Device->Tickle()) << "once";
}

TEST_P(EveryOperation, FailsWhenItIsCancelled)
{
    StartWithMappings();
    Fault("never-answer soap");
    InTheWait([&] { SetEvent(m_Cancel); });
    EXPECT_FALSE(Run());
    EXPECT_FALSE(m_Device->Tickle());
}

TEST_P(EveryOperation, FailsWhenNoAnswerComesInTime)
{
    TestClock clock;
    StartWithMappings();
    Fault("never-answer soap");
    // The clock jumps when the wait blocks, and a message has the wait look at it.
    SetWaitHook(
        [](void*) {
            TestClock::Advance(10000);
            PostThreadCall(
                CurrentThreadQueue(), [](void*) {}, nullptr);
        },
        nullptr);
    EXPECT_FALSE(Run());
    SetWaitHook(nullptr, nullptr);
    EXPECT_FALSE(m_Device->Tickle());
}

TEST_P(EveryOperation, SurvivesTheDeletionOfItsDevice)
{
    StartWithMappings();
    InTheWait([&] { m_Device.reset(); });
    EXPECT_FALSE(Run());
    EXPECT_EQ(m_Device, nullptr);
}

TEST_P(EveryOperation, SurvivesWhateverHappensToTheListsMeanwhile)
{
    // Everything a host can reach is taken away; a list that an operation was given keeps its first record only when
    // that was given by itself.
    StartWithMappings();
    InTheWait([&] {
        CUPnPDevice::ReleasePortMaps(m_Device->GetPortMaps());
        m_Device->GetIndivPortMaps().clear();
        const bool single =
            std::string(GetParam().name) == "AddRecord" || std::string(GetParam().name) == "LookUp";
        while (m_List.size() > (single ? 1U : 0U)) {
            delete m_List.back();
            m_List.pop_back();
        }
    });
    EXPECT_TRUE(Run());
    EXPECT_TRUE(m_Device->Tickle());
}

TEST_P(EveryOperation, NestedInAnotherIsSentAfterwardsAndLearnsNoAnswer)
{
    StartWithMappings();
    const bool isAdd = std::string(GetParam().name).starts_with("Add");
    bool nested = true, tickled = false;
    CString address;
    InTheWait([&] {
        nested = Run();
        tickled = m_Device->Tickle(); // the outer command still counts as under way
    });
    EXPECT_TRUE(m_Device->GetExternalIPAddress(m_Cancel, address));
    EXPECT_EQ(nested, isAdd);
    EXPECT_TRUE(tickled);
    EXPECT_EQ(Text(address), "203.0.113.7");
    EXPECT_EQ(m_Device->GetPortMaps().empty(), std::string(GetParam().name) == "ListIntoOwn");
    EXPECT_EQ(m_Device->GetIndivPortMaps().size(), 2U) << "nothing counts as deleted";
    const bool addsRecord = isAdd && std::string(GetParam().name) != "AddPort";
    EXPECT_TRUE(!addsRecord || !m_List[0]->GetAdded());
    EXPECT_TRUE(m_Device->Tickle()) << "nothing failed";
}

INSTANTIATE_TEST_SUITE_P(Operations, EveryOperation, testing::ValuesIn(kOperations),
                         [](const auto& operation) { return std::string(operation.param.name); });

TEST_F(ClassicPortMaps, AListingThatFailsMidwayIsEmptiedAndOneThatNeverEndsIsCut)
{
    Start();
    EXPECT_TRUE(Add(1) && Add(2) && Add(3));
    m_List = {new CUPnPPortMap(9, "TCP", "", "")};
    EXPECT_TRUE(m_Device->GetPortMaps(m_Cancel, m_List));
    EXPECT_EQ(m_List.size(), 4U);
    EXPECT_STREQ(m_List[3]->GetPortMappingIndex(), L"2");
    Fault("close-early GetGenericPortMappingEntry:0:1");
    EXPECT_FALSE(m_Device->GetPortMaps(m_Cancel, m_List));
    EXPECT_TRUE(m_List.empty());
}

TEST_F(ClassicPortMaps, AListStopsAtTheFirstFailureAndKeepsWhatWasDone)
{
    ScriptedServer server;
    StartScripted(server);
    PortMapList& own = m_Device->GetPortMaps();
    for (const unsigned port : {1U, 2U, 3U})
        own.push_back(new CUPnPPortMap(port, "TCP", "127.0.0.1", "x"));
    server.Answer(HttpAnswer(""));
    server.Answer("", ScriptedServer::Then::Close);
    EXPECT_FALSE(m_Device->AddPortMaps(m_Cancel, own));
    EXPECT_TRUE(own[0]->GetAdded());
    EXPECT_FALSE(own[2]->GetAdded()); // not reached

    server.Answer(HttpAnswer(""));
    server.Answer("", ScriptedServer::Then::Close);
    EXPECT_FALSE(m_Device->DeletePortMaps(m_Cancel));
    ASSERT_EQ(own.size(), 3U);
    EXPECT_TRUE(own[0]->GetDeleted());
    EXPECT_FALSE(own[1]->GetDeleted());
    EXPECT_EQ(server.Requests().size(), 5U);
}

TEST_F(ClassicPortMaps, AnAddWithoutAnswerTakesTheLastAnswersStatus)
{
    Start();
    CUPnPPortMap record(5, "TCP", "127.0.0.1", "x");
    Fault("close-early AddPortMapping:0");
    EXPECT_FALSE(m_Device->AddPortMap(m_Cancel, &record));
    EXPECT_FALSE(record.GetAdded()); // no answer so far
    EXPECT_TRUE(m_Device->GetExternalIPAddress(m_Cancel));
    EXPECT_FALSE(m_Device->AddPortMap(m_Cancel, &record));
    EXPECT_TRUE(record.GetAdded());
}

TEST_F(ClassicPortMaps, AnAnswerWithoutAStatusLeavesTheAddressAlone)
{
    ScriptedServer server;
    StartScripted(server);
    server.Answer("HTTP/1.1\r\nContent-Length:0\r\n\r\n");
    CString address(L"before");
    EXPECT_TRUE(m_Device->GetExternalIPAddress(m_Cancel, address));
    EXPECT_EQ(Text(address), "before");
    EXPECT_EQ(m_Device->GetCmndRespCode(), 0);
}

} // namespace
