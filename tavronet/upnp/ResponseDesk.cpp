#include "tavronet/upnp/ResponseDesk.h"

#include <atomic>
#include <deque>
#include <utility>

#include "tavronet/platform/MessageQueue.h"
#include "tavronet/upnp/Limits.h"

namespace tavronet
{

/// What the responses of one thread share.
class ResponseDesk
{
public:
    /// The calling thread's.
    static const std::shared_ptr<ResponseDesk>& OfThread();

    /// Counts a response as read in this round, if it may be: the first one, and further ones as long as all of
    /// them together are no more than an ordinary one.
    bool TakeTurn(std::size_t bytes);

    void Await(std::size_t bytes, std::weak_ptr<std::function<void()>> read);

    // Places are destroyed by other threads when this one has ended.
    std::atomic<std::size_t> heldBytes = 0;

private:
    struct Waiting
    {
        std::size_t bytes;
        std::weak_ptr<std::function<void()>> read; // expired: its place is gone
    };

    void AskForRound();
    void BeginRound();

    std::deque<Waiting> m_Waiting; // the oldest first
    std::size_t m_ReadBytes = 0;   // in this round
    bool m_AskedForRound = false;
};

const std::shared_ptr<ResponseDesk>& ResponseDesk::OfThread()
{
    thread_local const auto desk = std::make_shared<ResponseDesk>();
    return desk;
}

bool ResponseDesk::TakeTurn(std::size_t bytes)
{
    if (m_ReadBytes != 0 && m_ReadBytes + bytes > kOrdinaryResponseBytes)
        return false;
    AskForRound(); // first: the reader may throw
    m_ReadBytes += bytes;
    return true;
}

void ResponseDesk::Await(std::size_t bytes, std::weak_ptr<std::function<void()>> read)
{
    m_Waiting.push_back({bytes, std::move(read)});
}

/// A posted call is run by the round that follows the present one.
void ResponseDesk::AskForRound()
{
    if (m_AskedForRound)
        return;
    PostThreadCall(
        CurrentThreadQueue(), [](void*) { OfThread()->BeginRound(); }, nullptr);
    m_AskedForRound = true;
}

void ResponseDesk::BeginRound()
{
    m_AskedForRound = false;
    m_ReadBytes = 0;
    // A reader may dispatch, and then a round inside this one goes on with what waits. Whoever had no turn finds that
    // the one who took it has asked for another round.
    while (!m_Waiting.empty()) {
        const auto read = m_Waiting.front().read.lock();
        if (read != nullptr && !TakeTurn(m_Waiting.front().bytes))
            return;
        m_Waiting.pop_front();
        if (read != nullptr)
            (*read)();
    }
}

ResponsePlace::ResponsePlace() : m_pDesk(ResponseDesk::OfThread()) {}

ResponsePlace::~ResponsePlace()
{
    Hold(0);
}

void ResponsePlace::Hold(std::size_t bytes)
{
    m_pDesk->heldBytes += bytes - m_Bytes;
    m_Bytes = bytes;
}

bool ResponsePlace::HasRoom() const
{
    return m_Bytes <= kOrdinaryResponseBytes || m_pDesk->heldBytes <= kMaxHeldResponseBytes;
}

void ResponsePlace::Read(std::function<void()> read)
{
    if (m_pDesk->TakeTurn(m_Bytes)) {
        read();
        return;
    }
    m_pWaiting = std::make_shared<std::function<void()>>(std::move(read));
    m_pDesk->Await(m_Bytes, m_pWaiting);
}

} // namespace tavronet
