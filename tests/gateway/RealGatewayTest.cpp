#include "tests/support/RealGateway.h"
#include "PlainClient.h"
#include "tests/support/GatewayProcess.h"

#include <gtest/gtest.h>

using tavronet::GatewayProcess;

namespace
{

const PlainPeer kReal(5555, "10.77.1.1"); // where scripts/real-gateway serves
const std::string kPath = "/ctl/IPConn";  // of both

/// The connection service that a description names.
std::string ServiceType(const std::string& description)
{
    const std::string start = "urn:schemas-upnp-org:service:WANIPConnection:";
    const std::size_t found = description.find(start);
    return found == std::string::npos ? "" : description.substr(found, start.size() + 1);
}

class GatewayAgainstRealDaemon : public testing::TestWithParam<int> // the version of the device
{};

TEST_P(GatewayAgainstRealDaemon, BothAnswerTheSameRequestsAlike)
{
    tavronet::RealGateway daemon(GetParam());
    if (!daemon.Available())
        GTEST_SKIP() << "no real gateway daemon here (Debian: miniupnpd-nftables)";
    const PlainAnswer described = Exchange(kReal, GetRequest("/rootDesc.xml"));
    const std::string service = ServiceType(described.bytes);
    const bool isVersion2 = GetParam() == 2;
    ASSERT_TRUE(service.ends_with(isVersion2 ? ":2" : ":1")) << described.bytes;
    GatewayProcess simulated({"--address", "10.77.1.1", "--lowest-port", "1024", "--external-ip",
                              "44.128.0.7", "--description", isVersion2 ? "version2" : "classic"},
                             GatewayProcess::Place::GatewayOfLan);
    const PlainPeer ours(simulated.Port(), "10.77.1.1");
    ASSERT_EQ(ServiceType(Exchange(ours, GetRequest("/rootDesc.xml")).bytes), service);

    struct Step
    {
        std::string action;
        PlainArguments arguments;
        std::string outcome, element, why;
    };
    // Deleting what is not there is left out: this daemon says yes where the rules want 714.
    const Step steps[] = {
        {"GetExternalIPAddress", {}, "200", "NewExternalIPAddress", "the address outside"},
        {"GetNATRSIPStatus", {}, "200", "NewNATEnabled", "address translation is on"},
        {"AddPortMapping", MappingOf("8080", "TCP", "10.77.1.2"), "200", "", "a first mapping"},
        {"AddPortMapping", MappingOf("8080", "TCP", "10.77.1.2"), "200", "", "the same again"},
        {"AddPortMapping", MappingOf("8080", "TCP", "10.77.1.3"), "718", "", "the port is another client's"},
        {"AddPortMapping", MappingOf("8080", "UDP", "10.77.1.3"), "200", "", "the other protocol is free"},
        {"AddPortMapping", MappingOf("80", "TCP", "10.77.1.2"), "606", "", "a port that is not to be had"},
        {"GetSpecificPortMappingEntry", Key("8080", "TCP"), "200", "NewInternalClient", "look-up"},
        {"GetSpecificPortMappingEntry", Key("8081", "TCP"), "714", "", "look-up of nothing"},
        {"GetGenericPortMappingEntry", {{"NewPortMappingIndex", "0"}}, "200", "NewExternalPort", "the table"},
        {"GetGenericPortMappingEntry", {{"NewPortMappingIndex", "2"}}, "713", "", "behind the table"},
        {"DeletePortMapping", Key("8080", "TCP"), "200", "", "delete"},
        {"DeletePortMapping", Key("8080", "UDP"), "200", "", "delete the last"},
        {"NoSuchAction", {}, "401", "", "no such action"},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.action + ": " + step.why);
        const std::string request = ActionRequest(kPath, service, step.action, step.arguments);
        const PlainAnswer real = Exchange(kReal, request), ourAnswer = Exchange(ours, request);
        EXPECT_EQ(Outcome(real), step.outcome) << real.bytes;
        EXPECT_EQ(Outcome(ourAnswer), step.outcome) << ourAnswer.bytes;
        if (!step.element.empty()) {
            EXPECT_EQ(ElementText(ourAnswer.bytes, step.element), ElementText(real.bytes, step.element));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Version, GatewayAgainstRealDaemon, testing::Values(1, 2));

} // namespace
