// A gateway's description, read by both dialects into a device.

#include <cstddef>
#include <cstdint>
#include <string>

#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPDialect.h"
#include "tavronet/upnp/UPnPService.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string document(reinterpret_cast<const char*>(data), size); // a zero byte stands behind it
    for (const auto* dialect : {&tavronet::ClassicDialect(), &tavronet::ModernDialect()}) {
        CUPnPDevice device;
        dialect->ReadDescription(device, document);
        if (const CUPnPService* const service = dialect->FindConnectionService(device))
            dialect->SplitURL(service->GetControlURL());
    }
    return 0;
}
