#include <gtest/gtest.h>
#include <netdb.h>

#include <cstring>
#include <tuple>

#include "tavronet/net/AddressRanges.h"
#include "tavronet/net/AddressText.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/TextConversion.h"

using tavronet::WideText;

TEST(AddressText, NumericTextIsParsedPrintedAndClassified)
{
    // The third: '0' the wildcard, '1' loopback, ' ' neither. Names never resolve; what begins with ::ffff is the
    // loopback of neither family; a link-local address prints its interface's name, which parses.
    const std::tuple<const char*, const char*, char> rows[] = {
        {nullptr, "0.0.0.0", '0'},      {"fe80::1%1", "fe80::1%lo", ' '},
        {"::1%1", "::1%1", '1'},        {"fe80::1%lo", "fe80::1%lo", ' '},
        {"localhost", "", ' '},         {"2001:DB8::00A", "2001:db8::a", ' '},
        {"0x7f.1", "127.0.0.1", '1'},   {"::ffff:7f00:1", "::ffff:127.0.0.1", ' '},
        {"0:0:0:0:0:0:0:0", "::", '0'},
    };
    for (const auto& [host, printed, is] : rows) {
        const bool isAddress = *printed != '\0', isIPv6 = std::strchr(printed, ':') != nullptr;
        sockaddr_storage_xp record{};
        int length = 77;
        EXPECT_EQ(GetSockAddr(80, WideText(host), record, length, AF_UNSPEC), isAddress) << host;
        EXPECT_EQ(WSAGetLastError(), isAddress ? 0 : WSAHOST_NOT_FOUND) << host;
        EXPECT_EQ(length == 77, !isAddress) << host << ": outputs stay on failure";
        EXPECT_EQ(GetIP(record), CStringW(printed));
        EXPECT_EQ(AddressFamily(host), isIPv6 ? AF_INET6 : isAddress ? AF_INET : 0) << host;
        EXPECT_EQ(IsAllIPv4(host), is == '0' && !isIPv6) << host;
        EXPECT_EQ(IsAllIPv6(WideText(host)), is == '0' && isIPv6) << host;
        EXPECT_EQ(IsAllIP(host), is == '0') << host;
        EXPECT_EQ(IsLoopbackIPv4(WideText(host)), is == '1' && !isIPv6) << host;
        EXPECT_EQ(IsLoopbackIPv6(host), is == '1' && isIPv6) << host;
        EXPECT_EQ(IsLoopbackIP(WideText(host)), is == '1') << host;
    }
}

TEST(AddressText, RecordsAreForAnySocketTypeAndRealPortsAndShowTheBareAddress)
{
    addrinfo* const list = GetAddrInfo(1900, "10.0.0.1", AF_UNSPEC, SOCK_DGRAM);
    ASSERT_NE(list, nullptr);
    EXPECT_TRUE(list->ai_socktype == SOCK_DGRAM && list->ai_next == nullptr);
    freeaddrinfo(list);
    EXPECT_EQ(GetAddrInfo(65536, "10.0.0.1", AF_UNSPEC, SOCK_STREAM), nullptr) << "it would be cut to 0";
    EXPECT_EQ(WSAGetLastError(), WSATYPE_NOT_FOUND);

    sockaddr_storage_xp record;
    int length = 0, count = 0, family = 0;
    EXPECT_TRUE(GetSockAddr("", record, length, AF_INET6) && GetIP(record) == L"::");
    EXPECT_FALSE(GetSockAddr("10.1", record, length, AF_INET6) || GetSockAddr("10.1", record, length, 23));
    const char* address = nullptr;
    EXPECT_TRUE(INetAddr("::1", record, length, address, count, family) && count == 16);
    EXPECT_EQ(address, reinterpret_cast<const char*>(&record) + 8);
}

TEST(AddressText, ExpandsOneGapOfIPv6Text)
{
    // A closing colon ends the search at once; text before the gap is not taken when a colon leads; with eight
    // colons there is no gap; a dotted tail counts as one group.
    const std::pair<const wchar_t*, const wchar_t*> rows[] = {
        {L"1::2:", L"1:0:0:0:0:0:0:0"}, {L"1:2:3::5:6:7:8", L"1:2:3:0:5:6:7:8"},
        {L":1::2", L"0:0:0:0:0:0:0:2"}, {L"1:2:3:4:5:6:7::", L"1:2:3:4:5:6:7::"},
        {L"1::", L"1:0:0:0:0:0:0:0"},   {L"::ffff:1.2.3.4", L"0:0:0:0:0:0:ffff:1.2.3.4"},
    };
    for (const auto& [given, expected] : rows) {
        CStringW text(given);
        EXPECT_EQ(ExpandIPv6(text), expected);
    }
}

TEST(AddressRanges, NetworksMatchByPrefixAndOnDemandExactly)
{
    // Host bits in the prefix's last byte count, those of the network text do not. A number ends at its first other
    // character, and does not wrap. No network text is 0.0.0.0.
    const std::tuple<const char*, const char*, bool, bool> rows[] = {
        {"192.168.0.0/16", "::1", false, false},        {"172.16.0.0/12", "172.31.255.255", true, false},
        {"10.0.0.0/33", "10.0.0.0", false, false},      {"172.16.0.0/12", "172.17.0.0", true, false},
        {"2001:db8::/128", "2001:db8::", true, true},   {"192.168.1.77/24", "192.168.1.0", true, true},
        {"/8", "0.255.255.255", true, false},           {"10.0.0.0/4294967304", "10.0.0.0", false, false},
        {"10.0.0.0/ +8bits/9", "10.0.0.0", true, true},
    };
    for (const auto& [cidr, address, matches, exactly] : rows) {
        EXPECT_EQ(MatchesCIDR(cidr, address, false), matches) << cidr;
        EXPECT_EQ(MatchesCIDR(WideText(cidr), WideText(address), true), exactly) << cidr;
    }
    EXPECT_TRUE(ValidCIDR("192.168.1.0/24", false) && ValidCIDR("192.168.1.5/24", true));
    EXPECT_FALSE(ValidCIDR("192.168.1.5/24", false));
    for (const char* none : {"::/0", "10.1.1.0", static_cast<const char*>(nullptr)})
        EXPECT_FALSE(ValidCIDR(none, true) || MatchesCIDR(none, "10.1.1.0", false)) << none;
}

TEST(AddressRanges, PrivateAddressesAreTheSixNetworks)
{
    for (const char* address : {"192.168.255.1", "172.16.0.1", "10.0.0.1", "127.0.0.1", "::1", "fc00::1%1"})
        EXPECT_EQ(IsPrivateIP(address), 1) << address;
    for (const char* address : {"172.15.255.255", "172.32.0.0", "127.0.0.2", "::ffff:192.168.1.1", ""})
        EXPECT_EQ(IsPrivateIP(WideText(address)), 0) << address;
}

TEST(AddressRanges, RangesAreInclusiveAndBadBoundsAreTheLastAddress)
{
    // Addresses are compared whole and without sign.
    const std::tuple<const wchar_t*, const char*, const char*, int> rows[] = {
        {L"10.0.0.9", "10.0.0.1", "10.0.0.9", 1}, {L"10.0.0.5", "low", "255.255.255.255", 0},
        {L"240.0.0.1", "10.0.0.1", "high", 1},    {L"9.255.255.255", "10.0.0.1", "10.0.0.9", 0},
        {L"10.0.1.0", "10.0.0.1", "10.0.0.9", 0}, {L"200.0.0.1", "100.0.0.1", "201.0.0.1", 1},
    };
    for (const auto& [address, lowest, highest, expected] : rows)
        EXPECT_EQ(IsIPInRange(inet_addr(address), WideText(lowest), WideText(highest)), expected) << lowest;
}
