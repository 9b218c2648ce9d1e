#include "tavronet/platform/TestSeams.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include "tavronet/platform/LastError.h"

namespace tavronet
{

std::atomic<int> g_InjectedFaults{0};
std::atomic<int> g_LivingSockets{0};
std::atomic<int> g_LivingEvents{0};

namespace
{

struct Fault
{
    FaultPoint point;
    SOCKET socket;
    int error;
    int skip;
};

std::mutex g_FaultLock;
std::vector<Fault> g_Faults;

} // namespace

void InjectFault(FaultPoint point, SOCKET socket, int error, int skip)
{
    const std::lock_guard lock(g_FaultLock);
    g_Faults.push_back({point, socket, error, skip});
    g_InjectedFaults = static_cast<int>(g_Faults.size());
}

void ClearFaults()
{
    const std::lock_guard lock(g_FaultLock);
    g_Faults.clear();
    g_InjectedFaults = 0;
}

bool TakeInjectedFault(FaultPoint point, SOCKET socket)
{
    const std::lock_guard lock(g_FaultLock);
    const auto fault = std::ranges::find_if(g_Faults, [&](const Fault& candidate) {
        return candidate.point == point && candidate.socket == socket;
    });
    if (fault == g_Faults.end() || fault->skip-- > 0)
        return false;

    WSASetLastError(fault->error);
    g_Faults.erase(fault);
    g_InjectedFaults = static_cast<int>(g_Faults.size());
    return true;
}

LivingObjects CountLivingObjects()
{
    return {g_LivingSockets.load(), g_LivingEvents.load()};
}

} // namespace tavronet
