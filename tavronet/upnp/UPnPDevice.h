#ifndef TAVRONET_UPNP_UPNPDEVICE_H
#define TAVRONET_UPNP_UPNPDEVICE_H

#include <cstddef>
#include <map>
#include <memory>
#include <vector>

#include "tavronet/platform/Export.h"
#include "tavronet/platform/String.h"
#include "tavronet/platform/Types.h"
#include "tavronet/upnp/UPnPObject.h"
#include "tavronet/upnp/UPnPPortMap.h"

class CUPnPDeviceSocket;
class CUPnPService;

namespace tavronet
{
class TreeBytes;
class DeviceNames;
} // namespace tavronet

/// One device: where it was heard from, what its description says, and the port mappings made through it.
///
/// Ownership: the network owns root devices, a device its embedded devices, services and mapping records.
/// What a device knows from its announcements is kept by its root: embedded devices answer with the root's
/// values.
///
/// The operations that take a cancel handle are exchanges with the gateway. Each blocks for at most 10 s,
/// pumps the thread's messages meanwhile, and ends early as failed when the handle (a manual-reset event, or
/// null) is signalled. Whatever runs during the wait may do anything, even delete the device: the operation
/// then returns false (null) and touches nothing. An operation called while another exchange of the same
/// service is under way sends its action afterwards and learns no answer: an add then counts as sent and not
/// accepted, every other operation as failed. After an exchange that failed the next upkeep drops the device.
class TAVRONET_API CUPnPDevice : public CUPnPObject
{
public:
    explicit CUPnPDevice(CUPnPDevice* parent = nullptr, CUPnPNetwork* network = nullptr);

    /// Frees everything; removes no mapping from the gateway and raises no event.
    ~CUPnPDevice() override;

    // Identity

    /// Fills the record from one datagram; headers that are absent leave their fields as they were.
    /// @param localAddress of the interface it came in by.  @param deviceAddress, devicePort its source.
    /// @param datagram the whole text, terminated.
    void Init(const char* localAddress, const char* deviceAddress, unsigned int devicePort, char* datagram);

    /// Takes the UUID and URN, prefixes included, out of the USN.
    void ParseUSN();

    /// Whether the text (a USN, or anything with a "uuid:" part) names this device or one embedded in it.
    bool MatchingDevice(const char* usn);

    /// What this device's own announcement said.
    bool IsAlive() const;
    bool IsByeBye() const;
    bool IsRoot() const;

    /// Whether the description has been read and gave a device type.
    bool DiscoverComplete();

    // Lifetime of the announcement

    /// Seconds from the root's last announcement; 0 = it gave none, negative = expired.
    int GetMaxAge() const;

    /// The device has been heard from: stores the seconds; unless negative, searches on its behalf are
    /// forgotten.
    void SetMaxAge(int seconds);

    /// The root's tick at which its announcement lapses, 0 for never; kept for the host.
    DWORD GetExpires() const;

    /// Whether the device's own max-age is negative.
    bool Expired() const { return m_MaxAge < 0; }

    /// Whether a search was sent on the device's behalf within the last 10 s.
    bool GetIssuedRediscover();
    /// True counts one more search, false forgets them.
    void SetIssuedRediscover(bool issued);
    unsigned int GetRediscoverAttempt() const { return m_RediscoverAttempt; }

    /// True: the device refuses operations and is dropped by the next upkeep.
    void SetRelease(bool release);

    /// A number of the host's; the library never looks at it.
    int GetAppRetry() const { return m_AppRetry; }
    void SetAppRetry(int retry) { m_AppRetry = retry; }

    // The description

    /// Host, port and path of the description's URL.
    CString GetDescAddr();
    unsigned int GetDescPort();
    CString GetDescPath();

    /// Starts to fetch the description; an earlier request is dropped. The result comes as events. An answer
    /// that is cut short is asked for once more, where the dialect notices.
    void RequestDescription();

    /// Reads one device's part of a description that has a tag a line, then raises its events.
    /// @param position, remaining where to read; advanced past what was read before the first event.
    void BuildDevice(const char*& position, int& remaining);

    /// The first service of exactly this type at or below the device, null when there is none.
    CUPnPService* FindService(const char* type);

    /// The service that maps ports (an IP connection before a PPP connection), null when there is none.
    CUPnPService* FindConnectionService();

    /// Deletes one connection, or all, over which a description is fetched.
    void ReleaseUPnPDeviceSocket(CUPnPDeviceSocket* socket);
    void ReleaseUPnPDeviceSockets();

    // Port mappings

    /// Asks for the address that the outside sees.
    /// @param address unchanged on failure.  @param buffer, size filled up with zeros, cut to size - 1 bytes
    /// at a
    ///        whole character; unchanged on failure. The form without output keeps it for
    ///        ExternalIPAddress().
    bool GetExternalIPAddress(void* cancel, CString& address);
    bool GetExternalIPAddress(void* cancel);
    bool GetExternalIPAddress(void* cancel, char* buffer, int size);

    /// Asks whether the gateway translates addresses. @param enabled false on failure.
    bool GetNATEnabled(void* cancel, bool& enabled);

    /// Adds a mapping. @return whether the gateway answered; record->GetAdded() tells whether it accepted.
    /// The record stays the caller's and must live until the call returns.
    bool AddPortMap(void* cancel, CUPnPPortMap* record);

    /// Maps `port` of the gateway to the same port of this machine, and keeps a record when it was accepted.
    /// @param description goes into the request; the classic dialect does not escape it.
    /// @param protocol null for TCP.  @return whether the gateway answered; GetCmndRespCode() is 200 when it
    ///         accepted.
    bool AddPortMap(void* cancel, unsigned int port, const char* description, const char* protocol);

    /// Adds each record of the list until an exchange fails. @return false for an empty list.
    bool AddPortMaps(void* cancel, std::vector<CUPnPPortMap*>& list);

    /// Maps `count` consecutive ports of the gateway, `first` and the following ones where they are free, to
    /// the same ports of this machine.
    ///
    /// Looks at the gateway's table, one exchange a port, for a stretch without TCP mappings (whatever
    /// `protocol` is), then adds it, one more exchange a port. When a port is refused, all records of the list
    /// are deleted from the gateway and freed, and the search goes on above that port; after the fifth refusal
    /// it ends.
    /// @param pattern the descriptions. Its first conversion among %d %i %u %x %X %o %c, with flags, width and
    ///        precision up to 64, becomes the position in the range, counted from 1; %% becomes a percent
    ///        sign, everything else stays.
    /// @param list gets a record per port, owned by the caller; the first new one tells where the range is.
    ///        Records that are in it already are added, and on a refusal deleted and freed, with the new ones.
    /// @param protocol null for TCP.
    /// @return whether all of it is mapped. false: also for a range that would end above 65535 or has no port,
    ///         when the wait was cancelled, when another exchange was under way, and when somebody took
    ///         records out of the list meanwhile. After an add without answer the records stay in the list.
    bool AddPortMaps(void* cancel, unsigned int first, unsigned int count, const char* pattern,
                     std::vector<CUPnPPortMap*>& list, const char* protocol);

    /// The same with the device's own list: one refusal also ends the device's earlier ranges.
    bool AddPortMaps(void* cancel, unsigned int first, unsigned int count, const char* pattern,
                     const char* protocol);

    /// Deletes the mapping of `port`; its record goes when the gateway accepted.
    /// @param protocol null for TCP.  @return whether the gateway answered, or cannot map ports at all.
    bool DeletePortMap(void* cancel, unsigned int port, const char* protocol);

    /// Deletes each record's mapping until an exchange fails; the records stay and tell by GetDeleted().
    bool DeletePortMaps(void* cancel, std::vector<CUPnPPortMap*>& list);

    /// The same for the device's own lists. When the result is true the records of the deleted mappings go; those
    /// that came into the list meanwhile stay.
    bool DeletePortMaps(void* cancel);
    bool DeleteIndivPortMaps(void* cancel);

    /// Reads the gateway's table. @param list gets a record per entry, owned by the caller (ReleasePortMaps);
    /// on failure everything in it is deleted.
    bool GetPortMaps(void* cancel, std::vector<CUPnPPortMap*>& list);

    /// Looks up the gateway's entry for the record's external port and protocol.
    /// @return the entry, which the caller deletes; null when there is none or the exchange failed.
    CUPnPPortMap* GetPortSpecificPortMap(void* cancel, const CUPnPPortMap& record);

    /// Deletes every record of a list and empties it.
    static void ReleasePortMaps(std::vector<CUPnPPortMap*>& list);

    // Upkeep: false when the device is to be dropped. May run one exchange.
    bool Tickle() override;

    // What the root's datagram said, and how it is reached
    const CString& GetIpAddr() const; ///< of this machine, on the way to the device
    CString& GetDeviceAddr();         ///< source of the datagram
    unsigned int& GetDevicePort();
    const CString& GetDescURL() const;
    const CString& GetCacheControl() const;
    const CString& GetServer() const;
    const CString& GetNTS() const;
    const CString& GetNT() const;
    const CString& GetST() const;
    const CString& GetUSN() const;
    const CString& GetUUID() const;
    const CString& GetURN() const;
    const CString& GetEXT() const;
    const CString& GetURLBase() const; ///< from the description

    // What the description said about this device
    const CString& GetFriendlyName() const { return m_FriendlyName; }
    const CString& GetManufacturer() const { return m_Manufacturer; }
    const CString& GetManufacturerURL() const { return m_ManufacturerURL; }
    const CString& GetModelDescription() const { return m_ModelDescription; }
    const CString& GetModelName() const { return m_ModelName; }
    const CString& GetUDN() const { return m_UDN; }

    // The gateway's last saved answer: HTTP status, and the fault's code and text when that is not 200
    int GetCmndRespCode() const { return m_CmndRespCode; }
    const CString& GetCmndErrorCode() const { return m_CmndErrorCode; }
    const CString& GetCmndErrorDescription() const { return m_CmndErrorDescription; }

    // What was last read from the gateway
    const CString& ExternalIPAddress() const { return m_ExternalIPAddress; }
    bool NATEnabled() const { return m_NATEnabled; }

    /// The records of ranges added through the device's own list, owned by the device.
    std::vector<CUPnPPortMap*>& GetPortMaps() { return m_PortMaps; }
    std::size_t NumPortMaps() const { return m_PortMaps.size(); }
    CUPnPPortMap* GetPortMap(int index) const; ///< null out of range

    /// The lowest and the highest external port of these records; 0 without any.
    void GetStartEndPorts(unsigned int& start, unsigned int& end) const;

    /// The external ports added one at a time, each mapped to itself.
    std::map<unsigned int, unsigned int>& GetIndivPortMaps() { return m_IndivPortMaps; }

protected:
    CUPnPDevice* GetParent() const;

    void ProcessHTML(CUPnPHTTPSocket* socket, const char* response, int responseLength, const char* body,
                     int bodyLength) override;

private:
    friend class CUPnPNetwork;
    friend class tavronet::DescriptionBuilder;

    class CommandScope; // m_InCommand for the length of an exchange

    const CUPnPDevice& Root() const;
    CUPnPDevice& Root();
    const CString& NearestDescURL() const;
    void SetExpires();
    bool IsReplaceable() const;
    bool HoldsMappings() const;

    /// The "uuid:" part of a text, empty when it has none.
    static CString UUIDPart(const char* usn);
    /// MatchingDevice for the two parts of a text.
    bool HasUSN(const CString& usn) const;
    bool HasUUID(const CString& uuid) const;
    bool HasUDN(const CString& uuid) const;
    /// The root's: the UUID and the UDNs of its tree. Made when they are asked for.
    const tavronet::DeviceNames& Names();
    void CollectNames(tavronet::DeviceNames& names);
    void ForgetNames();

    enum class Exchange
    {
        Answered,
        Queued,    // sent when the exchange under way is over; its answer will tell this caller nothing
        Failed,    // no answer, or refused because the device is to be released
        NoService, // the gateway cannot map ports
        DeviceGone // deleted meanwhile: touch nothing
    };
    enum class Check
    {
        Passed,
        Later,
        Failed,
        DeviceGone
    };

    /// One exchange; `arguments` are pairs of name and value, ended by nullptr.
    Exchange ServiceCommand(CUPnPService* service, bool wait, void* cancel, const char* action, ...);
    static bool IsSent(Exchange outcome)
    {
        return outcome == Exchange::Answered || outcome == Exchange::Queued;
    }
    void SaveCommandResponse(CUPnPService* service);
    void ResetLastVerifyTimes();

    Exchange SendAdd(void* cancel, const CUPnPPortMap& record, bool& accepted);
    Exchange LookUp(void* cancel, const CUPnPPortMap& record, std::unique_ptr<CUPnPPortMap>& entry);
    /// Moves `first` up to where `count` ports are free. @return false when none can be looked for; the caller
    /// still has to check the end of the range, and that the gateway answers at all.
    bool FindAvailableSequentialRange(void* cancel, unsigned int& first, unsigned int count);
    bool DisableBeforeDelete() const;
    static void ReleaseDeleted(std::vector<CUPnPPortMap*>& list);
    bool DisableLowPorts(void* cancel, std::vector<CUPnPPortMap*>& list);
    void ForgetIndivPortMap(const CUPnPPortMap& record);

    bool ReleaseStaleSocket();
    bool TickleChildren();
    bool VerifyMaps(std::vector<CUPnPPortMap*>& list, DWORD& ownTurn, DWORD& otherTurn);
    Check VerifyMap(const CUPnPPortMap* record);

    // SSDP identity; only the root's values count
    CString m_IpAddr;
    CString m_DeviceAddr;
    unsigned int m_DevicePort = 0xFFFFFFFF;
    CString m_DescURL;
    CString m_CacheControl;
    CString m_Server;
    CString m_NTS;
    CString m_NT;
    CString m_ST;
    CString m_USN;
    CString m_UUID;
    CString m_URN;
    CString m_EXT;
    std::unique_ptr<const tavronet::DeviceNames> m_pNames; // of a root; null when they may have changed
    int m_MaxAge = -1;                                     // seconds
    DWORD m_Expires = 0;                                   // tick
    DWORD m_HeardTick = 0;                                 // of the last sign of life; the root's

    // from the description
    CString m_URLBase;
    CString m_FriendlyName;
    CString m_Manufacturer;
    CString m_ManufacturerURL;
    CString m_ModelDescription;
    CString m_ModelName;
    CString m_UDN;
    std::unique_ptr<tavronet::TreeBytes> m_pTreeBytes; // of a root that has been read

    // the last saved answer
    int m_CmndRespCode = 0;
    CString m_CmndErrorCode;
    CString m_CmndErrorDescription;

    std::vector<CUPnPDeviceSocket*> m_DeviceSockets; // owned, deleted by ReleaseUPnPDeviceSockets

    // state of commands and upkeep
    bool m_InCommand = false;
    bool m_CommandFailed = false;
    DWORD m_DescRequestTick = 0;
    bool m_DescRepeated = false; // once, after an answer that was cut short
    int m_Release = 0;
    int m_AppRetry = 0;
    bool m_IssuedRediscover = false;
    DWORD m_IssuedRediscoverTick = 0;
    unsigned int m_RediscoverAttempt = 0;
    DWORD m_LastVerifyTimeMaps = 0; // not 0 while it is that list's turn
    DWORD m_LastVerifyTimeIndiv = 0;
    int m_VerifyIndex = 0;

    // mappings
    std::vector<CUPnPPortMap*> m_PortMaps;            // owned, deleted by ReleasePortMaps
    std::vector<CUPnPPortMap*> m_IndivPortMapRecords; // owned, deleted by ReleasePortMaps
    std::map<unsigned int, unsigned int> m_IndivPortMaps;
    CString m_ExternalIPAddress;
    bool m_NATEnabled = false;
};

#endif
