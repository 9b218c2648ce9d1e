// The exchanges with the gateway's connection service.
//
// Every exchange pumps messages, so anything may have happened when it returns: ServiceCommand tells whether
// the device is still there, and records of lists that a host can reach are looked for again before they are
// touched.

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <memory>

#include "tavronet/platform/TextConversion.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPService.h"

namespace
{

constexpr int kAccepted = 200;

const char* ProtocolOrTCP(const char* protocol)
{
    return protocol != nullptr ? protocol : "TCP";
}

bool Holds(const std::vector<CUPnPPortMap*>& list, const CUPnPPortMap* record)
{
    return std::ranges::find(list, record) != list.end();
}

/// The entry that an answer describes; its first value is that of argument `first`.
std::unique_ptr<CUPnPPortMap> EntryOf(const CUPnPService& service, int first, const CStringA& index)
{
    const auto value = [&](int offset) { return Narrow(service.GetCommandParameterResult(first + offset)); };
    return std::make_unique<CUPnPPortMap>(index, value(0), value(1), value(2), value(3), value(4), value(5),
                                          value(6), value(7));
}

} // namespace

/// Marks the device as in a command until the command has returned; a nested one leaves the mark alone. The command
/// counts as failed unless it was sent, also when a handler of the host throws out of its wait.
class CUPnPDevice::CommandScope
{
public:
    explicit CommandScope(CUPnPDevice& device)
        : m_Device(device), m_Guard(device), m_Outer(device.m_InCommand)
    {
        m_Device.m_InCommand = true;
        m_Device.m_CommandFailed = false;
    }

    ~CommandScope()
    {
        if (!DeviceAlive())
            return;
        m_Device.m_InCommand = m_Outer;
        if (!sent)
            m_Device.m_CommandFailed = true;
    }

    CommandScope(const CommandScope&) = delete;
    CommandScope& operator=(const CommandScope&) = delete;

    bool DeviceAlive() const { return m_Guard.Alive(); }

    bool sent = false;

private:
    CUPnPDevice& m_Device;
    const tavronet::LifetimeGuard m_Guard;
    const bool m_Outer;
};

CUPnPDevice::Exchange CUPnPDevice::ServiceCommand(CUPnPService* service, bool wait, void* cancel,
                                                  const char* action, ...)
{
    if (m_Release != 0)
        return Exchange::Failed;

    WantUpkeep();
    CommandScope scope(*this);
    const UINT answersBefore = service->GetAnswerSerial();

    va_list arguments;
    va_start(arguments, action);
    scope.sent = service->Command(wait, cancel, action, arguments);
    va_end(arguments);

    if (!scope.DeviceAlive())
        return Exchange::DeviceGone;
    if (!scope.sent)
        return Exchange::Failed;
    return service->GetAnswerSerial() != answersBefore ? Exchange::Answered : Exchange::Queued;
}

void CUPnPDevice::SaveCommandResponse(CUPnPService* service)
{
    m_CmndRespCode = service->GetResponseCode();
    m_CmndErrorCode = service->GetErrorCode();
    m_CmndErrorDescription = service->GetErrorDescription();
    Root().m_HeardTick = GetTickCount();
    ResetLastVerifyTimes();
}

void CUPnPDevice::ResetLastVerifyTimes()
{
    m_LastVerifyTimeMaps = GetTickCount();
    m_LastVerifyTimeIndiv = 0;
}

bool CUPnPDevice::GetExternalIPAddress(void* cancel, CString& address)
{
    CUPnPService* const service = FindConnectionService();
    if (service == nullptr)
        return false;

    const bool wait = true;
    if (ServiceCommand(service, wait, cancel, "GetExternalIPAddress", "NewExternalIPAddress", "", nullptr) !=
        Exchange::Answered)
        return false;
    if (!service->GetCommandResults().empty())
        address = service->GetCommandParameterResult(0);
    SaveCommandResponse(service);
    return true;
}

bool CUPnPDevice::GetExternalIPAddress(void* cancel)
{
    return GetExternalIPAddress(cancel, m_ExternalIPAddress);
}

bool CUPnPDevice::GetExternalIPAddress(void* cancel, char* buffer, int size)
{
    CString address;
    if (!GetExternalIPAddress(cancel, address))
        return false;
    if (buffer == nullptr || size <= 0)
        return true;
    std::memset(buffer, 0, static_cast<std::size_t>(size));
    tavronet::CopyTruncated(buffer, size, Narrow(address));
    return true;
}

bool CUPnPDevice::GetNATEnabled(void* cancel, bool& enabled)
{
    enabled = false;
    CUPnPService* const service = FindConnectionService();
    if (service == nullptr)
        return false;

    const bool wait = true;
    if (ServiceCommand(service, wait, cancel, "GetNATRSIPStatus", "NewRSIPAvailable", "", "NewNATEnabled", "",
                       nullptr) != Exchange::Answered)
        return false;
    enabled = tavronet::ReadInt32(service->GetCommandParameterResult(1)) != 0;
    m_NATEnabled = enabled;
    SaveCommandResponse(service);
    return true;
}

CUPnPDevice::Exchange CUPnPDevice::SendAdd(void* cancel, const CUPnPPortMap& record, bool& accepted)
{
    CUPnPService* const service = FindConnectionService();
    if (service == nullptr)
        return Exchange::NoService;

    const bool wait = true;
    const Exchange outcome =
        ServiceCommand(service, wait, cancel, "AddPortMapping",                                             //
                       "NewRemoteHost", Narrow(record.GetRemoteHost()).GetString(),                         //
                       "NewExternalPort", Narrow(record.GetExternalPort()).GetString(),                     //
                       "NewProtocol", Narrow(record.GetProtocol()).GetString(),                             //
                       "NewInternalPort", Narrow(record.GetInternalPort()).GetString(),                     //
                       "NewInternalClient", Narrow(record.GetInternalClient()).GetString(),                 //
                       "NewEnabled", Narrow(record.GetEnabled()).GetString(),                               //
                       "NewPortMappingDescription", Narrow(record.GetPortMappingDescription()).GetString(), //
                       "NewLeaseDuration", Narrow(record.GetLeaseDuration()).GetString(), nullptr);
    if (outcome == Exchange::DeviceGone)
        return outcome;
    if (outcome == Exchange::Answered)
        SaveCommandResponse(service);
    // The service's status counts even when this exchange failed; only an action still queued has no share in
    // it.
    accepted = outcome != Exchange::Queued && service->GetResponseCode() == kAccepted;
    return outcome;
}

bool CUPnPDevice::AddPortMap(void* cancel, CUPnPPortMap* record)
{
    bool accepted = record->GetAdded();
    const Exchange outcome = SendAdd(cancel, *record, accepted);
    if (outcome != Exchange::DeviceGone)
        record->SetAdded(accepted);
    return IsSent(outcome);
}

bool CUPnPDevice::AddPortMaps(void* cancel, std::vector<CUPnPPortMap*>& list)
{
    if (list.empty())
        return false;
    for (CUPnPPortMap* record : std::vector<CUPnPPortMap*>(list)) {
        if (record == nullptr || !Holds(list, record)) // taken out during an exchange
            continue;
        bool accepted = record->GetAdded();
        const Exchange outcome = SendAdd(cancel, *record, accepted);
        if (outcome != Exchange::DeviceGone && Holds(list, record))
            record->SetAdded(accepted);
        if (!IsSent(outcome))
            return false;
    }
    return true;
}

bool CUPnPDevice::AddPortMap(void* cancel, unsigned int port, const char* description, const char* protocol)
{
    if (FindConnectionService() == nullptr)
        return false;

    auto record =
        std::make_unique<CUPnPPortMap>(port, ProtocolOrTCP(protocol), Narrow(GetIpAddr()), description);
    if (!AddPortMap(cancel, record.get()))
        return false; // perhaps without a device
    if (!record->GetAdded())
        return true;

    m_IndivPortMaps[port] = port;
    const auto samePort = std::ranges::find(m_IndivPortMapRecords, port, &CUPnPPortMap::ExternalPort);
    if (samePort != m_IndivPortMapRecords.end()) {
        delete *samePort;
        m_IndivPortMapRecords.erase(samePort);
    }
    m_IndivPortMapRecords.push_back(record.get());
    record.release();
    return true;
}

/// Some gateways keep forwarding a low port after its deletion unless it was disabled before.
bool CUPnPDevice::DisableBeforeDelete() const
{
    constexpr std::wstring_view kMaker = L"linksys";
    return tavronet::LowerCased(m_Manufacturer.View()).find(kMaker) != std::wstring::npos ||
           tavronet::LowerCased(m_FriendlyName.View()).find(kMaker) != std::wstring::npos;
}

/// Sends the low ports of the list again, disabled. @return whether the device is still there.
bool CUPnPDevice::DisableLowPorts(void* cancel, std::vector<CUPnPPortMap*>& list)
{
    constexpr unsigned int kHighestPort = 161;
    for (CUPnPPortMap* record : std::vector<CUPnPPortMap*>(list)) {
        if (record == nullptr || !Holds(list, record) || record->ExternalPort() > kHighestPort)
            continue;
        record->SetEnabled("0");
        bool accepted = record->GetAdded();
        if (SendAdd(cancel, *record, accepted) == Exchange::DeviceGone)
            return false;
        if (Holds(list, record))
            record->SetAdded(accepted);
    }
    return true;
}

bool CUPnPDevice::DeletePortMaps(void* cancel, std::vector<CUPnPPortMap*>& list)
{
    CUPnPService* const service = FindConnectionService();
    for (CUPnPPortMap* const record : list) {
        if (record != nullptr)
            record->m_DeleteTold = service == nullptr; // nothing can map ports, so nothing is mapped
    }
    if (service == nullptr)
        return true;
    if (DisableBeforeDelete() && !DisableLowPorts(cancel, list))
        return false;

    bool allAnswered = true;
    for (CUPnPPortMap* record : std::vector<CUPnPPortMap*>(list)) {
        if (record == nullptr || !Holds(list, record))
            continue;
        const unsigned int port = record->ExternalPort();
        const bool wait = true;
        const Exchange outcome =
            ServiceCommand(service, wait, cancel, "DeletePortMapping",                       //
                           "NewRemoteHost", Narrow(record->GetRemoteHost()).GetString(),     //
                           "NewExternalPort", Narrow(record->GetExternalPort()).GetString(), //
                           "NewProtocol", Narrow(record->GetProtocol()).GetString(), nullptr);
        if (!IsSent(outcome))
            return false;
        if (outcome == Exchange::Queued) // sent later; nobody knows yet what will come of it
        {
            allAnswered = false;
            continue;
        }

        SaveCommandResponse(service);
        const bool deleted = service->GetResponseCode() == kAccepted;
        if (Holds(list, record)) {
            record->SetDeleted(deleted);
            record->m_DeleteTold = true;
        }
        if (deleted)
            m_IndivPortMaps.erase(port);
    }
    return allAnswered;
}

bool CUPnPDevice::DeletePortMaps(void* cancel)
{
    if (!DeletePortMaps(cancel, m_PortMaps))
        return false;
    ReleaseDeleted(m_PortMaps);
    return true;
}

bool CUPnPDevice::DeleteIndivPortMaps(void* cancel)
{
    if (!DeletePortMaps(cancel, m_IndivPortMapRecords))
        return false;
    ReleaseDeleted(m_IndivPortMapRecords);
    return true;
}

void CUPnPDevice::ReleaseDeleted(std::vector<CUPnPPortMap*>& list)
{
    std::erase_if(list, [](const CUPnPPortMap* record) {
        const bool goes = record == nullptr || record->m_DeleteTold;
        if (goes)
            delete record;
        return goes;
    });
}

bool CUPnPDevice::DeletePortMap(void* cancel, unsigned int port, const char* protocol)
{
    if (FindConnectionService() == nullptr)
        return true;

    CUPnPPortMap record(port, ProtocolOrTCP(protocol), Narrow(GetIpAddr()), "");
    std::vector<CUPnPPortMap*> list{&record};
    if (!DeletePortMaps(cancel, list))
        return false;
    if (record.GetDeleted()) // otherwise the upkeep would miss the mapping and drop the gateway
        ForgetIndivPortMap(record);
    return true;
}

void CUPnPDevice::ForgetIndivPortMap(const CUPnPPortMap& record)
{
    std::erase_if(m_IndivPortMapRecords, [&](CUPnPPortMap* kept) {
        const bool same = kept->ExternalPort() == record.ExternalPort() &&
                          tavronet::EqualNoCase(kept->GetProtocol(), record.GetProtocol());
        if (same)
            delete kept;
        return same;
    });
}

bool CUPnPDevice::GetPortMaps(void* cancel, std::vector<CUPnPPortMap*>& list)
{
    CUPnPService* const service = FindConnectionService();
    if (service == nullptr)
        return false;

    const bool listIsOurs = &list == &m_PortMaps;
    std::size_t characters = 0;
    for (int index = 0; index < tavronet::kMaxPortMapEntries && characters < tavronet::kMaxPortMapCharacters;
         ++index)
    {
        CStringA indexText;
        indexText.Format("%d", index);
        const bool wait = true;
        const Exchange outcome =
            ServiceCommand(service, wait, cancel, "GetGenericPortMappingEntry", "NewPortMappingIndex",
                           indexText.GetString(), "NewRemoteHost", "", "NewExternalPort", "", "NewProtocol",
                           "TCP", "NewInternalPort", "", "NewInternalClient", "", "NewEnabled", "",
                           "NewPortMappingDescription", "", "NewLeaseDuration", "", nullptr);
        if (outcome != Exchange::Answered) {
            if (outcome != Exchange::DeviceGone || !listIsOurs)
                ReleasePortMaps(list);
            return false;
        }
        SaveCommandResponse(service);
        if (service->GetResponseCode() != kAccepted)
            return true; // behind the last entry
        std::unique_ptr<CUPnPPortMap> entry =
            EntryOf(*service, 1, Narrow(service->GetCommandParameterResult(0)));
        characters += entry->TextLength();
        list.push_back(entry.get());
        entry.release();
    }
    return true;
}

CUPnPDevice::Exchange CUPnPDevice::LookUp(void* cancel, const CUPnPPortMap& record,
                                          std::unique_ptr<CUPnPPortMap>& entry)
{
    CUPnPService* const service = FindConnectionService();
    if (service == nullptr)
        return Exchange::NoService;

    const bool wait = true;
    const Exchange outcome = ServiceCommand(
        service, wait, cancel, "GetSpecificPortMappingEntry", "NewRemoteHost", "", "NewExternalPort",
        Narrow(record.GetExternalPort()).GetString(), "NewProtocol", Narrow(record.GetProtocol()).GetString(),
        "NewInternalPort", "", "NewInternalClient", "", "NewEnabled", "", "NewPortMappingDescription", "",
        "NewLeaseDuration", "", nullptr);
    if (outcome == Exchange::Answered && service->GetResponseCode() == kAccepted)
        entry = EntryOf(*service, 0, CStringA());
    return outcome;
}

CUPnPPortMap* CUPnPDevice::GetPortSpecificPortMap(void* cancel, const CUPnPPortMap& record)
{
    std::unique_ptr<CUPnPPortMap> entry;
    LookUp(cancel, record, entry);
    return entry.release();
}

void CUPnPDevice::ReleasePortMaps(std::vector<CUPnPPortMap*>& list)
{
    for (const CUPnPPortMap* record : list)
        delete record;
    list.clear();
}
