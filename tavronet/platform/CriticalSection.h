#ifndef TAVRONET_PLATFORM_CRITICALSECTION_H
#define TAVRONET_PLATFORM_CRITICALSECTION_H

#include <mutex>
#include <type_traits>

/// The one lock of the library; the thread that holds it may take it again.
///
/// Usable before static construction has reached it and after static destruction has passed it: it needs no
/// code at either time.
class CCriticalSection
{
public:
    constexpr CCriticalSection() = default;
    CCriticalSection(const CCriticalSection&) = delete;
    CCriticalSection& operator=(const CCriticalSection&) = delete;

    void Lock() { m_Mutex.lock(); }
    void Unlock() { m_Mutex.unlock(); }

private:
    std::recursive_mutex m_Mutex;
};

static_assert(std::is_trivially_destructible_v<CCriticalSection>);

#endif
