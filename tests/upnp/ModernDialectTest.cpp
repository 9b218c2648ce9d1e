// The modern dialect on the wire: responses, answers, requests and searches.

#include "tavronet/upnp/UPnPDialect.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

#include "tavronet/platform/TextConversion.h"

namespace
{

const tavronet::UPnPDialect& Modern()
{
    return tavronet::ModernDialect();
}

std::string Text(const CString& wide)
{
    return std::string(Narrow(wide).View());
}

/// Receives a response a byte at a time. @return "body" when complete, "body..." when only the close ended it.
std::string Received(const std::string& response)
{
    constexpr std::size_t npos = std::string_view::npos;
    std::size_t body = npos, searched = 0;
    int announced = -1;
    bool complete = false;
    std::string_view message;
    for (std::size_t size = 1; size <= response.size() && !complete; ++size) {
        message = std::string_view(response).substr(0, size);
        if (body == npos) {
            body = Modern().FindBody(message, searched);
            searched = size < 3 ? 0 : size - 3;
            if (body == npos)
                continue;
            announced = Modern().AnnouncedLength(message.substr(0, body));
        }
        complete = Modern().Complete(message, body, announced);
    }
    if (body == npos)
        return "no body";
    std::string storage;
    return std::string(Modern().DecodeBody(message, body, announced, storage)) + (complete ? "" : "...");
}

TEST(ModernDialect, ResponsesAreFramedAsDevicesFrameThem)
{
    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const struct
    {
        std::string response;
        const char* body;
    } kRows[] = {
        {ok + "Content-Length: 2\r\n\r\nabc", "ab"}, // complete with its second byte
        {ok + "content-length : 2\r\n\r\nabc", "ab"},
        {ok + "Content Length: 2\r\n\r\nabc", "ab"},
        {"HTTP/1.0 200 OK\nContent-Length: 2\n\nabc", "ab"},
        {"HTTP/1.0 200 OK\r\nContent-Length: 2\n\r\nabc", "ab"},
        {ok + "Content-Length: 0\r\n\r\n", ""},
        {ok + "Content-Length: 9\r\n\r\nabc", "abc..."},
        {ok + "Content-Length: -1\r\n\r\nabc", "abc..."},
        {ok + "Content-Length: abc\r\n\r\nabc", "abc..."},
        {ok + "\r\nabc", "abc..."},
        {ok + "X: y", "no body"},
        {"HTTP/1.1 100 Continue\r\n\r\n" + ok + "Content-Length: 1\r\n\r\na", "a"},
        {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 102 Wait\r\n\r\n" + ok + "Content-Length: 1\r\n\r\na", "a"},
        {"HTTP/1.1 100 Continue\r\nContent-Length: 0\r\n", "no body"},
        {ok + "Transfer-Encoding: chunked\r\n\r\n2\r\nab\r\n1;x=y\r\nc\r\n0\r\n\r\n", "abc"},
        {ok + "TRANSFER-ENCODING: Chunked\r\nContent-Length: 1\r\n\r\n2\nab\n0\n", "ab"},
        {ok + "Transfer-Encoding: chunked\r\n\r\n000a\r\n0123456789\r\n0\r\n", "0123456789"},
        {ok + "Transfer-Encoding: chunked\r\n\r\n5\r\nab", "ab..."},
        {ok + "Transfer-Encoding: chunked\r\n\r\n2\r\nab\r\nzz\r\n", "ab..."},
        {ok + "Transfer-Encoding: chunked\r\n\r\n<root/>", "<root/>..."},
        {ok + "Transfer-Encoding: chunked\r\n\r\nffffffffffffffff\r\nab", "ab..."},
        {ok + "Transfer-Encoding: chunked\r\n\r\nfffffffffffffffff\r\nab", "fffffffffffffffff\r\nab..."},
    };
    for (const auto& row : kRows)
        EXPECT_EQ(Received(row.response), row.body) << row.response;

    const std::string interim = "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 500 No\r\n\r\n";
    EXPECT_EQ(Modern().FindStatus(interim), interim.rfind(" 500"));
}

TEST(ModernDialect, AnswersAreReadWhateverTheirPrefixes)
{
    const std::string envelope = "<?xml version='1.0'?><s:Envelope xmlns:s='x'><s:Body>";
    const std::string fault =
        "<s:Fault><faultstring>UPnPError</faultstring><detail><e:UPnPError><E:errorCode> 718\n</E:errorCode>"
        "<e:errorDescription>Conflict &amp; more</e:errorDescription></e:UPnPError></detail></s:Fault>";
    const struct
    {
        int status;
        std::string body;
        const char* values; // of A, B
        int statusAfter;
        const char* error;
    } kRows[] = {
        {200, envelope + "<m:R><m:a>1</m:a><B>\n<![CDATA[<2>]]></B></m:R></s:Body></s:Envelope>", "1 <2>",
         200, ""},
        {200, envelope + "<R><A/><A> </A><A>3</A><A>4</A></R></s:Body></s:Envelope>", "3 sent", 200, ""},
        {200, envelope + "<R><A>5</A><b>6", "5 6", 200, ""},
        {200, envelope + "<R><A>5 & 6</A></R></Body>", "5 & 6 sent", 200, ""},
        {200, "", "sent sent", 200, ""},
        {500, envelope + fault + "</s:Body></s:Envelope>", "sent sent", 500, "718 Conflict & more"},
        {200, envelope + fault + "</s:Body></s:Envelope>", "sent sent", 500, "718 Conflict & more"},
        {401, "<html><a>1</a></html>", "sent sent", 401, ""},
    };
    for (const auto& row : kRows) {
        tavronet::ActionAnswer answer;
        answer.status = row.status;
        answer.results = {L"A", L"sent", L"B", L"sent"};
        Modern().ReadAnswer(answer, row.body);
        EXPECT_EQ(Text(answer.results[1]) + " " + Text(answer.results[3]), row.values) << row.body;
        EXPECT_EQ(answer.status, row.statusAfter) << row.body;
        const std::string error = Text(answer.errorCode) + (answer.errorCode.IsEmpty() ? "" : " ");
        EXPECT_EQ(error + Text(answer.errorDescription), row.error) << row.body;
    }
}

TEST(ModernDialect, RequestsEscapeTextsAndBracketAddresses)
{
    const CString host(L"fe80::1%eth0"), path(L"/ctl"), type(L"urn:x:service:Y:2"), action(L"Add");
    const std::vector<CString> params = {L"Text", L"a<b>&\"c\"\x01 \u00E9", L"Empty", L""};
    const std::string request = Modern().ActionRequest({host, 5000, path, type, action, params});
    EXPECT_EQ(request.substr(0, request.find("CONTENT-TYPE")),
              "POST /ctl HTTP/1.1\r\nHOST: [fe80::1]:5000\r\nSOAPACTION: \"urn:x:service:Y:2#Add\"\r\n");
    EXPECT_NE(request.find("<Text>a&lt;b&gt;&amp;&quot;c&quot;? \xC3\xA9</Text>\r\n"), std::string::npos);
    EXPECT_NE(request.find("<Empty />"), std::string::npos);
    const std::size_t body = request.find("\r\n\r\n") + 4;
    EXPECT_NE(request.find("Content-Length: " + std::to_string(request.size() - body) + "\r\n"),
              std::string::npos);

    EXPECT_EQ(Modern().DescriptionRequest(host, 5000, L"/d"),
              "GET /d HTTP/1.1\r\nHost: [fe80::1]:5000\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(Modern().DescriptionRequest(L"10.0.0.1", 80, L"/d"),
              "GET /d HTTP/1.1\r\nHost: 10.0.0.1\r\nConnection: close\r\n\r\n");
}

TEST(ModernDialect, SearchesAndListensForGatewaysOfEveryVersion)
{
    std::string targets;
    for (const std::string& request : Modern().SearchRequests("ff02::c", 1900)) {
        EXPECT_TRUE(request.starts_with("M-SEARCH * HTTP/1.1\r\nHOST: [ff02::c]:1900\r\n")) << request;
        EXPECT_TRUE(request.ends_with("\r\n\r\n")) << request;
        targets += request.substr(request.find("ST: ") + 4);
    }
    EXPECT_NE(targets.find("urn:schemas-upnp-org:device:InternetGatewayDevice:2"), std::string::npos);
    EXPECT_NE(targets.find("urn:schemas-upnp-org:device:WANConnectionDevice:1"), std::string::npos);

    EXPECT_TRUE(Modern().WantsAnnouncement(L"urn:schemas-upnp-org:device:InternetGatewayDevice:2"));
    EXPECT_TRUE(Modern().WantsAnnouncement(L"urn:dslforum-org:service:WANPPPConnection:1"));
    EXPECT_FALSE(Modern().WantsAnnouncement(L"urn:schemas-upnp-org:device:MediaServer:1"));
}

} // namespace
