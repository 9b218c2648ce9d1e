// How actions get their connections and callers their answers. Stands above the service and its connection,
// which know each other by name only.

#include <memory>
#include <type_traits>
#include <utility>

#include "tavronet/platform/Event.h"
#include "tavronet/platform/TextConversion.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/UPnPService.h"
#include "tavronet/upnp/UPnPServiceSocket.h"

/// The frame of a blocking Command: owns the event, and stands in the service while the answer is waited for.
///
/// While it stands there no other action starts, so the connection of the service is the frame's own or gone.
struct CUPnPService::BlockingCall
{
    explicit BlockingCall(CUPnPService& owner)
        : service(owner),
          alive(owner),
          event(CreateEventW(nullptr, /*manualReset*/ 1, /*initialState*/ 0, nullptr))
    {
        service.m_pBlockingCall = this;
    }

    ~BlockingCall()
    {
        Leave();
        if (event != nullptr)
            CloseHandle(event);
    }

    BlockingCall(const BlockingCall&) = delete;
    BlockingCall& operator=(const BlockingCall&) = delete;

    void Leave()
    {
        if (alive.Alive())
            service.m_pBlockingCall = nullptr;
    }

    CUPnPService& service;
    const tavronet::LifetimeGuard alive;
    const HANDLE event;
    bool answered = false;
};

namespace
{

// A variable argument list is a pointer on some machines: there `Command(wait, cancel, action, nullptr)`
// picks the form that takes a list, and the list is null.
template <typename List>
bool IsNullList(const List& list)
{
    if constexpr (std::is_pointer_v<std::decay_t<List>>)
        return list == nullptr;
    else
        return false;
}

std::vector<CString> ReadPairs(va_list arguments)
{
    std::vector<CString> pairs;
    while (const char* const name = va_arg(arguments, const char*)) {
        const char* const value = va_arg(arguments, const char*);
        if (value == nullptr)
            break;
        pairs.emplace_back(name);
        pairs.emplace_back(value);
    }
    return pairs;
}

} // namespace

CUPnPService::~CUPnPService()
{
    ReleaseUPnPServiceSocket(false); // a Command that waits ends at once, and finds the service gone
}

bool CUPnPService::Command(bool wait, HANDLE cancel, const char* action, ...)
{
    va_list arguments;
    va_start(arguments, action);
    const bool result = Command(wait, cancel, action, arguments);
    va_end(arguments);
    return result;
}

bool CUPnPService::Command(bool wait, HANDLE cancel, const char* action, va_list arguments)
{
    std::vector<CString> pairs;
    if (!IsNullList(arguments))
        pairs = ReadPairs(arguments);
    if (IsInFlight())
        return Enqueue(action, std::move(pairs));

    m_Command = action;
    m_CommandParams = std::move(pairs);
    ReleaseUPnPServiceSocket(false); // the previous connection; its action has been answered
    return wait ? SendAndWait(cancel) : Send();
}

bool CUPnPService::IsInFlight() const
{
    const bool unanswered = m_pServiceSocket != nullptr && !m_pServiceSocket->GetHTMLProcessed();
    return unanswered || m_pBlockingCall != nullptr;
}

bool CUPnPService::Send()
{
    if (OpenConnection())
        return true;
    ReleaseUPnPServiceSocket(true);
    return false;
}

bool CUPnPService::SendAndWait(HANDLE cancel)
{
    BlockingCall call(*this);
    const auto end = [&](bool answered) {
        if (!call.alive.Alive())
            return false;
        // Only now may a queued action start, lest its answer replace the one that our caller is about to read.
        call.Leave();
        if (!answered || m_pServiceSocket == nullptr)
            ReleaseUPnPServiceSocket(true);
        return answered;
    };
    try {
        return end(call.event != nullptr && OpenConnection() && WaitEvent(call.event, cancel) &&
                   call.answered);
    } catch (...) { // by a handler of the host: nobody waits for the answer any more
        end(false);
        throw;
    }
}

bool CUPnPService::OpenConnection()
{
    WantUpkeep();
    m_pServiceSocket = new CUPnPServiceSocket(nullptr, 0, this);
    return !m_pServiceSocket->GetErrorState();
}

void CUPnPService::WakeBlockingCall(bool answered)
{
    if (m_pBlockingCall == nullptr)
        return;
    m_pBlockingCall->answered |= answered;
    SetEvent(m_pBlockingCall->event);
}

void CUPnPService::ReleaseUPnPServiceSocket(bool next)
{
    delete std::exchange(m_pServiceSocket, nullptr);
    const bool answered = false;
    WakeBlockingCall(answered);
    if (next && m_pBlockingCall == nullptr)
        StartQueuedCommand();
}

void CUPnPService::StartQueuedCommand()
{
    while (!m_QueuedCommands.empty()) {
        m_Command = std::move(m_QueuedCommands.front().action);
        m_CommandParams = std::move(m_QueuedCommands.front().arguments);
        m_QueuedCommands.pop_front();
        if (OpenConnection())
            return;
        delete std::exchange(m_pServiceSocket, nullptr);
    }
}

bool CUPnPService::Tickle()
{
    if (m_pServiceSocket == nullptr || m_pBlockingCall != nullptr)
        return true;

    const DWORD lastActivity = m_pServiceSocket->GetTick(); // 0: none yet
    const bool idle = lastActivity != 0 && lastActivity + tavronet::kIdleConnectionMs < GetTickCount();
    if (idle || m_pServiceSocket->Overdue())
        ReleaseUPnPServiceSocket(true);
    return true;
}
