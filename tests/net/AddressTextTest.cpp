#include "tavronet/net/AddressText.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cstring>
#include <string>

#include "tavronet/platform/LastError.h"
#include "tavronet/platform/TextConversion.h"

namespace
{

constexpr const char* kNoText = nullptr;

TEST(AddressText, ParsesNumericTextOfTheFamilyOnly)
{
    const struct
    {
        const char* host;
        int family;
        int expectedFamily;
        const char* expectedText;
        const char* why;
    } rows[] = {
        {"10.1.2.3", AF_UNSPEC, AF_INET, "10.1.2.3", "IPv4"},
        {"10.1.2.3", AF_INET, AF_INET, "10.1.2.3", "the family asked for"},
        {"10.1.2.3", AF_INET6, 0, "", "the other family"},
        {"::1", AF_INET, 0, "", "the other family"},
        {"2001:DB8::00A", AF_UNSPEC, AF_INET6, "2001:db8::a", "IPv6, printed in its short form"},
        {"", AF_UNSPEC, AF_INET, "0.0.0.0", "empty text is the IPv4 wildcard"},
        {kNoText, AF_UNSPEC, AF_INET, "0.0.0.0", "so is no text"},
        {kNoText, AF_INET6, AF_INET6, "::", "the wildcard of the family asked for"},
        {"10.1", AF_UNSPEC, AF_INET, "10.0.0.1", "short form"},
        {"010.0.0.1", AF_UNSPEC, AF_INET, "8.0.0.1", "octal"},
        {"0x7f.1", AF_UNSPEC, AF_INET, "127.0.0.1", "hexadecimal"},
        {"::ffff:1.2.3.4", AF_UNSPEC, AF_INET6, "::ffff:1.2.3.4", "dotted tail"},
        {"fd00::1%1", AF_UNSPEC, AF_INET6, "fd00::1%1", "scope by number"},
        {"localhost", AF_UNSPEC, 0, "", "names never resolve"},
        {"[::1]", AF_UNSPEC, 0, "", "brackets"},
        {"1.2.3.4:80", AF_UNSPEC, 0, "", "the port is no part of the text"},
        {"1.2.3.4 ", AF_UNSPEC, 0, "", "blank"},
        {"1.2.3.4/24", AF_UNSPEC, 0, "", "prefix"},
        {"1.2.3.256", AF_UNSPEC, 0, "", "octet too large"},
        {"1::2::3", AF_UNSPEC, 0, "", "two gaps"},
        {"::1%no-such-if", AF_UNSPEC, 0, "", "scope by name only behind link-local"},
        {"\xC3\xBC.1.2.3", AF_UNSPEC, 0, "", "no ASCII"},
    };
    for (const auto& row : rows) {
        const bool isAddress = row.expectedFamily != 0;
        sockaddr_storage_xp record;
        std::memset(&record, 0x55, sizeof record);
        const sockaddr_storage_xp before = record;
        int length = 77;
        WSASetLastError(77);
        EXPECT_EQ(GetSockAddr(80, row.host, record, length, row.family), isAddress) << row.why;
        EXPECT_EQ(WSAGetLastError() == 0, isAddress) << row.why << ": the outcome is the last error";
        if (!isAddress) {
            EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0) << row.why;
            EXPECT_EQ(length, 77) << row.why;
            continue;
        }
        EXPECT_EQ(record.ss_family, row.expectedFamily) << row.why;
        EXPECT_EQ(length, row.expectedFamily == AF_INET ? 16 : 28) << row.why;
        EXPECT_EQ(reinterpret_cast<const sockaddr_in*>(&record)->sin_port, htons(80)) << row.why;
        EXPECT_EQ(GetIP(record), CStringW(row.expectedText)) << row.why;

        sockaddr_storage_xp again;
        std::memset(&again, 0xAA, sizeof again);
        GetSockAddr(80, tavronet::WideText(row.host), again, length, row.family);
        EXPECT_EQ(std::memcmp(&record, &again, sizeof record), 0) << row.why << ": equal, whatever was there";
    }
}

TEST(AddressText, LinkLocalTextNamesItsInterface)
{
    char name[IF_NAMESIZE] = {};
    if (if_indextoname(1, name) == nullptr)
        GTEST_SKIP() << "no interface 1";
    const std::string text = std::string("fe80::1%") + name;
    sockaddr_storage_xp record;
    ASSERT_TRUE(GetSockAddr("fe80::1%1", record));
    EXPECT_EQ(reinterpret_cast<const sockaddr_in6*>(&record)->sin6_scope_id, 1U);
    EXPECT_EQ(GetIP(record), CStringW(text.c_str()));
    EXPECT_EQ(AddressFamily(text.c_str()), AF_INET6) << "what is printed parses";
}

TEST(AddressText, ResolverListsAreForAnySocketTypeAndRealPortsOnly)
{
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
        addrinfo* const list = GetAddrInfo(1900, L"10.0.0.1", AF_UNSPEC, type);
        ASSERT_NE(list, nullptr);
        EXPECT_EQ(list->ai_socktype, type);
        EXPECT_EQ(list->ai_next, nullptr);
        freeaddrinfo(list);
    }
    const struct
    {
        UINT port;
        const char* host;
        int error;
        const char* why;
    } rows[] = {
        {65536, "10.0.0.1", WSATYPE_NOT_FOUND, "would be cut to 0"},
        {0xFFFFFFFF, "", WSATYPE_NOT_FOUND, "would be cut to 65535"},
        {80, "localhost", WSAHOST_NOT_FOUND, "a name"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(GetAddrInfo(row.port, row.host, AF_UNSPEC, SOCK_STREAM), nullptr) << row.why;
        EXPECT_EQ(WSAGetLastError(), row.error) << row.why;
    }
}

TEST(AddressText, BareAddressPointsIntoTheRecord)
{
    sockaddr_storage_xp record;
    int length = 0, count = 0, family = 0;
    const char* address = "before";
    EXPECT_TRUE(INetAddr("::1", record, length, address, count, family));
    EXPECT_EQ(address, reinterpret_cast<const char*>(&record) + 8);
    EXPECT_EQ(count, 16);
    EXPECT_EQ(family, AF_INET6);
    EXPECT_EQ(length, 28);

    EXPECT_TRUE(INetAddr("1.2.3.4", record, length, address, count, family));
    EXPECT_EQ(address, reinterpret_cast<const char*>(&record) + 4);
    EXPECT_EQ(count, 4);

    EXPECT_FALSE(INetAddr("host", record, length, address, count, family));
    EXPECT_EQ(address, nullptr);
    EXPECT_EQ(count, 4);
    EXPECT_EQ(family, AF_INET);
}

TEST(AddressText, ClassifiesWildcardAndLoopback)
{
    enum : unsigned
    {
        kAllIPv4 = 1,
        kAllIPv6 = 2,
        kLoopbackIPv4 = 4,
        kLoopbackIPv6 = 8
    };
    const struct
    {
        const char* host;
        int family;
        unsigned is;
        const char* why;
    } rows[] = {
        {"", AF_INET, kAllIPv4, "empty text is 0.0.0.0"},
        {kNoText, AF_INET, kAllIPv4, "so is no text"},
        {"0.0.0.0", AF_INET, kAllIPv4, "IPv4 wildcard"},
        {"::", AF_INET6, kAllIPv6, "IPv6 wildcard"},
        {"0:0:0:0:0:0:0:0", AF_INET6, kAllIPv6, "written out"},
        {"127.0.0.1", AF_INET, kLoopbackIPv4, "loopback"},
        {"127.1", AF_INET, kLoopbackIPv4, "its short form"},
        {"127.0.0.2", AF_INET, 0, "only one address is loopback"},
        {"::1", AF_INET6, kLoopbackIPv6, "loopback"},
        {"::1%1", AF_INET6, kLoopbackIPv6, "whatever its scope"},
        {"::ffff:127.0.0.1", AF_INET6, 0, "a mapped address is neither"},
        {"::ffff:0.0.0.0", AF_INET6, 0, "a mapped address is neither"},
        {"localhost", 0, 0, "a name"},
    };
    for (const auto& row : rows) {
        const tavronet::WideText wide(row.host);
        EXPECT_EQ(AddressFamily(row.host), row.family) << row.why;
        EXPECT_EQ(AddressFamily(wide), row.family) << row.why;
        EXPECT_EQ(IsAllIPv4(row.host), row.is == kAllIPv4) << row.why;
        EXPECT_EQ(IsAllIPv4(wide), row.is == kAllIPv4) << row.why;
        EXPECT_EQ(IsAllIPv6(row.host), row.is == kAllIPv6) << row.why;
        EXPECT_EQ(IsAllIPv6(wide), row.is == kAllIPv6) << row.why;
        EXPECT_EQ(IsAllIP(row.host), (row.is & (kAllIPv4 | kAllIPv6)) != 0) << row.why;
        EXPECT_EQ(IsAllIP(wide), (row.is & (kAllIPv4 | kAllIPv6)) != 0) << row.why;
        EXPECT_EQ(IsLoopbackIPv4(row.host), row.is == kLoopbackIPv4) << row.why;
        EXPECT_EQ(IsLoopbackIPv4(wide), row.is == kLoopbackIPv4) << row.why;
        EXPECT_EQ(IsLoopbackIPv6(row.host), row.is == kLoopbackIPv6) << row.why;
        EXPECT_EQ(IsLoopbackIPv6(wide), row.is == kLoopbackIPv6) << row.why;
        EXPECT_EQ(IsLoopbackIP(row.host), (row.is & (kLoopbackIPv4 | kLoopbackIPv6)) != 0) << row.why;
        EXPECT_EQ(IsLoopbackIP(wide), (row.is & (kLoopbackIPv4 | kLoopbackIPv6)) != 0) << row.why;
    }
}

TEST(AddressText, RecordsOfOtherFamiliesAreNothing)
{
    sockaddr_storage_xp record{};
    const in6_addr none{};
    for (const int family : {AF_UNSPEC, AF_UNIX, 23}) {
        record.ss_family = static_cast<sa_family_t>(family);
        EXPECT_EQ(GetIP(record), L"") << family;
        EXPECT_FALSE(IsAllIP(record) || IsAddress(record, 0) || IsAddress(record, none)) << family;
    }
}

TEST(AddressText, FlippedAddressesOrderAsNumbers)
{
    EXPECT_EQ(Flip(inet_addr(L"10.0.0.1")), 0x0A000001U);
    EXPECT_EQ(Flip(0x01020304U), 0x04030201U);
    EXPECT_EQ(inet_addr(L"10.0.0.1"), ::inet_addr("10.0.0.1"));
    EXPECT_EQ(inet_addr(L"::1"), 0xFFFFFFFFU);
    EXPECT_EQ(inet_addr(static_cast<const wchar_t*>(nullptr)), 0xFFFFFFFFU);
}

TEST(AddressText, ExpandsOneGapOfIPv6Text)
{
    const struct
    {
        const wchar_t* text;
        const wchar_t* expected;
        const char* why;
    } rows[] = {
        {L"fe80::1", L"fe80:0:0:0:0:0:0:1", "in the middle"},
        {L"::1", L"0:0:0:0:0:0:0:1", "in front"},
        {L"fe80::", L"fe80:0:0:0:0:0:0:0", "at the end"},
        {L"::", L"0:0:0:0:0:0:0:0", "nothing else"},
        {L"1:2::3", L"1:2:0:0:0:0:0:3", "groups on both sides"},
        {L"1:2:3::5:6:7:8", L"1:2:3:0:5:6:7:8", "one group missing"},
        {L"::ffff:1.2.3.4", L"0:0:0:0:0:0:ffff:1.2.3.4", "a dotted tail counts as one group"},
        {L"FE80::0a%4", L"FE80:0:0:0:0:0:0:0a%4", "neither padded nor changed in case, scope kept"},
        {L"1::2:", L"1:0:0:0:0:0:0:0", "a closing colon ends the search at once"},
        {L"1:::2", L"1:0:0:0:0:0:0:2", "three colons are one gap and a colon"},
        {L":1::2", L"0:0:0:0:0:0:0:2", "text before the gap is not taken when a colon leads"},
        {L"::1:2:3:4:5:6", L"0:0:1:2:3:4:5:6", "seven colons are the most"},
        {L"a:b:c:d:e:f::", L"a:b:c:d:e:f:0:0", "seven colons are the most"},
        {L"1:2:3:4:5:6:7::", L"1:2:3:4:5:6:7::", "eight colons"},
        {L"1::2::3", L"1::2::3", "two gaps"},
        {L"::::", L"::::", "two gaps"},
        {L"1:2:3:4:5:6:7:8", L"1:2:3:4:5:6:7:8", "no gap"},
        {L"10.0.0.1", L"10.0.0.1", "no gap"},
        {L"", L"", "nothing"},
    };
    for (const auto& row : rows) {
        CStringW text(row.text);
        EXPECT_EQ(&ExpandIPv6(text), &text);
        EXPECT_EQ(text, row.expected) << row.why;
    }
}

} // namespace
