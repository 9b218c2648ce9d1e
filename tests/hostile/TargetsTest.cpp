// Where a datagram and a description may have requests sent, and where not.

#include "tavronet/upnp/UPnPDialect.h"
#include "tests/hostile/Meter.h"
#include "tests/support/OnPrivateLan.h"
#include "tests/upnp/GatewayRecords.h"

namespace
{

using HostileTargets = tavronet::OnPrivateLan;

constexpr const char* kSame = "127.0.0.1"; // the datagram came from the server itself
constexpr const char* kOther = "10.77.9.9";

struct Target
{
    const char* url; // "PORT" is the server's, "WRAP" its port plus 65536
    const char* heardFrom;
    const char* outcomes; // classic LOCATION and control URL, modern LOCATION and control URL:
                          // a request arrives, only a connection, or nothing (-)
};

const Target kTargets[] = {
    {"http://127.0.0.1:PORT/x", kSame, "rrrr"},
    {"http://127.0.0.1:PORT/x", kOther, "----"},
    {"http://localhost:PORT/x", kOther, "----"},
    {"http://[::1]:PORT/x", kOther, "----"},
    {"http://[::ffff:127.0.0.1]:PORT/x", kOther, "----"},
    {"http://239.255.255.250:PORT/x", kSame, "----"},
    {"http://255.255.255.255:PORT/x", kSame, "----"},
    {"http://[ff02::c]:PORT/x", kSame, "----"},
    {"http://0.0.0.0:PORT/x", kSame, "---r"}, // a control URL is completed from the LOCATION
    {"http://127.0.0.1:0/x", kSame, "----"},
    {"http://127.0.0.1:65536/x", kSame, "----"},
    {"http://127.0.0.1:WRAP/x", kSame, "----"},
    {"http://127.0.0.1:-1/x", kSame, "----"},
    {"http://127.0.0.1:99999999999999999999/x", kSame, "----"},
    {"http://[127.0.0.1:PORT/x", kSame, "----"},
    {"http://[fe80::1", kSame, "----"},
    {"http://no-such-host.invalid:PORT/x", kSame, "----"},
    {"http://127.0.0.1\x01:PORT/x", kSame, "----"},
    {"http://127.0.0.1:PORT/x\x01y", kSame, "cccc"},
    {"http://127.0.0.1:PORT/x\x7f", kSame, "cccc"},
    {"http://127.0.0.1:PORT/x HTTP/1.0", kSame, "ccrr"}, // made sendable: %20
    {"http://127.0.0.1:PORT/x\nX-Forged: 1", kSame, "cccc"},
};

TEST_F(HostileTargets, AreNotConnectedToAndNothingForgedIsSent)
{
    const NoAdapters noAdapters;
    ScriptedServer server;
    server.AnswerBy([](const std::string& request) {
        EXPECT_EQ(request.find("\nX-Forged"), std::string::npos);
        EXPECT_EQ(request.find(" HTTP/1.0"), std::string::npos);
        return ScriptedServer::Reply(HttpAnswer(""), kClose);
    });
    tavronet::Meter meter([] { ScriptedServer::MoveOn(); });
    for (const Target& target : kTargets) {
        CString location(target.url);
        location.Replace(L"PORT", CString(server.Port().c_str()));
        location.Replace(L"WRAP", CString(std::to_string(std::stoi(server.Port()) + 65536).c_str()));
        const std::string url = Text(location);
        std::string outcomes;
        for (const int use : {0, 1, 2, 3}) {
            CUPnPNetwork network(nullptr, nullptr, use / 2, false);
            const bool control = use % 2 == 1;
            const std::unique_ptr<CUPnPDevice> device(MakeRecord(
                &network, {.source = target.heardFrom, .location = control ? server.Url("/d") : url}));
            const std::size_t connections = server.Connections(), requests = server.Requests().size();
            if (control) {
                tavronet::DialectOf(*device).ReadDescription(
                    *device, "<device>\r\n<serviceList>\r\n<service>\r\n<serviceType>" +
                                 std::string(kConnectionService) + "</serviceType>\r\n<controlURL>" + url +
                                 "</controlURL>\r\n</service>\r\n</serviceList>\r\n</device>\r\n");
                device->GetExternalIPAddress(nullptr);
            } else {
                device->RequestDescription();
            }
            meter.RunFor(url.find("host") == std::string::npos ? 3 : 50);
            outcomes += server.Requests().size() > requests  ? 'r'
                        : server.Connections() > connections ? 'c'
                                                             : '-';
        }
        EXPECT_EQ(outcomes, target.outcomes) << url << " named by " << target.heardFrom;
    }
    for (std::size_t i = 0; i < server.Connections(); ++i)
        server.End(i);
    meter.Check();
}

} // namespace
