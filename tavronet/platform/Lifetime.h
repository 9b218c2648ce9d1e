#ifndef TAVRONET_PLATFORM_LIFETIME_H
#define TAVRONET_PLATFORM_LIFETIME_H

#include "tavronet/platform/Export.h"

namespace tavronet
{

class LifetimeGuard;

/// Base of every object that a host may destroy while one of its members is on the stack.
///
/// The destructor tells all guards on the object. Costs one pointer; not thread-safe: guards live on the
/// object's own thread. A guard is asked after every call into foreign code (hooks, callbacks, dispatch).
class TAVRONET_API Lifetime
{
public:
    Lifetime(const Lifetime&) = delete;
    Lifetime& operator=(const Lifetime&) = delete;

protected:
    Lifetime() = default;
    ~Lifetime();

private:
    friend class LifetimeGuard;
    mutable LifetimeGuard* m_pGuards = nullptr; // innermost first, not owned
};

/// Watches one object for the length of a scope: `if (!guard.Alive()) return;`.
///
/// Guards of one object must be destroyed in the reverse order of their making, as scopes do.
class LifetimeGuard
{
public:
// A guard's address does not outlive it: its destructor takes it back. GCC 12 sees only the first half.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdangling-pointer"
#endif
    explicit LifetimeGuard(const Lifetime& object) : m_pObject(&object), m_pOuter(object.m_pGuards)
    {
        object.m_pGuards = this;
    }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

    ~LifetimeGuard()
    {
        if (m_pObject != nullptr)
            m_pObject->m_pGuards = m_pOuter;
    }

    LifetimeGuard(const LifetimeGuard&) = delete;
    LifetimeGuard& operator=(const LifetimeGuard&) = delete;

    /// False once the object's destructor has run: no member may be touched any more.
    [[nodiscard]] bool Alive() const { return m_pObject != nullptr; }

private:
    friend class Lifetime;
    const Lifetime* m_pObject;
    LifetimeGuard* m_pOuter;
};

inline Lifetime::~Lifetime()
{
    for (LifetimeGuard* guard = m_pGuards; guard != nullptr; guard = guard->m_pOuter)
        guard->m_pObject = nullptr;
}

} // namespace tavronet

#endif
