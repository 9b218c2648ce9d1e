#include "tavronet/api/UPnPApi.h"

#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/Lifetime.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/TextConversion.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/platform/Wait.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPDialect.h"
#include "tavronet/upnp/UPnPNetwork.h"
#include "tavronet/upnp/UPnPService.h"

namespace
{

constexpr int kAccepted = 200; // HTTP
constexpr DWORD kDiscoverStepMs = 100;

CUPnPNetwork* g_pUPnPNetwork = nullptr; // owned, deleted by UPnPClose; any wait may delete or replace it
int g_Dialect = UPnPDialectClassic;     // of the next network

/// Runs a function's work. Exceptions of any other type are the host's own, thrown by its handlers, and pass.
template <typename Work>
int ReportingExceptions(Work work)
{
    try {
        return work();
    } catch (CException* exception) {
        exception->Delete();
        return UPnPException;
    } catch (const std::bad_alloc&) { // the caller may be C, which nothing can pass
        return UPnPException;
    }
}

CUPnPDevice* FindDevice(const char* address)
{
    return g_pUPnPNetwork->FindDevice(address);
}

CUPnPDevice* FindDevice(int index)
{
    return g_pUPnPNetwork->GetUPnPDevice(index);
}

/// The frame of every function with a device.
/// @param selector local address or index.
/// @param usable whether the caller's outputs can be written.  @param operation takes the device, returns
///         success.
template <typename Selector, typename Operation>
int WithDevice(Selector selector, bool usable, Operation operation)
{
    if (g_pUPnPNetwork == nullptr)
        return UPnPNoNetwork;
    return ReportingExceptions([&]() -> int {
        CUPnPDevice* const device = FindDevice(selector);
        if (device == nullptr)
            return UPnPNoDevice;
        return usable && operation(*device) ? UPnPSuccess : UPnPFailed;
    });
}

bool IsUsable(const char* buffer, int size)
{
    return buffer != nullptr && size > 0;
}

void Fill(char* buffer, int size, const CString& text)
{
    const CStringA narrow = Narrow(text); // may throw: before anything is written
    std::memset(buffer, 0, static_cast<std::size_t>(size));
    tavronet::CopyTruncated(buffer, size, narrow);
}

// --- Life of the network

int StartUp()
{
    if (g_pUPnPNetwork != nullptr)
        return UPnPNetworkExists;
    g_pUPnPNetwork = new (std::nothrow) CUPnPNetwork(nullptr, nullptr, g_Dialect);
    return g_pUPnPNetwork != nullptr ? UPnPSuccess : UPnPOutOfMemory;
}

/// Dispatches what arrives for `timeoutMs`, or until `cancel` is signalled. Runs foreign code.
/// @return whether it was signalled; a handle that cannot be waited for never is.
bool WaitWithMessagePump(DWORD timeoutMs, HANDLE cancel)
{
    const DWORD start = GetTickCount();
    DWORD remainingMs = timeoutMs;
    DWORD handles = cancel != nullptr ? 1 : 0;
    for (;;) {
        DispatchRound(); // a round at a time: the handle is looked at again however much is due
        const DWORD outcome = MsgWaitForMultipleObjectsEx(handles, &cancel, remainingMs, kWakeOnAnyInput, 0);
        if (outcome == WAIT_TIMEOUT)
            return false;
        if (handles == 1 && outcome == WAIT_OBJECT_0)
            return true;
        if (outcome == WAIT_FAILED) // without the handle the rest of the time is slept instead of spun away
        {
            if (handles == 0)
                return false;
            handles = 0;
        }

        const DWORD elapsedMs = ElapsedMs(GetTickCount(), start);
        if (elapsedMs >= timeoutMs)
            return false;
        remainingMs = timeoutMs - elapsedMs;
    }
}

/// DiscoverComplete, which near the wrap of the tick counter can stay false for weeks, or the period by
/// difference.
bool DiscoveryIsOver()
{
    return g_pUPnPNetwork->DiscoverComplete() ||
           ElapsedMs(GetTickCount(), g_pUPnPNetwork->GetDiscoverTick()) > tavronet::kDiscoverPeriodMs;
}

int WaitForDiscovery(HANDLE cancel)
{
    for (;;) {
        const bool cancelled = WaitWithMessagePump(kDiscoverStepMs, cancel);
        if (g_pUPnPNetwork == nullptr) // closed by a handler; one that was started instead is waited for
            return UPnPNoNetwork;
        if (cancelled)
            return UPnPCancelled;
        if (DiscoveryIsOver())
            return UPnPSuccess;
    }
}

// --- What the two forms of a device function share

template <typename Selector>
int IsDescriptionComplete(Selector selector, bool* complete)
{
    return WithDevice(selector, complete != nullptr, [&](CUPnPDevice& device) {
        *complete = device.DiscoverComplete();
        return true;
    });
}

template <typename Selector>
int GetExternalIPAddress(HANDLE cancel, Selector selector, char* buffer, int size)
{
    return WithDevice(selector, IsUsable(buffer, size),
                      [&](CUPnPDevice& device) { return device.GetExternalIPAddress(cancel, buffer, size); });
}

template <typename Selector>
int GetNATEnabled(HANDLE cancel, Selector selector, bool* enabled)
{
    return WithDevice(selector, enabled != nullptr, [&](CUPnPDevice& device) {
        const tavronet::LifetimeGuard guard(device);
        bool answer = false;
        const bool answered = device.GetNATEnabled(cancel, answer);
        if (guard.Alive())
            *enabled = answer;
        return answered;
    });
}

template <typename Selector>
int GetLastGatewayError(Selector selector, int* httpStatus, int* upnpCode, char* text, int size)
{
    const bool usable = httpStatus != nullptr && upnpCode != nullptr && IsUsable(text, size);
    return WithDevice(selector, usable, [&](CUPnPDevice& device) {
        const bool refused = device.GetCmndRespCode() != kAccepted;
        Fill(text, size, refused ? device.GetCmndErrorDescription() : CString());
        *httpStatus = device.GetCmndRespCode();
        *upnpCode = refused ? tavronet::ReadInt32(device.GetCmndErrorCode()) : 0;
        return true;
    });
}

using TextGetter = const CString& (CUPnPDevice::*)() const;

template <typename Selector>
int GetText(Selector selector, TextGetter getter, char* buffer, int size)
{
    return WithDevice(selector, IsUsable(buffer, size), [&](CUPnPDevice& device) {
        Fill(buffer, size, (device.*getter)());
        return true;
    });
}

/// Adds the mapping. @return whether the gateway answered or, where a refusal is a failure, accepted.
bool AddPortMap(CUPnPDevice& device, HANDLE cancel, unsigned int port, const char* description,
                const char* protocol)
{
    const bool refusalIsFailure = tavronet::DialectOf(device).RefusalIsFailure();
    const CUPnPService* const service = device.FindConnectionService();
    const UINT answersBefore = service != nullptr ? service->GetAnswerSerial() : 0;

    const tavronet::LifetimeGuard guard(device);
    if (!device.AddPortMap(cancel, port, description, protocol))
        return false;
    if (!refusalIsFailure)
        return true;
    if (!guard.Alive())
        return false;
    const bool answered =
        service->GetAnswerSerial() != answersBefore; // otherwise the status is that of an earlier one
    return answered && device.GetCmndRespCode() == kAccepted;
}

/// A list that owns its records, also when a handler's exception ends the operation.
struct PortMapList
{
    ~PortMapList() { CUPnPDevice::ReleasePortMaps(records); }

    std::vector<CUPnPPortMap*> records;
};

/// Tries every port, whatever becomes of the others, until the caller gives up; those above the highest that
/// exists have failed already.
bool DeletePortMaps(CUPnPDevice& device, HANDLE cancel, unsigned int first, unsigned int count,
                    const char* protocol)
{
    const unsigned long long end = 0ULL + first + count; // the sum may pass 32 bits
    const CUPnPService* const service = device.FindConnectionService();
    const UINT cancelledBefore = service != nullptr ? service->GetCancelledWaits() : 0;
    const tavronet::LifetimeGuard guard(device);
    bool all = count == 0 || end - 1 <= tavronet::kHighestPort;
    for (unsigned int port = first; port < end && port <= tavronet::kHighestPort; ++port) {
        if (!device.DeletePortMap(cancel, port, protocol))
            all = false;
        if (!guard.Alive() || (service != nullptr && service->GetCancelledWaits() != cancelledBefore))
            return false;
    }
    return all;
}

} // namespace

int UPnPSetDialect(int dialect)
{
    if (g_pUPnPNetwork != nullptr)
        return UPnPNetworkExists;
    if (dialect != UPnPDialectClassic && dialect != UPnPDialectModern)
        return UPnPFailed;
    g_Dialect = dialect;
    return UPnPSuccess;
}

int UPnPDiscoverStartup(void)
{
    return ReportingExceptions(StartUp);
}

int UPnPDiscover(bool wait, HANDLE cancel)
{
    return ReportingExceptions([&] {
        const int started = StartUp();
        return started == UPnPSuccess && wait ? WaitForDiscovery(cancel) : started;
    });
}

int UPnPDispatch(unsigned int milliseconds)
{
    return ReportingExceptions([&] {
        MsgWaitForMultipleObjectsEx(0, nullptr, milliseconds, kWakeOnAnyInput, 0);
        DispatchRound();
        return UPnPSuccess;
    });
}

int UPnPDiscoverComplete(void)
{
    if (g_pUPnPNetwork == nullptr)
        return UPnPNoNetwork;
    return g_pUPnPNetwork->DiscoverComplete() ? UPnPSuccess : UPnPNotComplete;
}

int UPnPTickle(void)
{
    if (g_pUPnPNetwork == nullptr)
        return UPnPNoNetwork;
    return ReportingExceptions([] {
        g_pUPnPNetwork->Tickle();
        return UPnPSuccess;
    });
}

int UPnPClose(void)
{
    if (g_pUPnPNetwork == nullptr)
        return UPnPNoNetwork;
    delete g_pUPnPNetwork; // a destructor lets no exception out, so the pointer never keeps a dead object
    g_pUPnPNetwork = nullptr;
    return UPnPSuccess;
}

int UPnPDeviceIsDescriptionComplete(HANDLE /*cancel*/, const char* device, bool* complete)
{
    return IsDescriptionComplete(device, complete);
}

int UPnPDeviceIsDescriptionCompleteByIndex(HANDLE /*cancel*/, int index, bool* complete)
{
    return IsDescriptionComplete(index, complete);
}

int UPnPGetExternalIPAddress(HANDLE cancel, const char* device, char* buffer, int size)
{
    return GetExternalIPAddress(cancel, device, buffer, size);
}

int UPnPGetExternalIPAddressByIndex(HANDLE cancel, int index, char* buffer, int size)
{
    return GetExternalIPAddress(cancel, index, buffer, size);
}

int UPnPGetDeviceNATEnabled(HANDLE cancel, const char* device, bool* enabled)
{
    return GetNATEnabled(cancel, device, enabled);
}

int UPnPGetDeviceNATEnabledByIndex(HANDLE cancel, int index, bool* enabled)
{
    return GetNATEnabled(cancel, index, enabled);
}

int UPnPAddPortMap(HANDLE cancel, const char* device, unsigned int port, const char* description,
                   const char* protocol)
{
    const bool usable = true;
    return WithDevice(device, usable, [&](CUPnPDevice& found) {
        return AddPortMap(found, cancel, port, description, protocol);
    });
}

int UPnPDeletePortMap(HANDLE cancel, const char* device, unsigned int port, const char* protocol)
{
    const bool usable = true;
    return WithDevice(device, usable,
                      [&](CUPnPDevice& found) { return found.DeletePortMap(cancel, port, protocol); });
}

int UPnPAddPortMappingRange(HANDLE cancel, const char* device, unsigned int* port, unsigned int count,
                            const char* description, const char* protocol)
{
    return WithDevice(device, port != nullptr, [&](CUPnPDevice& found) {
        PortMapList list;
        if (!found.AddPortMaps(cancel, *port, count, description, list.records, protocol))
            return false;
        if (!list.records.empty())
            *port = list.records.front()->ExternalPort();
        return true;
    });
}

int UPnPDeletePortMappingRange(HANDLE cancel, const char* device, unsigned int port, unsigned int count,
                               const char* protocol)
{
    const bool usable = true;
    return WithDevice(device, usable, [&](CUPnPDevice& found) {
        return DeletePortMaps(found, cancel, port, count, protocol);
    });
}

int UPnPGetLastGatewayError(const char* device, int* httpStatus, int* upnpCode, char* text, int size)
{
    return GetLastGatewayError(device, httpStatus, upnpCode, text, size);
}

int UPnPGetLastGatewayErrorByIndex(int index, int* httpStatus, int* upnpCode, char* text, int size)
{
    return GetLastGatewayError(index, httpStatus, upnpCode, text, size);
}

int UPnPGetDeviceFriendlyName(const char* device, char* buffer, int size)
{
    return GetText(device, &CUPnPDevice::GetFriendlyName, buffer, size);
}

int UPnPGetDeviceFriendlyNameByIndex(int index, char* buffer, int size)
{
    return GetText(index, &CUPnPDevice::GetFriendlyName, buffer, size);
}

int UPnPGetDeviceManufacturer(const char* device, char* buffer, int size)
{
    return GetText(device, &CUPnPDevice::GetManufacturer, buffer, size);
}

int UPnPGetDeviceManufacturerByIndex(int index, char* buffer, int size)
{
    return GetText(index, &CUPnPDevice::GetManufacturer, buffer, size);
}

int UPnPGetDeviceManufacturerURL(const char* device, char* buffer, int size)
{
    return GetText(device, &CUPnPDevice::GetManufacturerURL, buffer, size);
}

int UPnPGetDeviceManufacturerURLByIndex(int index, char* buffer, int size)
{
    return GetText(index, &CUPnPDevice::GetManufacturerURL, buffer, size);
}

int UPnPGetDeviceModelDescription(const char* device, char* buffer, int size)
{
    return GetText(device, &CUPnPDevice::GetModelDescription, buffer, size);
}

int UPnPGetDeviceModelDescriptionByIndex(int index, char* buffer, int size)
{
    return GetText(index, &CUPnPDevice::GetModelDescription, buffer, size);
}

int UPnPGetDeviceModelName(const char* device, char* buffer, int size)
{
    return GetText(device, &CUPnPDevice::GetModelName, buffer, size);
}

int UPnPGetDeviceModelNameByIndex(int index, char* buffer, int size)
{
    return GetText(index, &CUPnPDevice::GetModelName, buffer, size);
}
