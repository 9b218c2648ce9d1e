#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace gateway
{

/// Error codes of the WAN connection services and of their common rules.
enum UPnPError : int
{
    kSuccess = 0,
    kInvalidAction = 401,
    kInvalidArgs = 402,
    kActionFailed = 501,
    kArgumentValueInvalid = 600,
    kActionNotAuthorized = 606,
    kSpecifiedArrayIndexInvalid = 713,
    kNoSuchEntryInArray = 714,
    kWildCardNotPermittedInExtPort = 716,
    kConflictInMappingEntry = 718,
    kSamePortValuesRequired = 724,
    kOnlyPermanentLeasesSupported = 725,
};

/// The text that stands beside `code` in a fault.
std::string ErrorText(int code);

/// One port mapping as a gateway keeps it.
struct Mapping
{
    std::string remoteHost; // empty: any
    unsigned externalPort = 0;
    std::string protocol; // "TCP" or "UDP"
    unsigned internalPort = 0;
    std::string internalClient;
    bool enabled = true;
    std::string description;
    unsigned leaseSeconds = 0; // 0: for ever
};

/// The mappings of the gateway, in the order in which they were added.
class MappingTable
{
public:
    /// At most `capacity` entries; a further one is refused with 501.
    explicit MappingTable(std::size_t capacity) : m_Capacity(capacity) {}

    /// Adds a mapping, or replaces the one with the same remote host, external port and protocol when it
    /// leads to the same internal client. @return 718 when it leads to another client.
    int Add(const Mapping& mapping);
    int Remove(const std::string& remoteHost, unsigned externalPort, const std::string& protocol);
    int Find(const std::string& remoteHost, unsigned externalPort, const std::string& protocol,
             Mapping& found);
    int At(std::size_t index, Mapping& found);

    void Clear() { m_Entries.clear(); }
    /// Switches all mappings off, as an owner does in the gateway's own pages.
    void DisableAll();

private:
    using Clock = std::chrono::steady_clock;
    struct Entry
    {
        Mapping mapping;
        Clock::time_point expires; // meaningful when the lease is not 0
    };

    std::vector<Entry>::iterator Locate(const std::string& host, unsigned port, const std::string& protocol);
    void DropExpired();
    static Mapping WithTimeLeft(const Entry& entry);

    std::size_t m_Capacity;
    std::vector<Entry> m_Entries;
};

} // namespace gateway
