#include "tavronet/net/AddressRanges.h"

#include <gtest/gtest.h>

#include <cstring>

#include "tavronet/platform/LastError.h"
#include "tavronet/platform/TextConversion.h"
#include "tests/net/AdapterTable.h"

namespace
{

TEST(AddressRanges, MatchesThePrefixAndOnDemandTheExactNetwork)
{
    const struct
    {
        const char* cidr;
        const char* address;
        bool matches;
        bool matchesExactly;
        const char* why;
    } rows[] = {
        {"192.168.0.0/16", "192.168.5.9", true, false, "inside"},
        {"192.168.0.0/16", "192.169.0.1", false, false, "outside"},
        {"192.168.0.0/16", "192.168.0.0", true, true, "the network itself"},
        {"192.168.0.0/16", "::1", false, false, "other family"},
        {"172.16.0.0/12", "172.31.255.255", true, false, "part of a byte"},
        {"172.16.0.0/12", "172.32.0.0", false, false, "part of a byte"},
        {"172.16.0.0/12", "172.16.0.1", true, false, "host bits in a later byte"},
        {"172.16.0.0/12", "172.17.0.0", true, false, "host bits in the prefix's last byte"},
        {"192.168.1.77/24", "192.168.1.5", true, false, "host bits of the network text do not count"},
        {"192.168.1.77/24", "192.168.1.0", true, true, "nor do they here"},
        {"10.0.0.0/8", "10.0.0.1", true, false, "prefix at the end of a byte"},
        {"128.0.0.0/1", "255.0.0.0", true, false, "one bit"},
        {"1.2.3.4/32", "1.2.3.4", true, true, "all bits"},
        {"1.2.3.4/32", "1.2.3.5", false, false, "all bits"},
        {"0.0.0.0/0", "1.2.3.4", false, false, "prefix 0 is none"},
        {"10.0.0.0/33", "10.0.0.0", false, false, "beyond 32"},
        {"10.0.0.0/-8", "10.0.0.0", false, false, "negative"},
        {"10.0.0.0/4294967304", "10.0.0.0", false, false, "does not wrap to 8"},
        {"10.0.0.0", "10.0.0.0", false, false, "no slash"},
        {"10.0.0.0/", "10.0.0.0", false, false, "no number"},
        {"10.0.0.0/ +8bits/9", "10.0.0.0", true, true, "the number is read up to its first other character"},
        {"/8", "0.1.2.3", true, false, "no network text is 0.0.0.0"},
        {"host/8", "10.0.0.0", false, false, "a name"},
        {"10.0.0.0/8", "host", false, false, "a name"},
        {"10.0.0.0/8", nullptr, false, false, "no address is 0.0.0.0"},
        {nullptr, "10.0.0.0", false, false, "no network"},
        {"fc00::/7", "fd12::1", true, false, "IPv6"},
        {"fc00::/7", "fe00::", false, false, "IPv6"},
        {"2001:db8::/128", "2001:db8::", true, true, "all bits"},
        {"2001:db8::/129", "2001:db8::", false, false, "beyond 128"},
    };
    for (const auto& row : rows) {
        const tavronet::WideText cidr(row.cidr);
        const tavronet::WideText address(row.address);
        EXPECT_EQ(MatchesCIDR(row.cidr, row.address, false), row.matches) << row.why;
        EXPECT_EQ(MatchesCIDR(row.cidr, row.address, true), row.matchesExactly) << row.why;
        EXPECT_EQ(MatchesCIDR(cidr, address, false), row.matches) << row.why;
        EXPECT_EQ(MatchesCIDR(cidr, address, true), row.matchesExactly) << row.why;
    }
}

TEST(AddressRanges, ValidNetworksHaveAnAddressAndAPrefix)
{
    const struct
    {
        const char* cidr;
        bool withHostBits;
        bool exact;
        const char* why;
    } rows[] = {
        {"192.168.1.0/24", true, true, "a network"},
        {"192.168.1.5/24", true, false, "host bits"},
        {"fc00::/7", true, true, "IPv6"},
        {"::/0", false, false, "prefix 0"},
        {"/8", true, true, "no network text is 0.0.0.0"},
        {"host/8", false, false, "a name"},
        {"192.168.1.0", false, false, "no slash"},
        {"10.0.0.0/4294967304", false, false, "does not wrap to 8"},
        {nullptr, false, false, "no text"},
    };
    for (const auto& row : rows) {
        const tavronet::WideText wide(row.cidr);
        EXPECT_EQ(ValidCIDR(row.cidr, true), row.withHostBits) << row.why;
        EXPECT_EQ(ValidCIDR(row.cidr, false), row.exact) << row.why;
        EXPECT_EQ(ValidCIDR(wide, true), row.withHostBits) << row.why;
        EXPECT_EQ(ValidCIDR(wide, false), row.exact) << row.why;
    }
}

TEST(AddressRanges, PrivateAddressesAreTheSixNetworks)
{
    const struct
    {
        const char* address;
        int expected;
        const char* why;
    } rows[] = {
        {"192.168.255.1", 1, "block"},
        {"172.16.0.1", 1, "block"},
        {"172.15.255.255", 0, "just below"},
        {"172.32.0.0", 0, "just above"},
        {"10.255.255.255", 1, "block"},
        {"127.0.0.1", 1, "loopback"},
        {"127.0.0.2", 0, "not the loopback address"},
        {"::1", 1, "loopback"},
        {"fd12::1", 1, "unique local"},
        {"fc00::1%1", 1, "whatever its scope"},
        {"fe80::1", 0, "link-local is not private"},
        {"169.254.1.1", 0, "nor is it in IPv4"},
        {"::ffff:192.168.1.1", 0, "a mapped address is IPv6"},
        {"8.8.8.8", 0, "public"},
        {"2001:db8::1", 0, "public"},
        {"gateway", 0, "a name"},
        {"", 0, "the wildcard"},
        {nullptr, 0, "the wildcard"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(IsPrivateIP(row.address), row.expected) << row.why;
        EXPECT_EQ(IsPrivateIP(tavronet::WideText(row.address)), row.expected) << row.why;
    }
}

TEST(AddressRanges, RangesAreInclusiveAndBadBoundsAreTheLastAddress)
{
    const struct
    {
        const wchar_t* address;
        const char* lowest;
        const char* highest;
        int expected;
        const char* why;
    } rows[] = {
        {L"10.0.0.5", "10.0.0.1", "10.0.0.9", 1, "inside"},
        {L"10.0.0.1", "10.0.0.1", "10.0.0.9", 1, "the lowest"},
        {L"10.0.0.9", "10.0.0.1", "10.0.0.9", 1, "the highest"},
        {L"9.255.255.255", "10.0.0.1", "10.0.0.9", 0, "below, though its last byte is larger"},
        {L"10.0.1.0", "10.0.0.1", "10.0.0.9", 0, "above, though its last byte is smaller"},
        {L"200.0.0.1", "100.0.0.1", "201.0.0.1", 1, "compared without sign"},
        {L"10.0.0.5", "10.0.0.9", "10.0.0.1", 0, "reversed bounds"},
        {L"10.0.0.5", "lowest", "255.255.255.255", 0, "a bad lowest bound lets nothing in"},
        {L"255.255.255.255", "lowest", "255.255.255.255", 1, "but the last address"},
        {L"240.0.0.1", "10.0.0.1", "highest", 1, "a bad highest bound keeps nothing out"},
        {L"10.0.0.1", "10.1", "10.1 remark", 1, "short form, and text behind a blank"},
    };
    for (const auto& row : rows) {
        const DWORD address = inet_addr(row.address);
        EXPECT_EQ(IsIPInRange(address, row.lowest, row.highest), row.expected) << row.why;
        EXPECT_EQ(IsIPInRange(address, tavronet::WideText(row.lowest), tavronet::WideText(row.highest)),
                  row.expected)
            << row.why;
    }
}

TEST(AddressRanges, SubnetMaskIsThatOfTheFirstAdapterWithTheAddress)
{
    AdapterTable table;
    table.AddAdapter(1, true);
    table.AddAddress("127.0.0.1", "255.0.0.0");
    table.AddAdapter(2, false);
    table.AddAddress("192.168.1.5", "255.255.255.0");
    table.AddAddress("192.168.1.5", "255.255.0.0");
    table.AddAdapter(3, true);
    table.AddAddress("192.168.1.5", "255.0.0.0");

    const struct
    {
        const char* address;
        int size;
        LONG status;
        const char* mask;
        const char* why;
    } rows[] = {
        {"192.168.1.5", 16, 0, "255.255.255.0", "the first, on an adapter that is down"},
        {"127.0.0.1", 16, 0, "255.0.0.0", "loopback is an adapter"},
        {"192.168.1.005", 16, ERROR_NOT_FOUND, "", "compared as text"},
        {"192.168.1.6", 16, ERROR_NOT_FOUND, "", "not of this machine"},
        {"", 16, ERROR_NOT_FOUND, "", "empty text is no wildcard here"},
        {nullptr, 16, ERROR_NOT_FOUND, "", "nor is no text"},
        {"192.168.1.5", 5, 0, "255.", "cut to fit"},
        {"192.168.1.5", 1, 0, "", "room for the end only"},
    };
    for (const auto& row : rows) {
        char mask[17];
        std::memset(mask, '#', sizeof mask);
        EXPECT_EQ(GetSubnetMask(row.address, mask, row.size), row.status) << row.why;
        EXPECT_STREQ(mask, row.mask) << row.why;
        EXPECT_EQ(mask[row.size], '#') << row.why;
    }

    char untouched = '#';
    EXPECT_EQ(GetSubnetMask("127.0.0.1", &untouched, 0), 1);
    EXPECT_EQ(GetSubnetMask("127.0.0.1", &untouched, -1), 1);
    EXPECT_EQ(GetSubnetMask("127.0.0.1", nullptr, 16), 1);
    EXPECT_EQ(untouched, '#');
}

TEST(AddressRanges, SubnetMaskTellsWhyThereIsNoTable)
{
    using tavronet::InterfaceQuery;
    const struct
    {
        InterfaceQuery outcome;
        LONG status;
    } rows[] = {
        {InterfaceQuery::NoLibrary, 2},
        {InterfaceQuery::NoEntry, 1},
        {InterfaceQuery::Failed, 1},
    };
    for (const auto& row : rows) {
        const AdapterTable table(row.outcome);
        char mask[16] = "before";
        EXPECT_EQ(GetSubnetMask("127.0.0.1", mask, sizeof mask), row.status);
        EXPECT_STREQ(mask, "");
    }
}

} // namespace
