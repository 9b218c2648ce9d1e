/// A table of adapters that the tests make up, in place of the machine's.
#ifndef TAVRONET_TESTS_NET_ADAPTERTABLE_H
#define TAVRONET_TESTS_NET_ADAPTERTABLE_H

#include <arpa/inet.h>

#include <cstring>
#include <vector>

#include "tavronet/net/AddressText.h"
#include "tavronet/platform/InterfaceTables.h"

/// While it lives, adapter queries are answered from it: adapters added, or another outcome than success.
class AdapterTable
{
public:
    explicit AdapterTable(tavronet::InterfaceQuery outcome = tavronet::InterfaceQuery::Done)
        : m_Outcome(outcome)
    {
        s_pPresent = this;
        tavronet::SetInterfaceTableSource(Answer);
    }
    ~AdapterTable() { tavronet::SetInterfaceTableSource(nullptr); }
    AdapterTable(const AdapterTable&) = delete;
    AdapterTable& operator=(const AdapterTable&) = delete;

    void AddAdapter(int index, bool isUp) { m_Adapters.push_back({"made-up", index, isUp, {}}); }

    /// To the adapter added last.
    void AddAddress(const char* text, const char* mask = nullptr)
    {
        tavronet::InterfaceAddress entry;
        GetSockAddr(text, entry.address, entry.length, AF_UNSPEC);
        if (mask != nullptr)
            inet_pton(AF_INET, mask, &entry.mask);
        m_Adapters.back().addresses.push_back(entry);
    }

    /// Something the system lists that has no text.
    void AddUnprintableAddress() { m_Adapters.back().addresses.emplace_back(); }

private:
    static tavronet::InterfaceQuery Answer(int family, std::vector<tavronet::InterfaceEntry>& adapters)
    {
        adapters = s_pPresent->m_Adapters;
        for (auto& adapter : adapters)
            std::erase_if(adapter.addresses, [family](const auto& entry) {
                return family != AF_UNSPEC && entry.length != 0 && entry.address.ss_family != family;
            });
        return s_pPresent->m_Outcome;
    }

    inline static AdapterTable* s_pPresent = nullptr;
    tavronet::InterfaceQuery m_Outcome;
    std::vector<tavronet::InterfaceEntry> m_Adapters;
};

#endif
