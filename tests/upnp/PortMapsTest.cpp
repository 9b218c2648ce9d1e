// The operations of a device against a gateway: what is sent, what is kept, and what each failure leaves.

#include "GatewayRecords.h"
#include "tavronet/platform/Event.h"
#include "tests/support/GatewayProcess.h"

namespace
{

using PortMapList = std::vector<CUPnPPortMap*>;

/// A described device of one gateway, in a network that searches nowhere.
class PortMaps : public testing::Test
{
protected:
    ~PortMaps() override
    {
        CUPnPDevice::ReleasePortMaps(m_List);
        m_Device.reset();
        SetWaitHook(nullptr, nullptr);
        CloseHandle(m_Cancel);
    }

    void Describe(const std::string& url)
    {
        m_Device.reset(MakeRecord(&m_Network, {.location = url}));
        m_Device->RequestDescription();
        ASSERT_TRUE(PumpUntil([&] { return m_Device->DiscoverComplete(); }));
    }
    void Start(const std::vector<std::string>& arguments = {})
    {
        m_Gateway = std::make_unique<tavronet::GatewayProcess>(arguments);
        ASSERT_NO_FATAL_FAILURE(Describe(m_Gateway->Url()));
    }
    bool Add(unsigned port, const char* protocol = nullptr)
    {
        return m_Device->AddPortMap(m_Cancel, port, "game", protocol);
    }
    void Fault(const std::string& fault) { EXPECT_TRUE(m_Gateway->Command("fault " + fault)); }
    /// How often the gateway was asked for `action`.
    int Asked(const std::string& action) const { return m_Gateway->Logged("soap " + action); }

    NoAdapters m_NoAdapters;
    const HANDLE m_Cancel = CreateEventW(nullptr, 1, 0, nullptr);
    std::unique_ptr<tavronet::GatewayProcess> m_Gateway;
    CUPnPNetwork m_Network{nullptr, nullptr, UPnPDialectClassic};
    std::unique_ptr<CUPnPDevice> m_Device;
    PortMapList m_List;
};

TEST_F(PortMaps, OneRecordPerPortIsKeptUntilItsMappingIsDeleted)
{
    Start();
    EXPECT_TRUE(Add(8080) && Add(8080) && Add(6000) && Add(6000, "UDP"));
    EXPECT_TRUE(m_Device->DeletePortMap(m_Cancel, 6000, nullptr)); // the record is the UDP one's by now
    EXPECT_TRUE(m_Device->DeletePortMap(m_Cancel, 9999, nullptr)); // refused
    EXPECT_EQ(m_Device->GetIndivPortMaps(), (std::map<unsigned, unsigned>{{8080, 8080}}));
    const int deletes = Asked("DeletePortMapping");
    EXPECT_TRUE(m_Device->DeleteIndivPortMaps(m_Cancel));
    EXPECT_EQ(Asked("DeletePortMapping"), deletes + 2); // 8080 once, 6000 UDP
}

TEST_F(PortMaps, SomeMakersPortsAreDisabledBeforeTheyAreDeleted)
{
    Start({"--manufacturer", "LinkSys Inc."});
    for (const unsigned port : {80U, 161U, 162U, 8080U})
        m_List.push_back(new CUPnPPortMap(port, "TCP", "127.0.0.1", "x"));
    EXPECT_TRUE(m_Device->AddPortMaps(m_Cancel, m_List));
    EXPECT_TRUE(m_Device->DeletePortMaps(m_Cancel, m_List));
    EXPECT_EQ(Asked("AddPortMapping"), 4 + 2);
    EXPECT_FALSE(m_List[0]->Enabled() || m_List[1]->Enabled() || !m_List[3]->Enabled());
}

/// Every operation that has something to send, with its result.
struct Operation
{
    std::string_view name;
    bool (*run)(CUPnPDevice& device, HANDLE cancel, PortMapList& list);
};

const Operation kOperations[] = {
    {"ExternalAddress",
     [](auto& device, auto cancel, auto&) {
         char buffer[8] = "before";
         const bool result = device.GetExternalIPAddress(cancel, buffer, sizeof(buffer));
         EXPECT_TRUE(result || std::string(buffer) == "before");
         return result;
     }},
    {"NAT",
     [](auto& device, auto cancel, auto&) {
         bool enabled = true;
         const bool result = device.GetNATEnabled(cancel, enabled);
         EXPECT_TRUE(result || !enabled);
         return result;
     }},
    {"AddRecord", [](auto& device, auto cancel, auto& list) { return device.AddPortMap(cancel, list[0]); }},
    {"AddPort", [](auto& device, auto cancel, auto&) { return device.AddPortMap(cancel, 7, "d", nullptr); }},
    {"AddList", [](auto& device, auto cancel, auto& list) { return device.AddPortMaps(cancel, list); }},
    {"DeletePort", [](auto& device, auto cancel, auto&) { return device.DeletePortMap(cancel, 7, "UDP"); }},
    {"DeleteList", [](auto& device, auto cancel, auto& list) { return device.DeletePortMaps(cancel, list); }},
    {"DeleteOwnList", [](auto& device, auto cancel, auto&) { return device.DeletePortMaps(cancel); }},
    {"DeleteSingly", [](auto& device, auto cancel, auto&) { return device.DeleteIndivPortMaps(cancel); }},
    {"List", [](auto& device, auto cancel, auto& list) { return device.GetPortMaps(cancel, list); }},
    {"ListIntoOwn",
     [](auto& device, auto cancel, auto&) { return device.GetPortMaps(cancel, device.GetPortMaps()); }},
    {"LookUp",
     [](auto& device, auto cancel, auto& list) {
         return std::unique_ptr<CUPnPPortMap>(device.GetPortSpecificPortMap(cancel, *list[0])) != nullptr;
     }},
};

class EveryOperation : public PortMaps, public testing::WithParamInterface<std::size_t>
{
protected:
    void StartWithMappings()
    {
        ASSERT_NO_FATAL_FAILURE(Start());
        for (const unsigned port : {80U, 81U, 82U}) {
            m_List.push_back(new CUPnPPortMap(port, "TCP", "127.0.0.1", "x"));
            m_Device->GetPortMaps().push_back(new CUPnPPortMap(port + 100, "TCP", "127.0.0.1", "x"));
        }
        ASSERT_TRUE(m_Device->AddPortMaps(m_Cancel, m_List) && Add(300) && Add(301));
        ASSERT_TRUE(m_Device->AddPortMaps(m_Cancel, m_Device->GetPortMaps()));
    }
    bool Run() { return m_Operation.run(*m_Device, m_Cancel, m_List); }
    bool Is(std::string_view name) const { return m_Operation.name == name; }

    const Operation& m_Operation = kOperations[GetParam()];
};

TEST_P(EveryOperation, SendsNothingWithoutAServiceOrForADeviceToBeReleased)
{
    StartWithMappings();
    const std::size_t requests = m_Gateway->Requests().size();
    m_Device->SetRelease(true);
    EXPECT_FALSE(Run());
    EXPECT_FALSE(m_Device->Tickle());
    m_Device->SetRelease(false);
    EXPECT_TRUE(m_Device->Tickle()) << "nothing was tried, so nothing failed";
    m_Device.reset(MakeRecord(&m_Network, {}));
    EXPECT_EQ(Run(), m_Operation.name.starts_with("Delete")) << "there is nothing to delete";
    EXPECT_EQ(m_Gateway->Requests().size(), requests);
}

TEST_P(EveryOperation, FailsWithoutAnAnswerAndDropsTheGatewayOnce)
{
    TestClock clock(0xFFFFFFFFu - 5000); // the counter wraps during a wait
    StartWithMappings();
    const std::function<void()> failures[] = {
        [&] { Fault("close-early soap:0"); },
        [&] {
            EXPECT_TRUE(m_Gateway->Command("well"));
            Fault("never-answer soap");
            InTheWait([&] { SetEvent(m_Cancel); });
        },
        [&] {
            ResetEvent(m_Cancel);
            SetWaitHook(&TheTimePasses, nullptr);
        },
    };
    for (const auto& failure : failures) {
        failure();
        EXPECT_FALSE(Run());
        EXPECT_EQ(m_List.empty(), Is("List")) << "a failed listing empties its list, nothing else does";
        EXPECT_FALSE(m_Device->Tickle());
        EXPECT_TRUE(m_Device->Tickle());
    }
}

TEST_P(EveryOperation, SurvivesTheDeletionOfItsDevice)
{
    StartWithMappings();
    InTheWait([&] { m_Device.reset(); });
    EXPECT_FALSE(Run());
}

TEST_P(EveryOperation, SurvivesWhateverHappensToTheListsMeanwhile)
{
    // A list that an operation was given keeps its first record only when that was given by itself.
    StartWithMappings();
    InTheWait([&] {
        CUPnPDevice::ReleasePortMaps(m_Device->GetPortMaps());
        m_Device->GetIndivPortMaps().clear();
        while (m_List.size() > (Is("AddRecord") || Is("LookUp") ? 1U : 0U)) {
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
    const bool isAdd = m_Operation.name.starts_with("Add");
    CString address;
    InTheWait([&] {
        EXPECT_EQ(Run(), isAdd);
        m_Device->SetRelease(true);
        EXPECT_TRUE(m_Device->Tickle()) << "the outer command still counts as under way";
        m_Device->SetRelease(false);
    });
    EXPECT_TRUE(m_Device->GetExternalIPAddress(m_Cancel, address));
    EXPECT_EQ(Text(address), "203.0.113.7");
    EXPECT_EQ(m_Device->GetPortMaps().empty(), Is("ListIntoOwn"));
    EXPECT_EQ(m_Device->GetIndivPortMaps().size(), 2U) << "nothing counts as deleted";
    EXPECT_TRUE(!isAdd || Is("AddPort") || !m_List[0]->GetAdded());
    EXPECT_TRUE(m_Device->Tickle()) << "nothing failed";
}

INSTANTIATE_TEST_SUITE_P(Operations, EveryOperation, testing::Range<std::size_t>(0, std::size(kOperations)),
                         [](const auto& row) { return std::string(kOperations[row.param].name); });

TEST_F(PortMaps, AListStopsAtTheFirstFailureAndKeepsWhatWasDone)
{
    ScriptedServer server;
    server.Answer(HttpAnswer(Description()));
    ASSERT_NO_FATAL_FAILURE(Describe(server.Url("/d")));
    server.Answer("HTTP/1.1\r\nContent-Length:0\r\n\r\n");
    CString address(L"before");
    EXPECT_TRUE(m_Device->GetExternalIPAddress(m_Cancel, address));
    EXPECT_EQ(Text(address), "before") << "an answer without a status";

    PortMapList& own = m_Device->GetPortMaps();
    for (const unsigned port : {1U, 2U, 3U})
        own.push_back(new CUPnPPortMap(port, "TCP", "127.0.0.1", "x"));
    server.Answer(HttpAnswer("", "500 Refused"));
    server.Answer(HttpAnswer(""));
    server.Answer("", kClose);
    EXPECT_FALSE(m_Device->AddPortMaps(m_Cancel, own));
    EXPECT_TRUE(!own[0]->GetAdded() && own[1]->GetAdded() && own[2]->GetAdded())
        << "by the status of the last answer";

    server.Answer(HttpAnswer(""));
    server.Answer("", kClose);
    EXPECT_FALSE(m_Device->DeletePortMaps(m_Cancel));
    ASSERT_EQ(own.size(), 3U);
    EXPECT_TRUE(own[0]->GetDeleted() && !own[1]->GetDeleted());
    EXPECT_EQ(server.Requests().size(), 7U);
}

} // namespace
