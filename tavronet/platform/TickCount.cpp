#include "tavronet/platform/TickCount.h"

#include <atomic>
#include <ctime>

namespace
{

std::atomic<DWORD (*)()> g_TickSource{nullptr};

DWORD ReadClock()
{
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<DWORD>(static_cast<std::uint64_t>(now.tv_sec) * 1000 +
                              static_cast<std::uint64_t>(now.tv_nsec) / 1000000);
}

} // namespace

DWORD GetTickCount()
{
    const auto source = g_TickSource.load(std::memory_order_relaxed);
    const DWORD tick = source != nullptr ? source() : ReadClock();
    return tick != 0 ? tick : 1;
}

void SetTickSource(DWORD (*source)())
{
    g_TickSource.store(source, std::memory_order_relaxed);
}
