/// What tests may change or look at inside the platform layer. Internal; never installed.
#ifndef TAVRONET_PLATFORM_TESTSEAMS_H
#define TAVRONET_PLATFORM_TESTSEAMS_H

#include <atomic>

#include "tavronet/platform/Types.h"

namespace tavronet
{

enum class FaultPoint
{
    Send,        // CAsyncSocket::Send
    SendTo,      // CAsyncSocket::SendToHelper
    Receive,     // CAsyncSocket::Receive and ReceiveFromHelper
    CreateEvent, // CreateEventW; the socket is not looked at
    Allocate     // NewByteArray; the socket is not looked at
};

/// Makes the call at `point` fail once with `error` as last error, after `skip` more calls have passed.
/// @param socket the handle meant.
void InjectFault(FaultPoint point, SOCKET socket, int error, int skip = 0);

/// Takes back what was injected and did not happen.
void ClearFaults();

/// The number of injected faults; while it is 0 a fault point costs one load.
extern std::atomic<int> g_InjectedFaults;

/// Asked by the fault points: whether this call is to fail; sets the last error when it is.
bool TakeInjectedFault(FaultPoint point, SOCKET socket);

inline bool FaultInjected(FaultPoint point, SOCKET socket = INVALID_SOCKET)
{
    return g_InjectedFaults.load(std::memory_order_relaxed) != 0 && TakeInjectedFault(point, socket);
}

/// What is alive in the whole process; all zero at the end of a test that cleans up.
struct LivingObjects
{
    int sockets; // handles that belong to a CAsyncSocket
    int events;
    bool operator==(const LivingObjects&) const = default;
};
LivingObjects CountLivingObjects();

/// Kept up by the objects themselves.
extern std::atomic<int> g_LivingSockets;
extern std::atomic<int> g_LivingEvents;

} // namespace tavronet

#endif
