// The road of a notification:
//
//   kernel -> SocketWatch::Collect -> Block turns readiness into bits of the socket and puts its slot into the
//   list of what is due
//   host loop or wait -> Round takes the slot out, and has the socket in it deliver what is still due
//
// Nothing but ids and slots waits here, and a round holds no pointer across a delivery.

#include "tavronet/platform/MessageQueueObject.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "tavronet/platform/AsyncSocket.h"
#include "tavronet/platform/AsyncSocketDelivery.h"

namespace tavronet
{
namespace
{

constexpr std::uint64_t kWakerId = 0; // socket ids begin above
constexpr int kHookPeriodMs = 10;
constexpr int kMaxRounds = 64;

std::uint32_t SlotOf(std::uint64_t id)
{
    return static_cast<std::uint32_t>(id);
}

std::uint32_t GenerationOf(std::uint64_t id)
{
    return static_cast<std::uint32_t>(id >> 32);
}

// Generations have 31 bits and are never 0, which keeps ids apart from the waker's.
std::uint32_t NextGeneration(std::uint32_t generation)
{
    const std::uint32_t next = (generation + 1) & 0x7FFFFFFF;
    return next != 0 ? next : 1;
}

} // namespace

MessageQueue::MessageQueue()
{
    OpenIfNeeded();
}

void MessageQueue::OpenIfNeeded()
{
    if (m_Waker >= 0 || !m_Watch.Open())
        return;
    m_Waker = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_Waker >= 0)
        m_Watch.AddLevel(m_Waker, kWakerId);
}

MessageQueue::~MessageQueue()
{
    for (const PostedCall& post : m_Posts)
        if (post.discard != nullptr)
            post.discard(post.argument);
    if (m_Waker >= 0)
        close(m_Waker);
}

// --- Posting, from any thread

void MessageQueue::Post(void (*call)(void*), void* argument, void (*discard)(void*))
{
    PostedCalls calls;
    calls.push_back({call, argument, discard});
    Post(std::move(calls));
}

void MessageQueue::Post(PostedCalls calls) noexcept
{
    const std::lock_guard lock(m_PostLock);
    m_PostsPushed += calls.size();
    m_Posts.splice(m_Posts.end(), calls);
    m_PostCount.store(m_Posts.size(), std::memory_order_release);
    RaiseWaker();
}

void MessageQueue::Wake()
{
    const std::lock_guard lock(m_PostLock);
    RaiseWaker();
}

// Needs m_PostLock.
void MessageQueue::RaiseWaker()
{
    if (m_Woken)
        return;
    m_Woken = true;
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = write(m_Waker, &one, sizeof one);
}

void MessageQueue::ClearWaker()
{
    // Read first: a post that comes in between finds m_Woken set, and its call is taken by the round that
    // follows.
    std::uint64_t count = 0;
    [[maybe_unused]] const auto taken = read(m_Waker, &count, sizeof count);
    const std::lock_guard lock(m_PostLock);
    m_Woken = false;
}

// --- Sockets and their ids

std::uint64_t MessageQueue::Register(CAsyncSocket& socket, int descriptor)
{
    if (m_FreeSlot == kNoSlot) {
        m_Slots.emplace_back();
        m_FreeSlot = static_cast<std::uint32_t>(m_Slots.size() - 1);
    }
    const std::uint32_t index = m_FreeSlot;
    Slot& slot = m_Slots[index];
    const std::uint32_t generation = NextGeneration(slot.generation);
    const std::uint64_t id = (std::uint64_t{generation} << 32) | index;
    if (!m_Watch.Add(descriptor, id))
        return 0;

    m_FreeSlot = slot.next;
    slot.socket = &socket;
    slot.generation = generation & 0x7FFFFFFF;
    return id;
}

void MessageQueue::Unregister(std::uint64_t id, int stayingOpen)
{
    if (stayingOpen >= 0)
        m_Watch.Remove(stayingOpen);
    const std::uint32_t index = SlotOf(id);
    m_Slots[index].socket = nullptr;
    if (!m_Slots[index].due) // otherwise freed when its turn comes
        Free(index);
}

void MessageQueue::Free(std::uint32_t index)
{
    m_Slots[index].next = m_FreeSlot;
    m_FreeSlot = index;
}

CAsyncSocket* MessageQueue::Find(std::uint64_t id) const
{
    const std::uint32_t index = SlotOf(id);
    if (index >= m_Slots.size() || m_Slots[index].generation != GenerationOf(id))
        return nullptr;
    return m_Slots[index].socket;
}

void MessageQueue::PushDue(std::uint64_t id)
{
    const std::uint32_t index = SlotOf(id);
    m_Slots[index].due = 1;
    m_Slots[index].next = kNoSlot;
    if (m_FirstDue == kNoSlot)
        m_FirstDue = index;
    else
        m_Slots[m_LastDue].next = index;
    m_LastDue = index;
    ++m_DuePushed;
    if (m_Shared && m_Dispatching == 0)
        Wake();
}

// --- Asking the system

void MessageQueue::Block(int timeoutMs)
{
    if (HasDue())
        timeoutMs = 0;
    for (const Readiness& ready : m_Watch.Collect(timeoutMs)) {
        if (ready.id == kWakerId)
            ClearWaker();
        else if (CAsyncSocket* const socket = Find(ready.id))
            AsyncSocketDelivery::NoteReadiness(*socket, ready.what);
    }
    if (m_Shared && m_Dispatching == 0 && HasDue())
        Wake(); // a wait has taken the system's report; the foreign loop has not
}

// --- Serving

// Counts the Round calls on the stack; the outermost one leaves a shared descriptor readable while anything
// is due.
class MessageQueue::DispatchScope
{
public:
    explicit DispatchScope(MessageQueue& queue) : m_Queue(queue) { ++m_Queue.m_Dispatching; }
    ~DispatchScope()
    {
        if (--m_Queue.m_Dispatching == 0 && m_Queue.m_Shared && m_Queue.HasDue())
            m_Queue.Wake();
    }
    DispatchScope(const DispatchScope&) = delete;
    DispatchScope& operator=(const DispatchScope&) = delete;

private:
    MessageQueue& m_Queue;
};

bool MessageQueue::Round(int timeoutMs)
{
    const DispatchScope scope(*this);
    Block(timeoutMs);
    const std::uint64_t lastDue = m_DuePushed; // what the posted calls make due is for the next round
    const bool posts = ServePosts();
    return ServeSockets(lastDue) || posts;
}

bool MessageQueue::ServePosts()
{
    if (m_PostCount.load(std::memory_order_acquire) == 0)
        return false;

    std::unique_lock lock(m_PostLock);
    const std::uint64_t last = m_PostsPushed;
    while (m_PostsTaken < last) // a nested round may have taken some
    {
        const PostedCall next = m_Posts.front();
        m_Posts.pop_front();
        ++m_PostsTaken;
        m_PostCount.store(m_Posts.size(), std::memory_order_release);
        lock.unlock();
        next.call(next.argument);
        lock.lock();
    }
    return true;
}

bool MessageQueue::ServeSockets(std::uint64_t last)
{
    bool delivered = false;
    while (m_DueTaken < last) // a nested round may have taken some
    {
        if (CAsyncSocket* const socket = m_Slots[TakeDue()].socket)
            delivered |= AsyncSocketDelivery::Deliver(*socket);
    }
    return delivered;
}

std::uint32_t MessageQueue::TakeDue()
{
    const std::uint32_t index = m_FirstDue;
    Slot& slot = m_Slots[index];
    m_FirstDue = slot.next;
    slot.due = 0;
    ++m_DueTaken;
    if (slot.socket == nullptr)
        Free(index);
    return index;
}

int MessageQueue::RunHook(int timeoutMs)
{
    if (m_pHook == nullptr)
        return timeoutMs;
    m_pHook(m_pHookArgument);
    return timeoutMs < 0 ? kHookPeriodMs : std::min(timeoutMs, kHookPeriodMs);
}

int MessageQueue::SharedDescriptor()
{
    if (!m_Shared) {
        m_Shared = true;
        if (HasDue())
            Wake();
    }
    return m_Watch.Descriptor();
}

void MessageQueue::SetHook(void (*hook)(void*), void* argument)
{
    m_pHook = hook;
    m_pHookArgument = argument;
}

} // namespace tavronet

using tavronet::MessageQueue;

ThreadQueue CurrentThreadQueue()
{
    thread_local const ThreadQueue queue = std::make_shared<MessageQueue>();
    queue->OpenIfNeeded();
    return queue;
}

void PostThreadCall(const ThreadQueue& queue, void (*call)(void*), void* argument)
{
    queue->Post(call, argument);
}

int QueueDescriptor()
{
    return CurrentThreadQueue()->SharedDescriptor();
}

bool DispatchRound()
{
    return CurrentThreadQueue()->Round(0);
}

void DispatchPending()
{
    for (int round = 0; round < tavronet::kMaxRounds; ++round)
        if (!DispatchRound())
            return;
}

int RunMessageLoop()
{
    const ThreadQueue queue = CurrentThreadQueue();
    MessageQueue::Loop loop;
    // Restores the outer loop also when a notification throws.
    struct Nesting
    {
        MessageQueue& queue;
        MessageQueue::Loop* outer;
        ~Nesting() { queue.m_pInnermostLoop = outer; }
    } const nesting{*queue, std::exchange(queue->m_pInnermostLoop, &loop)};

    while (!loop.quit)
        queue->Round(-1);
    return loop.code;
}

void QuitMessageLoop(int code)
{
    if (MessageQueue::Loop* const loop = CurrentThreadQueue()->m_pInnermostLoop)
        *loop = {true, code};
}

void SetWaitHook(void (*hook)(void*), void* argument)
{
    CurrentThreadQueue()->SetHook(hook, argument);
}
