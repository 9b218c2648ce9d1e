// Maps TCP port 8080 of the first gateway to this machine, with the class interface.

#include <tavronet/tavronet.h>

#include <cstdio>

int main()
{
    CUPnPNetwork network(nullptr, nullptr, UPnPDialectModern); // searching starts here
    const DWORD start = GetTickCount();
    CUPnPDevice* gateway = nullptr;
    while (gateway == nullptr && ElapsedMs(GetTickCount(), start) < 5000) {
        MsgWaitForMultipleObjectsEx(0, nullptr, 100, kWakeOnAnyInput, 0);
        DispatchPending(); // answers and descriptions arrive in here
        network.Tickle();
        CUPnPDevice* const found = network.GetUPnPDevice(0);
        if (found != nullptr && found->DiscoverComplete())
            gateway = found;
    }
    const bool answered = gateway != nullptr && gateway->AddPortMap(nullptr, 8080, "example", "TCP");
    const bool mapped = answered && gateway->GetCmndRespCode() == 200;
    std::puts(mapped ? "mapped" : answered ? "refused" : "no gateway");
    return mapped ? 0 : 1;
}
