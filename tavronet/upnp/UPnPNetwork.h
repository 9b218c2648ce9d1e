#ifndef TAVRONET_UPNP_UPNPNETWORK_H
#define TAVRONET_UPNP_UPNPNETWORK_H

#include <cstddef>
#include <memory>
#include <vector>

#include "tavronet/platform/Lifetime.h"
#include "tavronet/upnp/UPnPObject.h"

class CUPnPDevice;
class CUPnPService;
class CUPnPSSDPSocket;

namespace tavronet
{
class UPnPDialect;
}

/// How descriptions and answers of gateways are read, and what is searched for.
enum UPnPDialectCode
{
    UPnPDialectClassic = 0, ///< descriptions with a tag a line, version-1 services, unprefixed answers
    UPnPDialectModern = 1   ///< any XML, version-2 services, chunked answers, IPv6 addresses in URLs
};

/// Finds the Internet gateways of the local networks and keeps them.
///
/// Owns one discovery socket per private local address and the devices that answered. Has no thread and no
/// timer: searching starts in the constructor, answers arrive while the host pumps the thread's queue
/// (MessageQueue.h), everything periodic happens in Tickle.
/// Thread: every call on the thread that made it.
/// Events: the callback runs on that thread, inside the call that raised the event. There, and in any message
/// handled while an operation waits, the host may do anything: release devices, delete the network, start
/// operations, throw. Nothing freed is touched afterwards and no state stays half set.
/// Bounds: 128 devices, 16 of them without a description; further answers are dropped. While all places are
/// taken, each Tickle drops a device that has been silent for 10 minutes and holds no mappings.
class TAVRONET_API CUPnPNetwork : public tavronet::Lifetime
{
public:
    /// Starts the first full discovery.
    /// @param callback receives the events, may be null.  @param context its first argument, borrowed.
    /// @param dialect UPnPDialectClassic or UPnPDialectModern.
    /// @param search false: sends nothing on its own, now or later; the host registers the devices that it knows
    ///        (NewUPnPDevice) and may call Discover.
    explicit CUPnPNetwork(UPnPEventCallback callback = nullptr, void* context = nullptr,
                          int dialect = UPnPDialectClassic, bool search = true);

    /// Deletes the sockets, then the devices; raises no events and removes no mapping from a gateway.
    virtual ~CUPnPNetwork();

    /// Full discovery: lists the local addresses anew, replaces all discovery sockets, searches on each. Marks the
    /// devices for release that were reached through an address which this machine no longer has.
    void Discover();

    /// Searches again on every discovery socket.
    void Rediscover();

    /// Whether the discovery period is over: 10000 ms since the last full discovery or search for an expired
    /// device. Tells nothing about how many devices were found. Near the wrap of the tick counter the answer
    /// can be early or late by a period.
    bool DiscoverComplete() const;

    /// The tick at which the discovery period began.
    DWORD GetDiscoverTick() const { return m_DiscoverTick; }

    /// Periodic upkeep: repeats searches within the discovery period, keeps up the devices, drops at most one
    /// per call, and runs a full discovery after 300000 ms. A nested call does nothing.
    void Tickle();

    /// Registers a device and asks for its description, or refreshes the device that it names.
    /// @param record owned by the network from now on.
    void NewUPnPDevice(CUPnPDevice* record);

    /// Handles an announcement: raises UPnPEventDeviceNotify, then registers, refreshes or marks for release.
    /// @param record owned by the network from now on.
    void Notify(CUPnPDevice* record);

    /// The registered device at `index`; null when there is none.
    CUPnPDevice* GetUPnPDevice(int index) const;
    /// The first registered device that `usn` (or any text with a uuid) names; null when there is none.
    CUPnPDevice* GetUPnPDevice(const char* usn) const;
    /// The registered device that is the same as `record`: by USN, otherwise by source address, description
    /// URL or UUID. Null when there is none.
    CUPnPDevice* GetUPnPDevice(CUPnPDevice* record) const;

    /// The first device reached through the local address `address`, compared as text; null if there is none.
    CUPnPDevice* FindDevice(const char* address) const;
    /// The service of that type on the device reached through `address`; null when there is none.
    CUPnPService* FindService(const char* address, const char* serviceType) const;

    std::size_t NumDevices() const { return m_Devices.size(); }

    /// Unregisters and deletes a device, after UPnPEventDeviceReleased if it was described. A pointer that is
    /// not registered, or that is being released, is ignored.
    void ReleaseUPnPDevice(CUPnPDevice* device);

    /// Calls the host's callback, if there is one.
    void UPnPEvent(int code, CUPnPObject* object);

    /// Replaces the callback, not its context; null silences all events.
    void SetUPnPEventCallback(UPnPEventCallback callback) { m_pUPnPEventCallback = callback; }

    /// The host's event that ends waits early as a failure; not owned, may be null.
    HANDLE GetCancelEvent() const { return m_hCancelEvent; }
    void SetCancelEvent(HANDLE cancel) { m_hCancelEvent = cancel; }

    /// Chooses the dialect for what is read from now on and, when it is another one, searches again. Devices
    /// already described stay as they are.
    /// @return false, changing nothing, when there is no such dialect.
    bool SetDialect(int dialect);
    int GetDialect() const { return m_Dialect; }

    /// The dialect's rules; for the library's own use.
    const tavronet::UPnPDialect& Dialect() const;

private:
    class RecordHolder; // an announcement's record while the host looks at it

    int FindUPnPDevice(const char* usn) const;
    bool HasRoomForDevice() const;
    bool IsRegistered(const CUPnPDevice* device) const;
    bool IsBeingReleased(const CUPnPDevice* device) const;
    void Unregister(CUPnPDevice* device);
    void GiveUpLostAddresses();
    bool TickleDevices(bool discoverComplete);
    bool Drop(CUPnPDevice* device);
    bool MakeRoom();
    void SearchForExpired(CUPnPDevice& device);
    CUPnPSSDPSocket* FindSSDPSocket(const CString& address) const;
    void ReleaseUPnPDevices();

    std::vector<std::unique_ptr<CUPnPSSDPSocket>> m_SSDPSockets;
    std::vector<CUPnPDevice*> m_Devices;             // owned, deleted by ReleaseUPnPDevice(s)
    std::vector<const CUPnPDevice*> m_BeingReleased; // registered devices whose release event runs
    DWORD m_DiscoverTick = 0;                        // start of the discovery period
    DWORD m_RediscoverTick = 0;                      // last search on all sockets
    bool m_bInTickle = false;
    bool m_bSearch;                  // full discoveries happen on their own
    HANDLE m_hCancelEvent = nullptr; // the host's
    int m_Dialect;
    UPnPEventCallback m_pUPnPEventCallback;
    void* m_pUPnPEventContext; // the host's
};

#endif
