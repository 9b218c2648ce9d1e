#ifndef TAVRONET_PLATFORM_MESSAGEQUEUEOBJECT_H
#define TAVRONET_PLATFORM_MESSAGEQUEUEOBJECT_H

#include <atomic>
#include <cstdint>
#include <list>
#include <mutex>
#include <vector>

#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/SocketWatch.h"

class CAsyncSocket;

namespace tavronet
{

/// What waits for one thread, and who takes it out.
///
/// Sockets are known here by ids that are never used twice; an id is looked up again before every delivery,
/// so an entry can never reach a socket that was destroyed, closed, or made at the same address.
/// What is due is a list through the slots of the sockets, so that making something due cannot fail.
/// Thread: all members on the owner's thread, except Post and Wake.
class MessageQueue
{
public:
    MessageQueue();
    ~MessageQueue();
    MessageQueue(const MessageQueue&) = delete;
    MessageQueue& operator=(const MessageQueue&) = delete;

    struct PostedCall
    {
        void (*call)(void*);
        void* argument;
        void (*discard)(void*);
    };
    using PostedCalls = std::list<PostedCall>;

    /// Any thread. Has `call(argument)` run by a later round, or `discard(argument)`, if given, when the queue ends
    /// before that.
    void Post(void (*call)(void*), void* argument, void (*discard)(void*) = nullptr);
    /// The same for calls made beforehand, which cannot fail.
    void Post(PostedCalls calls) noexcept;
    /// Any thread. Ends the owner's Block in progress, or its next one.
    void Wake();

    /// Watches a socket's descriptor from now on. @return its id, 0 with errno when the system refuses. Throws
    /// std::bad_alloc with nothing changed.
    std::uint64_t Register(CAsyncSocket& socket, int descriptor);
    /// Forgets the id; entries that name it are skipped. @param stayingOpen the descriptor, or -1 when it is
    /// about to be closed, which ends the watch by itself.
    void Unregister(std::uint64_t id, int stayingOpen = -1);
    /// The socket that has this id; null when it has gone.
    CAsyncSocket* Find(std::uint64_t id) const;
    /// Has the socket served by a later round; called once until it has been.
    void PushDue(std::uint64_t id);

    bool HasDue() const { return m_FirstDue != kNoSlot || m_PostCount.load(std::memory_order_acquire) != 0; }

    /// Makes the descriptors that the thread could not have when it ran out of them; tried at every use.
    void OpenIfNeeded();

    /// Waits until the system reports something, the queue is woken, or the time is over, and turns what is
    /// ready into due sockets. Never waits while something is due. Runs no foreign code.
    /// @param timeoutMs 0 asks without blocking, -1 waits without limit.
    void Block(int timeoutMs);

    /// Blocks as above, then serves what was due when it began to. @return whether anything was delivered.
    bool Round(int timeoutMs);

    int SharedDescriptor();
    void SetHook(void (*hook)(void*), void* argument);
    /// Runs the host's wait hook, if any. @return how long a block of `timeoutMs` may last before its next
    /// turn.
    int RunHook(int timeoutMs);

    /// RunMessageLoop's own state.
    struct Loop
    {
        bool quit = false;
        int code = 0;
    };
    Loop* m_pInnermostLoop = nullptr;

private:
    static constexpr std::uint32_t kNoSlot = UINT32_MAX;

    struct Slot
    {
        CAsyncSocket* socket = nullptr; // null: gone
        std::uint32_t generation : 31 = 0;
        std::uint32_t due : 1 = 0; // in the list of what is due, where it stays although the socket has gone
        std::uint32_t next = kNoSlot; // in that list, or in the list of free slots
    };
    class DispatchScope;

    std::uint32_t TakeDue();
    void Free(std::uint32_t index);
    void ClearWaker();
    void RaiseWaker();
    bool ServePosts();
    bool ServeSockets(std::uint64_t last);

    SocketWatch m_Watch;
    int m_Waker = -1;      // eventfd, watched with id 0
    bool m_Shared = false; // a foreign loop watches the descriptor
    int m_Dispatching = 0; // Round calls on the stack
    void (*m_pHook)(void*) = nullptr;
    void* m_pHookArgument = nullptr;

    std::vector<Slot> m_Slots;
    std::uint32_t m_FreeSlot = kNoSlot;

    std::uint32_t m_FirstDue = kNoSlot; // slots in the order in which they became due
    std::uint32_t m_LastDue = kNoSlot;
    std::uint64_t m_DuePushed = 0;
    std::uint64_t m_DueTaken = 0;

    std::mutex m_PostLock; // guards the next four
    PostedCalls m_Posts;
    std::uint64_t m_PostsPushed = 0;
    std::uint64_t m_PostsTaken = 0;
    bool m_Woken = false; // the waker is raised
    std::atomic<std::size_t> m_PostCount{0};
};

} // namespace tavronet

#endif
