#pragma once

#include <tavronet/platform/Types.h>

#include <thread>

namespace command
{

/// An event that INT, TERM and HUP signal, from now until the end of this object. It serves as the cancel
/// event of every operation, so that an interrupted command ends cleanly.
class InterruptEvent
{
public:
    InterruptEvent();
    ~InterruptEvent();
    InterruptEvent(const InterruptEvent&) = delete;
    InterruptEvent& operator=(const InterruptEvent&) = delete;

    [[nodiscard]] HANDLE Get() const { return m_hEvent; }

private:
    HANDLE m_hEvent;
    std::thread m_Waiter; // takes the signals, so that nothing runs in a signal handler
};

} // namespace command
