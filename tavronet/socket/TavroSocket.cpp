// Creating, connecting and sending. The receive side is in TavroSocketReceive.cpp.
//
// The road of bytes to be sent, and what it costs:
//
//   Send -> behind the queued bytes        one copy; the queue's array doubles as it grows
//                                          none while nothing is queued and SendData leaves the bytes as they are
//        -> OkayToSend                     closed: that was all
//        -> SendData(the whole queue)      the array itself is handed over, or the caller's: nothing is copied
//        -> accepted in part               the rest stays where it is in the array, and is offered again
//        -> would block                    the array becomes the queue again; SetOkayToSend(false)
//   write notification -> OnSend -> Send(the queue) -> as above, without the copy
//
// While a Send runs, the bytes are held by its frame (Sending) and not by the socket: a hook that sends finds
// an empty queue, and a hook that deletes the socket leaves the frame whole.

#include "tavronet/socket/TavroSocket.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>

#include "tavronet/net/AddressRanges.h"
#include "tavronet/net/AddressText.h"
#include "tavronet/net/LocalInterfaces.h"
#include "tavronet/platform/ByteArray.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/SocketCalls.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/socket/SpareBuffer.h"
#include "tavronet/socket/VirtualEntry.h"

namespace
{

constexpr UINT kMaxPort = 65535;
constexpr int kStreamReceiveBufferBytes = 102400; // the system's

struct AddrInfoDeleter
{
    void operator()(addrinfo* list) const { platform::freeaddrinfo(list); }
};
using AddrInfoList = std::unique_ptr<addrinfo, AddrInfoDeleter>;

void SetAddressReuse(SOCKET handle, bool on)
{
    const int value = on ? 1 : 0;
    platform::setsockopt(handle, SOL_SOCKET, SO_REUSEADDR, &value, sizeof value);
}

} // namespace

/// A Send that runs.
struct CTavroSocket::Sending
{
    explicit Sending(CTavroSocket& owner)
        : socket(owner), guard(owner), flushing(owner.m_pFlushing), chunk(std::move(owner.m_SendBuffer))
    {
        socket.m_pSending = this;
    }
    ~Sending();
    Sending(const Sending&) = delete;
    Sending& operator=(const Sending&) = delete;

    /// Lets the next Send through to the hooks again.
    void Finish()
    {
        if (guard.Alive() && socket.m_pSending == this)
            socket.m_pSending = nullptr;
    }

    /// An override of Send may look at the bytes that OnSend gave it after the base has sent them: the first
    /// array goes back there.
    void Replace(tavronet::ByteBuffer next);

    /// What is not accepted yet: the caller's bytes where they are, or the chunk.
    [[nodiscard]] unsigned char* Data() const { return callersLeft > 0 ? callers : chunk.Data(); }
    [[nodiscard]] int Size() const { return callersLeft > 0 ? callersLeft : chunk.Size(); }
    /// False when a SendData has taken the chunk over.
    [[nodiscard]] bool Holds() const { return callersLeft > 0 || chunk.Holds(); }
    void Drop(int count);
    /// Makes what is left of the caller's bytes the chunk.
    void Adopt();

    CTavroSocket& socket;
    tavronet::LifetimeGuard guard;
    Flushing* flushing; // the OnSend that called, if any; outlives this
    tavronet::ByteBuffer chunk;
    unsigned char* callers = nullptr; // not owned
    int callersLeft = 0;
    tavronet::ByteBuffer reserve; // room for them
    bool gateClosed = false;      // by a hook, while sending
    bool writable = false;        // a write notification came while sending
};

/// An OnSend that sends the queue: opens the gate meanwhile.
struct CTavroSocket::Flushing
{
    explicit Flushing(CTavroSocket& owner)
        : socket(owner),
          guard(owner),
          outer(owner.m_pFlushing),
          wasOpen(owner.m_OkayToSend),
          queue(std::move(owner.m_SendBuffer)),
          data(queue.Data()),
          size(queue.Size())
    {
        socket.m_pFlushing = this;
        socket.m_OkayToSend = true;
    }
    ~Flushing()
    {
        if (!guard.Alive())
            return;
        socket.m_pFlushing = outer;
        if (socket.m_OkayToSend) // still: nobody has closed it
            socket.m_OkayToSend = wasOpen;
    }
    Flushing(const Flushing&) = delete;
    Flushing& operator=(const Flushing&) = delete;

    /// Whether these bytes, just handed to Send, are the whole queue.
    bool Is(const unsigned char* bytes, int length) const
    {
        return queue.Holds() && bytes == data && length == size && queue.Size() == size;
    }

    CTavroSocket& socket;
    tavronet::LifetimeGuard guard;
    Flushing* const outer;
    const bool wasOpen;
    tavronet::ByteBuffer queue;
    unsigned char* const data;
    const int size;
};

CTavroSocket::Sending::~Sending()
{
    Finish();
    Replace({});
    tavronet::GiveSpareBuffer(std::move(reserve));
}

void CTavroSocket::Sending::Drop(int count)
{
    if (callersLeft == 0)
        return chunk.DropFront(count);
    const int dropped = std::min(count, callersLeft);
    callers += dropped;
    callersLeft -= dropped;
}

void CTavroSocket::Sending::Adopt()
{
    if (callersLeft == 0)
        return;
    reserve.Append(callers, callersLeft);
    chunk = std::move(reserve);
    callersLeft = 0;
}

void CTavroSocket::Sending::Replace(tavronet::ByteBuffer next)
{
    if (flushing != nullptr && !flushing->queue.Holds())
        flushing->queue = std::move(chunk);
    chunk = std::move(next);
}

CTavroSocket::CTavroSocket() = default;
CTavroSocket::~CTavroSocket() = default;

// --- Creating and connecting

int CTavroSocket::Create(UINT port, int type, LONG events, const wchar_t* address, int family)
{
    if (address != nullptr && *address == L'\0')
        address = nullptr;
    m_Port = port;
    if (!CreateEx(port, type, events, address, family))
        return 0;

    if (type == SOCK_STREAM && (events & FD_READ))
        platform::setsockopt(m_hSocket, SOL_SOCKET, SO_RCVBUF, &kStreamReceiveBufferBytes,
                             sizeof kStreamReceiveBufferBytes); // a wish: the system may refuse
    return 1;
}

bool CTavroSocket::CreateEx(UINT port, int type, LONG events, const wchar_t* address, int family)
{
    const AddrInfoList found(GetAddrInfo(port, address, family, type));
    if (found == nullptr || !Socket(found->ai_socktype, events, found->ai_protocol, found->ai_family))
        return false;

    // With the reuse option on, the system may choose a port that another socket has.
    const bool systemChooses = port == 0 && found->ai_socktype == SOCK_STREAM;
    if (systemChooses)
        SetAddressReuse(m_hSocket, false);
    if (!BindOrClose(found->ai_addr, static_cast<int>(found->ai_addrlen)))
        return false;
    if (systemChooses)
        SetAddressReuse(m_hSocket, true);
    return true;
}

bool CTavroSocket::BindOrClose(const sockaddr* address, int addressLength)
{
    if (platform::bind(m_hSocket, address, addressLength) == 0)
        return true;
    const int error = WSAGetLastError();
    Close();
    WSASetLastError(error);
    return false;
}

int CTavroSocket::Bind(UINT port, const wchar_t* address, int family)
{
    sockaddr_storage_xp record;
    int length = 0;
    if (!GetSockAddr(port, address, record, length, family))
        return 0;
    return platform::bind(m_hSocket, reinterpret_cast<const sockaddr*>(&record), length) == 0 ? 1 : 0;
}

int CTavroSocket::Connect(const wchar_t* address, UINT port, int family)
{
    tavronet::LifetimeGuard guard(*this);
    sockaddr_storage_xp record;
    int length = 0;
    BOOL connected = 0;
    if (GetSockAddr(port, address, record, length, family))
        connected = ConnectHelper(&record, length);
    else if (port <= kMaxPort) // a port that does not exist is no reason to look the text up
        connected = CAsyncSocket::Connect(address, port);

    const int error = WSAGetLastError();
    if (!guard.Alive())
        return 0;
    if (connected)
        OnConnect(0);
    else if (error == WSAEWOULDBLOCK)
        m_Connecting = true;
    return connected;
}

int CTavroSocket::Connect(const wchar_t* address, UINT port)
{
    return Connect(address, port, AF_UNSPEC);
}

void CTavroSocket::OnConnect(int error)
{
    m_Connecting = false;
    m_Connected = error == 0;
}

void CTavroSocket::OnClose(int)
{
    m_Connected = false;
}

// --- Sending

int CTavroSocket::Send(unsigned char* data, int length, int flags)
{
    if (data == nullptr || length < 0)
        length = 0;
    if (m_pSending != nullptr)
        return SendLater(data, length);

    const bool queued = m_SendBuffer.Holds();
    const bool direct = !queued && m_pFlushing == nullptr && length > 0 && SendsFromAnyMemory();
    if (!queued && m_pFlushing != nullptr && m_pFlushing->Is(data, length))
        m_SendBuffer = std::move(m_pFlushing->queue);
    else if (!direct)
        m_SendBuffer.Append(data, length);

    Sending sending(*this);
    if (direct) {
        sending.callers = data;
        sending.callersLeft = length;
    }
    const bool open = OkayToSend();
    if (!sending.guard.Alive())
        return -1;
    if (!open) {
        QueueUnsent(sending);
        return length;
    }
    if (direct)
        sending.reserve = tavronet::TakeSpareBuffer(length); // memory runs out now or not at all
    return SendChunks(sending, flags) ? length : -1;
}

bool CTavroSocket::SendsFromAnyMemory() const
{
    return tavronet::ReachesOwn<Transfer{&CTavroSocket::SendData}>(*this);
}

/// A Send inside a hook of the running one: goes behind it without asking the hooks again.
int CTavroSocket::SendLater(const unsigned char* data, int length)
{
    const std::int64_t unsent = std::int64_t{m_pSending->Size()} + m_SendBuffer.Size();
    if (unsent + length >= tavronet::kMaxByteArraySize)
        (void)tavronet::NewByteArray(unsent + length + 1); // throws: they will have to fit into one array
    if (length > 0)
        m_SendBuffer.Append(data, length);
    return length;
}

/// @return false with the last error when the bytes could not be sent; they are dropped then.
bool CTavroSocket::SendChunks(Sending& sending, int flags)
{
    const std::uint64_t handle = HandleId();
    while (NextChunk(sending)) {
        // A SendData of a derived class may take the chunk over by the rules of the queue: as an array.
        if (!m_PlainSend && sending.callersLeft == 0 && !sending.chunk.AtStart())
            sending.Replace(sending.chunk.Copy());
        m_PlainSend = false;

        WSASetLastError(0); // a result of 0 says nothing by itself
        const int accepted = SendData(sending.Data(), sending.Size(), flags);
        const int error = WSAGetLastError();
        if (!sending.guard.Alive())
            return false;

        if (accepted > 0) {
            m_Tick = GetTickCount();
            sending.Drop(accepted);
        }
        const bool handleReplaced = HandleId() != handle && HandleId() != 0;
        if (handleReplaced) {
            // What is left was for the old connection; what is queued may be for the new one.
            const bool done = accepted > 0 && sending.Size() == 0;
            if (!done)
                WSASetLastError(WSAECONNABORTED);
            return done;
        }
        if (accepted > 0)
            continue;
        if (error != WSAEWOULDBLOCK) {
            m_SendBuffer = tavronet::ByteBuffer();
            return false;
        }
        if (std::exchange(sending.writable, false) && sending.Holds())
            continue; // the system takes data again already
        QueueUnsent(sending);
        SetOkayToSend(false);
        return sending.guard.Alive();
    }
    return true;
}

/// Goes on with what hooks have queued meanwhile, once everything before it was accepted.
/// @return whether there is something to send.
bool CTavroSocket::NextChunk(Sending& sending)
{
    if (sending.Size() > 0)
        return true;
    if (m_SendBuffer.Size() == 0 || sending.gateClosed)
        return false;
    sending.Replace(std::move(m_SendBuffer));
    return true;
}

/// Makes the rest of a Send the queue, in front of what hooks have queued meanwhile.
void CTavroSocket::QueueUnsent(Sending& sending)
{
    sending.Adopt();
    if (sending.chunk.Holds()) // nobody has taken it over
    {
        if (m_SendBuffer.Holds())
            sending.chunk.Append(m_SendBuffer.Data(), m_SendBuffer.Size());
        m_SendBuffer = std::move(sending.chunk);
    }
    sending.Finish();
}

int CTavroSocket::SendData(unsigned char* data, int length, int flags)
{
    if (length <= 0)
        return length;
    m_PlainSend = true;
    return CAsyncSocket::Send(data, length, flags);
}

bool CTavroSocket::OkayToSend()
{
    return m_OkayToSend;
}

void CTavroSocket::SetOkayToSend(bool allowed)
{
    m_OkayToSend = allowed;
    if (m_pSending != nullptr)
        m_pSending->gateClosed = !allowed;
}

void CTavroSocket::OnSend(int)
{
    tavronet::LifetimeGuard guard(*this);
    if (m_pSending != nullptr) {
        m_pSending->writable = true; // its queue is the running Send's to flush
    } else if (m_SendBuffer.Holds()) {
        Flushing flushing(*this);
        Send(flushing.data, flushing.size, 0);
    }
    if (guard.Alive() && !m_SendBuffer.Holds())
        SetOkayToSend(true);
}

int CTavroSocket::Send(const char* text)
{
    const std::size_t length = text != nullptr ? std::strlen(text) : 0;
    if (length >= static_cast<std::size_t>(tavronet::kMaxByteArraySize))
        (void)tavronet::NewByteArray(INT64_MAX); // throws: longer than any buffer
    return Send(reinterpret_cast<unsigned char*>(const_cast<char*>(text)), static_cast<int>(length), 0);
}

int CTavroSocket::Send(const CStringA& text)
{
    const int length =
        static_cast<int>(strnlen(text.GetString(), static_cast<std::size_t>(text.GetLength())));
    return Send(reinterpret_cast<unsigned char*>(const_cast<char*>(text.GetString())), length, 0);
}

int CTavroSocket::Send(const void* data, int length, int flags)
{
    return Send(static_cast<unsigned char*>(const_cast<void*>(data)), length, flags);
}

const unsigned char* CTavroSocket::GetSendBuffer() const
{
    m_SendBuffer.MoveToStart();
    return m_SendBuffer.Data();
}

void CTavroSocket::ClearSendBuffer()
{
    m_SendBuffer.Release();
}

tavronet::ByteBuffer CTavroSocket::TakeSendChunk()
{
    return m_pSending != nullptr ? std::move(m_pSending->chunk) : tavronet::ByteBuffer();
}

bool CTavroSocket::IsSendChunk(const unsigned char* data, int length) const
{
    return m_pSending != nullptr && m_pSending->chunk.Data() == data && m_pSending->chunk.Size() == length;
}

// --- Names and addresses

void CTavroSocket::SetTick()
{
    m_Tick = GetTickCount();
}

bool CTavroSocket::GetPeerName(CStringW& address, UINT& port) const
{
    return ::GetPeerName(m_hSocket, address, port);
}

bool CTavroSocket::GetSockName(CStringW& address, UINT& port) const
{
    return ::GetSockName(m_hSocket, address, port);
}

int CTavroSocket::GetIPAddresses(std::vector<CStringW>& addresses, bool privateOnly)
{
    addresses.clear();
    const auto wanted = [privateOnly](const CStringW& address) {
        return !privateOnly || IsPrivateIP(address) != 0;
    };

    CStringW own; // stays empty without a handle, which counts as the IPv4 wildcard
    UINT port = 0;
    GetSockName(own, port);
    if (!IsAllIP(own)) {
        if (wanted(own))
            addresses.push_back(own);
        return static_cast<int>(addresses.size());
    }

    std::vector<CStringW> local;
    if (AddressFamily(own) == AF_INET6)
        GetLocalIPv6Addresses(local, true);
    else
        GetLocalIPv4Addresses(local, true);
    std::ranges::copy_if(local, std::back_inserter(addresses), [&wanted](const CStringW& address) {
        return !IsLoopbackIP(address) && wanted(address);
    });
    return static_cast<int>(addresses.size());
}
