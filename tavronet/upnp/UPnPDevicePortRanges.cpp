// Ranges of consecutive ports: looked for in the gateway's table, then added as a whole.
//
// Dozens of exchanges, each of which pumps messages: after each the device may be gone, the list edited, and
// the cancel handle reset again.

#include <algorithm>
#include <memory>

#include "tavronet/platform/RestrictedFormat.h"
#include "tavronet/platform/TextConversion.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPService.h"

namespace
{

using PortMapList = std::vector<CUPnPPortMap*>;

bool HoldsAll(PortMapList list, PortMapList records)
{
    std::ranges::sort(list);
    std::ranges::sort(records);
    return std::ranges::includes(list, records);
}

/// Appends a record for each port of a range. @return the new ones, which the list owns
PortMapList AppendRange(PortMapList& list, unsigned int first, unsigned int count, const CString& pattern,
                        const CStringA& protocol, const CStringA& client)
{
    PortMapList range;
    for (unsigned int position = 1; position <= count; ++position) {
        const CString description = tavronet::RestrictedFormat(pattern, static_cast<int>(position));
        auto record =
            std::make_unique<CUPnPPortMap>(first + position - 1, protocol, client, Narrow(description));
        range.push_back(record.get());
        list.push_back(record.get());
        record.release();
    }
    return range;
}

/// The first record that the gateway has not accepted, null when there is none.
const CUPnPPortMap* FirstRefused(const PortMapList& list)
{
    const auto refused = std::ranges::find_if(
        list, [](const CUPnPPortMap* record) { return record != nullptr && !record->GetAdded(); });
    return refused != list.end() ? *refused : nullptr;
}

} // namespace

bool CUPnPDevice::FindAvailableSequentialRange(void* cancel, unsigned int& first, unsigned int count)
{
    const CUPnPService* const service = FindConnectionService();
    if (service == nullptr)
        return false;

    m_CommandFailed = false;
    const UINT cancelledBefore = service->GetCancelledWaits();
    unsigned int last = first + count - 1;
    for (unsigned int port = first; port <= last && last <= tavronet::kHighestPort; ++port) {
        std::unique_ptr<CUPnPPortMap> entry;
        const Exchange outcome = LookUp(cancel, CUPnPPortMap(port, "TCP", Narrow(GetIpAddr()), ""), entry);
        if (outcome == Exchange::DeviceGone || outcome == Exchange::Queued) // nothing can be learned now
            return false;
        if (service->GetCancelledWaits() != cancelledBefore)
            return false;
        if (outcome != Exchange::Answered) // the first add shows whether the gateway is there
            break;
        if (entry != nullptr && entry->InternalPort() != 0) {
            first = port + 1;
            last = first + count - 1;
        }
    }
    return first <= last;
}

bool CUPnPDevice::AddPortMaps(void* cancel, unsigned int first, unsigned int count, const char* pattern,
                              std::vector<CUPnPPortMap*>& list, const char* protocol)
{
    const CUPnPService* const service = FindConnectionService();
    if (service == nullptr)
        return false;

    const CString descriptions(pattern);
    const CStringA protocolName(protocol != nullptr ? protocol : "TCP");
    const tavronet::LifetimeGuard guard(*this);
    const UINT cancelledBefore = service->GetCancelledWaits();
    for (int attempt = 0; attempt < tavronet::kMaxRangeAttempts; ++attempt) {
        if (!FindAvailableSequentialRange(cancel, first, count) || first + count - 1 > tavronet::kHighestPort)
            return false;

        const PortMapList range =
            AppendRange(list, first, count, descriptions, protocolName, Narrow(GetIpAddr()));
        if (!AddPortMaps(cancel, list))
            return false; // perhaps without a device
        if (!HoldsAll(list, range))
            return false; // edited meanwhile: whoever did it looks after what is left
        const CUPnPPortMap* const refused = FirstRefused(list);
        if (refused == nullptr)
            return true;

        first = refused->ExternalPort() + 1;
        DeletePortMaps(cancel, list);
        if (!guard.Alive())
            return false;
        ReleasePortMaps(list);
        if (service->GetCancelledWaits() != cancelledBefore)
            return false;
    }
    return false;
}

bool CUPnPDevice::AddPortMaps(void* cancel, unsigned int first, unsigned int count, const char* pattern,
                              const char* protocol)
{
    return AddPortMaps(cancel, first, count, pattern, m_PortMaps, protocol);
}

void CUPnPDevice::GetStartEndPorts(unsigned int& start, unsigned int& end) const
{
    std::vector<unsigned int> ports;
    for (const CUPnPPortMap* record : m_PortMaps) {
        if (record != nullptr)
            ports.push_back(record->ExternalPort());
    }
    start = ports.empty() ? 0 : std::ranges::min(ports);
    end = ports.empty() ? 0 : std::ranges::max(ports);
}
