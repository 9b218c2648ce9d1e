#include "tavronet/upnp/UPnPDevice.h"

#include "tavronet/platform/TextConversion.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/upnp/DeviceNames.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/TreeBytes.h"
#include "tavronet/upnp/UPnPDialect.h"

namespace
{

/// The tick that lies `seconds` ahead; wraps as the tick itself does.
DWORD ExpiryOf(int seconds)
{
    return GetTickCount() + static_cast<DWORD>(seconds) * 1000U;
}

} // namespace

CUPnPDevice::CUPnPDevice(CUPnPDevice* parent, CUPnPNetwork* network) : CUPnPObject(parent, network) {}

CUPnPDevice::~CUPnPDevice()
{
    ReleaseUPnPDeviceSockets();
    ReleasePortMaps(m_IndivPortMapRecords);
    ReleasePortMaps(m_PortMaps);
}

void CUPnPDevice::Init(const char* localAddress, const char* deviceAddress, unsigned int devicePort,
                       char* datagram)
{
    m_IpAddr = localAddress;
    m_DeviceAddr = deviceAddress;
    m_DevicePort = devicePort;

    const bool skipKey = true;
    ParseHTTP(datagram, "\r\nlocation:", m_DescURL, skipKey);
    ParseHTTP(datagram, "\r\ncache-control:", m_CacheControl, skipKey);
    ParseHTTP(datagram, "\r\nserver:", m_Server, skipKey);
    ParseHTTP(datagram, "\r\nnt:", m_NT, skipKey);
    ParseHTTP(datagram, "\r\nst:", m_ST, skipKey);
    ParseHTTP(datagram, "\r\nnts:", m_NTS, skipKey);
    ParseHTTP(datagram, "\r\nusn:", m_USN, skipKey);
    ParseHTTP(datagram, "\r\next:", m_EXT, skipKey);
    ParseUSN();

    int seconds = 0;
    const bool told = ParseValue(Narrow(GetCacheControl()), "max-age", seconds);
    m_MaxAge = told ? seconds : 0;
    m_Expires = told ? ExpiryOf(seconds) : 0;
    m_HeardTick = GetTickCount();
}

void CUPnPDevice::ParseUSN()
{
    ForgetNames();
    if (m_USN.IsEmpty())
        return;

    CString lines = m_USN; // each part on a line of its own
    lines.Replace(L"::", L"\r\n");
    const CStringA text = Narrow(lines);
    const bool skipKey = false;
    ParseHTTP(text, "uuid:", m_UUID, skipKey);
    ParseHTTP(text, "urn:", m_URN, skipKey);
}

CString CUPnPDevice::UUIDPart(const char* usn)
{
    CString uuid;
    const bool skipKey = false;
    ParseHTTP(usn, "uuid:", uuid, skipKey);
    const int end = uuid.Find(L"::");
    return end < 0 ? uuid : uuid.Left(end);
}

bool CUPnPDevice::MatchingDevice(const char* usn)
{
    return HasUSN(CString(usn)) || HasUUID(UUIDPart(usn));
}

bool CUPnPDevice::HasUSN(const CString& usn) const
{
    return tavronet::EqualNoCase(GetUSN().View(), usn.View());
}

bool CUPnPDevice::HasUUID(const CString& uuid) const
{
    return tavronet::EqualNoCase(GetUUID().View(), uuid.View()) || HasUDN(uuid);
}

bool CUPnPDevice::HasUDN(const CString& uuid) const
{
    if (tavronet::EqualNoCase(m_UDN.View(), uuid.View()))
        return true;
    for (int i = 0; static_cast<std::size_t>(i) < NumUPnPObjects(); ++i) {
        // A cast that looks: the type text comes from the network and proves nothing.
        const auto* const child = dynamic_cast<const CUPnPDevice*>(GetUPnPObject(i));
        if (child != nullptr && child->IsDevice() && child->HasUDN(uuid))
            return true;
    }
    return false;
}

const tavronet::DeviceNames& CUPnPDevice::Names()
{
    if (m_pNames == nullptr) {
        auto names = std::make_unique<tavronet::DeviceNames>();
        names->Add(m_UUID.View());
        CollectNames(*names);
        names->Seal();
        m_pNames = std::move(names);
    }
    return *m_pNames;
}

void CUPnPDevice::CollectNames(tavronet::DeviceNames& names)
{
    names.Add(m_UDN.View());
    for (int i = 0; static_cast<std::size_t>(i) < NumUPnPObjects(); ++i) {
        auto* const child = dynamic_cast<CUPnPDevice*>(GetUPnPObject(i));
        if (child != nullptr && child->IsDevice())
            child->CollectNames(names);
        else if (child != nullptr)
            child->WantUpkeep(); // which gives up a tree with a device that has no type
    }
}

void CUPnPDevice::ForgetNames()
{
    Root().m_pNames.reset();
}

bool CUPnPDevice::IsAlive() const
{
    return tavronet::LowerCased(m_NTS.View()).find(L"ssdp:alive") != std::wstring::npos;
}

bool CUPnPDevice::IsByeBye() const
{
    return tavronet::LowerCased(m_NTS.View()).find(L"ssdp:byebye") != std::wstring::npos;
}

bool CUPnPDevice::IsRoot() const
{
    return tavronet::LowerCased(m_NT.View()).find(L"upnp:rootdevice") != std::wstring::npos;
}

bool CUPnPDevice::DiscoverComplete()
{
    return IsDevice();
}

void CUPnPDevice::SetMaxAge(int seconds)
{
    m_MaxAge = seconds;
    m_HeardTick = GetTickCount();
    SetExpires();
    if (seconds >= 0)
        SetIssuedRediscover(false);
}

void CUPnPDevice::SetExpires()
{
    m_Expires = GetMaxAge() > 0 ? ExpiryOf(m_MaxAge) : 0;
}

bool CUPnPDevice::GetIssuedRediscover()
{
    if (ElapsedMs(GetTickCount(), m_IssuedRediscoverTick) > tavronet::kIssuedSearchMs)
        m_IssuedRediscover = false;
    return m_IssuedRediscover;
}

void CUPnPDevice::SetRelease(bool release)
{
    m_Release = release ? 1 : 0;
    WantUpkeep();
}

void CUPnPDevice::SetIssuedRediscover(bool issued)
{
    WantUpkeep();
    m_IssuedRediscover = issued;
    m_IssuedRediscoverTick = issued ? GetTickCount() : 0;
    m_RediscoverAttempt = issued ? m_RediscoverAttempt + 1 : 0;
}

/// Whether a full registry may give its place to another device.
bool CUPnPDevice::IsReplaceable() const
{
    return ElapsedMs(GetTickCount(), m_HeardTick) > tavronet::kReplaceableSilenceMs && !m_InCommand &&
           !HoldsMappings();
}

bool CUPnPDevice::HoldsMappings() const
{
    if (!m_PortMaps.empty() || !m_IndivPortMapRecords.empty())
        return true;
    for (int i = 0; static_cast<std::size_t>(i) < NumUPnPObjects(); ++i) {
        const auto* const child = dynamic_cast<const CUPnPDevice*>(GetUPnPObject(i));
        if (child != nullptr && child->WantsUpkeep() && child->HoldsMappings())
            return true;
    }
    return false;
}

CString CUPnPDevice::GetDescAddr()
{
    return tavronet::DialectOf(*this).SplitURL(NearestDescURL()).host;
}

unsigned int CUPnPDevice::GetDescPort()
{
    return tavronet::DialectOf(*this).SplitURL(NearestDescURL()).port;
}

CString CUPnPDevice::GetDescPath()
{
    return tavronet::DialectOf(*this).SplitURL(NearestDescURL()).path;
}

const CString& CUPnPDevice::NearestDescURL() const
{
    const CUPnPDevice* device = this;
    while (device->m_DescURL.IsEmpty() && device->GetParent() != nullptr)
        device = device->GetParent();
    return device->m_DescURL;
}

CUPnPDevice* CUPnPDevice::GetParent() const
{
    return static_cast<CUPnPDevice*>(CUPnPObject::GetParent()); // only devices contain devices
}

const CUPnPDevice& CUPnPDevice::Root() const
{
    const CUPnPDevice* const parent = GetParent();
    return parent != nullptr ? parent->Root() : *this;
}

CUPnPDevice& CUPnPDevice::Root()
{
    CUPnPDevice* const parent = GetParent();
    return parent != nullptr ? parent->Root() : *this;
}

int CUPnPDevice::GetMaxAge() const
{
    return Root().m_MaxAge;
}

DWORD CUPnPDevice::GetExpires() const
{
    return Root().m_Expires;
}

const CString& CUPnPDevice::GetIpAddr() const
{
    return Root().m_IpAddr;
}

CString& CUPnPDevice::GetDeviceAddr()
{
    return Root().m_DeviceAddr;
}

unsigned int& CUPnPDevice::GetDevicePort()
{
    return Root().m_DevicePort;
}

const CString& CUPnPDevice::GetDescURL() const
{
    return Root().m_DescURL;
}

const CString& CUPnPDevice::GetCacheControl() const
{
    return Root().m_CacheControl;
}

const CString& CUPnPDevice::GetServer() const
{
    return Root().m_Server;
}

const CString& CUPnPDevice::GetNTS() const
{
    return Root().m_NTS;
}

const CString& CUPnPDevice::GetNT() const
{
    return Root().m_NT;
}

const CString& CUPnPDevice::GetST() const
{
    return Root().m_ST;
}

const CString& CUPnPDevice::GetUSN() const
{
    return Root().m_USN;
}

const CString& CUPnPDevice::GetUUID() const
{
    return Root().m_UUID;
}

const CString& CUPnPDevice::GetURN() const
{
    return Root().m_URN;
}

const CString& CUPnPDevice::GetEXT() const
{
    return Root().m_EXT;
}

const CString& CUPnPDevice::GetURLBase() const
{
    return Root().m_URLBase;
}

CUPnPPortMap* CUPnPDevice::GetPortMap(int index) const
{
    if (index < 0 || static_cast<std::size_t>(index) >= m_PortMaps.size())
        return nullptr;
    return m_PortMaps[static_cast<std::size_t>(index)];
}
