#include "tavronet/upnp/ProtocolText.h"

#include <chrono>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

#include "tavronet/upnp/UPnPObject.h"

namespace
{

/// Shows the text members that only nodes may call.
struct TextNode : CUPnPObject
{
    using CUPnPObject::GetAddrFromURL;
    using CUPnPObject::GetBufferString;
    using CUPnPObject::GetPathFromURL;
    using CUPnPObject::GetPortFromURL;
    using CUPnPObject::GetVariable;
};

std::string Text(const CString& wide)
{
    return std::string(Narrow(wide).View());
}

TEST(ProtocolText, HeadersAreFoundByTheirKeyAtTheStartOfALine)
{
    const struct
    {
        const char* message;
        const char* key;
        bool skipKey;
        const char* value; // null: not found
        const char* why;
    } kRows[] = {
        {"HTTP/1.1 200 OK\r\nST: urn:x\r\n\r\n", "\r\nst:", true, "urn:x", "any letter case"},
        {"ST: urn:x\r\nEXT:\r\n\r\n", "\r\nst:", true, nullptr, "the first line has no break in front"},
        {"HTTP/1.1 200 OK\r\nA: 1\r\n\r\nX\r\nST: urn:x\r\n", "\r\nst:", true, nullptr, "only in the body"},
        {"NOTIFY\r\nNTS: ssdp:alive\r\n\r\n", "\r\nnt:", true, nullptr, "the colon belongs to the key"},
        {"NOTIFY\r\nNT:\t Up:Case \t\r\nX: y", "\r\nnt:", true, "Up:Case", "trimmed, case kept"},
        {"NOTIFY\r\nNT: one\nST: two\r\n", "\r\nnt:", true, "one\nST: two", "a lone LF ends nothing"},
        {"NOTIFY\r\nNT: last", "\r\nnt:", true, "last", "ends with the text"},
        {"a UUID:7::b", "uuid:", false, "UUID:7::b", "value with its key, any case"},
        {"x\r\next:\r\n\r\n", "\r\next:", true, "", "present and empty"},
        {"", "\r\next:", true, nullptr, "nothing there"},
        {nullptr, "\r\next:", true, nullptr, "no text"},
    };
    for (const auto& row : kRows) {
        CString value(L"before");
        const bool found = CUPnPObject::ParseHTTP(row.message, row.key, value, row.skipKey);
        EXPECT_EQ(found, row.value != nullptr) << row.why;
        EXPECT_EQ(Text(value), row.value != nullptr ? row.value : "before") << row.why;
    }
}

TEST(ProtocolText, ValuesStandBehindAnEqualsSign)
{
    const struct
    {
        const char* text;
        const char* asText; // null: not found
        int number;
        bool isNumber;
    } kRows[] = {
        {"max-age = 1800", "1800", 1800, true},
        {"MAX-AGE=1800 ", "1800", 1800, true},
        {"max-age=1800\r\nx", "1800", 1800, true},
        {"max-age=1800, no-cache", "1800,", 1800, true},
        {"max-age=1800,no-cache", "1800,no-cache", 1800, true},
        {"max-age=-5", "-5", -5, true},
        {"max-age=abc", "abc", 0, false},
        {"max-age=+", "+", 0, false},
        {"max-age=", "", 0, false},
        {"max-age x=7", "7", 7, true},
        {"max-age=99999999999", "99999999999", 2147483647, true},
        {"max-age=4294967295", "4294967295", 2147483647, true},
        {"no-cache", nullptr, 99, false},
        {"max-age 1800", nullptr, 99, false},
    };
    for (const auto& row : kRows) {
        CString text(L"before");
        EXPECT_EQ(CUPnPObject::ParseValue(row.text, "max-age", text), row.asText != nullptr) << row.text;
        EXPECT_EQ(Text(text), row.asText != nullptr ? row.asText : "before") << row.text;
        int number = 99;
        EXPECT_EQ(CUPnPObject::ParseValue(row.text, "max-age", number), row.isNumber) << row.text;
        EXPECT_EQ(number, row.number) << row.text;
    }
}

TEST(ProtocolText, ElementsOpenAndCloseOnOneLine)
{
    const struct
    {
        const char* line;
        const char* name;
        const char* value; // null: unchanged
    } kRows[] = {
        {"<controlURL>/ctl</controlURL>", "controlurl", "/ctl"},
        {"<controlURL/>", "controlurl", nullptr},
        {"<UDN dt=\"x\">uuid:1</UDN>", "udn", "uuid:1"},
        {"<udnx>1</udnx><udn>2</udn>", "udn",
         "1</udnx><udn>2"}, // a longer name opens it, only the exact one closes
        {"</udn><udn>1", "udn", nullptr},
        {"<udn></udn>", "udn", ""},
        {"<udn\r\n>\r\n\n a b \r\r</udn>", "udn", " a b "}, // only line breaks are cut
        {"<udn</udn>", "udn", ""},
        {"text", "udn", nullptr},
    };
    for (const auto& row : kRows) {
        CString line(row.line), value(L"before");
        CString lower = line;
        lower.MakeLower();
        TextNode::GetVariable(value, row.name, line, lower);
        EXPECT_EQ(Text(value), row.value != nullptr ? row.value : "before") << row.line;
    }
}

TEST(ProtocolText, URLsAreTakenApartWithoutFurtherKnowledge)
{
    const struct
    {
        const char* url;
        const char* host;
        UINT port;
        const char* path;
    } kRows[] = {
        {"scheme://192.168.1.1:5000/desc.xml", "192.168.1.1", 5000, "/desc.xml"},
        {"scheme://gateway/igd.xml", "gateway", 80, "/igd.xml"},
        {"scheme://192.168.1.1:5000/ctl/IPConn?x=1", "192.168.1.1", 5000, "/ctl/IPConn?x=1"},
        {"/ctl/IPConn", "", 80, "/ctl/IPConn"},
        {"scheme://192.168.1.1:5000", "192.168.1.1", 5000, ""},
        {"scheme://host:/x", "host", 0, "/x"},
        {"scheme://host/a:b", "host", 0, "/a:b"},
        {"scheme://[fe80::1]:80/x", "[fe80", 0, "/x"},
        {"scheme://host:99999999999/", "host", 2147483647, "/"},
        {"/go?to=scheme://other:7/z", "other", 7, "/z"},
        {"", "", 80, ""},
    };
    for (const auto& row : kRows) {
        EXPECT_EQ(Text(TextNode::GetAddrFromURL(CString(row.url))), row.host) << row.url;
        EXPECT_EQ(TextNode::GetPortFromURL(CString(row.url)), row.port) << row.url;
        EXPECT_EQ(Text(TextNode::GetPathFromURL(CString(row.url))), row.path) << row.url;
    }
}

std::vector<std::string> LinesOf(const std::string& text, int length, bool split)
{
    std::vector<std::string> lines;
    const char* cursor = text.c_str();
    CString line;
    while (TextNode::GetBufferString(line, cursor, length, split))
        lines.push_back(Text(line));
    return lines;
}

TEST(ProtocolText, LinesEndAtBreaksAndClosingTags)
{
    const struct
    {
        std::string text;
        bool split;
        std::vector<std::string> lines;
    } kRows[] = {
        {"a\nb\r\nc", false, {"a\nb", "", "c"}},
        {"a\rb\nc", false, {"a", "b", "c"}},
        {"a\n\rb", false, {"a", "b"}},
        {"\r\n\r\n", false, {"", ""}},
        {"<a>1</a><b>2</b>\r\n", true, {"<a>1</a>", "<b>2</b>", ""}},
        {"<a>1</a><b>2</b>\r\n", false, {"<a>1</a><b>2</b>"}},
        {"<a>1</a\r\n><b>", true, {"<a>1</a\r\n>", "<b>"}}, // the tag's end may lie behind the break
        {"<a>1</a\r\nb", true, {"<a>1</a", "b"}},
        {std::string("a\r\nb\0c\r\nd", 9), false, {"a", "b"}},
    };
    for (const auto& row : kRows)
        EXPECT_EQ(LinesOf(row.text, static_cast<int>(row.text.size()), row.split), row.lines) << row.text;

    EXPECT_TRUE(LinesOf("text", 0, false).empty());
    EXPECT_EQ(LinesOf("text", 2, false), std::vector<std::string>{"te"});
}

/// The rules as they read, without memory.
std::vector<std::string> LinesByTheRules(const std::string& text)
{
    std::vector<std::string> lines;
    std::size_t cursor = 0;
    while (cursor < text.size()) {
        const std::size_t cr = text.find('\r', cursor), lf = text.find('\n', cursor),
                          none = std::string::npos;
        std::size_t end = cr, skip = 1;
        if (cr == none)
            end = lf == none ? text.size() : lf, skip = lf == none ? 0 : 1;
        else if (lf == cr + 1 || lf + 1 == cr)
            end = std::min(cr, lf), skip = 2;
        const std::size_t closing = text.find("</", cursor);
        const std::size_t tagEnd = closing < end ? text.find('>', closing) : none;
        if (tagEnd != none)
            end = tagEnd + 1, skip = 0;
        lines.push_back(text.substr(cursor, end - cursor));
        cursor = end + skip;
    }
    return lines;
}

TEST(ProtocolText, RememberingWhatLiesAheadChangesNoLine)
{
    std::mt19937 random(1);
    for (int round = 0; round < 3000; ++round) {
        std::string text;
        for (std::size_t i = random() % 40; i > 0; --i)
            text += "\r\n<>/a"[random() % 6];

        std::vector<std::string> lines;
        tavronet::DocumentLines document(text.c_str(), static_cast<int>(text.size()));
        while (document.Next()) {
            if (random() % 4 == 0) // a line given back comes again
            {
                document.Unread();
                ASSERT_TRUE(document.Next());
            }
            lines.emplace_back(document.RawLine());
        }
        ASSERT_EQ(lines, LinesByTheRules(text)) << text;
    }
}

TEST(ProtocolText, TimeToReadADocumentGrowsWithItsSizeOnly)
{
    // Looking for what is not there, anew for every line, takes minutes here.
    const std::string unit[] = {"<a>1</a>", "<a>1</a>\n", "x\r"};
    for (const std::string& part : unit) {
        std::string text;
        while (text.size() < (1 << 20))
            text += part;
        const auto start = std::chrono::steady_clock::now();
        std::size_t lines = 0;
        tavronet::DocumentLines document(text.c_str(), static_cast<int>(text.size()));
        while (document.Next())
            ++lines;
        EXPECT_GE(lines, text.size() / 9);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << part;
    }
}

} // namespace
