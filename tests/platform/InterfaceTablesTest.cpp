#include "tavronet/platform/InterfaceTables.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <string>

TEST(InterfaceTables, HoldEveryIPv6AddressOfTheKernelsListAtItsAdapter)
{
    std::ifstream file("/proc/net/if_inet6");
    if (!file)
        GTEST_SKIP() << "this machine has no IPv6";
    std::set<std::string> expected, listed; // 32 hexadecimal digits and the adapter's index
    for (std::string address, index, rest; file >> address >> index && std::getline(file, rest);)
        expected.insert(address + " " + std::to_string(std::stoi(index, nullptr, 16)));

    std::vector<tavronet::InterfaceEntry> adapters{{"stale", 99, true, {}}};
    ASSERT_EQ(tavronet::QueryInterfaces(AF_UNSPEC, adapters), tavronet::InterfaceQuery::Done);
    EXPECT_TRUE(std::ranges::is_sorted(adapters, {}, &tavronet::InterfaceEntry::index));
    for (const auto& adapter : adapters) {
        EXPECT_EQ(static_cast<int>(if_nametoindex(adapter.name.c_str())), adapter.index);
        const auto isIPv6 = [](const auto& entry) { return entry.address.ss_family == AF_INET6; };
        EXPECT_TRUE(std::ranges::is_partitioned(adapter.addresses, std::not_fn(isIPv6))) << "IPv4 first";
        for (const auto& entry : adapter.addresses) {
            std::string digits;
            for (const auto byte : reinterpret_cast<const sockaddr_in6&>(entry.address).sin6_addr.s6_addr)
                digits += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
            if (isIPv6(entry))
                listed.insert(digits + " " + std::to_string(adapter.index));
        }
    }
    EXPECT_EQ(listed, expected);
}
