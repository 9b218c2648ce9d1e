#pragma once

#include <arpa/inet.h>

#include <utility>
#include <vector>

#include "tavronet/net/AddressText.h"
#include "tavronet/platform/InterfaceTables.h"

/// A table of adapters that the tests make up. While it lives, adapter queries are answered from it.
class AdapterTable
{
public:
    AdapterTable()
    {
        s_pPresent = this;
        tavronet::SetInterfaceTableSource(Answer);
    }
    ~AdapterTable() { tavronet::SetInterfaceTableSource(nullptr); }
    AdapterTable(const AdapterTable&) = delete;
    AdapterTable& operator=(const AdapterTable&) = delete;

    /// Addresses and their masks; one without text is something the system lists that cannot be printed.
    void Add(int index, bool isUp, const std::vector<std::pair<const char*, const char*>>& addresses)
    {
        m_Adapters.push_back({"made-up", index, isUp, {}});
        for (const auto& [text, mask] : addresses) {
            tavronet::InterfaceAddress& entry = m_Adapters.back().addresses.emplace_back();
            if (text != nullptr)
                GetSockAddr(text, entry.address, entry.length, AF_UNSPEC);
            inet_pton(AF_INET, mask, &entry.mask);
        }
    }

    tavronet::InterfaceQuery outcome = tavronet::InterfaceQuery::Done;

private:
    static tavronet::InterfaceQuery Answer(int family, std::vector<tavronet::InterfaceEntry>& adapters)
    {
        adapters = s_pPresent->m_Adapters;
        for (auto& adapter : adapters)
            std::erase_if(adapter.addresses, [family](const auto& entry) {
                return family != AF_UNSPEC && entry.length != 0 && entry.address.ss_family != family;
            });
        return s_pPresent->outcome;
    }

    inline static AdapterTable* s_pPresent = nullptr;
    std::vector<tavronet::InterfaceEntry> m_Adapters;
};
