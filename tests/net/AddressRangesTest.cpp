#include "tavronet/net/AddressRanges.h"

#include <gtest/gtest.h>

#include <tuple>

#include "tavronet/platform/LastError.h"
#include "tavronet/platform/TextConversion.h"
#include "tests/net/AdapterTable.h"

using tavronet::WideText;

TEST(AddressRanges, MatchesThePrefixAndOnDemandTheExactNetwork)
{
    const std::tuple<const char*, const char*, bool, bool> rows[] = {
        {"192.168.0.0/16", "192.168.5.9", true, false},
        {"192.168.0.0/16", "::1", false, false},
        {"172.16.0.0/12", "172.31.255.255", true, false}, // a part of a byte
        {"172.16.0.0/12", "172.32.0.0", false, false},
        {"172.16.0.0/12", "172.17.0.0", true, false},   // host bits in the prefix's last byte
        {"192.168.1.77/24", "192.168.1.0", true, true}, // those of the network text do not count
        {"0.0.0.0/0", "1.2.3.4", false, false},         // prefix 0 is none
        {"10.0.0.0/33", "10.0.0.0", false, false},
        {"10.0.0.0/4294967304", "10.0.0.0", false, false}, // does not wrap to 8
        {"10.0.0.0", "10.0.0.0", false, false},
        {"10.0.0.0/ +8bits/9", "10.0.0.0", true, true}, // a number up to its first other character
        {"/8", "0.1.2.3", true, false},                 // no network text is 0.0.0.0
        {nullptr, "10.0.0.0", false, false},
        {"fc00::/7", "fd12::1", true, false},
        {"2001:db8::/128", "2001:db8::", true, true},
    };
    for (const auto& [cidr, address, matches, exactly] : rows) {
        EXPECT_EQ(MatchesCIDR(cidr, address, false), matches) << cidr;
        EXPECT_EQ(MatchesCIDR(WideText(cidr), WideText(address), true), exactly) << cidr;
    }
    for (const bool withHostBits : {true, false}) {
        EXPECT_TRUE(ValidCIDR("192.168.1.0/24", withHostBits));
        EXPECT_EQ(ValidCIDR("192.168.1.5/24", withHostBits), withHostBits);
        EXPECT_FALSE(ValidCIDR("::/0", withHostBits) || ValidCIDR("192.168.1.0", withHostBits));
    }
}

TEST(AddressRanges, PrivateAddressesAreTheSixNetworks)
{
    for (const char* address : {"192.168.255.1", "172.16.0.1", "10.0.0.1", "127.0.0.1", "::1", "fc00::1%1"}) {
        EXPECT_EQ(IsPrivateIP(address), 1) << address;
    }
    for (const char* address : {"172.15.255.255", "172.32.0.0", "127.0.0.2", "::ffff:192.168.1.1", ""}) {
        EXPECT_EQ(IsPrivateIP(WideText(address)), 0) << address;
    }
}

TEST(AddressRanges, RangesAreInclusiveAndBadBoundsAreTheLastAddress)
{
    const std::tuple<const wchar_t*, const char*, const char*, int> rows[] = {
        {L"10.0.0.9", "10.0.0.1", "10.0.0.9", 1},
        {L"9.255.255.255", "10.0.0.1", "10.0.0.9", 0}, // though its last byte is larger
        {L"10.0.1.0", "10.0.0.1", "10.0.0.9", 0},      // though its last byte is smaller
        {L"200.0.0.1", "100.0.0.1", "201.0.0.1", 1},   // compared without sign
        {L"10.0.0.5", "lowest", "255.255.255.255", 0},
        {L"240.0.0.1", "10.0.0.1", "highest", 1},
        {L"10.0.0.1", "10.1", "10.1 remark", 1},
    };
    for (const auto& [address, lowest, highest, expected] : rows) {
        EXPECT_EQ(IsIPInRange(inet_addr(address), lowest, highest), expected) << lowest;
        EXPECT_EQ(IsIPInRange(inet_addr(address), WideText(lowest), WideText(highest)), expected) << lowest;
    }
}

TEST(AddressRanges, SubnetMaskIsThatOfTheFirstAdapterWithTheAddress)
{
    AdapterTable table;
    table.Add(2, false, {{"192.168.1.5", "255.255.255.0"}, {"192.168.1.5", "255.255.0.0"}});
    table.Add(3, true, {{"192.168.1.5", "255.0.0.0"}});
    const std::tuple<const char*, int, LONG, const char*> rows[] = {
        {"192.168.1.5", 16, 0, "255.255.255.0"}, // the first, on an adapter that is down
        {"192.168.1.005", 16, ERROR_NOT_FOUND, ""},
        {nullptr, 16, ERROR_NOT_FOUND, ""},
        {"192.168.1.5", 5, 0, "255."},
        {"192.168.1.5", 0, 1, "################"},
    };
    for (const auto& [address, size, status, expected] : rows) {
        char mask[] = "################";
        EXPECT_EQ(GetSubnetMask(address, mask, size), status) << expected;
        EXPECT_STREQ(mask, expected);
    }
    table.outcome = tavronet::InterfaceQuery::NoLibrary;
    char mask[16] = "before";
    EXPECT_EQ(GetSubnetMask("192.168.1.5", mask, sizeof mask), 2);
    EXPECT_STREQ(mask, "");
}
