// A search answer or announcement, made into a device record in both dialects.

#include "Input.h"
#include "tavronet/platform/TextConversion.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPDialect.h"
#include "tavronet/upnp/UPnPNetwork.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr bool kNoSearch = false;
    static CUPnPNetwork classic(nullptr, nullptr, UPnPDialectClassic, kNoSearch);
    static CUPnPNetwork modern(nullptr, nullptr, UPnPDialectModern, kNoSearch);

    for (CUPnPNetwork* const network : {&classic, &modern}) {
        HeldInput datagram(data, size);
        CUPnPDevice device(nullptr, network);
        device.Init("10.77.1.2", "10.77.1.1", 1900, datagram.Text());
        Expect(!device.IsAlive() || !device.GetNTS().IsEmpty());
        device.IsByeBye();
        device.IsRoot();
        network->Dialect().WantsAnnouncement(device.GetURN());
        device.GetDescAddr();
        device.GetDescPort();
        device.GetDescPath();
        Expect(device.MatchingDevice(Narrow(device.GetUSN())));

        CUPnPDevice again(nullptr, network);
        again.SetMaxAge(device.GetMaxAge());
        Expect(device.Expired() == again.Expired());
    }
    return 0;
}
