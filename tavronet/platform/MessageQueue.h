#ifndef TAVRONET_PLATFORM_MESSAGEQUEUE_H
#define TAVRONET_PLATFORM_MESSAGEQUEUE_H

#include <memory>

#include "tavronet/platform/Export.h"

/// The queue of one thread: posted calls and socket notifications that wait for it.
///
/// A host pumps it in one of three ways: with RunMessageLoop; by watching QueueDescriptor in its own event
/// loop and calling DispatchRound when it is readable; or by calling DispatchPending from a timer.

namespace tavronet
{
class MessageQueue;
}

/// Shares ownership of a thread's queue; it stays valid after the thread has ended.
using ThreadQueue = std::shared_ptr<tavronet::MessageQueue>;

/// The calling thread's queue, made on first use.
TAVRONET_API ThreadQueue CurrentThreadQueue();

/// Has `call(argument)` run once on the queue's thread, in the order posted. Any thread may post; it never
/// blocks and runs nothing itself.
TAVRONET_API void PostThreadCall(const ThreadQueue& queue, void (*call)(void*), void* argument);

/// A descriptor that is readable while the calling thread's queue has something due. It belongs to the queue:
/// watch it, never read, write or close it.
TAVRONET_API int QueueDescriptor();

/// One round: asks the system once, without blocking, which sockets are ready, then delivers the posted calls
/// that were there and at most one notification of each kind per socket that was due.
///
/// Runs foreign code, which may dispatch again, wait, destroy any socket and throw; what was not delivered
/// stays due.
/// @return whether anything was delivered.
TAVRONET_API bool DispatchRound();

/// Rounds until one finds nothing, at most 64: a peer that floods cannot hold the thread.
TAVRONET_API void DispatchPending();

/// Waits and dispatches until QuitMessageLoop; loops may nest.
/// @return the code given to QuitMessageLoop.
TAVRONET_API int RunMessageLoop();

/// Ends the innermost RunMessageLoop of the calling thread after the round in progress.
TAVRONET_API void QuitMessageLoop(int code);

/// Lets the host run a pass of its own event loop inside the waits of the calling thread: called before every
/// block and at least every 10 ms during it. It must not throw. Null removes it.
TAVRONET_API void SetWaitHook(void (*hook)(void*), void* argument);

#endif
