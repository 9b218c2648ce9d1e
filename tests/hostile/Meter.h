#pragma once

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/resource.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "tavronet/platform/MessageQueue.h"

#if defined(__SANITIZE_ADDRESS__)
#define TAVRONET_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#define TAVRONET_ADDRESS_SANITIZER __has_feature(address_sanitizer)
#endif
#if TAVRONET_ADDRESS_SANITIZER
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*, std::size_t),
                                                         void (*)(const volatile void*));
extern "C" std::size_t __sanitizer_get_allocated_size(const volatile void*);
#endif

namespace tavronet
{

/// What any peer may cost.
inline constexpr long kMostBytes = 16 * 1024 * 1024;
inline constexpr double kLongestHoldMs = 50;

/// Code that is not optimised, or is checked at every access, gets so many times the 50 ms.
#if TAVRONET_ADDRESS_SANITIZER
inline constexpr int kHoldFactor = 30;
#elif !defined(__OPTIMIZE__)
inline constexpr int kHoldFactor = 15;
#else
inline constexpr int kHoldFactor = 1;
#endif

/// Measures what the peers of a test cost: the growth of memory at its highest, of the descriptors, and the longest
/// time from one round of the thread's loop to the next, in waits of the library too.
///
/// While it lives, `between` runs once a round, uncounted: the peer's part in the same thread. The loop never blocks.
/// Memory is the resident set at its highest point; under the address sanitizer, which keeps what is freed, it is
/// the allocated bytes at their highest. A round that blocked counts as it passed by the clock, any other by the
/// processor time, since other programs run beside a test; what the host of a virtual machine took away is allowed for.
class Meter
{
public:
    explicit Meter(std::function<void()> between = [] {}) : m_Between(std::move(between))
    {
        malloc_trim(0);
        m_Descriptors = CountDescriptors();
        m_StolenMs = StolenMs();
        s_pMeter = this;
        m_Bytes = ResetMemory();
        Beat();
    }
    ~Meter()
    {
        s_pMeter = nullptr;
        DispatchRound();
    }
    Meter(const Meter&) = delete;
    Meter& operator=(const Meter&) = delete;

    /// Runs the loop until `done` holds. @return false when that takes longer.
    bool RunUntil(const std::function<bool()>& done, int seconds = 20)
    {
        const auto end = Clock::now() + std::chrono::seconds(seconds);
        while (!done()) {
            if (Clock::now() > end)
                return false;
            DispatchRound();
        }
        return true;
    }
    void RunFor(int milliseconds)
    {
        const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
        RunUntil([&] { return Clock::now() > end; });
    }

    /// Checks the figures, and prints them.
    void Check(int descriptorsAllowed = 0)
    {
        const long grown = HighestMemory() - m_Bytes, opened = CountDescriptors() - m_Descriptors;
        const double stolenMs = StolenMs() - m_StolenMs;
        std::printf("    grown %.1f MiB, held %.1f ms (stolen %.0f ms), descriptors %+ld\n",
                    static_cast<double>(grown) / 1048576, m_LongestMs, stolenMs, opened);
        EXPECT_LT(grown, kMostBytes);
        EXPECT_LE(m_LongestMs, kLongestHoldMs * kHoldFactor + stolenMs);
        EXPECT_LE(opened, descriptorsAllowed);
    }

private:
    using Clock = std::chrono::steady_clock;

    struct Moment
    {
        double ms, processorMs;
        long blocks;
    };
    static double ReadClock(clockid_t clock)
    {
        timespec now{};
        clock_gettime(clock, &now);
        return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
    }
    static Moment Now()
    {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        return {ReadClock(CLOCK_MONOTONIC), ReadClock(CLOCK_THREAD_CPUTIME_ID), usage.ru_nvcsw};
    }
    /// For how long a virtual machine has been held up by its host.
    static double StolenMs()
    {
        std::ifstream file("/proc/stat");
        std::string column;
        for (int i = 0; i < 9; ++i) // of the line of all processors, in hundredths of a second
            file >> column;
        return std::strtod(column.c_str(), nullptr) * 10;
    }

    void Beat()
    {
        PostThreadCall(
            CurrentThreadQueue(),
            [](void*) {
                if (s_pMeter != nullptr)
                    s_pMeter->NextRound();
            },
            nullptr);
        m_Began = Now();
    }
    void NextRound()
    {
        const Moment now = Now();
        const bool blocked = now.blocks != m_Began.blocks;
        m_LongestMs =
            std::max(m_LongestMs, blocked ? now.ms - m_Began.ms : now.processorMs - m_Began.processorMs);
        m_Between();
        Beat();
    }

    static long CountDescriptors()
    {
        const std::filesystem::directory_iterator files("/proc/self/fd");
        return std::distance(begin(files), end(files));
    }

#if TAVRONET_ADDRESS_SANITIZER
    inline static long s_Now = 0, s_Highest = 0;
    static long ResetMemory()
    {
        static const int installed = __sanitizer_install_malloc_and_free_hooks(
            [](const volatile void*, std::size_t size) {
                s_Now += static_cast<long>(size);
                s_Highest = std::max(s_Highest, s_Now);
            },
            [](const volatile void* block) {
                s_Now -= static_cast<long>(__sanitizer_get_allocated_size(block));
            });
        EXPECT_GT(installed, 0);
        return s_Highest = s_Now;
    }
    static long HighestMemory()
    {
        return s_Highest;
    }
#else
    static long ResetMemory()
    {
        EXPECT_TRUE(std::ofstream("/proc/self/clear_refs")
                    << "5" << std::flush); // the highest becomes the present
        return HighestMemory();
    }
    static long HighestMemory()
    {
        std::ifstream status("/proc/self/status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("VmHWM:"))
                return std::stol(line.substr(6)) * 1024;
        }
        ADD_FAILURE() << "the system does not tell";
        return 0;
    }
#endif

    inline static Meter* s_pMeter = nullptr;

    const std::function<void()> m_Between;
    long m_Descriptors = 0, m_Bytes = 0;
    Moment m_Began{};
    double m_StolenMs = 0, m_LongestMs = 0;
};

} // namespace tavronet
