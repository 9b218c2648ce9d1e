#pragma once

#include <malloc.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "tests/upnp/GatewayRecords.h"

// Only with the address sanitizer.
extern "C" [[gnu::weak]] std::size_t __sanitizer_get_current_allocated_bytes();

namespace tavronet
{

/// Code that is not optimised, or is checked at every access, may hold the loop so many times as long.
inline const bool kChecked = __sanitizer_get_current_allocated_bytes != nullptr;
#ifdef __OPTIMIZE__
inline const int kSlowness = kChecked ? 30 : 1;
#else
inline const int kSlowness = kChecked ? 30 : 15;
#endif

/// Measures what the peers of a test cost: the growth of memory at its highest, of the descriptors, and the longest
/// time from one round of the thread's loop to the next, in waits of the library too.
///
/// While it lives, `between` runs once a round, unmeasured: the peer's part in the same thread.
/// Memory is the resident set at its highest point; not looked at under the address sanitizer, which keeps what is freed.
/// While the thread waits for a processor no time passes: others run beside it.
class Meter
{
public:
    explicit Meter(std::function<void()> between = &ScriptedServer::MoveOn) : m_Between(std::move(between))
    {
        malloc_trim(0);
        // The highest resident set becomes the present one.
        EXPECT_TRUE(std::ofstream("/proc/self/clear_refs") << 5 << std::flush);
        Beat();
        m_Descriptors = Descriptors();
        m_Kibibytes = Kibibytes();
    }
    ~Meter()
    {
        m_Ended = true;
        DispatchRound(); // takes the last beat out
    }

    /// Runs the loop, which never blocks, for some time at most. @return whether `done` holds
    bool Run(
        int milliseconds, const std::function<bool()>& done = [] { return false; })
    {
        const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
        while (!done() && Clock::now() < end)
            DispatchRound();
        return done();
    }

    /// Checks the figures, and prints them.
    void Check(int descriptorsAllowed = 0, long mostMebibytes = 16)
    {
        const long grown = Kibibytes() - m_Kibibytes, opened = Descriptors() - m_Descriptors;
        std::printf("    grown %ld KiB, held %.1f ms, descriptors %+ld\n", grown, m_LongestMs, opened);
        EXPECT_TRUE(kChecked || grown < mostMebibytes * 1024);
        EXPECT_LE(m_LongestMs, 50 * kSlowness + StolenMs() - m_StolenMs);
        EXPECT_LE(opened, descriptorsAllowed);
    }

private:
    using Clock = std::chrono::steady_clock;
    using Files = std::filesystem::directory_iterator;

    void Beat()
    {
        const auto nextRound = [](void* meter) { static_cast<Meter*>(meter)->NextRound(); };
        PostThreadCall(CurrentThreadQueue(), nextRound, this);
        m_BeganMs = NowMs();
    }
    void NextRound()
    {
        m_LongestMs = std::max(m_LongestMs, NowMs() - m_BeganMs);
        if (m_Ended)
            return;
        m_Between();
        Beat();
    }

    /// By the clock, without the time that this thread has waited for a processor.
    static double NowMs()
    {
        double processorNs = 0, waitedNs = 0;
        std::ifstream("/proc/thread-self/schedstat") >> processorNs >> waitedNs;
        const std::chrono::duration<double, std::milli> now = Clock::now().time_since_epoch();
        return now.count() - waitedNs / 1e6;
    }
    /// What the machine that runs this one has taken from all processors.
    static double StolenMs()
    {
        std::ifstream file("/proc/stat");
        std::string column;
        for (int i = 0; i < 9; ++i)
            file >> column;
        return std::strtod(column.c_str(), nullptr) * 10;
    }
    static long Kibibytes()
    {
        std::ifstream status("/proc/self/status");
        std::string word;
        while (status >> word && word != "VmHWM:") {
        }
        long kibibytes = 0;
        EXPECT_TRUE(status >> kibibytes);
        return kibibytes;
    }
    static long Descriptors() { return std::ranges::distance(Files("/proc/self/fd")); }

    const std::function<void()> m_Between;
    long m_Descriptors = 0, m_Kibibytes = 0;
    double m_BeganMs = 0, m_LongestMs = 0;
    const double m_StolenMs = StolenMs();
    bool m_Ended = false;
};

/// A client of one gateway, for which the test speaks.
struct HostileClient : GatewayDevice
{
    explicit HostileClient(int dialect, const char* serverHost = "127.0.0.1")
        : GatewayDevice(&OnEvent, this, dialect, serverHost)
    {
        server.AnswerBy(nullptr);
    }
    static void OnEvent(void* raw, unsigned int code, CUPnPObject*)
    {
        const bool isNode = code == UPnPEventDeviceDescribed || code == UPnPEventServiceDescribed;
        static_cast<HostileClient*>(raw)->nodes += isNode;
    }
    void Describe()
    {
        server.Answer(HttpAnswer(Description()), kClose);
        GatewayDevice::Describe();
    }

    CUPnPService* Service() const { return device->FindConnectionService(); }
    void Act() const
    {
        if (Service() != nullptr)
            Service()->Command(false, nullptr, "GetExternalIPAddress", "NewExternalIPAddress", "", nullptr);
    }

    int nodes = 0; // that were described
};

} // namespace tavronet
