#include "MappingTable.h"

#include <algorithm>

namespace gateway
{

std::string ErrorText(int code)
{
    switch (code) {
    case kInvalidAction: return "Invalid Action";
    case kInvalidArgs: return "Invalid Args";
    case kActionFailed: return "Action Failed";
    case kArgumentValueInvalid: return "Argument Value Invalid";
    case kActionNotAuthorized: return "Action not authorized";
    case kSpecifiedArrayIndexInvalid: return "SpecifiedArrayIndexInvalid";
    case kNoSuchEntryInArray: return "NoSuchEntryInArray";
    case kWildCardNotPermittedInExtPort: return "WildCardNotPermittedInExtPort";
    case kConflictInMappingEntry: return "ConflictInMappingEntry";
    case kSamePortValuesRequired: return "SamePortValuesRequired";
    case kOnlyPermanentLeasesSupported: return "OnlyPermanentLeasesSupported";
    default: return "Error " + std::to_string(code);
    }
}

int MappingTable::Add(const Mapping& mapping)
{
    DropExpired();
    const Entry entry{mapping, Clock::now() + std::chrono::seconds(mapping.leaseSeconds)};
    const auto existing = Locate(mapping.remoteHost, mapping.externalPort, mapping.protocol);
    if (existing != m_Entries.end()) {
        if (existing->mapping.internalClient != mapping.internalClient)
            return kConflictInMappingEntry;
        *existing = entry;
        return kSuccess;
    }
    if (m_Entries.size() >= m_Capacity)
        return kActionFailed;
    m_Entries.push_back(entry);
    return kSuccess;
}

int MappingTable::Remove(const std::string& remoteHost, unsigned externalPort, const std::string& protocol)
{
    DropExpired();
    const auto existing = Locate(remoteHost, externalPort, protocol);
    if (existing == m_Entries.end())
        return kNoSuchEntryInArray;
    m_Entries.erase(existing);
    return kSuccess;
}

int MappingTable::Find(const std::string& remoteHost, unsigned externalPort, const std::string& protocol,
                       Mapping& found)
{
    DropExpired();
    const auto existing = Locate(remoteHost, externalPort, protocol);
    if (existing == m_Entries.end())
        return kNoSuchEntryInArray;
    found = WithTimeLeft(*existing);
    return kSuccess;
}

int MappingTable::At(std::size_t index, Mapping& found)
{
    DropExpired();
    if (index >= m_Entries.size())
        return kSpecifiedArrayIndexInvalid;
    found = WithTimeLeft(m_Entries[index]);
    return kSuccess;
}

void MappingTable::DisableAll()
{
    for (Entry& entry : m_Entries)
        entry.mapping.enabled = false;
}

std::vector<MappingTable::Entry>::iterator MappingTable::Locate(const std::string& host, unsigned port,
                                                                const std::string& protocol)
{
    return std::ranges::find_if(m_Entries, [&](const Entry& entry) {
        return entry.mapping.externalPort == port && entry.mapping.protocol == protocol &&
               entry.mapping.remoteHost == host;
    });
}

void MappingTable::DropExpired()
{
    const auto now = Clock::now();
    std::erase_if(m_Entries, [now](const Entry& entry) {
        return entry.mapping.leaseSeconds != 0 && entry.expires <= now;
    });
}

Mapping MappingTable::WithTimeLeft(const Entry& entry)
{
    Mapping result = entry.mapping;
    if (result.leaseSeconds != 0)
        result.leaseSeconds = static_cast<unsigned>(
            std::chrono::ceil<std::chrono::seconds>(entry.expires - Clock::now()).count());
    return result;
}

} // namespace gateway
