#include "tavronet/platform/InterfaceTables.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <utility>

namespace
{

using Placed = std::pair<int, std::string>; // adapter index, address in hexadecimal digits

std::string HexDigits(const in6_addr& address)
{
    std::string digits;
    for (const unsigned char byte : address.s6_addr) {
        digits += "0123456789abcdef"[byte >> 4];
        digits += "0123456789abcdef"[byte & 15];
    }
    return digits;
}

// The kernel's own list: address, index, prefix length, scope, flags, name.
std::vector<Placed> KernelList(std::ifstream& file)
{
    std::vector<Placed> list;
    std::string address, index, prefix, scope, flags, name;
    while (file >> address >> index >> prefix >> scope >> flags >> name)
        list.emplace_back(std::stoi(index, nullptr, 16), address);
    return list;
}

TEST(InterfaceTables, HoldEveryIPv6AddressAtItsAdapter)
{
    std::ifstream file("/proc/net/if_inet6");
    if (!file)
        GTEST_SKIP() << "this machine has no IPv6";

    std::vector<tavronet::InterfaceEntry> adapters;
    ASSERT_EQ(tavronet::QueryInterfaces(AF_INET6, adapters), tavronet::InterfaceQuery::Done);
    std::vector<Placed> listed;
    for (const auto& adapter : adapters) {
        for (const auto& entry : adapter.addresses) {
            EXPECT_EQ(entry.length, int{sizeof(sockaddr_in6)});
            const auto* const address = reinterpret_cast<const sockaddr_in6*>(&entry.address);
            listed.emplace_back(adapter.index, HexDigits(address->sin6_addr));
        }
    }
    std::vector<Placed> expected = KernelList(file);
    std::ranges::sort(listed);
    std::ranges::sort(expected);
    EXPECT_EQ(listed, expected);
}

TEST(InterfaceTables, ListAdaptersByIndexWithBothFamilies)
{
    std::vector<tavronet::InterfaceEntry> adapters{{"stale", 99, true, {}}};
    ASSERT_EQ(tavronet::QueryInterfaces(AF_UNSPEC, adapters), tavronet::InterfaceQuery::Done);
    ASSERT_FALSE(adapters.empty());
    EXPECT_TRUE(std::ranges::is_sorted(adapters, {}, &tavronet::InterfaceEntry::index));
    for (const auto& adapter : adapters) {
        EXPECT_EQ(static_cast<int>(if_nametoindex(adapter.name.c_str())), adapter.index);
        const auto isIPv6 = [](const auto& entry) { return entry.address.ss_family == AF_INET6; };
        EXPECT_TRUE(std::ranges::is_partitioned(adapter.addresses, std::not_fn(isIPv6)))
            << "IPv4 comes first";
    }
}

TEST(InterfaceTables, AnswerFromASourceOfTheTests)
{
    tavronet::SetInterfaceTableSource(
        [](int, std::vector<tavronet::InterfaceEntry>&) { return tavronet::InterfaceQuery::NoEntry; });
    std::vector<tavronet::InterfaceEntry> adapters;
    EXPECT_EQ(tavronet::QueryInterfaces(AF_INET, adapters), tavronet::InterfaceQuery::NoEntry);
    tavronet::SetInterfaceTableSource(
        [](int, std::vector<tavronet::InterfaceEntry>&) -> tavronet::InterfaceQuery {
            throw std::bad_alloc();
        });
    EXPECT_EQ(tavronet::QueryInterfaces(AF_INET, adapters), tavronet::InterfaceQuery::Failed);
    tavronet::SetInterfaceTableSource(nullptr);
    EXPECT_EQ(tavronet::QueryInterfaces(AF_INET, adapters), tavronet::InterfaceQuery::Done);
}

} // namespace
