#ifndef TAVRONET_UPNP_UPNPOBJECT_H
#define TAVRONET_UPNP_UPNPOBJECT_H

#include <cstddef>
#include <vector>

#include "tavronet/platform/Export.h"
#include "tavronet/platform/Lifetime.h"
#include "tavronet/platform/String.h"
#include "tavronet/platform/Types.h"

class CUPnPHTTPSocket;
class CUPnPNetwork;
class CUPnPObject;

namespace tavronet
{
class DescriptionBuilder;
}

/// What happened to the object that a callback gets.
enum UPnPEventCode
{
    UPnPEventDeviceDescribed = 0, ///< the device's part of the description has been read, whatever was in it
    UPnPEventDeviceReleased =
        1, ///< a described root device is about to be deleted; valid during the call only
    UPnPEventServiceDescribed = 2, ///< the service's part has been read and its control address is known
    UPnPEventDeviceNotify =
        3, ///< an announcement; the device is a temporary record, valid during the call only
    UPnPEventDeviceRediscover = 4 ///< an expired device is being searched for again
};

/// The host's event handler, called on the thread that runs the network, from inside the library call that
/// raised the event. It may do anything: start operations, release the device, delete the network, throw.
/// @param context what the network was constructed with.  @param code one of UPnPEventCode.
/// @param object valid until its root device is released, with the exceptions above.
typedef void (*UPnPEventCallback)(void* context, unsigned int code, CUPnPObject* object);

/// A node of a device tree: a root device, an embedded device or a service.
///
/// Ownership: a node owns its children and deletes them with itself; the network owns root devices.
/// Thread: everything on the network's thread.
/// During a call: events and waits run foreign code, which may delete any node, this one included; the
/// library touches nothing of a deleted node.
class TAVRONET_API CUPnPObject : public tavronet::Lifetime
{
public:
    /// @param parent the node that will own this one, null for a root.
    /// @param network the network that found a root device; embedded nodes reach it through their parents.
    explicit CUPnPObject(CUPnPObject* parent = nullptr, CUPnPNetwork* network = nullptr);
    virtual ~CUPnPObject();

    CUPnPObject(const CUPnPObject&) = delete;
    CUPnPObject& operator=(const CUPnPObject&) = delete;

protected:
    /// Takes a complete HTTP response.
    /// Called:  by the connection, once per response. The text is the connection's for the call and ends in a
    /// zero. May:     run foreign code, which may delete this node and the connection.
    /// @param response header and body.  @param body behind the blank line that ends the header.
    virtual void ProcessHTML(CUPnPHTTPSocket* socket, const char* response, int responseLength,
                             const char* body, int bodyLength) = 0;

public:
    /// Periodic upkeep.
    /// Called:  by the network for its root devices, by each node for its children.
    /// Returns: false when the root device is to be released.
    /// May:     run foreign code.
    virtual bool Tickle() = 0;

    /// Whether this node or one below it may have something to do in Tickle. What a description brought and nobody
    /// has used has not: a device passes its upkeep over it.
    bool WantsUpkeep() const { return m_WantsUpkeep; }

    /// 0 for a root, one more for each level below it.
    int ParentDepth() const;

    /// The network of the tree, null when it has none.
    CUPnPNetwork* GetUPnPNetwork() const;

    /// The type as the description gives it; empty before.
    CString& GetType() { return m_Type; }
    const CString& GetType() const { return m_Type; }

    /// Whether the type begins with "urn:schemas-upnp-org:device:", exactly. The modern dialect also counts
    /// devices with a type of another name space.
    bool IsDevice() const;

    /// The same with "urn:schemas-upnp-org:service:".
    bool IsService() const;

    /// Counts the waits that a cancel handle has ended: an auto-reset one shows no trace of it afterwards.
    UINT GetCancelledWaits() const { return m_CancelledWaits; }

    /// Dispatches what is due in the calling thread's queue, within bounds. Runs foreign code.
    static void DispatchMessages();

    /// Reads a header value of an HTTP-like message, up to the end of its line and trimmed; the message's
    /// first blank line ends the search.
    /// @param text terminated.  @param key what to find, in lower case, usually "\r\nname:".
    /// @param value unchanged when the key is not there.  @param skipKey false: the value begins with the
    /// key.
    static bool ParseHTTP(const char* text, const char* key, CString& value, bool skipKey);

    /// Reads what follows "=" behind `key` (lower case), up to a blank or line break. A comma ends nothing.
    /// @param value unchanged when there is no key or no "=".
    static bool ParseValue(const char* text, const char* key, CString& value);

    /// The same as a number, which may be followed by anything; 0 and false when there is no digit.
    static bool ParseValue(const char* text, const char* key, int& value);

protected:
    /// Reads one element that opens and closes on `line`.
    /// @param name in lower case; elements whose names begin with it also open it.
    /// @param lowerLine `line` in lower case.  @param value unchanged when the element is not there.
    static void GetVariable(CString& value, const char* name, CString& line, CString& lowerLine);

    /// Takes the next line of terminated text: up to a line break or, with `splitAtClosingTag`, to the end of
    /// the first closing tag. Searches the rest for every line; readers of whole documents use DocumentLines.
    /// @param cursor, remaining advanced past the line.  @return false at the end.
    static bool GetBufferString(CString& line, const char*& cursor, int& remaining, bool splitAtClosingTag);

    /// The parts of an absolute URL. A text without "://" has no host, port 80 and is its own path.
    static CString GetAddrFromURL(const CString& url);
    static UINT GetPortFromURL(const CString& url);
    static CString GetPathFromURL(const CString& url);

    /// Has upkeep come to this node from now on.
    void WantUpkeep();

    /// Whether it has to come to a node below this one.
    bool PassesUpkeepOn() const { return m_PassesUpkeepOn; }

    /// Appends a child, which gets upkeep, and takes ownership.
    void AddUPnPObject(CUPnPObject* object);
    std::size_t NumUPnPObjects() const { return m_UPnPObjects.size(); }

    /// The child at `index`, null when there is none.
    CUPnPObject* GetUPnPObject(int index) const;

    /// Deletes all children.
    void ReleaseUPnPObjects();

    CUPnPObject* GetParent() const { return m_pParent; }

    /// Raises an event of this node at its network, if it has one. Runs foreign code.
    void UPnPEvent(int code);

    /// The network's cancel event, null when there is none.
    HANDLE GetCancelEvent() const;

    /// Waits for `event` at most 10 s and pumps the thread's messages meanwhile. Runs foreign code.
    /// @param cancel ends the wait early; may be null.
    /// @return whether the event was signalled; false also when this node was deleted during the wait.
    bool WaitEvent(HANDLE event, HANDLE cancel);

private:
    friend class CUPnPHTTPSocket;              // hands over responses
    friend class tavronet::DescriptionBuilder; // makes children and fills them in

    /// What a description reader takes the node for when its type text alone does not say so.
    enum class ReadAs
    {
        Unknown,
        Device,
        Service
    };

    CUPnPObject* const m_pParent;            // not owned
    std::vector<CUPnPObject*> m_UPnPObjects; // owned, deleted by ReleaseUPnPObjects
    CString m_Type;
    const DWORD m_WaitTimeout; // milliseconds
    UINT m_CancelledWaits = 0;
    CUPnPNetwork* const m_pUPnPNetwork; // not owned
    ReadAs m_ReadAs = ReadAs::Unknown;
    bool m_EventDue = false; // it has been read, and its event is not raised yet
    bool m_WantsUpkeep = false;
    bool m_PassesUpkeepOn = false; // to a node below it
};

#endif
