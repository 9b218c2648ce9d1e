#include "PlainClient.h"
#include "tests/support/GatewayProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

using tavronet::GatewayProcess;

namespace
{

const std::string kIpService = "urn:schemas-upnp-org:service:WANIPConnection:1";
const std::string kIpPath = "/ctl/IPConn";

PlainAnswer Act(const GatewayProcess& gateway, const std::string& action,
                const PlainArguments& arguments = {}, int idleMs = 5000)
{
    return Exchange(gateway.Port(), ActionRequest(kIpPath, kIpService, action, arguments), idleMs);
}

TEST(GatewayDescription, EachFormIsServed)
{
    struct Row
    {
        std::string words, present, absent, why;
    };
    const Row rows[] = {
        {"classic", "\r\n          <service>\r\n", "<d:", "a tag a line"},
        {"one-line", "<serviceList><service><serviceType>", "\n", "no line break at all"},
        {"version2", "WANIPConnection:2<", "WANIPConnection:1<", "services of version 2"},
        {"ppp,version2", "WANPPPConnection:2<", "WANIPConnection", "words combine"},
        {"dsl-forum", "<deviceType>urn:dslforum-org:device:InternetGatewayDevice:1<",
         "device:InternetGatewayDevice:2", "types of another organisation"},
        {"prefixed", "<d:serviceType>", "<serviceType>", "namespace prefixes"},
        {"entities", "&#45;", ">urn:upnp-org", "texts as character references"},
        {"cdata", "<friendlyName><![CDATA[Simulated gateway]]></friendlyName>", "&#", "texts in sections"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.words + ": " + row.why);
        GatewayProcess gateway({"--description", row.words});
        const PlainAnswer answer = Exchange(gateway.Port(), GetRequest("/rootDesc.xml"));
        EXPECT_TRUE(answer.closed);
        EXPECT_NE(answer.Body().find(row.present), std::string::npos) << answer.bytes;
        EXPECT_EQ(answer.Body().find(row.absent), std::string::npos) << answer.bytes;
        EXPECT_TRUE(answer.Contains("Content-Length: " + std::to_string(answer.Body().size()) + "\r\n"));
    }
}

TEST(GatewayActions, TableKeepsWhatWasAddedAndRefusesByTheRules)
{
    GatewayProcess gateway(
        {"--permanent-leases", "--lowest-port", "1024", "--refuse", "6000-6009:501:1", "--capacity", "2"});
    const auto add = [&](const PlainArguments& arguments) {
        return Outcome(Act(gateway, "AddPortMapping", arguments));
    };
    EXPECT_EQ(add(MappingOf("8080", "TCP", "10.0.0.2")), "200");
    EXPECT_EQ(add(MappingOf("8080", "TCP", "10.0.0.2")), "200") << "the same client may renew";
    EXPECT_EQ(add(MappingOf("8080", "TCP", "10.0.0.3")), "718");
    EXPECT_EQ(add(MappingOf("8081", "TCP", "10.0.0.2", "60")), "725");
    EXPECT_EQ(add(MappingOf("80", "TCP", "10.0.0.2")), "606");
    PlainArguments anyPort = MappingOf("8080", "TCP", "10.0.0.2");
    anyPort[1].second = "0";
    EXPECT_EQ(add(anyPort), "716");
    EXPECT_EQ(add(MappingOf("70000", "TCP", "10.0.0.2")), "600");
    EXPECT_EQ(add(MappingOf("8081", "SCTP", "10.0.0.2")), "600");
    EXPECT_EQ(add(MappingOf("8081", "TCP", "host.example")), "402");
    EXPECT_EQ(add(Key("8081", "TCP")), "402");
    EXPECT_EQ(add(MappingOf("6005", "UDP", "10.0.0.2")), "501") << "refused by port, once";
    EXPECT_EQ(add(MappingOf("6005", "UDP", "10.0.0.2")), "200");
    EXPECT_EQ(add(MappingOf("6006", "UDP", "10.0.0.2")), "501") << "full";

    const PlainAnswer entry = Act(gateway, "GetSpecificPortMappingEntry", Key("8080", "TCP"));
    EXPECT_EQ(ElementText(entry.bytes, "NewInternalClient"), "10.0.0.2");
    EXPECT_EQ(ElementText(entry.bytes, "NewPortMappingDescription"), "a &lt; b");
    const PlainAnswer second = Act(gateway, "GetGenericPortMappingEntry", {{"NewPortMappingIndex", "1"}});
    EXPECT_EQ(ElementText(second.bytes, "NewExternalPort"), "6005");
    EXPECT_EQ(ElementText(second.bytes, "NewProtocol"), "UDP");
    EXPECT_EQ(Outcome(Act(gateway, "GetGenericPortMappingEntry", {{"NewPortMappingIndex", "2"}})), "713");

    EXPECT_EQ(Outcome(Act(gateway, "DeletePortMapping", Key("8080", "TCP"))), "200");
    EXPECT_EQ(Outcome(Act(gateway, "DeletePortMapping", Key("8080", "TCP"))), "714");
    EXPECT_EQ(Outcome(Act(gateway, "GetSpecificPortMappingEntry", Key("8080", "TCP"))), "714");
    EXPECT_EQ(Outcome(Act(gateway, "NoSuchAction")), "401");
    EXPECT_EQ(Outcome(Exchange(gateway.Port(), ActionRequest(kIpPath, "urn:other:1", "GetStatusInfo", {}))),
              "401");
    EXPECT_EQ(gateway.Stop(), 0);
}

TEST(GatewayActions, CommandsChangeTheGatewayWhileItRuns)
{
    GatewayProcess gateway;
    EXPECT_EQ(ElementText(Act(gateway, "GetExternalIPAddress").bytes, "NewExternalIPAddress"), "203.0.113.7");
    EXPECT_TRUE(gateway.Command("external-ip 198.51.100.9"));
    EXPECT_EQ(ElementText(Act(gateway, "GetExternalIPAddress").bytes, "NewExternalIPAddress"),
              "198.51.100.9");

    ASSERT_EQ(Outcome(Act(gateway, "AddPortMapping", MappingOf("8080", "TCP", "10.0.0.2"))), "200");
    EXPECT_TRUE(gateway.Command("disable"));
    const PlainAnswer entry = Act(gateway, "GetSpecificPortMappingEntry", Key("8080", "TCP"));
    EXPECT_EQ(ElementText(entry.bytes, "NewEnabled"), "0");
    EXPECT_TRUE(gateway.Command("clear"));
    EXPECT_EQ(Outcome(Act(gateway, "GetSpecificPortMappingEntry", Key("8080", "TCP"))), "714");

    EXPECT_TRUE(gateway.Command("fault refuse-action GetNATRSIPStatus:501"));
    EXPECT_EQ(Outcome(Act(gateway, "GetNATRSIPStatus")), "501");
    EXPECT_TRUE(gateway.Command("well"));
    EXPECT_EQ(ElementText(Act(gateway, "GetNATRSIPStatus").bytes, "NewNATEnabled"), "1");
    EXPECT_FALSE(gateway.Command("fault refuse-action"));
    EXPECT_FALSE(gateway.Command("dance"));
}

TEST(GatewayActions, EachAnswerStyleCarriesTheValue)
{
    const std::pair<std::string, std::string> rows[] = {
        {"classic", "\r\n      <NewExternalIPAddress>203.0.113.7</NewExternalIPAddress>\r\n"},
        {"one-line", "Connection:1\"><NewExternalIPAddress>203.0.113.7</NewExternalIPAddress></u:"},
        {"prefixed", "<m:NewExternalIPAddress>203.0.113.7</m:NewExternalIPAddress>"},
        {"entities", ">203&#46;0&#46;113&#46;7<"},
        {"typed", "<NewExternalIPAddress xmlns:dt=\"urn:schemas-microsoft-com:datatypes\" "
                  "dt:dt=\"string\">203.0.113.7<"},
    };
    for (const auto& [style, expected] : rows) {
        GatewayProcess gateway({"--soap-style", style});
        const PlainAnswer answer = Act(gateway, "GetExternalIPAddress");
        EXPECT_TRUE(answer.Contains(expected)) << style << ":\n" << answer.bytes;
    }
}

TEST(GatewayTransfer, EachFramingIsWhatItsNameSays)
{
    const auto fetch = [](const std::string& transfer) {
        GatewayProcess gateway({"--transfer", transfer, "--chunk-bytes", "2000"});
        return Exchange(gateway.Port(), GetRequest("/rootDesc.xml"), 500);
    };
    const PlainAnswer plain = fetch("length");
    const std::string body = plain.Body(), size = std::to_string(body.size());
    EXPECT_TRUE(plain.closed && plain.Contains("Content-Length: " + size));

    const PlainAnswer kept = fetch("length-keep-alive");
    EXPECT_TRUE(!kept.closed && kept.Body() == body);

    const PlainAnswer closed = fetch("close");
    EXPECT_TRUE(closed.closed && closed.Body() == body && !closed.Contains("Content-Length"));

    const PlainAnswer chunked = fetch("chunked"), chunkedKept = fetch("chunked-keep-alive");
    EXPECT_EQ(chunked.Body().substr(0, 5), "7d0\r\n");
    EXPECT_EQ(chunked.Body().substr(5, 2000), body.substr(0, 2000));
    EXPECT_TRUE(chunked.closed && chunked.bytes.ends_with("\r\n0\r\n\r\n"));
    EXPECT_TRUE(!chunkedKept.closed && chunkedKept.Body() == chunked.Body());

    EXPECT_FALSE(fetch("wrong-length-short").Contains("Content-Length: " + size + "\r\n"));
    EXPECT_TRUE(fetch("wrong-length-long").Contains("Content-Length: " + std::to_string(body.size() + 100)));
    EXPECT_TRUE(fetch("no-header").bytes == body);
}

TEST(GatewayMisbehaviour, EachFaultHitsTheWantedRequestsOnly)
{
    GatewayProcess gateway({"--delay", "GetStatusInfo:300:1", "--close-early", "description:20:1",
                            "--never-answer", "GetNATRSIPStatus:1", "--status",
                            "GetExternalIPAddress:503:1"});
    EXPECT_GE(Act(gateway, "GetStatusInfo").tookMs, 300);
    EXPECT_LT(Act(gateway, "GetStatusInfo").tookMs, 300);

    const PlainAnswer cut = Exchange(gateway.Port(), GetRequest("/rootDesc.xml"));
    EXPECT_TRUE(cut.closed && cut.bytes.size() == 20);
    EXPECT_GT(Exchange(gateway.Port(), GetRequest("/rootDesc.xml")).bytes.size(), 20u);

    const PlainAnswer silence = Act(gateway, "GetNATRSIPStatus", {}, 200);
    EXPECT_TRUE(!silence.closed && silence.bytes.empty());
    EXPECT_TRUE(gateway.WaitForLog("closed by peer", 5));
    EXPECT_EQ(Outcome(Act(gateway, "GetNATRSIPStatus")), "200");
    EXPECT_TRUE(Act(gateway, "GetExternalIPAddress").bytes.starts_with("HTTP/1.1 503 "));

    ASSERT_TRUE(gateway.Command("fault reset soap:30:1"));
    EXPECT_TRUE(Act(gateway, "GetStatusInfo").reset);
    ASSERT_TRUE(gateway.Command("fault slow soap:1000:1"));
    EXPECT_GE(Act(gateway, "GetStatusInfo").tookMs, 400);
    ASSERT_TRUE(gateway.Command("fault garbage all:1"));
    EXPECT_FALSE(Act(gateway, "GetStatusInfo").Contains("HTTP/"));
    ASSERT_TRUE(gateway.Command("fault content-length soap:-5:1"));
    EXPECT_TRUE(Act(gateway, "GetStatusInfo").Contains("Content-Length: -5\r\n"));

    const std::size_t most = 4 << 20;
    for (const std::string fault : {"endless-body", "endless-header"}) {
        ASSERT_TRUE(gateway.Command("fault " + fault + " description:1"));
        const PlainAnswer endless = Exchange(gateway.Port(), GetRequest("/rootDesc.xml"), 5000, most);
        EXPECT_GE(endless.bytes.size(), most) << fault;
        EXPECT_EQ(endless.Contains("\r\n\r\n"), fault == "endless-body");
    }
    EXPECT_EQ(Outcome(Act(gateway, "GetStatusInfo")), "200") << "still well after all of this";
}

TEST(GatewayMisbehaviour, RefusedConnectionsFindThePortClosed)
{
    GatewayProcess gateway({"--address", "127.0.0.1", "--no-ssdp", "--refuse-connection"});
    EXPECT_EQ(Exchange(gateway.Port(), "").connectError, ECONNREFUSED);
}

TEST(GatewayServer, HostileRequestsEndAndAreRecorded)
{
    GatewayProcess gateway({"--transfer", "length-keep-alive"});
    const std::pair<std::string, std::string> rows[] = {
        {std::string(300 * 1024, 'x'), "request too long"},
        {"POST /ctl/IPConn HTTP/1.1\r\nContent-Length: 99999999999\r\n\r\n", "without a usable length"},
        {"POST /ctl/IPConn HTTP/1.1\r\nContent-Length: -1\r\n\r\n", "without a usable length"},
        {"POST /ctl/IPConn HTTP/1.1\r\nContent-Length: 11\r\n\r\n<a><b></a>\n", "body not understood"},
    };
    for (const auto& [request, event] : rows) {
        Exchange(gateway.Port(), request, 300);
        EXPECT_TRUE(gateway.WaitForLog(event)) << event;
    }
    std::string many;
    for (int i = 0; i < 5000; ++i)
        many += "GET / HTTP/1.1\r\n\r\n";
    const PlainAnswer answers = Exchange(gateway.Port(), many, 1000);
    EXPECT_TRUE(answers.Contains("404")) << "requests in one piece are answered one after the other";

    const auto requests = gateway.Requests();
    const auto recorded = [&](const std::string& bytes) {
        return std::ranges::count(requests, bytes, &tavronet::GatewayRequest::bytes);
    };
    EXPECT_EQ(recorded(rows[3].first), 1);
    EXPECT_EQ(recorded("GET / HTTP/1.1\r\n\r\n"), 5000);
    EXPECT_EQ(gateway.Stop(), 0);
}

} // namespace
