// A search answer or announcement, made into a device record.

#include <cstddef>
#include <cstdint>
#include <string>

#include "tavronet/platform/TextConversion.h"
#include "tavronet/upnp/UPnPDevice.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string datagram(reinterpret_cast<const char*>(data), size);
    CUPnPDevice device;
    device.Init("10.77.1.2", "10.77.1.1", 1900, datagram.data());
    device.IsAlive();
    device.IsByeBye();
    device.GetDescAddr();
    device.GetDescPort();
    device.GetDescPath();
    device.MatchingDevice(Narrow(device.GetUSN()));
    return 0;
}
