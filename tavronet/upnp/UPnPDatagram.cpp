// The two roads of a datagram: a search leaves by its socket, and what arrives becomes a record for the
// network. Stands above the socket, the record and the network, which know each other by name only.

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

#include "tavronet/platform/TextConversion.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPDialect.h"
#include "tavronet/upnp/UPnPNetwork.h"
#include "tavronet/upnp/UPnPSSDPSocket.h"

namespace
{

constexpr UINT kSSDPPort = 1900;

enum class DatagramKind
{
    Announcement,
    SearchAnswer,
    Other
};

bool BeginsWith(std::string_view text, std::string_view prefix)
{
    return tavronet::EqualNoCase(text.substr(0, prefix.size()), prefix);
}

DatagramKind KindOf(std::string_view datagram)
{
    if (BeginsWith(datagram, "NOTIFY * HTTP/"))
        return DatagramKind::Announcement;
    if (BeginsWith(datagram, "HTTP/"))
        return DatagramKind::SearchAnswer;
    return DatagramKind::Other;
}

} // namespace

bool CUPnPSSDPSocket::Discover()
{
    if (m_pUPnPNetwork == nullptr)
        return false;

    const CStringW group(m_MulticastGroup);
    for (const std::string& request : m_pUPnPNetwork->Dialect().SearchRequests(m_MulticastGroup, kSSDPPort)) {
        const int length = static_cast<int>(request.size());
        if (SendTo(request.data(), length, kSSDPPort, group, 0) != length)
            return false;
        SetTick();
    }
    return true;
}

void CUPnPSSDPSocket::OnReceive(int)
{
    std::array<char, tavronet::kMaxDatagramBytes + 1> datagram{}; // a failed read leaves it empty
    CStringW sender;
    unsigned int senderPort = 0;
    ReceiveFrom(datagram.data(), tavronet::kMaxDatagramBytes, sender, senderPort, 0);

    CUPnPNetwork* const network = m_pUPnPNetwork;
    const DatagramKind kind = KindOf(datagram.data());
    if (network == nullptr || kind == DatagramKind::Other)
        return;

    auto record = std::make_unique<CUPnPDevice>(nullptr, network);
    record->Init(Narrow(GetIpAddr()), Narrow(sender), senderPort, datagram.data());

    // The hand-over comes last on each road: the host may replace the discovery sockets in its callback.
    if (kind == DatagramKind::SearchAnswer)
        network->NewUPnPDevice(record.release());
    else if (record->IsByeBye() || network->Dialect().WantsAnnouncement(record->GetURN()))
        network->Notify(record.release());
}
