#include "tavronet/net/AddressText.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netdb.h>

#include <cstring>
#include <string>
#include <tuple>

#include "tavronet/platform/LastError.h"
#include "tavronet/platform/TextConversion.h"

using tavronet::WideText;

TEST(AddressText, ParsesNumericTextOfTheFamilyOnly)
{
    const std::tuple<const char*, int, const char*> rows[] = {
        {"10.1.2.3", AF_INET6, ""},
        {"10.1.2.3", 23, ""}, // no family here
        {"2001:DB8::00A", AF_UNSPEC, "2001:db8::a"},
        {"", AF_UNSPEC, "0.0.0.0"},
        {nullptr, AF_INET6, "::"},
        {"10.1", AF_UNSPEC, "10.0.0.1"},
        {"0x7f.1", AF_UNSPEC, "127.0.0.1"},
        {"::ffff:1.2.3.4", AF_UNSPEC, "::ffff:1.2.3.4"},
        {"fd00::1%1", AF_UNSPEC, "fd00::1%1"},
        {"localhost", AF_UNSPEC, ""}, // names never resolve
        {"1.2.3.4 ", AF_UNSPEC, ""},
        {"\xC3\xBC.1.2.3", AF_UNSPEC, ""},
    };
    for (const auto& [host, family, expected] : rows) {
        const bool isAddress = *expected != '\0';
        sockaddr_storage_xp record, again;
        std::memset(&record, 0x55, sizeof record);
        std::memset(&again, isAddress ? 0xAA : 0x55, sizeof again);
        int length = 77;
        WSASetLastError(77);
        EXPECT_EQ(GetSockAddr(80, host, record, length, family), isAddress) << host;
        EXPECT_EQ(WSAGetLastError() == 0, isAddress) << host << ": the outcome is the last error";
        EXPECT_EQ(length == 77, !isAddress) << host;
        EXPECT_EQ(isAddress ? GetIP(record) : L"", CStringW(expected));
        EXPECT_EQ(GetSockAddr(80, WideText(host), again, length, family), isAddress) << host;
        EXPECT_EQ(std::memcmp(&record, &again, sizeof record), 0) << host << ": whatever was there";
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
    EXPECT_EQ(GetIP(record), CStringW(text.c_str()));
    EXPECT_EQ(AddressFamily(text.c_str()), AF_INET6) << "what is printed parses";
}

TEST(AddressText, ResolverListsAreForAnySocketTypeAndRealPortsOnly)
{
    const std::tuple<UINT, const char*, int, int> rows[] = {
        {1900, "10.0.0.1", SOCK_DGRAM, 0},
        {65536, "10.0.0.1", SOCK_STREAM, WSATYPE_NOT_FOUND}, // would be cut to 0
        {80, "localhost", SOCK_STREAM, WSAHOST_NOT_FOUND},
    };
    for (const auto& [port, host, type, error] : rows) {
        addrinfo* const list = GetAddrInfo(port, host, AF_UNSPEC, type);
        EXPECT_EQ(WSAGetLastError(), error) << port;
        ASSERT_EQ(list == nullptr, error != 0) << port;
        EXPECT_TRUE(list == nullptr || (list->ai_socktype == type && list->ai_next == nullptr));
        if (list != nullptr)
            freeaddrinfo(list);
    }
}

TEST(AddressText, BareAddressPointsIntoTheRecord)
{
    sockaddr_storage_xp record;
    int length = 0, count = 0, family = 0;
    const char* address = nullptr;
    EXPECT_TRUE(INetAddr("::1", record, length, address, count, family));
    EXPECT_EQ(address, reinterpret_cast<const char*>(&record) + 8);
    EXPECT_EQ(count, 16);
}

TEST(AddressText, ClassifiesWildcardAndLoopback)
{
    // The third: '0' the wildcard, '1' loopback, ' ' neither.
    const std::tuple<const char*, int, char> rows[] = {
        {nullptr, AF_INET, '0'}, {"0.0.0.0", AF_INET, '0'}, {"0:0:0:0:0:0:0:0", AF_INET6, '0'},
        {"127.1", AF_INET, '1'}, {"::1%1", AF_INET6, '1'},  {"::ffff:127.0.0.1", AF_INET6, ' '},
        {"localhost", 0, ' '},
    };
    for (const auto& [host, family, is] : rows) {
        EXPECT_EQ(AddressFamily(host), family) << host;
        EXPECT_EQ(IsAllIPv4(host), is == '0' && family == AF_INET) << host;
        EXPECT_EQ(IsAllIPv6(WideText(host)), is == '0' && family == AF_INET6) << host;
        EXPECT_EQ(IsAllIP(host), is == '0') << host;
        EXPECT_EQ(IsLoopbackIPv4(WideText(host)), is == '1' && family == AF_INET) << host;
        EXPECT_EQ(IsLoopbackIPv6(host), is == '1' && family == AF_INET6) << host;
        EXPECT_EQ(IsLoopbackIP(WideText(host)), is == '1') << host;
    }
}

TEST(AddressText, ExpandsOneGapOfIPv6Text)
{
    const std::pair<const wchar_t*, const wchar_t*> rows[] = {
        {L"::", L"0:0:0:0:0:0:0:0"},
        {L"1:2:3::5:6:7:8", L"1:2:3:0:5:6:7:8"},
        {L"::ffff:1.2.3.4", L"0:0:0:0:0:0:ffff:1.2.3.4"}, // a dotted tail counts as one group
        {L"1::2:", L"1:0:0:0:0:0:0:0"},                   // a closing colon ends the search at once
        {L"1:::2", L"1:0:0:0:0:0:0:2"},                   // a gap and a colon
        {L":1::2", L"0:0:0:0:0:0:0:2"},         // text before the gap is not taken when a colon leads
        {L"a:b:c:d:e:f::", L"a:b:c:d:e:f:0:0"}, // seven colons are the most
        {L"1:2:3:4:5:6:7::", L"1:2:3:4:5:6:7::"},
        {L"10.0.0.1", L"10.0.0.1"},
    };
    for (const auto& [given, expected] : rows) {
        CStringW text(given);
        EXPECT_EQ(ExpandIPv6(text), expected);
    }
}
