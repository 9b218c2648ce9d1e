// What a device does each time the network's upkeep comes by.

#include <algorithm>
#include <memory>

#include "tavronet/platform/TickCount.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPDeviceSocket.h"

bool CUPnPDevice::Tickle()
{
    if (m_InCommand)
        return true;
    if (m_Release != 0)
        return false;
    while (ReleaseStaleSocket()) {
    }
    if (!IsDevice())
        return ElapsedMs(GetTickCount(), m_DescRequestTick) <= tavronet::kDescriptionWaitMs;
    if (m_CommandFailed) {
        m_CommandFailed = false;
        return false;
    }
    if (m_MaxAge < 0 && m_RediscoverAttempt > tavronet::kMaxRediscoverAttempts)
        return false;

    return TickleChildren() && VerifyMaps(m_PortMaps, m_LastVerifyTimeMaps, m_LastVerifyTimeIndiv) &&
           VerifyMaps(m_IndivPortMapRecords, m_LastVerifyTimeIndiv, m_LastVerifyTimeMaps);
}

bool CUPnPDevice::ReleaseStaleSocket()
{
    const auto isStale = [now = GetTickCount()](const CUPnPDeviceSocket* socket) {
        const DWORD lastActivity = socket->GetTick(); // 0: none yet
        return (lastActivity != 0 && lastActivity + tavronet::kIdleConnectionMs < now) || socket->Overdue();
    };
    const auto stale = std::ranges::find_if(m_DeviceSockets, isStale);
    if (stale == m_DeviceSockets.end())
        return false;
    ReleaseUPnPDeviceSocket(*stale);
    return true;
}

bool CUPnPDevice::TickleChildren()
{
    Root().Names(); // finds the devices that have no type
    if (!PassesUpkeepOn())
        return true;

    // By index, the size read anew: a child's check may run anything.
    const tavronet::LifetimeGuard guard(*this);
    for (int i = 0; static_cast<std::size_t>(i) < NumUPnPObjects(); ++i) {
        CUPnPObject* const child = GetUPnPObject(i);
        const bool keep = !child->WantsUpkeep() || child->Tickle();
        if (!guard.Alive() || !keep)
            return false;
    }
    return true;
}

/// One step of the relay: the list that has the turn is checked a record at a time, then the other list gets
/// it.
bool CUPnPDevice::VerifyMaps(std::vector<CUPnPPortMap*>& list, DWORD& ownTurn, DWORD& otherTurn)
{
    const auto passTurn = [&](DWORD tick) {
        otherTurn = tick;
        ownTurn = 0;
        m_VerifyIndex = 0;
    };

    if (list.empty()) {
        if (ownTurn != 0)
            passTurn(ownTurn);
        return true;
    }
    if (ownTurn == 0 || ElapsedMs(GetTickCount(), ownTurn) <= tavronet::kVerifySpacingMs)
        return true;
    m_VerifyIndex = std::max(m_VerifyIndex, 0);
    if (static_cast<std::size_t>(m_VerifyIndex) >= list.size()) {
        passTurn(ownTurn);
        return true;
    }

    const Check check = VerifyMap(list[static_cast<std::size_t>(m_VerifyIndex)]);
    if (check == Check::DeviceGone)
        return false;
    if (check == Check::Failed) {
        passTurn(0); // until the next saved answer
        return false;
    }
    if (check == Check::Passed)
        ++m_VerifyIndex;
    if (static_cast<std::size_t>(m_VerifyIndex) < list.size())
        ownTurn = GetTickCount();
    else
        passTurn(GetTickCount());
    return true;
}

/// Asks the gateway whether it still holds the mapping as it was made.
CUPnPDevice::Check CUPnPDevice::VerifyMap(const CUPnPPortMap* record)
{
    if (record == nullptr) // the host put it there
        return Check::Passed;
    const CUPnPPortMap made = *record; // the list may change during the exchange
    std::unique_ptr<CUPnPPortMap> found;
    switch (LookUp(GetCancelEvent(), made, found)) {
    case Exchange::DeviceGone: return Check::DeviceGone;
    case Exchange::Queued: return Check::Later; // an action of the host is under way
    default: break;
    }
    const auto same = [&](const wchar_t* (CUPnPPortMap::*text)() const) {
        return CString((found.get()->*text)()) == (made.*text)();
    };
    const bool intact = found != nullptr && same(&CUPnPPortMap::GetInternalPort) &&
                        same(&CUPnPPortMap::GetInternalClient) && same(&CUPnPPortMap::GetEnabled);
    return intact ? Check::Passed : Check::Failed;
}
