// Descriptions read in both dialects: what tree and which events come of a document.

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "GatewayRecords.h"
#include "tavronet/platform/TextConversion.h"
#include "tavronet/upnp/DescriptionBuilder.h"
#include "tavronet/upnp/Limits.h"

namespace
{

using tavronet::ClassicDialect;
using tavronet::DescriptionBuilder;
using tavronet::ModernDialect;
using tavronet::UPnPDialect;

std::string Text(const CString& wide)
{
    return std::string(Narrow(wide).View());
}

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
    std::string text = ShortType(node);
    if (const auto* device = dynamic_cast<const CUPnPDevice*>(&node))
        text += "{" + Text(device->GetFriendlyName()) + "}";
    const auto children = DescriptionBuilder::ChildrenOf(node);
    if (children.empty())
        return text;
    text += "(";
    for (const CUPnPObject* child : children)
        text += (child == children.front() ? "" : " ") + Outline(*child);
    return text + ")";
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
    if (service == nullptr)
        return "none";
    return Text(service->GetHost()) + "|" + std::to_string(service->GetHostPort()) + "|" +
           Text(service->GetHostPath());
}

/// How one document writes what all of them say.
struct Form
{
    std::string lineEnd = "\r\n";
    std::string prefix = "";
    bool upperCase = false;
    bool cdata = false;
    bool attributes = false;
    bool comments = false;
    bool unclosed = false; // the end of the document is missing
    bool declared = true;
};

class Writer
{
public:
    explicit Writer(const Form& form) : m_Form(form) {}

    std::string Gateway()
    {
        if (m_Form.declared)
            Line("<?xml version=\"1.0\"?>");
        Open("root");
        OpenDevice("InternetGatewayDevice", "Box & Co");
        Open("serviceList");
        Service("Layer3Forwarding", "/l3f");
        Close("serviceList");
        Open("deviceList");
        OpenDevice("WANDevice", "WAN");
        Open("deviceList");
        OpenDevice("WANConnectionDevice", "");
        Open("serviceList");
        Service("WANPPPConnection", "/ppp");
        Service("WANIPConnection", "/ip");
        Close("serviceList");
        if (m_Form.unclosed)
            return m_Text;
        Close("device");
        Close("deviceList");
        Close("device");
        Close("deviceList");
        Close("device");
        Close("root");
        return m_Text;
    }

private:
    std::string Tag(const std::string& name) const
    {
        const std::string full = m_Form.prefix + name;
        return m_Form.upperCase ? std::string(Narrow(CString(full.c_str()).MakeUpper()).View()) : full;
    }
    void Line(const std::string& text) { m_Text += text + m_Form.lineEnd; }
    void Open(const std::string& name)
    {
        if (m_Form.comments)
            Line("<!-- <" + name + "> follows -->");
        Line("<" + Tag(name) + (m_Form.attributes ? " a='1' b=\"x\">" : ">"));
    }
    void Close(const std::string& name) { Line("</" + Tag(name) + ">"); }
    void Leaf(const std::string& name, const std::string& value)
    {
        const std::string text = m_Form.cdata ? "<![CDATA[" + value + "]]>" : value;
        Line("<" + Tag(name) + (m_Form.attributes ? " c=\"2\">" : ">") + text + "</" + Tag(name) + ">");
    }
    void OpenDevice(const std::string& name, const std::string& friendlyName)
    {
        Open("device");
        Leaf("deviceType", "urn:schemas-upnp-org:device:" + name + ":1");
        Leaf("friendlyName", friendlyName);
        Leaf("UDN", "uuid:" + name);
    }
    void Service(const std::string& name, const std::string& control)
    {
        Open("service");
        Leaf("serviceType", "urn:schemas-upnp-org:service:" + name + ":1");
        Leaf("serviceId", "urn:upnp-org:serviceId:" + name);
        Leaf("controlURL", control);
        Leaf("eventSubURL", "/evt");
        Leaf("SCPDURL", "/scpd.xml");
        Close("service");
    }

    const Form m_Form;
    std::string m_Text;
};

constexpr const char* kWholeTree = "InternetGatewayDevice{Box & Co}(Layer3Forwarding WANDevice{WAN}("
                                   "WANConnectionDevice{}(WANPPPConnection WANIPConnection)))";

TEST(Description, TheClassicReaderTakesATagALine)
{
    for (const char* lineEnd : {"\r\n", "\n", "\r", " \t\r\n  "}) {
        for (const bool upperCase : {false, true}) {
            const auto root =
                Described(ClassicDialect(), Writer({.lineEnd = lineEnd, .upperCase = upperCase}).Gateway());
            EXPECT_EQ(Outline(*root), kWholeTree);
            EXPECT_TRUE(root->DiscoverComplete());
            EXPECT_EQ(Text(root->GetUDN()), "uuid:InternetGatewayDevice");
            EXPECT_EQ(ControlAddress(root->FindConnectionService()), "192.168.1.1|5000|/ip"); // before PPP
        }
    }
}

TEST(Description, TheClassicReaderMissesWhatFollowsOnALine)
{
    // The first service of each list shares a line with the list's tag, and so does the first embedded device, whose
    // end then ends its parent.
    const auto oneLine = Described(ClassicDialect(), Writer({.lineEnd = ""}).Gateway());
    EXPECT_EQ(Outline(*oneLine), "{}");
    const auto fromRoot = Described(
        ClassicDialect(),
        "<root>\r\n" +
            Writer({.lineEnd = "", .declared = false}).Gateway().substr(std::string("<root>").size()));
    EXPECT_EQ(Outline(*fromRoot), "InternetGatewayDevice{Box & Co}(WANIPConnection)");

    const std::string list =
        "<device>\r\n<deviceType>urn:schemas-upnp-org:device:A:1</deviceType>\r\n<serviceList>"
        "<service><serviceType>s:first:1</serviceType></service>"
        "<service><serviceType>s:second:1</serviceType></service></serviceList>\r\n</device>";
    EXPECT_EQ(Outline(*Described(ClassicDialect(), list)), "A{}(second)");

    const auto prefixed = Described(ClassicDialect(), Writer({.prefix = "d:"}).Gateway());
    EXPECT_FALSE(prefixed->DiscoverComplete());
}

TEST(Description, TheModernReaderTakesTheSameDocumentInAnyForm)
{
    int forms = 0;
    for (const char* lineEnd : {"\r\n", "\n", "\r", ""}) {
        for (const char* prefix : {"", "d:"}) {
            for (int bits = 0; bits < 64; ++bits) {
                const auto bit = [bits](int i) { return (bits >> i & 1) != 0; };
                const Form form{lineEnd, prefix, bit(0), bit(1), bit(2), bit(3), bit(4), bit(5)};
                std::string document = Writer(form).Gateway();
                if (bit(5))
                    document = "\xEF\xBB\xBF" + document;
                else
                    document = "\r\n junk " + document + "junk </x> \xFF";
                const auto root = Described(ModernDialect(), document);
                ASSERT_EQ(Outline(*root), kWholeTree) << document;
                ASSERT_TRUE(root->DiscoverComplete());
                ASSERT_EQ(ControlAddress(ModernDialect().FindConnectionService(*root)),
                          "192.168.1.1|5000|/ip");
                ++forms;
            }
        }
    }
    EXPECT_EQ(forms, 512);
}

/// A description with the given text in place of the connection service's list.
std::string WithService(const std::string& serviceList, const std::string& inRoot = "",
                        const std::string& type = "urn:schemas-upnp-org:device:InternetGatewayDevice:1")
{
    return "<root xmlns='urn:schemas-upnp-org:device-1-0'>" + inRoot + "<device><deviceType>" + type +
           "</deviceType><friendlyName>Box</friendlyName>" + serviceList + "</device></root>";
}

std::string Service(const std::string& type, const std::string& control)
{
    return "<service><serviceType>" + type + "</serviceType><controlURL>" + control +
           "</controlURL></service>";
}

const std::string kIP1 = "urn:schemas-upnp-org:service:WANIPConnection:1";
const std::string kPPP1 = "urn:schemas-upnp-org:service:WANPPPConnection:1";

TEST(Description, TheModernReaderServesWhatGatewaysWrite)
{
    const struct
    {
        const char* why;
        std::string document;
        const char* control;
        std::string location = "http://192.168.1.1:5000/gate/root.xml";
    } kRows[] = {
        {"version 2", WithService(Service("urn:schemas-upnp-org:service:WANIPConnection:2", "/c2")),
         "192.168.1.1|5000|/c2"},
        {"version 2 before 1",
         WithService(Service(kIP1, "/c1") + Service("urn:schemas-upnp-org:service:WANIPConnection:2", "/c2")),
         "192.168.1.1|5000|/c2"},
        {"IP before PPP, wherever",
         WithService(Service(kPPP1, "/ppp") + "<deviceList><device>" + Service(kIP1, "/ip") +
                     "</device></deviceList>"),
         "192.168.1.1|5000|/ip"},
        {"PPP only", WithService(Service(kPPP1, "/ppp")), "192.168.1.1|5000|/ppp"},
        {"PPP when IP has no control URL", WithService(Service(kIP1, "") + Service(kPPP1, "/ppp")),
         "192.168.1.1|5000|/ppp"},
        {"the second when the first has no control URL",
         WithService(Service(kIP1, " ") + Service(kIP1, "/b")), "192.168.1.1|5000|/b"},
        {"another name space",
         WithService(Service("urn:dslforum-org:service:WANPPPConnection:1", "/tr"), "",
                     "urn:dslforum-org:device:InternetGatewayDevice:1"),
         "192.168.1.1|5000|/tr"},
        {"no type at all", WithService(Service(kIP1, "/ip"), "", ""), "192.168.1.1|5000|/ip"},
        {"type in other letters",
         WithService(Service("urn:Schemas-UPnP-org:service:WANIPConnection:1", "/ip")),
         "192.168.1.1|5000|/ip"},
        {"blanks around values", WithService(Service("\n  " + kIP1 + "\t", " \r\n/ip\r\n ")),
         "192.168.1.1|5000|/ip"},
        {"no device element", "<root><serviceList>" + Service(kIP1, "/ip") + "</serviceList></root>",
         "192.168.1.1|5000|/ip"},
        {"two root devices",
         "<root><device><friendlyName>a</friendlyName></device><device>" + Service(kIP1, "/ip") +
             "</device></root>",
         "192.168.1.1|5000|/ip"},

        {"relative to the description", WithService(Service(kIP1, "ctl/ip")),
         "192.168.1.1|5000|/gate/ctl/ip"},
        {"relative, description at the top", WithService(Service(kIP1, "ctl/ip")), "10.0.0.1|80|/ctl/ip",
         "http://10.0.0.1"},
        {"dots", WithService(Service(kIP1, "../a/./b/../ip?x=../y")), "192.168.1.1|5000|/a/ip?x=../y"},
        {"query", WithService(Service(kIP1, "/upnp?control=IP&amp;u=http://x/")),
         "192.168.1.1|5000|/upnp?control=IP&u=http://x/"},
        {"absolute with port", WithService(Service(kIP1, "http://192.168.1.254:49152/ip")),
         "192.168.1.254|49152|/ip"},
        {"absolute without port", WithService(Service(kIP1, "HTTP://192.168.1.254/ip")),
         "192.168.1.254|80|/ip"},
        {"host only", WithService(Service(kIP1, "http://192.168.1.254")), "192.168.1.254|80|/"},
        {"host without scheme", WithService(Service(kIP1, "//192.168.1.254:81/ip")), "192.168.1.254|81|/ip"},
        {"wildcard host", WithService(Service(kIP1, "http://0.0.0.0:81/ip")), "192.168.1.1|5000|/ip"},
        {"no host", WithService(Service(kIP1, "http:///ip")), "192.168.1.1|5000|/ip"},
        {"blank in the path", WithService(Service(kIP1, "/a b#c")), "192.168.1.1|5000|/a%20b"},
        {"base", WithService(Service(kIP1, "ip"), "<URLBase>http://192.168.1.2:99/x/y</URLBase>"),
         "192.168.1.2|99|/x/ip"},
        {"empty base", WithService(Service(kIP1, "/ip"), "<URLBase/>"), "192.168.1.1|5000|/ip"},
        {"wildcard base", WithService(Service(kIP1, "/ip"), "<URLBase>http://0.0.0.0/</URLBase>"),
         "192.168.1.1|5000|/ip"},
        {"IPv6", WithService(Service(kIP1, "/ip")), "fe80::1%eth0|5000|/ip",
         "http://[fe80::1%25eth0]:5000/d"},
        {"IPv6 without port", WithService(Service(kIP1, "http://[fd00::1]/ip")), "fd00::1|80|/ip"},

        {"bare ampersand and less-than",
         WithService("<modelName>A&B < C &x; </modelName>" + Service(kIP1, "/ip?a=1&b=2")),
         "192.168.1.1|5000|/ip?a=1&b=2"},
        {"tags of different case",
         "<ROOT><device><serviceList>" + Service(kIP1, "/ip") + "</servicelist></Device></root>",
         "192.168.1.1|5000|/ip"},
        {"attributes without quotes", WithService("<x y=z>1</x>" + Service(kIP1, "/ip")),
         "192.168.1.1|5000|/ip"},
        {"a leaf not closed",
         WithService("<service><serviceType>" + kIP1 + "<controlURL>/ip</controlURL></service>"),
         "192.168.1.1|5000|/ip"},
        {"a service not closed",
         WithService("<service><serviceType>urn:x:service:Other:1</serviceType><controlURL>/o</controlURL>" +
                     Service(kIP1, "/ip")),
         "192.168.1.1|5000|/ip"},
        {"a list not closed", "<root><device><serviceList>" + Service(kIP1, "/ip") + "</device></root>",
         "192.168.1.1|5000|/ip"},
        {"cut off", WithService(Service(kIP1, "/ip")).substr(0, 330), "192.168.1.1|5000|/ip"},
        {"document type",
         "<!DOCTYPE r [<!ENTITY e '/bad'><!ENTITY f SYSTEM 'file:///etc/passwd'>]>" +
             WithService(Service(kIP1, "/ip")),
         "192.168.1.1|5000|/ip"},
        {"a zero byte",
         WithService("<modelName>a" + std::string(1, '\0') + "b</modelName>" + Service(kIP1, "/ip")),
         "192.168.1.1|5000|/ip"},
        {"numeric entities", WithService(Service(kIP1, "&#47;i&#x70;")), "192.168.1.1|5000|/ip"},
        {"junk behind the root", WithService(Service(kIP1, "/ip")) + "</root><more attr></html>",
         "192.168.1.1|5000|/ip"},

        {"an unsendable port", WithService(Service(kIP1, "http://192.168.1.1:0/ip")), "none"},
        {"no service that maps ports",
         WithService(Service("urn:schemas-upnp-org:service:Layer3Forwarding:1", "/x")), "none"},
        {"a service type for a device", WithService("", "", kIP1), "none"},
        {"nothing", "", "none"},
        {"no XML", "404 not found", "none"},
    };
    for (const auto& row : kRows) {
        const auto root = Described(ModernDialect(), row.document, row.location);
        EXPECT_EQ(ControlAddress(ModernDialect().FindConnectionService(*root)), row.control) << row.why;
        EXPECT_TRUE(root->DiscoverComplete() || std::string(row.control) == "none") << row.why;
    }
}

TEST(Description, TextOfAnyEncodingIsRead)
{
    const std::string name = "<root><device><friendlyName>";
    const std::string end = "</friendlyName></device></root>";
    std::string wide("\xFF\xFE", 2);
    for (const char c : name + "\xE9" + end)
        wide += std::string{c, '\0'};
    const struct
    {
        std::string document;
        const wchar_t* friendlyName;
    } kRows[] = {
        {"<?xml version='1.0' encoding='utf-8'?>" + name + "caf\xC3\xA9" + end, L"caf\u00E9"},
        {"<?xml version='1.0' encoding='iso-8859-1'?>" + name + "caf\xE9" + end, L"caf\u00E9"},
        {"<?xml version='1.0' encoding='utf-8'?>" + name + "caf\xE9" + end, L"caf\u00E9"},
        {"<?xml version='1.0' encoding='iso-8859-1'?>" + name + "caf\xC3\xA9" + end, L"caf\u00E9"},
        {name + "<![CDATA[<a> & b]]> &lt;c&gt;" + end, L"<a> & b <c>"},
        {wide, L"\u00E9"},
    };
    for (const auto& row : kRows)
        EXPECT_STREQ(Described(ModernDialect(), row.document)->GetFriendlyName(), row.friendlyName)
            << row.document;
}

TEST(Description, ClassicControlAddressesFallBackInOrder)
{
    const struct
    {
        const char* urlBase;
        const char* scpd;
        const char* control;
        const char* address;
    } kRows[] = {
        {"http://10.0.0.2:81/base", "http://10.0.0.3:82/s", "http://10.0.0.1:2869/ctl", "10.0.0.1|2869|/ctl"},
        {"http://10.0.0.2:81/base", "http://10.0.0.3:82/s", "/ctl", "10.0.0.2|81|/ctl"},
        {"", "http://10.0.0.3:82/s", "ctl", "10.0.0.3|82|ctl"},
        {"/base", "/s", "/ctl", "192.168.1.1|5000|/ctl"},
        {"", "", "", "192.168.1.1|5000|"},
    };
    for (const auto& row : kRows) {
        const std::string document =
            "<URLBase>" + std::string(row.urlBase) + "</URLBase>\n<device>\n<serviceList>\n<service>\n" +
            "<serviceType>" + kIP1 + "</serviceType>\n<SCPDURL>" + row.scpd + "</SCPDURL>\n<controlURL>" +
            row.control + "</controlURL>\n</service>\n</serviceList>\n</device>\n";
        EXPECT_EQ(ControlAddress(Described(ClassicDialect(), document)->FindConnectionService()),
                  row.address);
    }
}

/// A network of one record, which writes down its events.
class DescriptionEvents : public testing::TestWithParam<int>
{
protected:
    DescriptionEvents() : m_Network(std::make_unique<CUPnPNetwork>(&Record, this, GetParam())) {}

    static void Record(void* context, unsigned int code, CUPnPObject* object)
    {
        auto& self = *static_cast<DescriptionEvents*>(context);
        self.m_Events += std::to_string(code) + ShortType(*object) + " ";
        if (self.m_DeleteAt == self.m_Events)
            self.m_Root.reset();
    }

    void Read(const std::string& document)
    {
        m_Root.reset(MakeRecord(m_Network.get(), {.location = "http://192.168.1.1/d"}));
        m_Network->Dialect().ReadDescription(*m_Root, document);
    }

    NoAdapters m_NoAdapters;
    std::unique_ptr<CUPnPNetwork> m_Network;
    std::unique_ptr<CUPnPDevice> m_Root;
    std::string m_Events;
    std::string m_DeleteAt = "never";
};

TEST_P(DescriptionEvents, EachNodeIsReportedBehindWhatItContains)
{
    Read(Writer(Form()).Gateway());
    EXPECT_EQ(m_Events,
              "2Layer3Forwarding 2WANPPPConnection 2WANIPConnection 0WANConnectionDevice 0WANDevice "
              "0InternetGatewayDevice ");
    m_Events.clear();
    Read("");
    EXPECT_EQ(m_Events, "0 ");
}

TEST_P(DescriptionEvents, TheRootMayBeDeletedInAnyOfThem)
{
    const std::string all[] = {"2Layer3Forwarding ",    "2WANPPPConnection ", "2WANIPConnection ",
                               "0WANConnectionDevice ", "0WANDevice ",        "0InternetGatewayDevice "};
    m_DeleteAt.clear();
    for (const std::string& event : all) {
        m_DeleteAt += event;
        m_Events.clear();
        Read(Writer(Form()).Gateway());
        EXPECT_EQ(m_Root, nullptr);
        EXPECT_EQ(m_Events, m_DeleteAt) << "nothing follows";
    }
}

INSTANTIATE_TEST_SUITE_P(Dialects, DescriptionEvents, testing::Values(UPnPDialectClassic, UPnPDialectModern));

int CountNodes(const CUPnPObject& node)
{
    int count = 0;
    for (const CUPnPObject* child : DescriptionBuilder::ChildrenOf(node))
        count += 1 + CountNodes(*child);
    return count;
}

int DepthOf(const CUPnPObject& node)
{
    int depth = 0;
    for (const CUPnPObject* child : DescriptionBuilder::ChildrenOf(node))
        depth = std::max(depth, 1 + DepthOf(*child));
    return depth;
}

std::string Repeated(const std::string& text, int times)
{
    std::string result;
    for (int i = 0; i < times; ++i)
        result += text;
    return result;
}

TEST(Description, NoDocumentMakesTheTreeDeepOrLarge)
{
    const std::string deep = Repeated("<device>\n<deviceList>\n", 20000);
    const std::string wide = "<device>\n<serviceList>\n" + Repeated("<service>\n</service>\n", 20000);
    for (const UPnPDialect* dialect : {&ClassicDialect(), &ModernDialect()}) {
        EXPECT_LE(DepthOf(*Described(*dialect, deep)), tavronet::kMaxDeviceDepth);
        EXPECT_EQ(CountNodes(*Described(*dialect, wide)), tavronet::kMaxDescriptionNodes);
    }
    // Nesting and markup without end, well-formed and not.
    const int many = 100000;
    for (const std::string& document :
         {Repeated("<a>", many) + Repeated("</a>", many), Repeated("<a>", many), Repeated("<a><!--", many),
          Repeated("</a>", many), Repeated("<![CDATA[", many), Repeated("<a b='", many), Repeated("<", many),
          Repeated("<!DOCTYPE [", many),
          "<device>" + Repeated("<x:y>", many) + "<friendlyName>z</friendlyName>"})
        EXPECT_EQ(CountNodes(*Described(ModernDialect(), document)), 0);
}

TEST(Description, ATypeTextDoesNotMakeAServiceADevice)
{
    const auto root =
        Described(ClassicDialect(), "<device>\n<deviceType>urn:schemas-upnp-org:device:A:1</deviceType>\n"
                                    "<serviceList>\n<service>\n<serviceType>urn:schemas-upnp-org:device:B:1"
                                    "</serviceType>\n</service>\n</serviceList>\n<deviceList>\n<device>\n"
                                    "<deviceType>" +
                                        kIP1 + "</deviceType>\n</device>\n</deviceList>\n</device>\n");
    EXPECT_EQ(CountNodes(*root), 2);
    EXPECT_EQ(root->FindConnectionService(), nullptr);
    EXPECT_EQ(root->FindService("urn:schemas-upnp-org:device:B:1"), nullptr);
    EXPECT_FALSE(root->MatchingDevice("uuid:other"));
}

TEST(Description, ServicesAreFoundByTheirExactTypeInDocumentOrder)
{
    const auto root = Described(ClassicDialect(), Writer(Form()).Gateway());
    EXPECT_EQ(ControlAddress(root->FindService(kPPP1.c_str())), "192.168.1.1|5000|/ppp");
    EXPECT_EQ(root->FindService("urn:schemas-upnp-org:service:wanpppconnection:1"), nullptr);
    EXPECT_EQ(root->FindService(""), nullptr);
}

} // namespace
