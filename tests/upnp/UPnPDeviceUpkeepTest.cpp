// What a device's upkeep does and answers, on a clock that the test moves.

#include <gtest/gtest.h>
#include <memory>
#include <string>

#include "GatewayRecords.h"
#include "tavronet/platform/TextConversion.h"
#include "tavronet/upnp/UPnPService.h"

namespace
{

class UPnPDeviceUpkeep : public testing::Test
{
protected:
    UPnPDeviceUpkeep() : m_Device(MakeRecord(nullptr, {.location = m_Server.Url("/d")}))
    {
        m_Server.AnswerBy([this](const std::string& request) { return Reply(request); });
    }
    ~UPnPDeviceUpkeep() override { m_Device.reset(); }

    std::pair<std::string, ScriptedServer::Then> Reply(const std::string& request)
    {
        if (request.starts_with("GET "))
            return {HttpAnswer(Description()), ScriptedServer::Then::KeepOpen};
        if (request.find("#GetSpecificPortMappingEntry") == std::string::npos)
            return {HttpAnswer(""), ScriptedServer::Then::KeepOpen};
        const std::size_t port = request.find("<NewExternalPort>") + 17;
        const std::string digits = request.substr(port, request.find('<', port) - port);
        m_LookedUp += digits + " ";
        return {HttpAnswer("<NewInternalPort>" + digits +
                           "</NewInternalPort>\r\n<NewInternalClient>127.0.0.1" +
                           "</NewInternalClient>\r\n<NewEnabled>" + m_Enabled + "</NewEnabled>\r\n"),
                ScriptedServer::Then::KeepOpen};
    }

    void Describe()
    {
        m_Device->RequestDescription();
        ASSERT_TRUE(PumpUntil([&] { return m_Device->DiscoverComplete(); }));
    }

    /// Upkeep after `milliseconds`. @return what it answered; m_LookedUp tells what was looked up.
    bool TickleAfter(DWORD milliseconds)
    {
        TestClock::Advance(milliseconds);
        m_LookedUp.clear();
        return m_Device->Tickle();
    }

    TestClock m_Clock;
    ScriptedServer m_Server;
    std::unique_ptr<CUPnPDevice> m_Device;
    std::string m_LookedUp;
    std::string m_Enabled = "1";
};

TEST_F(UPnPDeviceUpkeep, AnUndescribedDeviceIsKeptForHalfAMinute)
{
    EXPECT_FALSE(m_Device->Tickle()) << "never asked for its description";
    m_Device->RequestDescription(); // nobody pumps, so no answer comes
    EXPECT_TRUE(TickleAfter(30000));
    EXPECT_FALSE(TickleAfter(1));
}

TEST_F(UPnPDeviceUpkeep, AnIdleDescriptionConnectionIsClosedAndTheDeviceKept)
{
    Describe();
    EXPECT_TRUE(TickleAfter(30000));
    PumpBriefly();
    EXPECT_FALSE(m_Server.ClosedByClient(0));
    EXPECT_TRUE(TickleAfter(1));
    PumpBriefly();
    EXPECT_TRUE(m_Server.ClosedByClient(0));
}

TEST_F(UPnPDeviceUpkeep, ADeviceGoesWhenItIsReleasedOrSilentForFourSearches)
{
    Describe();
    m_Device->SetMaxAge(-1);
    for (int search = 1; search <= 3; ++search)
        m_Device->SetIssuedRediscover(true);
    EXPECT_TRUE(m_Device->Tickle());
    m_Device->SetIssuedRediscover(true);
    EXPECT_FALSE(m_Device->Tickle());
    m_Device->SetMaxAge(60);
    EXPECT_TRUE(m_Device->Tickle());
    m_Device->SetRelease(true);
    EXPECT_FALSE(m_Device->Tickle());
}

TEST_F(UPnPDeviceUpkeep, MappingsAreCheckedOneAtATimeListByList)
{
    Describe();
    EXPECT_TRUE(TickleAfter(20000));
    EXPECT_EQ(m_LookedUp, "") << "no command has succeeded yet";

    ASSERT_TRUE(m_Device->AddPortMap(nullptr, 8080, "", nullptr));
    ASSERT_TRUE(m_Device->AddPortMap(nullptr, 8081, "", nullptr));
    EXPECT_TRUE(TickleAfter(10000));
    EXPECT_EQ(m_LookedUp, "");
    EXPECT_TRUE(TickleAfter(1));
    EXPECT_EQ(m_LookedUp, "8080 ") << "the empty range list hands on without delay";
    EXPECT_TRUE(TickleAfter(10000));
    EXPECT_EQ(m_LookedUp, "");
    m_Device->GetPortMaps().push_back(new CUPnPPortMap(70, "TCP", "127.0.0.1", ""));

    std::string order;
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(TickleAfter(10001));
        order += m_LookedUp;
    }
    EXPECT_EQ(order, "8081 70 8080 8081 70 ");

    EXPECT_TRUE(m_Device->GetExternalIPAddress(nullptr)); // an answer starts it over
    EXPECT_TRUE(TickleAfter(10001));
    EXPECT_EQ(m_LookedUp, "70 ");
}

TEST_F(UPnPDeviceUpkeep, AChangedMappingDropsTheGatewayAndEndsTheChecks)
{
    Describe();
    ASSERT_TRUE(m_Device->AddPortMap(nullptr, 8080, "", nullptr));
    m_Enabled = "true"; // texts are compared, whatever they mean
    EXPECT_FALSE(TickleAfter(10001));
    EXPECT_EQ(m_LookedUp, "8080 ");
    EXPECT_TRUE(TickleAfter(20000));
    EXPECT_EQ(m_LookedUp, "");
}

TEST_F(UPnPDeviceUpkeep, ACheckThatWaitsBehindAnActionOfTheHostIsNoFailure)
{
    Describe();
    ASSERT_TRUE(m_Device->AddPortMap(nullptr, 8080, "", nullptr));
    TestClock::Advance(10001);
    static bool s_Kept;
    s_Kept = false;
    PostThreadCall(
        CurrentThreadQueue(), [](void* device) { s_Kept = static_cast<CUPnPDevice*>(device)->Tickle(); },
        m_Device.get());
    EXPECT_TRUE(m_Device->FindConnectionService()->Command(true, nullptr, "Own", nullptr));
    EXPECT_TRUE(s_Kept);
    EXPECT_TRUE(m_Device->Tickle());
}

} // namespace
