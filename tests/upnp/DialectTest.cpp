// What gateways write, read in both dialects: how an answer is framed, what it says, and where a description has the
// service controlled that maps ports.

#include <optional>
#include <regex>
#include <thread>

#include "GatewayRecords.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/ResponseDesk.h"
#include "tavronet/upnp/UPnPDialect.h"

namespace
{

using tavronet::ClassicDialect;
using tavronet::ModernDialect;

TEST(Answer, IsFramedByItsLengthOrItsChunksOrByTheClose)
{
    const std::string ok = "HTTP/1.1 200 OK\r\n", body = "<012345678>yz", late = "HTTP/1.1 102 Wait\r\n\r\n";
    const std::string chunked = ok + "Transfer-Encoding: Chunked\r\n";
    const std::string chunks = "a\r\n<012345678\r\n0003;x=y\r\n>yz\r\n0\r\n";
    const std::tuple<const char*, const char*, std::string> rows[] = {
        // in the classic and the modern dialect it is complete, ends with the connection, or is none
        {"a blank for the hyphen", "oo", ok + "CONTENT LENGTH: 13\r\n\r\n" + body},
        {"more than the length", "co", ok + "Content-Length: 10\r\n\r\n" + body},
        {"less than the length", "c-", ok + "Content-Length: 14\r\n\r\n" + body},
        {"a blank before the colon", "co", ok + "Content-Length : 13\r\n\r\n" + body},
        {"bare line feeds", "-o", "HTTP/1.0 200 OK\nContent-Length: 13\n\n" + body},
        {"no digits", "cc", ok + "Content-Length: x\r\n\r\n" + body},
        {"no end of the header", "--", ok + "Content-Length: 2\r\n"},
        {"interim responses", "co", late + late + ok + "Content-Length: 13\r\n\r\n" + body},
        {"chunks beat a length", "co", chunked + "Content-Length: 1\r\n\r\n" + chunks},
        {"said to be chunks", "cc", chunked + "\r\n" + body},
        {"an endless chunk", "c-", chunked + "\r\nffffffffffffffff\r\n" + body},
    };
    for (const auto& [why, outcomes, message] : rows) {
        SCOPED_TRACE(why);
        std::string found, storage;
        for (const tavronet::UPnPDialect* const dialect : {&ClassicDialect(), &ModernDialect()}) {
            tavronet::ResponseFrame frame;
            const bool hasHeader = dialect->ReadHeader(message, frame);
            const bool isComplete = hasHeader && dialect->Complete(message, frame);
            const bool isNone = !hasHeader || (!isComplete && dialect->CutShort(message, frame));
            found += isComplete ? 'o' : isNone ? '-' : 'c';
            EXPECT_TRUE(isNone || found.size() == 1 || dialect->DecodeBody(message, frame, storage) == body);
        }
        EXPECT_EQ(found, outcomes);
    }
}

TEST(Answer, OfAFaultThatIsSaidToBeASuccessIsRead)
{
    for (const auto* const dialect : {&ClassicDialect(), &ModernDialect()}) {
        tavronet::ActionAnswer answer{200, {L"NewIP", L"sent"}, {}, {}};
        dialect->ReadAnswer(answer, "<NEWip>1</NEWip>\r\n<errorCode>714</errorCode>\r\n");
        EXPECT_EQ(answer.results[1], L"1");
        EXPECT_EQ(answer.errorCode, dialect == &ModernDialect() ? L"714" : L"");
    }
}

TEST(Request, HasItsTextsEscapedAndIPv6AddressesInBracketsInTheModernDialect)
{
    const CString host(L"fe80::1%eth0"), text(L"x");
    const std::vector<CString> params = {L"Text", L"a<b>&\"c\"\x01 \u00E9"};
    const std::string request = ModernDialect().ActionRequest({host, 5000, text, text, text, params});
    EXPECT_NE(request.find("\r\nHOST: [fe80::1]:5000\r\n"), std::string::npos) << request;
    EXPECT_NE(request.find("<Text>a&lt;b&gt;&amp;&quot;c&quot;? \xC3\xA9</Text>\r\n"), std::string::npos);
    EXPECT_NE(ModernDialect().SearchRequests("ff02::c", 1900)[0].find("\r\nHOST: [ff02::c]:1900\r\n"),
              std::string::npos);
}

const std::string kIP1 = kConnectionService, kIP2 = "urn:schemas-upnp-org:service:WANIPConnection:2",
                  kPPP1 = "urn:schemas-upnp-org:service:WANPPPConnection:1";

/// "host|port|path".
std::string ControlAddress(const tavronet::UPnPDialect& dialect, const std::string& document,
                           const std::string& location = "http://gw:5000/gate/root.xml")
{
    const std::unique_ptr<CUPnPDevice> root(MakeRecord(nullptr, {.location = location}));
    dialect.ReadDescription(*root, document);
    const CUPnPService* const service = dialect.FindConnectionService(*root);
    if (service == nullptr)
        return "none";
    return Text(service->GetHost()) + "|" + std::to_string(service->GetHostPort()) + "|" +
           Text(service->GetHostPath());
}

std::string Service(const std::string& type, const std::string& control, const std::string& scpd = "")
{
    return "<service>\n<serviceType>" + type + "</serviceType>\n<SCPDURL>" + scpd +
           "</SCPDURL>\n<controlURL>" + control + "</controlURL>\n</service>\n";
}

/// A description with the given services.
std::string With(const std::string& services, const std::string& inRoot = "")
{
    return "<root xmlns='urn:schemas-upnp-org:device-1-0'>\n" + inRoot +
           "\n<device>\n<deviceType>x</deviceType>\n" + "<serviceList>\n" + services +
           "</serviceList>\n</device>\n</root>";
}

TEST(Description, IsReadAsGatewaysWriteIt)
{
    const std::string ip = Service(kIP1, "/ip"), ppp = Service(kPPP1, "/ppp"),
                      other = "urn:x:service:Other:1";
    const std::string served[] = {
        std::regex_replace(With(ip), std::regex("<(\\w+)>"), "<!-- <$1> --><$1 a='1' b=\"x\">"),
        std::regex_replace(With(ip), std::regex(">([^<\n]+)<"), "><![CDATA[$1]]><"),
        std::regex_replace(With(ip), std::regex("</device>"), ""),
        "\r\n junk " + With(ip) + "junk </x> \xFF",
        "\xEF\xBB\xBF<?xml version='1.0' encoding='utf-8'?>" + With("<modelName>caf\xE9</modelName>" + ip),
        With(Service(kIP1, "/ip1") + Service(kIP2, "/ip")),
        With(ppp + "<deviceList><device>" + ip + "</device></deviceList>"),
        With(Service(kIP1, "") + Service(kPPP1, "/ip")),
        With(Service(kIP1, " ") + ip),
        With(Service("\n  urn:Schemas-UPnP-org:service:WANIPConnection:1\t", " \r\n/ip\r\n ")),
        With(ip, "<URLBase>http://0.0.0.0/</URLBase>"),
        With(Service(kIP1, "ip"), "<URLBase>http://gw:5000/x?y</URLBase>"),
        "<root><serviceList>" + ip + "</serviceList></root>",
        With("<modelName>A&B < C &x; </modelName>" + ip),
        With("<service><serviceType>" + kIP1 + "<controlURL>/ip</controlURL></service>"),
        With("<service><serviceType>" + other + "</serviceType>" + ip),
        With(ip).substr(0, With(ip).find("</service>")),
        "<!DOCTYPE r [<!ENTITY e '/bad'><!ENTITY f SYSTEM 'file:///etc/passwd'>]>" + With(ip),
        With("<modelName>a" + std::string(1, '\0') + "b</modelName>" + ip),
        With(Service(kIP1, "&#47;i&#x70;")),
    };
    for (const std::string& document : served)
        for (const char* const junk : {"", "</x> <"}) // makes it malformed
            EXPECT_EQ(ControlAddress(ModernDialect(), document + junk), "gw|5000|/ip") << document + junk;
    for (const std::string& document :
         {With(Service(kIP1, "http://gw:0/ip")), With(Service(other, "/x")), other})
        EXPECT_EQ(ControlAddress(ModernDialect(), document), "none") << document;
    const std::string both = With(ppp + ip); // the classic reader takes a tag a line, and prefers the latter
    for (const char* const lineEnd : {"\r\n", "\r", " \t\r\n  "})
        EXPECT_EQ(ControlAddress(ClassicDialect(), std::regex_replace(both, std::regex("\n"), lineEnd)),
                  "gw|5000|/ip");
}

TEST(Description, ControlAddressesAreCompletedFromTheNextURLThatCan)
{
    const std::tuple<const char*, const char*, const char*, const char*, const char*> rows[] = {
        // the base, that of the service's description, of its control; what the dialects make of them
        {"http://b:81/base", "http://s:82/s", "http://c:83/ctl", "c|83|/ctl", "c|83|/ctl"},
        {"http://b:81/base", "http://s:82/s", "/ctl", "b|81|/ctl", "b|81|/ctl"},
        {"", "http://s:82/s", "ctl", "s|82|ctl", "gw|5000|/gate/ctl"},
        {"/base", "/s", "/ctl", "gw|5000|/ctl", "gw|5000|/ctl"},
        {"", "", "/a b#c", "gw|5000|/a b#c", "gw|5000|/a%20b"},
        {"", "", "../a/./b/../ip?x=../y", "gw|5000|../a/./b/../ip?x=../y", "gw|5000|/a/ip?x=../y"},
        {"", "", "/u?a=IP&amp;u=http://x/", "x|80|/", "gw|5000|/u?a=IP&u=http://x/"},
        {"", "", "HTTP://10.0.0.2/ip", "10.0.0.2|80|/ip", "10.0.0.2|80|/ip"},
        {"", "", "http://0.0.0.0:81/ip", "0.0.0.0|81|/ip", "gw|5000|/ip"},
        {"http://[fe80::1%25eth0]:5000/d", "", "ip", "[fe80|0|ip", "fe80::1%eth0|5000|/ip"},
        {"http://10.0.0.1", "", "ctl", "10.0.0.1|80|ctl", "10.0.0.1|80|/ctl"},
    };
    for (const auto& [base, scpd, control, classic, modern] : rows) {
        const std::string document =
            With(Service(kIP1, control, scpd), std::string("<URLBase>") + base + "</URLBase>");
        EXPECT_EQ(ControlAddress(ClassicDialect(), document), classic);
        EXPECT_EQ(ControlAddress(ModernDialect(), document), modern);
    }
}

TEST(Description, AllTreesTogetherKeepNoMoreThanTheyMay)
{
    const std::string type =
        "<device>\n<deviceType>" + std::string(kGatewayType) + "</deviceType>\n<serviceList>\n";
    const std::string base = "<URLBase>http://gw/" + std::string(1900, 'b') + "/</URLBase>\n";
    std::string large = type;
    for (int i = 0; i < 500; ++i)
        large += "<service>\n<controlURL>c</controlURL>\n</service>\n";
    for (const auto* const dialect : {&ClassicDialect(), &ModernDialect()}) {
        std::vector<std::unique_ptr<CUPnPDevice>> all;
        const auto reads = [&](const std::string& document) {
            all.emplace_back(MakeRecord(nullptr, {.location = "http://gw:5000/"}));
            dialect->ReadDescription(*all.back(), document);
            return all.back()->DiscoverComplete();
        };
        EXPECT_EQ(reads(base + large), dialect == &ClassicDialect()) << "the other joins 4 MiB of addresses";
        int fitting = 0;
        while (fitting < 20 && reads(large))
            ++fitting;
        EXPECT_TRUE(fitting > 0 && fitting < 20) << fitting;
        for (std::size_t i = 0; i < tavronet::kMaxDevices; ++i)
            EXPECT_TRUE(reads(type)) << "an ordinary one beside them";
    }
}

TEST(Response, ARoundReadsOneLongOneOrAsManyAsAreTogetherOrdinary)
{
    DispatchPending();
    const std::size_t ordinary = tavronet::kOrdinaryResponseBytes;
    const std::size_t sizes[] = {ordinary / 2, ordinary / 2, 1, 9 * ordinary, 9 * ordinary, 5, 7, 8};
    std::optional<tavronet::ResponsePlace> places[std::size(sizes)];
    std::string read;
    for (std::size_t i = 0; i < std::size(sizes); ++i) {
        places[i].emplace().Hold(sizes[i]);
        places[i]->Read([&read, i] { read += std::to_string(i); });
    }
    places[6].reset(); // before its turn
    for (int round = 0; round < 5; ++round, read += " ")
        DispatchRound();
    EXPECT_EQ(read, "012 3 4 57  ");

    std::thread([&] { places[6].emplace().Hold(100); }).join();
    places[6].reset(); // after its thread
    EXPECT_TRUE(places[3]->HasRoom());
}

} // namespace
