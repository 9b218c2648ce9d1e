// A gateway's description, read by both dialects into a device that was heard on the LAN.

#include "Input.h"
#include "tavronet/upnp/DescriptionBuilder.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPDialect.h"
#include "tavronet/upnp/UPnPNetwork.h"
#include "tavronet/upnp/UPnPService.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr bool kNoSearch = false;
    static CUPnPNetwork classic(nullptr, nullptr, UPnPDialectClassic, kNoSearch);
    static CUPnPNetwork modern(nullptr, nullptr, UPnPDialectModern, kNoSearch);

    const HeldInput document(data, size);
    for (CUPnPNetwork* const network : {&classic, &modern}) {
        char datagram[] = "HTTP/1.1 200 OK\r\nLOCATION: http://10.77.1.1:5000/d/root.xml?x\r\n\r\n";
        CUPnPDevice device(nullptr, network);
        device.Init("10.77.1.2", "10.77.1.1", 1900, datagram);
        network->Dialect().ReadDescription(device, document.View());
        tavronet::DescriptionBuilder::RaiseEvents(device);
        device.MatchingDevice("uuid:7461::urn:x");
        device.FindService("urn:schemas-upnp-org:service:WANIPConnection:1");
        const CUPnPService* const service = network->Dialect().FindConnectionService(device);
        if (service != nullptr && network == &modern)
            Expect(!service->GetHost().IsEmpty() && service->GetHostPort() != 0);
    }
    return 0;
}
