#ifndef TAVRONET_UPNP_UPNPDIALECT_H
#define TAVRONET_UPNP_UPNPDIALECT_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tavronet/platform/String.h"
#include "tavronet/platform/Types.h"

class CUPnPDevice;
class CUPnPObject;
class CUPnPService;

namespace tavronet
{

/// Where in a body that arrives in chunks the next one is looked for.
struct ChunkScan
{
    std::size_t next = 0;     ///< offset of the line with its size, which may not have arrived
    std::size_t searched = 0; ///< that line does not end before this
    bool behindData = false;  ///< the line at `next` only ends the data of a chunk
};

/// Where a URL points.
struct URLParts
{
    CString host; ///< without brackets; empty when the URL gives none
    UINT port = 80;
    CString path; ///< path and query
};

/// One action as it is sent; everything is borrowed for the call.
struct ActionText
{
    const CString& host;
    UINT port;
    const CString& path;
    const CString& serviceType;
    const CString& action;
    const std::vector<CString>& params; ///< name, value, name, value ...
};

/// What an answer says: in `status`, `results` the HTTP status and the pairs that were sent; out what was
/// found.
struct ActionAnswer
{
    int status = 0;
    std::vector<CString> results; ///< name, value, name, value ...
    CString errorCode;
    CString errorDescription;
};

/// How far a response that is still arriving has been read, so that no byte of it is read again with each
/// that arrives. One per response, filled by the dialect; offsets are those of the whole message.
struct ResponseFrame
{
    static constexpr std::size_t kNone = std::string_view::npos;

    std::size_t headerStart = 0;   ///< behind responses that only announce it
    std::size_t searched = 0;      ///< the end of the header does not begin before this
    std::size_t bodyStart = kNone; ///< behind the blank line, once that is there
    int announced = -1;            ///< the body's length from the header; -1 when it gives none
    bool chunked = false;          ///< whether the header says that the body comes in chunks
    ChunkScan chunks;
};

/// How to speak with gateways: the one place that knows which texts they write and understand.
///
/// Two implementations without state: the classic one reads line by line, in the forms that gateways of the
/// first generation use; the modern one reads XML. Nothing else in the library asks which of them is in use.
class UPnPDialect
{
public:
    virtual ~UPnPDialect();

    /// The search datagrams for one interface, in sending order.
    /// @param group the multicast group.
    virtual std::vector<std::string> SearchRequests(const char* group, UINT port) const = 0;

    /// Whether an announcement with this URN (from its USN) is about a gateway.
    virtual bool WantsAnnouncement(const CString& urn) const = 0;

    /// The whole request for a description; IPv6 hosts come without brackets.
    virtual std::string DescriptionRequest(const CString& host, UINT port, const CString& path) const = 0;

    /// The whole request for an action.
    std::string ActionRequest(const ActionText& action) const;

    /// Looks for the end of a response's header, and reads there how the body is framed.
    /// @param message all that has arrived.  @return whether the header has.
    virtual bool ReadHeader(std::string_view message, ResponseFrame& frame) const = 0;

    /// Whether all of a response has arrived whose header has been read.
    virtual bool Complete(std::string_view message, ResponseFrame& frame) const = 0;

    /// Whether a response lacks so much when its connection closes that it counts as none.
    virtual bool CutShort(std::string_view message, ResponseFrame& frame) const = 0;

    /// The body to hand over: of a complete response, or of one that the close ended and did not cut short.
    /// @param storage holds the body when it had to be changed; a zero byte stands behind the body as it does
    ///        behind `message`.
    virtual std::string_view DecodeBody(std::string_view message, const ResponseFrame& frame,
                                        std::string& storage) const = 0;

    /// Where the blank in front of the status number stands in a response; npos when there is none.
    virtual std::size_t FindStatus(std::string_view response) const = 0;

    /// Fills `device` from its description: builds embedded devices and services and sets their control
    /// addresses. Their events are due then (DescriptionBuilder::RaiseEvents).
    /// @param document a zero byte stands behind it.
    virtual void ReadDescription(CUPnPDevice& device, std::string_view document) const = 0;

    /// Reads an answer's body: fault texts when the status is not 200, otherwise the value of each pair,
    /// which keeps what was sent when the answer gives none.
    virtual void ReadAnswer(ActionAnswer& answer, std::string_view body) const = 0;

    virtual URLParts SplitURL(const CString& url) const = 0;

    /// The service that maps ports, anywhere below the device; null when there is none.
    virtual CUPnPService* FindConnectionService(CUPnPDevice& device) const = 0;

    /// Whether an add that the gateway refused is reported as failed by the flat interface.
    virtual bool RefusalIsFailure() const = 0;

private:
    /// What differs between the requests for an action.
    virtual CString Escaped(const CString& text) const = 0;
    virtual CString HostText(const CString& host) const = 0;
    virtual const wchar_t* FurtherHeaders() const = 0; ///< lines that end in a line break
};

const UPnPDialect& ClassicDialect();
const UPnPDialect& ModernDialect();

/// The dialect of the node's network; the classic one without a network.
const UPnPDialect& DialectOf(const CUPnPObject& node);

} // namespace tavronet

#endif
