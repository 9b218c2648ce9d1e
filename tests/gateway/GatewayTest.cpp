// The simulated gateway, asked over plain sockets: what the tests of everything else rely on.

#include <gtest/gtest.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "tests/support/GatewayProcess.h"
#include "tests/support/RealGateway.h"

using tavronet::GatewayProcess;

namespace
{

using Arguments = std::vector<std::pair<std::string, std::string>>;

const std::string kService = "urn:schemas-upnp-org:service:WANIPConnection:";
const std::string kWanted = "urn:schemas-upnp-org:device:WANConnectionDevice:1";

/// A connected socket; -1 when nobody listens there.
int Connected(const std::string& host, unsigned port, int type)
{
    addrinfo hints{}, *found = nullptr;
    hints.ai_socktype = type;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
        return -1;
    int descriptor = ::socket(found->ai_family, type | SOCK_CLOEXEC, 0);
    if (::connect(descriptor, found->ai_addr, found->ai_addrlen) != 0)
        ::close(std::exchange(descriptor, -1));
    ::freeaddrinfo(found);
    return descriptor;
}

/// Sends `request` and reads until the peer closes, nothing comes for `idleMs`, or `most` bytes are there.
/// @return what came, "(kept)" behind it when the connection is open still, "(reset)" when it broke
std::string Exchange(unsigned port, const std::string& request, int idleMs = 5000, std::size_t most = 1 << 20,
                     const std::string& host = "127.0.0.1")
{
    const int descriptor = Connected(host, port, SOCK_STREAM);
    if (descriptor < 0)
        return "(refused)";
    ::send(descriptor, request.data(), request.size(), MSG_NOSIGNAL);
    std::string bytes, end = "(kept)";
    static char buffer[65536];
    for (pollfd waiting{descriptor, POLLIN, 0}; bytes.size() < most && ::poll(&waiting, 1, idleMs) > 0;) {
        const ssize_t got = ::recv(descriptor, buffer, sizeof buffer, 0);
        end = got == 0 ? "" : got < 0 ? "(reset)" : end;
        if (got <= 0)
            break;
        bytes.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(descriptor);
    return bytes + end;
}

const std::string kGet = "GET /rootDesc.xml HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";

std::string ActionRequest(const std::string& action, const Arguments& arguments = {}, int version = 1)
{
    const std::string service = kService + std::to_string(version);
    std::string body =
        "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body><u:" + action +
        " xmlns:u=\"" + service + "\">";
    for (const auto& [name, value] : arguments)
        body += "<" + name + ">" + value + "</" + name + ">";
    body += "</u:" + action + "></s:Body></s:Envelope>";
    return "POST /ctl/IPConn HTTP/1.1\r\nHost: 127.0.0.1\r\nSOAPAction: \"" + service + "#" + action +
           "\"\r\nContent-Type: text/xml\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
           body;
}

/// The text of the first such element; "-" when there is none.
std::string Element(const std::string& document, const std::string& name)
{
    const std::size_t start = document.find("<" + name + ">") + name.size() + 2,
                      end = document.find("</" + name);
    return end == std::string::npos ? "-" : document.substr(start, end - start);
}

Arguments Key(const std::string& port, const std::string& protocol)
{
    return {{"NewRemoteHost", ""}, {"NewExternalPort", port}, {"NewProtocol", protocol}};
}
Arguments Mapping(const std::string& port, const std::string& protocol, const std::string& client)
{
    Arguments arguments = Key(port, protocol);
    arguments.insert(arguments.end(), {{"NewInternalPort", port},
                                       {"NewInternalClient", client},
                                       {"NewEnabled", "1"},
                                       {"NewPortMappingDescription", "a &lt; b"},
                                       {"NewLeaseDuration", "0"}});
    return arguments;
}

TEST(Gateway, EachFormOfDescriptionAnswerAndTransferIsWhatItsNameSays)
{
    const std::string ip = "NewExternalIPAddress>", get = ActionRequest("GetExternalIPAddress");
    const std::array<std::string, 5> rows[] = {
        // an option, the request, what is in the answer and what is not
        {"--description", "one-line", kGet, "<serviceList><service><serviceType>", "\n<device>"},
        {"--description", "ppp,version2", kGet, "WANPPPConnection:2<", "WANIPConnection"},
        {"--description", "dsl-forum", kGet, "<deviceType>urn:dslforum-org:device:Internet", "Device:2"},
        {"--soap-style", "classic", get, "\r\n      <" + ip + "203.0.113.7</" + ip + "\r\n", "<m:"},
        {"--soap-style", "prefixed", get, "<m:" + ip + "203.0.113.7</m:" + ip, "<" + ip},
        {"--transfer", "chunked", kGet, "\r\n0\r\n\r\n", "Content-Length"},
        {"--transfer", "no-header", kGet, "<root", "HTTP/1.1"},
    };
    for (const auto& [option, words, request, present, absent] : rows) {
        const GatewayProcess gateway({option, words});
        const std::string answer = Exchange(gateway.Port(), request, 500);
        EXPECT_NE(answer.find(present), std::string::npos) << words << answer;
        EXPECT_EQ(answer.find(absent), std::string::npos) << words << answer;
    }
}

TEST(Gateway, EachFaultHitsTheWantedRequestsOnly)
{
    GatewayProcess gateway;
    const std::string status = ActionRequest("GetStatusInfo");
    const std::size_t most = 4 << 20;
    const std::tuple<std::string, std::string, std::string, std::size_t, int> rows[] = {
        // the fault, a request, what is in the answer, its least size and the least milliseconds
        {"delay GetStatusInfo:300:1", status, " 200 OK", 100, 300},
        {"slow soap:1000:1", status, " 200 OK", 100, 400},
        {"close-early description:20:1", kGet, "HTTP/1.1 200 OK\r\nCon", 20, 0},
        {"reset soap:30:1", status, "(reset)", 7, 0},
        {"never-answer GetStatusInfo:1", status, "(kept)", 6, 0},
        {"status GetStatusInfo:503:1", status, "HTTP/1.1 503 ", 20, 0},
        {"refuse-action GetStatusInfo:501:1", status, "<errorCode>501<", 20, 0},
        {"content-length soap:-5:1", status, "Content-Length: -5\r\n", 20, 0},
        {"endless-body description:1", kGet, "\r\n\r\n", most, 0},
        {"endless-header description:1", kGet, "HTTP/1.1 200 OK\r\n", most, 0},
    };
    for (const auto& [fault, request, present, size, tookMs] : rows) {
        SCOPED_TRACE(fault);
        ASSERT_TRUE(gateway.Command("fault " + fault));
        const auto start = std::chrono::steady_clock::now();
        const std::string answer = Exchange(gateway.Port(), request, 1500, most);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(tookMs));
        EXPECT_NE(answer.find(present), std::string::npos) << answer.substr(0, 300);
        EXPECT_GE(answer.size(), size);
        EXPECT_NE(Exchange(gateway.Port(), request).find("HTTP/1.1 200 OK"), std::string::npos) << "once";
    }
    EXPECT_FALSE(gateway.Command("fault refuse-action") || gateway.Command("dance"));
    EXPECT_EQ(Exchange(GatewayProcess({"--refuse-connection"}).Port(), ""), "(refused)");
}

class GatewayOnALan : public testing::TestWithParam<int> // the version of the device
{};

TEST_P(GatewayOnALan, AnswersRequestsAsARealDaemonDoes)
{
    const tavronet::RealGateway daemon(GetParam());
    if (!daemon.Available())
        GTEST_SKIP() << "no real gateway daemon here (Debian: miniupnpd-nftables)";
    const GatewayProcess simulated({"--address", "10.77.1.1", "--lowest-port", "1024", "--external-ip",
                                    "44.128.0.7", "--description", GetParam() == 2 ? "version2" : "classic"},
                                   GatewayProcess::Place::GatewayOfLan);
    // The error code, and which element of both answers must agree.
    const std::tuple<std::string, Arguments, std::string, std::string> steps[] = {
        // Deleting what is not there is left out: this daemon says yes where the rules want 714.
        {"GetExternalIPAddress", {}, "-", "NewExternalIPAddress"},
        {"GetNATRSIPStatus", {}, "-", "NewNATEnabled"},
        {"AddPortMapping", Mapping("8080", "TCP", "10.77.1.2"), "-", "errorCode"},
        {"AddPortMapping", Mapping("8080", "TCP", "10.77.1.3"), "718", "errorCode"},
        {"AddPortMapping", Mapping("80", "TCP", "10.77.1.2"), "606", "errorCode"},
        {"GetSpecificPortMappingEntry", Key("8080", "TCP"), "-", "NewInternalClient"},
        {"GetSpecificPortMappingEntry", Key("8081", "TCP"), "714", "errorCode"},
        {"GetGenericPortMappingEntry", {{"NewPortMappingIndex", "0"}}, "-", "NewExternalPort"},
        {"GetGenericPortMappingEntry", {{"NewPortMappingIndex", "2"}}, "713", "errorCode"},
        {"DeletePortMapping", Key("8080", "TCP"), "-", "errorCode"},
        {"NoSuchAction", {}, "401", "errorCode"},
    };
    for (const auto& [action, arguments, outcome, element] : steps) {
        const std::string request = ActionRequest(action, arguments, GetParam());
        const std::string real = Exchange(5555, request, 5000, 1 << 20, "10.77.1.1");
        const std::string ours = Exchange(simulated.Port(), request, 5000, 1 << 20, "10.77.1.1");
        for (const std::string& answer : {real, ours}) {
            EXPECT_EQ(Element(answer, "errorCode"), outcome) << action << answer;
            EXPECT_EQ(answer.starts_with("HTTP/1.1 200"), outcome == "-") << action << answer;
        }
        EXPECT_EQ(Element(ours, element), Element(real, element)) << action;
    }
}

INSTANTIATE_TEST_SUITE_P(Version, GatewayOnALan, testing::Values(1, 2));

TEST(GatewaySearch, SearchesForThisGatewayAreAnsweredByItsOwnAddress)
{
    if (std::getenv("TAVRONET_LAN_GATEWAY_PID") == nullptr)
        GTEST_SKIP() << "searches only on a private LAN; run under scripts/with-lan";
    const GatewayProcess gateway({"--address", "10.77.1.1", "--address", "fd77:1::1"},
                                 GatewayProcess::Place::GatewayOfLan);
    for (std::size_t i = 0; i < 2; ++i) {
        // A connected socket takes no answer of another address. The search goes straight to the gateway.
        const int searcher = Connected(i == 0 ? "10.77.1.1" : "fd77:1::1", 1900, SOCK_DGRAM);
        for (const std::string& target : {std::string("urn:x:device:MediaServer:1"), kWanted})
            ::dprintf(searcher,
                      "M-SEARCH * HTTP/1.1\r\nST: %s\r\nMX: 5\r\nMAN: \"ssdp:discover\"\r\nHOST: x\r\n\r\n",
                      target.c_str());
        char answer[2048] = "";
        pollfd waiting{searcher, POLLIN, 0};
        ASSERT_EQ(::poll(&waiting, 1, 5000), 1);
        ::recv(searcher, answer, sizeof answer - 1, 0);
        ::close(searcher);
        const std::string text(answer);
        EXPECT_TRUE(text.starts_with("HTTP/1.1 200 OK\r\n")) << text;
        EXPECT_NE(text.find("\r\nLOCATION: " + gateway.Url(i) + "\r\n"), std::string::npos) << text;
        EXPECT_NE(text.find("\r\nST: " + kWanted + "\r\n"), std::string::npos) << text;
    }
}

} // namespace
