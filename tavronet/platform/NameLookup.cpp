#include "tavronet/platform/NameLookup.h"

#include <netdb.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "tavronet/platform/AsyncSocketDelivery.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/MessageQueueObject.h"
#include "tavronet/platform/SocketCalls.h"

namespace tavronet
{
namespace
{

// As many as the C library runs at once. Gateways that have given no description yet, 16 at most, cannot take all of
// them with names that nobody answers for.
constexpr std::size_t kMaxRunning = 20;
constexpr std::size_t kMaxWaiting = 256;

} // namespace

// One look-up; owned by whoever handles it next: the line, the system, the socket's queue.
struct NameLookup::Request
{
    std::string host;
    std::string service;
    addrinfo hints{};
    gaicb control{};
    std::weak_ptr<MessageQueue> queue; // gone when the thread has ended and its sockets are closed
    std::uint64_t socketId = 0;
    MessageQueue::PostedCalls outcome; // made beforehand: nobody could be told that it cannot be posted

    ~Request()
    {
        if (control.ar_result != nullptr)
            freeaddrinfo(control.ar_result);
    }
};

struct NameLookup::Line
{
    std::mutex lock; // guards the rest
    std::size_t running = 0;
    std::deque<Request*> waiting;

    static Line& Instance()
    {
        static Line& line = *new Line; // never destroyed: look-ups may end during static destruction
        return line;
    }
};

bool NumericAddress(const char* text, UINT port, sockaddr_storage& address, int& addressLength)
{
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (platform::getaddrinfo(text, std::to_string(port).c_str(), &hints, &found) != 0)
        return false;
    std::memcpy(&address, found->ai_addr, found->ai_addrlen);
    addressLength = static_cast<int>(found->ai_addrlen);
    freeaddrinfo(found);
    return true;
}

bool NameLookup::Start(CAsyncSocket& socket, const char* host, UINT port)
{
    auto request = std::make_unique<Request>();
    request->host = host;
    request->service = std::to_string(port);
    request->hints.ai_family = AF_INET;
    request->hints.ai_socktype = SOCK_STREAM;
    request->control.ar_name = request->host.c_str();
    request->control.ar_service = request->service.c_str();
    request->control.ar_request = &request->hints;
    request->queue = socket.m_pQueue;
    request->socketId = socket.m_Id;
    request->outcome.push_back(
        {&NameLookup::GoOn, request.get(), [](void* unread) { delete static_cast<Request*>(unread); }});

    Line& line = Line::Instance();
    {
        const std::lock_guard lock(line.lock);
        if (line.running >= kMaxRunning) {
            if (line.waiting.size() >= kMaxWaiting)
                return false;
            line.waiting.push_back(request.get());
            (void)request.release();
            return true;
        }
        ++line.running;
    }
    Begin(request.release());
    return true;
}

void NameLookup::Abandon(const CAsyncSocket& socket)
{
    std::unique_ptr<Request> abandoned; // freed outside the lock
    Line& line = Line::Instance();
    const std::lock_guard lock(line.lock);
    const auto isItsOwn = [&socket](const Request* request) {
        return request->socketId == socket.m_Id && request->queue.lock() == socket.m_pQueue;
    };
    const auto found = std::ranges::find_if(line.waiting, isItsOwn);
    if (found != line.waiting.end()) {
        abandoned.reset(*found);
        line.waiting.erase(found);
    }
}

void NameLookup::Begin(Request* request)
{
    sigevent completion{};
    completion.sigev_notify = SIGEV_THREAD;
    completion.sigev_value.sival_ptr = request;
    completion.sigev_notify_function = [](sigval value) { Ended(static_cast<Request*>(value.sival_ptr)); };
    gaicb* list[] = {&request->control};
    getaddrinfo_a(GAI_NOWAIT, list, 1, &completion); // a failure to begin comes as a completion, too
}

// On a thread of the system: starts the next in line and hands the outcome to the socket's thread.
void NameLookup::Ended(Request* request)
{
    Request* next = nullptr;
    Line& line = Line::Instance();
    {
        const std::lock_guard lock(line.lock);
        if (line.waiting.empty())
            --line.running;
        else {
            next = line.waiting.front();
            line.waiting.pop_front();
        }
    }
    MessageQueue::PostedCalls outcome = std::move(request->outcome);
    if (const ThreadQueue queue = request->queue.lock())
        queue->Post(std::move(outcome));
    else
        delete request;
    if (next != nullptr)
        Begin(next);
}

void NameLookup::GoOn(void* argument)
{
    const std::unique_ptr<Request> request(static_cast<Request*>(argument));
    CAsyncSocket* const socket = CurrentThreadQueue()->Find(request->socketId);
    if (socket == nullptr || !(socket->m_State & SocketState::LookingUp))
        return;

    socket->m_State &= ~UINT{SocketState::LookingUp};
    const int failure = gai_error(&request->control);
    if (failure != 0 || request->control.ar_result == nullptr)
        return AsyncSocketDelivery::EndConnect(*socket,
                                               platform::ResolverError(failure != 0 ? failure : EAI_AGAIN));

    sockaddr_storage address{};
    std::memcpy(&address, request->control.ar_result->ai_addr, request->control.ar_result->ai_addrlen);
    const LifetimeGuard guard(*socket);
    const int before = WSAGetLastError();
    const bool made =
        socket->ConnectHelper(&address, static_cast<int>(request->control.ar_result->ai_addrlen)) != 0;
    if (guard.Alive() && !made && WSAGetLastError() != WSAEWOULDBLOCK)
        AsyncSocketDelivery::EndConnect(*socket, WSAGetLastError());
    WSASetLastError(before);
}

} // namespace tavronet
