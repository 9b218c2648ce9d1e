#include "tavronet/upnp/UPnPObject.h"

#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/platform/Wait.h"
#include "tavronet/upnp/Limits.h"

CUPnPObject::CUPnPObject(CUPnPObject* parent, CUPnPNetwork* network)
    : m_pParent(parent), m_WaitTimeout(tavronet::kWaitTimeoutMs), m_pUPnPNetwork(network)
{
}

CUPnPObject::~CUPnPObject()
{
    ReleaseUPnPObjects();
}

int CUPnPObject::ParentDepth() const
{
    return m_pParent == nullptr ? 0 : m_pParent->ParentDepth() + 1;
}

CUPnPNetwork* CUPnPObject::GetUPnPNetwork() const
{
    if (m_pUPnPNetwork != nullptr || m_pParent == nullptr)
        return m_pUPnPNetwork;
    return m_pParent->GetUPnPNetwork();
}

bool CUPnPObject::IsDevice() const
{
    return m_ReadAs == ReadAs::Device || m_Type.View().starts_with(L"urn:schemas-upnp-org:device:");
}

bool CUPnPObject::IsService() const
{
    return m_ReadAs == ReadAs::Service || m_Type.View().starts_with(L"urn:schemas-upnp-org:service:");
}

void CUPnPObject::AddUPnPObject(CUPnPObject* object)
{
    m_UPnPObjects.push_back(object);
    object->WantUpkeep();
}

void CUPnPObject::WantUpkeep()
{
    m_WantsUpkeep = true;
    for (CUPnPObject* node = m_pParent; node != nullptr; node = node->m_pParent)
        node->m_WantsUpkeep = node->m_PassesUpkeepOn = true;
}

CUPnPObject* CUPnPObject::GetUPnPObject(int index) const
{
    if (index < 0 || static_cast<std::size_t>(index) >= m_UPnPObjects.size())
        return nullptr;
    return m_UPnPObjects[static_cast<std::size_t>(index)];
}

void CUPnPObject::ReleaseUPnPObjects()
{
    for (const CUPnPObject* object : m_UPnPObjects)
        delete object;
    m_UPnPObjects.clear();
}

void CUPnPObject::DispatchMessages()
{
    DispatchPending();
}

bool CUPnPObject::WaitEvent(HANDLE event, HANDLE cancel)
{
    const tavronet::LifetimeGuard guard(*this);
    const HANDLE handles[] = {event, cancel};
    const DWORD count = cancel == nullptr ? 1 : 2;
    const DWORD start = GetTickCount();
    const DWORD timeout = m_WaitTimeout; // dispatching may destroy this node
    DWORD remaining = timeout;

    // A round at a time: the event and the clock are looked at again however much is due.
    DispatchRound();
    while (guard.Alive()) {
        const DWORD result = MsgWaitForMultipleObjectsEx(count, handles, remaining, kWakeOnAnyInput, 0);
        if (!guard.Alive()) // the host's wait hook has run
            return false;
        if (result != WAIT_OBJECT_0 + count) {
            m_CancelledWaits += result == WAIT_OBJECT_0 + 1;
            return result == WAIT_OBJECT_0;
        }

        // Measured from the start, so that no flow of messages prolongs the wait.
        const DWORD elapsed = ElapsedMs(GetTickCount(), start);
        if (elapsed >= timeout)
            return false;
        DispatchRound();
        remaining = timeout - elapsed;
    }
    return false;
}
