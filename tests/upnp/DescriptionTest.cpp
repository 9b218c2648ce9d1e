// Descriptions read in both dialects: what tree and which events come of a document.

#include <array>
#include <sstream>

#include "GatewayRecords.h"
#include "tavronet/upnp/DescriptionBuilder.h"
#include "tavronet/upnp/Limits.h"

namespace
{

using tavronet::ClassicDialect;
using tavronet::DescriptionBuilder;
using tavronet::ModernDialect;
using tavronet::UPnPDialect;

const std::string kIP1 = kConnectionService, kIP2 = "urn:schemas-upnp-org:service:WANIPConnection:2";
const std::string kPPP1 = "urn:schemas-upnp-org:service:WANPPPConnection:1";

/// "urn:schemas-upnp-org:device:WANDevice:1" -> "WANDevice".
std::string ShortType(const CUPnPObject& node)
{
    const std::string type = Text(node.GetType());
    const std::size_t version = type.rfind(':');
    const std::size_t name = version == std::string::npos ? 0 : type.rfind(':', version - 1) + 1;
    return type.substr(name, version - name);
}

/// The tree in one line: "IGD{Box}(Forwarding WAN{}(...))".
std::string Outline(const CUPnPObject& node)
{
    std::string text = ShortType(node), children;
    if (const auto* device = dynamic_cast<const CUPnPDevice*>(&node))
        text += "{" + Text(device->GetFriendlyName()) + "}";
    for (const CUPnPObject* child : DescriptionBuilder::ChildrenOf(node))
        children += (children.empty() ? "" : " ") + Outline(*child);
    return children.empty() ? text : text + "(" + children + ")";
}

/// A root record without a network, described.
std::unique_ptr<CUPnPDevice> Described(const UPnPDialect& dialect, const std::string& document,
                                       const std::string& location = "http://192.168.1.1:5000/gate/root.xml")
{
    std::unique_ptr<CUPnPDevice> root(MakeRecord(nullptr, {.location = location}));
    dialect.ReadDescription(*root, document);
    return root;
}

std::string ControlAddress(const CUPnPService* service)
{
    return service == nullptr ? "none"
                              : Text(service->GetHost()) + "|" + std::to_string(service->GetHostPort()) +
                                    "|" + Text(service->GetHostPath());
}

std::string ModernControlAddress(const std::string& document,
                                 const std::string& location = "http://192.168.1.1:5000/gate/root.xml")
{
    const auto root = Described(ModernDialect(), document, location);
    const CUPnPService* const service = ModernDialect().FindConnectionService(*root);
    EXPECT_TRUE(root->DiscoverComplete() || service == nullptr) << document;
    return ControlAddress(service);
}

/// How one document writes what all of them say.
struct Form
{
    std::string lineEnd = "\r\n", prefix = "";
    bool upperCase = false, cdata = false, attributes = false, comments = false, unclosed = false;
};

constexpr const char* kGateway =
    "root device deviceType=@device:InternetGatewayDevice:1 friendlyName=Box&Co serviceList service "
    "serviceType=@service:Layer3Forwarding:1 controlURL=/l3f /service /serviceList deviceList device "
    "deviceType=@device:WANDevice:1 friendlyName=WAN deviceList device "
    "deviceType=@device:WANConnectionDevice:1 friendlyName= serviceList service "
    "serviceType=@service:WANPPPConnection:1 controlURL=/ppp /service service "
    "serviceType=@service:WANIPConnection:1 controlURL=/ip /service /serviceList "
    "/device /deviceList /device /deviceList /device /root";
constexpr const char* kWholeTree = "InternetGatewayDevice{Box&Co}(Layer3Forwarding WANDevice{WAN}("
                                   "WANConnectionDevice{}(WANPPPConnection WANIPConnection)))";

std::string Written(const Form& form)
{
    std::string document;
    std::istringstream lines(kGateway);
    for (std::string line; lines >> line && !(form.unclosed && line == "/device");) {
        const bool closes = line[0] == '/';
        const std::size_t equals = line.find('='), at = line.find('@');
        std::string name = form.prefix + line.substr(closes, equals - closes);
        if (form.upperCase)
            name = Text(CString(name.c_str()).MakeUpper());
        if (at != std::string::npos)
            line.replace(at, 1, "urn:schemas-upnp-org:");
        document += form.comments ? "<!-- <" + line + "> -->" + form.lineEnd : "";
        document += (closes ? "</" : "<") + name + (form.attributes && !closes ? " a='1' b=\"x\">" : ">");
        const std::string text = equals == std::string::npos ? "" : line.substr(equals + 1);
        if (equals != std::string::npos)
            document += (form.cdata ? "<![CDATA[" + text + "]]>" : text) + "</" + name + ">";
        document += form.lineEnd;
    }
    return document;
}

TEST(Description, TheClassicReaderTakesATagALine)
{
    for (const char* lineEnd : {"\r\n", "\n", "\r", " \t\r\n  "}) {
        for (const bool upperCase : {false, true}) {
            const auto root =
                Described(ClassicDialect(), Written({.lineEnd = lineEnd, .upperCase = upperCase}));
            EXPECT_EQ(Outline(*root), kWholeTree);
            EXPECT_EQ(ControlAddress(root->FindConnectionService()), "192.168.1.1|5000|/ip"); // before PPP
            EXPECT_EQ(ControlAddress(root->FindService(kPPP1.c_str())), "192.168.1.1|5000|/ppp");
            EXPECT_EQ(root->FindService("urn:schemas-upnp-org:service:wanpppconnection:1"), nullptr);
        }
    }
}

TEST(Description, TheClassicReaderMissesWhatFollowsOnALine)
{
    // The first service of each list shares a line with the list's tag, and so does the first embedded device, whose
    // end then ends its parent.
    const std::string document = Written({.lineEnd = ""}), xml = "<?xml version='1.0'?>", root = "<root>";
    EXPECT_EQ(Outline(*Described(ClassicDialect(), xml + document)), "{}");
    const auto fromRoot = Described(ClassicDialect(), root + "\r\n" + document.substr(root.size()));
    EXPECT_EQ(Outline(*fromRoot), "InternetGatewayDevice{Box&Co}(WANIPConnection)");
    EXPECT_FALSE(Described(ClassicDialect(), Written({.prefix = "d:"}))->DiscoverComplete());
}

TEST(Description, TheModernReaderTakesTheSameDocumentInAnyForm)
{
    for (const char* lineEnd : {"\r\n", "\n", "\r", ""}) {
        for (const char* prefix : {"", "d:"}) {
            for (int bits = 0; bits < 64; ++bits) {
                const auto bit = [bits](int i) { return (bits >> i & 1) != 0; };
                std::string document = Written({lineEnd, prefix, bit(0), bit(1), bit(2), bit(3), bit(4)});
                document = bit(5) ? "\xEF\xBB\xBF<?xml version='1.0'?>" + document
                                  : "\r\n junk " + document + "junk </x> \xFF";
                const auto root = Described(ModernDialect(), document);
                ASSERT_EQ(Outline(*root), kWholeTree) << document;
                ASSERT_EQ(ControlAddress(ModernDialect().FindConnectionService(*root)),
                          "192.168.1.1|5000|/ip");
            }
        }
    }
}

std::string Service(const std::string& type, const std::string& control)
{
    return "<service><serviceType>" + type + "</serviceType><controlURL>" + control +
           "</controlURL></service>";
}

/// A description with the given text in place of the connection service's list.
std::string With(const std::string& services, const std::string& inRoot = "",
                 const std::string& type = kGatewayType)
{
    return "<root xmlns='urn:schemas-upnp-org:device-1-0'>" + inRoot + "<device><deviceType>" + type +
           "</deviceType><friendlyName>Box</friendlyName>" + services + "</device></root>";
}

TEST(Description, TheModernReaderServesWhatGatewaysWrite)
{
    const std::string ip = Service(kIP1, "/ip"), ppp = Service(kPPP1, "/ppp");
    std::string wide("\xFF\xFE", 2);
    for (const char c : With(ip))
        wide += std::string{c, '\0'};
    const std::string served[] = {
        wide,
        "<?xml version='1.0' encoding='utf-8'?>" + With("<modelName>caf\xE9</modelName>" + ip),
        With(Service(kIP1, "/ip1") + Service(kIP2, "/ip")),
        With(ppp + "<deviceList><device>" + ip + "</device></deviceList>"),
        With(Service(kIP1, "") + Service(kPPP1, "/ip")),
        With(Service(kIP1, " ") + ip),
        With(Service("urn:dslforum-org:service:WANPPPConnection:1", "/ip"), "",
             "urn:dslforum-org:device:X:1"),
        With(Service("urn:Schemas-UPnP-org:service:WANIPConnection:1", "/ip")),
        With(Service("\n  " + kIP1 + "\t", " \r\n/ip\r\n ")),
        With(ip, "<URLBase>http://0.0.0.0/</URLBase>"),
        With(Service(kIP1, "ip"), "<URLBase>http://192.168.1.1:5000/x?y</URLBase>"),
        "<root><serviceList>" + ip + "</serviceList></root>",
        With("<modelName>A&B < C &x; </modelName>" + ip),
        With("<service><serviceType>" + kIP1 + "<controlURL>/ip</controlURL></service>"),
        With("<service><serviceType>urn:x:service:Other:1</serviceType>" + ip),
        With(ip).substr(0, With(ip).find("</service>")),
        "<!DOCTYPE r [<!ENTITY e '/bad'><!ENTITY f SYSTEM 'file:///etc/passwd'>]>" + With(ip),
        With("<modelName>a" + std::string(1, '\0') + "b</modelName>" + ip),
        With(Service(kIP1, "&#47;i&#x70;"))};
    for (const std::string& document : served)
        EXPECT_EQ(ModernControlAddress(document), "192.168.1.1|5000|/ip") << document;
    for (const std::string& document : {With(Service(kIP1, "http://192.168.1.1:0/ip")), With("", "", kIP1),
                                        With(Service("urn:x:service:Other:1", "/x")), std::string("404")})
        EXPECT_EQ(ModernControlAddress(document), "none") << document;

    const std::pair<const char*, const char*> urls[] = {
        {"ctl/ip", "192.168.1.1|5000|/gate/ctl/ip"},
        {"/a b#c", "192.168.1.1|5000|/a%20b"},
        {"../a/./b/../ip?x=../y", "192.168.1.1|5000|/a/ip?x=../y"},
        {"/u?a=IP&amp;u=http://x/", "192.168.1.1|5000|/u?a=IP&u=http://x/"},
        {"HTTP://10.0.0.2/ip", "10.0.0.2|80|/ip"},
        {"http://0.0.0.0:81/ip", "192.168.1.1|5000|/ip"},
        {"http://[fd00::1]/ip", "fd00::1|80|/ip"}};
    for (const auto& [url, address] : urls)
        EXPECT_EQ(ModernControlAddress(With(Service(kIP1, url))), address) << url;
    EXPECT_EQ(ModernControlAddress(With(ip), "http://[fe80::1%25eth0]:5000/d"), "fe80::1%eth0|5000|/ip");
    EXPECT_EQ(ModernControlAddress(With(Service(kIP1, "ctl")), "http://10.0.0.1"), "10.0.0.1|80|/ctl");
}

TEST(Description, ClassicControlAddressesFallBackInOrder)
{
    const std::array<const char*, 4> rows[] = {
        {"http://10.0.0.2:81/base", "http://10.0.0.3:82/s", "http://10.0.0.1:2869/ctl", "10.0.0.1|2869|/ctl"},
        {"http://10.0.0.2:81/base", "http://10.0.0.3:82/s", "/ctl", "10.0.0.2|81|/ctl"},
        {"", "http://10.0.0.3:82/s", "ctl", "10.0.0.3|82|ctl"},
        {"/base", "/s", "/ctl", "192.168.1.1|5000|/ctl"},
    };
    for (const auto& [base, scpd, control, address] : rows) {
        const std::string document = std::string("<URLBase>") + base +
                                     "</URLBase>\n<device>\n<serviceList>\n<service>\n<serviceType>" + kIP1 +
                                     "</serviceType>\n<SCPDURL>" + scpd + "</SCPDURL>\n<controlURL>" +
                                     control + "</controlURL>\n</service>\n";
        EXPECT_EQ(ControlAddress(Described(ClassicDialect(), document)->FindConnectionService()), address);
    }
}

/// Nodes below, and levels.
std::pair<int, int> Extent(const CUPnPObject& node)
{
    std::pair<int, int> extent{0, 0};
    for (const CUPnPObject* child : DescriptionBuilder::ChildrenOf(node)) {
        const auto [nodes, levels] = Extent(*child);
        extent = {extent.first + nodes + 1, std::max(extent.second, levels + 1)};
    }
    return extent;
}

TEST(Description, NoDocumentMakesTheTreeDeepOrLarge)
{
    const auto repeated = [](const std::string& text) {
        std::string result;
        while (result.size() < 200000)
            result += text;
        return result;
    };
    const std::string deep = repeated("<device>\n<deviceList>\n");
    const std::string wide = "<device>\n<serviceList>\n" + repeated("<service>\n</service>\n");
    for (const UPnPDialect* dialect : {&ClassicDialect(), &ModernDialect()}) {
        EXPECT_LE(Extent(*Described(*dialect, deep)).second, tavronet::kMaxDeviceDepth);
        EXPECT_EQ(Extent(*Described(*dialect, wide)).first, tavronet::kMaxDescriptionNodes);
    }
    for (const char* const part :
         {"<a>", "<a><!--", "</a>", "<![CDATA[", "<a b='", "<", "<!DOCTYPE [", "<x:y>"})
        EXPECT_EQ(Extent(*Described(ModernDialect(), "<device>" + repeated(part))).first, 0) << part;
}

} // namespace
