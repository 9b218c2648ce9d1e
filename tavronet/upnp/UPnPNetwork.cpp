#include "tavronet/upnp/UPnPNetwork.h"

#include <algorithm>
#include <memory>

#include "tavronet/net/AddressRanges.h"
#include "tavronet/net/AddressText.h"
#include "tavronet/net/LocalInterfaces.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/SocketCalls.h"
#include "tavronet/platform/TextConversion.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/socket/TavroSocket.h"
#include "tavronet/upnp/DeviceNames.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPDialect.h"
#include "tavronet/upnp/UPnPSSDPSocket.h"

namespace
{

bool IsUsable(const CStringW& localAddress)
{
    return IsPrivateIP(localAddress) != 0 && !IsLoopbackIP(localAddress);
}

/// Whether this machine had the address and has it no more. An adapter without a cable keeps its addresses.
bool IsLost(const CStringW& localAddress)
{
    const int family = AddressFamily(Narrow(localAddress));
    CTavroSocket probe;
    return family != 0 && probe.Create(0, SOCK_DGRAM, 0, localAddress, family) == 0 &&
           WSAGetLastError() == WSAEADDRNOTAVAIL;
}

/// Runs its step at the end of a scope, also when an exception ends it.
template <typename Step>
class AtExit
{
public:
    explicit AtExit(Step step) : m_Step(step) {}
    ~AtExit() { m_Step(); }
    AtExit(const AtExit&) = delete;
    AtExit& operator=(const AtExit&) = delete;

private:
    Step m_Step;
};

} // namespace

/// Deletes the record at the end, unless the host's callback has registered or deleted it.
class CUPnPNetwork::RecordHolder
{
public:
    RecordHolder(CUPnPNetwork& network, CUPnPDevice* record)
        : m_Network(network), m_pRecord(record), m_NetworkAlive(network), m_RecordAlive(*record)
    {
    }

    ~RecordHolder()
    {
        if (IsOurs())
            delete m_pRecord;
    }

    RecordHolder(const RecordHolder&) = delete;
    RecordHolder& operator=(const RecordHolder&) = delete;

    bool IsNetworkAlive() const { return m_NetworkAlive.Alive(); }

    /// Whether the record still is ours to pass on or to delete.
    bool IsOurs() const
    {
        const bool registered = m_NetworkAlive.Alive() && m_Network.IsRegistered(m_pRecord);
        return m_pRecord != nullptr && m_RecordAlive.Alive() && !registered;
    }

    CUPnPDevice* Release() { return std::exchange(m_pRecord, nullptr); }

private:
    CUPnPNetwork& m_Network;
    CUPnPDevice* m_pRecord;
    const tavronet::LifetimeGuard m_NetworkAlive;
    const tavronet::LifetimeGuard m_RecordAlive;
};

CUPnPNetwork::CUPnPNetwork(UPnPEventCallback callback, void* context, int dialect, bool search)
    : m_bSearch(search),
      m_Dialect(dialect == UPnPDialectModern ? UPnPDialectModern : UPnPDialectClassic),
      m_pUPnPEventCallback(callback),
      m_pUPnPEventContext(context)
{
    if (m_bSearch)
        Discover();
    else
        m_RediscoverTick = m_DiscoverTick = GetTickCount();
}

CUPnPNetwork::~CUPnPNetwork()
{
    m_SSDPSockets.clear();
    ReleaseUPnPDevices();
}

// --- Searching

void CUPnPNetwork::Discover()
{
    std::vector<std::unique_ptr<CUPnPSSDPSocket>> sockets; // the old ones stay when this is not completed
    std::vector<CStringW> addresses;
    GetLocalAddresses(addresses);
    for (const CStringW& address : addresses) {
        if (!IsUsable(address))
            continue;
        auto socket = std::make_unique<CUPnPSSDPSocket>(Narrow(address), 0, this);
        socket->Discover();
        if (socket->GetCreated())
            sockets.push_back(std::move(socket));
    }
    m_SSDPSockets.swap(sockets);
    m_RediscoverTick = m_DiscoverTick = GetTickCount();
    GiveUpLostAddresses();
}

/// A gateway that was reached through an address which is gone still answers, but its mappings lead nowhere.
void CUPnPNetwork::GiveUpLostAddresses()
{
    for (CUPnPDevice* const device : m_Devices) {
        if (IsLost(device->GetIpAddr()))
            device->SetRelease(true);
    }
}

void CUPnPNetwork::Rediscover()
{
    for (const auto& socket : m_SSDPSockets)
        socket->Discover();
    m_RediscoverTick = GetTickCount();
}

bool CUPnPNetwork::DiscoverComplete() const
{
    // A comparison with a sum, which wraps as the counter does; hosts know it this way.
    return GetTickCount() > m_DiscoverTick + tavronet::kDiscoverPeriodMs;
}

bool CUPnPNetwork::SetDialect(int dialect)
{
    if (dialect != UPnPDialectClassic && dialect != UPnPDialectModern)
        return false;
    if (dialect == m_Dialect)
        return true;
    m_Dialect = dialect;
    Rediscover();
    return true;
}

const tavronet::UPnPDialect& CUPnPNetwork::Dialect() const
{
    return m_Dialect == UPnPDialectModern ? tavronet::ModernDialect() : tavronet::ClassicDialect();
}

CUPnPSSDPSocket* CUPnPNetwork::FindSSDPSocket(const CString& address) const
{
    const auto reaches = [&](const auto& socket) { return socket->GetIpAddr() == address; };
    const auto found = std::ranges::find_if(m_SSDPSockets, reaches);
    return found != m_SSDPSockets.end() ? found->get() : nullptr;
}

// --- Upkeep

void CUPnPNetwork::Tickle()
{
    if (m_bInTickle)
        return;

    const tavronet::LifetimeGuard guard(*this);
    m_bInTickle = true;
    const AtExit leave([&] {
        if (guard.Alive())
            m_bInTickle = false;
    });

    const bool complete = DiscoverComplete();
    const DWORD now = GetTickCount();
    const bool searching = ElapsedMs(now, m_DiscoverTick) < tavronet::kDiscoverPeriodMs;
    if (searching && ElapsedMs(now, m_RediscoverTick) >= tavronet::kRediscoverSpacingMs)
        Rediscover();
    if (!TickleDevices(complete) || !MakeRoom())
        return;
    if (m_bSearch && ElapsedMs(GetTickCount(), m_DiscoverTick) > tavronet::kFullDiscoveryMs)
        Discover();
}

/// @return false when the network is gone.
bool CUPnPNetwork::TickleDevices(bool discoverComplete)
{
    const tavronet::LifetimeGuard guard(*this);

    // By index and with the size read anew: a device's upkeep and the callbacks change the list.
    for (std::size_t i = 0; i < m_Devices.size(); ++i) {
        CUPnPDevice* const device = m_Devices[i];
        const tavronet::LifetimeGuard deviceGuard(*device);
        const bool keep = device->Tickle();
        if (!guard.Alive())
            return false;
        if (!deviceGuard.Alive())
            continue;
        if (!keep)
            return Drop(device); // the devices behind it wait for the next tickle
        if (discoverComplete && !device->GetIssuedRediscover() && device->Expired())
            SearchForExpired(*device);
        if (!guard.Alive())
            return false;
    }
    return true;
}

/// Releases a device and searches for what may be there in its stead. @return false when the network is gone.
bool CUPnPNetwork::Drop(CUPnPDevice* device)
{
    const tavronet::LifetimeGuard guard(*this);
    ReleaseUPnPDevice(device);
    if (!guard.Alive())
        return false;
    Rediscover();
    return true;
}

/// Drops the device that has been silent for longest, if all places are taken: those who took them and went
/// away shall not keep out a gateway that comes later. @return false when the network is gone.
bool CUPnPNetwork::MakeRoom()
{
    if (m_Devices.size() < tavronet::kMaxDevices)
        return true;
    const DWORD now = GetTickCount();
    CUPnPDevice* silent = nullptr;
    for (CUPnPDevice* const device : m_Devices) {
        const bool longer =
            silent == nullptr || ElapsedMs(now, device->m_HeardTick) > ElapsedMs(now, silent->m_HeardTick);
        if (longer && device->IsReplaceable())
            silent = device;
    }
    return silent == nullptr || Drop(silent);
}

void CUPnPNetwork::SearchForExpired(CUPnPDevice& device)
{
    CUPnPSSDPSocket* const socket = FindSSDPSocket(device.GetIpAddr());
    if (socket == nullptr)
        return;
    socket->Discover();
    m_DiscoverTick = socket->GetTick();
    device.SetIssuedRediscover(true);
    UPnPEvent(UPnPEventDeviceRediscover, &device);
}

// --- The registry

void CUPnPNetwork::NewUPnPDevice(CUPnPDevice* record)
{
    if (record == nullptr || IsRegistered(record)) // by the host, from inside an event
        return;

    std::unique_ptr<CUPnPDevice> owned(record);
    if (CUPnPDevice* const match = GetUPnPDevice(record)) {
        match->SetMaxAge(record->GetMaxAge());
        return;
    }
    if (!HasRoomForDevice())
        return;
    m_Devices.push_back(record);
    owned.release();
    record->RequestDescription();
}

bool CUPnPNetwork::HasRoomForDevice() const
{
    const auto isUndescribed = [](CUPnPDevice* device) { return !device->DiscoverComplete(); };
    const auto undescribed = static_cast<std::size_t>(std::ranges::count_if(m_Devices, isUndescribed));
    return m_Devices.size() < tavronet::kMaxDevices && undescribed < tavronet::kMaxUndescribedDevices;
}

void CUPnPNetwork::Notify(CUPnPDevice* record)
{
    if (record == nullptr)
        return;
    RecordHolder holder(*this, record);
    UPnPEvent(UPnPEventDeviceNotify, record);
    if (!holder.IsNetworkAlive() || !holder.IsOurs())
        return;

    if (record->IsAlive()) {
        NewUPnPDevice(holder.Release());
        return;
    }
    CUPnPDevice* const match = record->IsByeBye() ? GetUPnPDevice(record) : nullptr;
    if (match != nullptr)
        match->SetRelease(true);
}

CUPnPDevice* CUPnPNetwork::GetUPnPDevice(int index) const
{
    if (index < 0 || static_cast<std::size_t>(index) >= m_Devices.size())
        return nullptr;
    return m_Devices[static_cast<std::size_t>(index)];
}

int CUPnPNetwork::FindUPnPDevice(const char* usn) const
{
    const CString wanted(usn);
    const CString uuid = CUPnPDevice::UUIDPart(usn);
    const std::uint32_t number = tavronet::DeviceNames::NumberOf(uuid.View());
    const auto matches = [&](CUPnPDevice* device) {
        return device->HasUSN(wanted) || (device->Names().MayHold(number) && device->HasUUID(uuid));
    };
    const auto found = std::ranges::find_if(m_Devices, matches);
    return found != m_Devices.end() ? static_cast<int>(found - m_Devices.begin()) : -1;
}

CUPnPDevice* CUPnPNetwork::GetUPnPDevice(const char* usn) const
{
    return GetUPnPDevice(FindUPnPDevice(usn));
}

CUPnPDevice* CUPnPNetwork::GetUPnPDevice(CUPnPDevice* record) const
{
    if (CUPnPDevice* const named = GetUPnPDevice(Narrow(record->GetUSN())))
        return named;

    const auto equal = [](const CString& known, const CString& wanted) {
        return !known.IsEmpty() && known == wanted;
    };
    const auto isSame = [&](CUPnPDevice* device) {
        return equal(device->GetDeviceAddr(), record->GetDeviceAddr()) ||
               equal(device->GetDescURL(), record->GetDescURL()) ||
               equal(device->GetUUID(), record->GetUUID());
    };
    const auto found = std::ranges::find_if(m_Devices, isSame);
    return found != m_Devices.end() ? *found : nullptr;
}

CUPnPDevice* CUPnPNetwork::FindDevice(const char* address) const
{
    if (address == nullptr || *address == '\0')
        return nullptr;

    const CString wanted(address);
    const auto found = std::ranges::find(m_Devices, wanted, &CUPnPDevice::GetIpAddr);
    return found != m_Devices.end() ? *found : nullptr;
}

CUPnPService* CUPnPNetwork::FindService(const char* address, const char* serviceType) const
{
    CUPnPDevice* const device = FindDevice(address);
    return device != nullptr ? device->FindService(serviceType) : nullptr;
}

bool CUPnPNetwork::IsRegistered(const CUPnPDevice* device) const
{
    return std::ranges::find(m_Devices, device) != m_Devices.end();
}

bool CUPnPNetwork::IsBeingReleased(const CUPnPDevice* device) const
{
    return std::ranges::find(m_BeingReleased, device) != m_BeingReleased.end();
}

void CUPnPNetwork::ReleaseUPnPDevice(CUPnPDevice* device)
{
    if (!IsRegistered(device) || IsBeingReleased(device))
        return;

    const tavronet::LifetimeGuard guard(*this);
    const AtExit unregister([&] { // also when the callback throws
        if (guard.Alive())
            Unregister(device);
    });
    if (!device->DiscoverComplete())
        return;
    m_BeingReleased.push_back(device); // the callback may ask for the same release again
    UPnPEvent(UPnPEventDeviceReleased, device);
}

/// Nothing but this and the end of the network deletes a registered device, so it is still in the list.
void CUPnPNetwork::Unregister(CUPnPDevice* device)
{
    std::erase(m_BeingReleased, device);
    std::erase(m_Devices, device);
    delete device;
}

void CUPnPNetwork::ReleaseUPnPDevices()
{
    for (CUPnPDevice* const device : m_Devices)
        delete device;
    m_Devices.clear();
}

// --- Events

void CUPnPNetwork::UPnPEvent(int code, CUPnPObject* object)
{
    if (m_pUPnPEventCallback != nullptr)
        m_pUPnPEventCallback(m_pUPnPEventContext, static_cast<unsigned int>(code), object);
}
