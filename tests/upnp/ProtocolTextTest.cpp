// The readers of network text, and what the modern dialect writes.

#include "tavronet/upnp/ProtocolText.h"

#include "GatewayRecords.h"
#include "tavronet/upnp/UPnPDialect.h"

namespace
{

TEST(ProtocolText, HeadersAreFoundByTheirKeyAtTheStartOfALine)
{
    const std::tuple<const char*, const char*, const char*, const char*> rows[] = {
        {"HTTP/1.1 200 OK\r\nST: urn:x\r\n\r\n", "\r\nst:", "urn:x", "any letter case"},
        {"ST: urn:x\r\nEXT:\r\n\r\n", "\r\nst:", "before", "the first line has no break in front"},
        {"HTTP/1.1 200 OK\r\n\r\nX\r\nST: urn:x\r\n", "\r\nst:", "before", "only in the body"},
        {"NOTIFY\r\nNTS: ssdp:alive\r\n\r\n", "\r\nnt:", "before", "the colon belongs to the key"},
        {"NOTIFY\r\nNT:\t Up:Case \t\r\nX: y", "\r\nnt:", "Up:Case", "trimmed, case kept"},
        {"NOTIFY\r\nNT: one\nST: two\r\n", "\r\nnt:", "one\nST: two", "a lone LF ends nothing"},
        {"a UUID:7::b", "uuid:", "UUID:7::b", "value with its key, any case"},
        {nullptr, "\r\next:", "before", "no text"},
    };
    for (const auto& [message, key, expected, why] : rows) {
        CString value(L"before");
        const bool skipKey = *key == '\r';
        EXPECT_EQ(CUPnPObject::ParseHTTP(message, key, value, skipKey), std::string(expected) != "before")
            << why;
        EXPECT_EQ(Text(value), expected) << why;
    }
}

TEST(ProtocolText, TimeToReadADocumentGrowsWithItsSizeOnly)
{
    // Looking for what is not there, anew for every line, takes minutes here.
    for (const std::string part : {"<a>1</a>", "<a>1</a>\n", "x\r"}) {
        std::string text;
        while (text.size() < (1 << 20))
            text += part;
        const auto start = std::chrono::steady_clock::now();
        tavronet::DocumentLines document(text.c_str(), static_cast<int>(text.size()));
        while (document.Next()) {
        }
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << part;
    }
}

TEST(ModernDialect, RequestsEscapeTextsAndBracketAddresses)
{
    const CString host(L"fe80::1%eth0"), path(L"/ctl"), type(L"urn:x:service:Y:2"), action(L"Add");
    const std::vector<CString> params = {L"Text", L"a<b>&\"c\"\x01 \u00E9", L"Empty", L""};
    const std::string request =
        tavronet::ModernDialect().ActionRequest({host, 5000, path, type, action, params});
    EXPECT_EQ(request.substr(0, request.find("CONTENT-TYPE")),
              "POST /ctl HTTP/1.1\r\nHOST: [fe80::1]:5000\r\nSOAPACTION: \"urn:x:service:Y:2#Add\"\r\n");
    EXPECT_NE(request.find("<Text>a&lt;b&gt;&amp;&quot;c&quot;? \xC3\xA9</Text>\r\n"), std::string::npos);
    const std::string length = std::to_string(request.size() - request.find("\r\n\r\n") - 4);
    EXPECT_NE(request.find("Content-Length: " + length + "\r\n"), std::string::npos);
    EXPECT_EQ(tavronet::ModernDialect().DescriptionRequest(host, 5000, L"/d"),
              "GET /d HTTP/1.1\r\nHost: [fe80::1]:5000\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(tavronet::ModernDialect().DescriptionRequest(L"10.0.0.1", 80, L"/d"),
              "GET /d HTTP/1.1\r\nHost: 10.0.0.1\r\nConnection: close\r\n\r\n");
}

} // namespace
