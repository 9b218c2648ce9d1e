#ifndef TAVRONET_SOCKET_TAVROSOCKET_H
#define TAVRONET_SOCKET_TAVROSOCKET_H

#include <cstdint>
#include <vector>

#include "tavronet/platform/AsyncSocket.h"
#include "tavronet/platform/Export.h"
#include "tavronet/platform/String.h"
#include "tavronet/platform/Types.h"
#include "tavronet/socket/ByteBuffer.h"

/// A buffered TCP or UDP socket; the base of every socket of the library and of the connections of hosts.
///
/// What it adds to CAsyncSocket: creating and connecting from numeric address text of either family; a send
/// queue with a gate, so that a full system buffer never loses data; a receive pipeline that hands over
/// everything received and not yet consumed as one buffer; datagrams by address text.
///
/// Ownership: the creator deletes it. Sockets are not copied.
/// Thread: every call and every notification on the thread that created the handle.
/// During a call: Send, OnSend and OnReceive call the hooks below. A hook may do anything with this or
/// another
///   socket: send, close, create anew, dispatch messages, throw, even delete this socket. After a deletion no
///   member is touched; what the interrupted call then returns is -1 or false. Bytes that a hook left behind
///   by throwing or deleting are dropped. After Close and Create in a hook, the interrupted call reads
///   nothing from the new handle and writes nothing to it.
/// Memory: a connection that holds no data of its own holds no buffer. Running out of memory throws
///   CMemoryException*, before anything has changed.
class TAVRONET_API CTavroSocket : public CAsyncSocket
{
public:
    CTavroSocket();
    ~CTavroSocket() override;

    /// Creates the handle and binds it.
    /// @param port local port; 0 lets the system choose.  @param type 1 stream, 2 datagram.
    /// @param events the notifications to select, FD_ALL for all.
    /// @param address numeric text; null or empty for the wildcard of the family.
    /// @param family AF_INET, AF_INET6, or AF_UNSPEC: that of the text, IPv4 without text.
    /// @return 1, or 0 with the last error: the text does not parse, or the system refused. There is no
    /// handle
    ///         then.
    int Create(UINT port, int type, LONG events, const wchar_t* address, int family);

    /// Binds a handle that is not bound yet; arguments as in Create.
    /// @return 1, or 0 with the last error.
    int Bind(UINT port, const wchar_t* address, int family);

    /// Connects to numeric text of the family (AF_UNSPEC: either); other text is looked up as an IPv4 host
    /// name, without blocking.
    /// @return non-zero when connected at once (datagrams), after OnConnect(0). 0 with the last error
    /// otherwise:
    ///         WSAEWOULDBLOCK and GetConnecting() mean under way, OnConnect follows; anything else is a
    ///         failure.
    virtual int Connect(const wchar_t* address, UINT port, int family);
    virtual int Connect(const wchar_t* address, UINT port);

    /// The gate of the receive pipeline.
    /// Called:  by OnReceive, first of all and again after each pass.
    /// Returns: false = read nothing now. OnReceive then only notes a missed receive, and whoever allows
    /// reading
    ///          again calls OnReceive(0) when GetMissedReceive() is set.
    /// May:     anything.
    /// Base:    OkayToSend(): before its first write notification, and while sending is blocked, a socket
    /// does
    ///          not read. Overriding need not call the base.
    virtual bool OkayToReceive();

    /// One receive of the system, past the pipeline. @return bytes, 0 when the peer has closed, -1.
    virtual int Receive(unsigned char* buffer, int length, int flags);

    /// Sends or queues all `length` bytes; the data is copied. Bytes queued earlier go first. What the system
    /// does not take now waits in the queue for the next write notification.
    /// A Send from inside a hook of a running Send is queued behind it.
    /// @param data may be null when `length` is 0; a negative length counts as 0.
    /// @param flags for the system's send; queued bytes are sent with 0.
    /// @return `length` when the bytes were sent or queued; 0 for an empty send;
    ///         -1 on a hard error: queued and unsent bytes are dropped, WSAGetLastError() tells why.
    virtual int Send(unsigned char* data, int length, int flags);

    /// Sends text without its terminating zero; null is empty text. Results as above.
    int Send(const char* text);
    int Send(const CStringA& text);

    /// One datagram and its sender.
    /// @param address numeric text without brackets or port; unchanged on failure.  @param port host byte
    /// order.
    /// @return bytes; -1 with the last error.
    int ReceiveFrom(void* buffer, int length, CStringW& address, UINT& port, int flags);

    /// One datagram to numeric address text, past the send queue.
    /// @return bytes; 0 when the text does not parse; -1 with the last error.
    int SendTo(const void* data, int length, UINT port, const wchar_t* address, int flags);

    /// Numeric address text and port of the peer or of this end.
    /// @return false, with both unchanged, without a handle or a connection.
    bool GetPeerName(CStringW& address, UINT& port) const;
    bool GetSockName(CStringW& address, UINT& port) const;

    /// The addresses on which this socket can be reached: its own, or when it is bound to a wildcard those of
    /// the machine in that family, without loopback.
    /// @param addresses cleared first.  @param privateOnly leave out addresses that are not private.
    /// @return how many.
    int GetIPAddresses(std::vector<CStringW>& addresses, bool privateOnly);

    /// The port given to the last Create, also when that failed; never the port that the system chose.
    UINT GetPort() const { return m_Port; }
    SOCKET GetSocket() const { return m_hSocket; }

    /// When bytes were last accepted for sending or a read notification was served; ticks, 0 for never.
    DWORD GetTick() const { return m_Tick; }
    void SetTick();

    /// The outcome of Connect, kept until the peer closes. Close changes neither; an accepted connection sets
    /// neither.
    bool GetConnected() const { return m_Connected; }
    bool GetConnecting() const { return m_Connecting; }

    /// Whether a read notification was refused or could not be served to its end.
    bool GetMissedReceive() const { return m_MissedReceive; }

    /// The most one pass reads when the source of ReceiveData cannot tell how much waits; default 10240. An SSL session
    /// is read a record at a time (16384) unless this was changed.
    UINT GetOnReceivePeekBufferSize() const { return m_OnReceivePeekBufferSize; }
    void SetOnReceivePeekBufferSize(UINT bytes) { m_OnReceivePeekBufferSize = bytes; }

protected:
    /// Reads for the pipeline.
    /// Called:  twice a pass: with MSG_PEEK to learn how much waits, then with flags 0 to read that much.
    /// Returns: bytes read, 0 when the peer has closed, -1 with the last error. With MSG_PEEK: how many bytes
    ///          a read may ask for; the buffer is scratch space, its content is never used.
    /// May:     read from another source, such as a decrypting layer; anything else.
    /// Base:    answers the peek from what the system announces; otherwise one receive.
    virtual int ReceiveData(unsigned char* buffer, int length, int flags);

private:
    int ReceiveData(void* buffer, int length, int flags); // the byte form, whatever the pointer's type

protected:
    /// Called:  by OnReceive at the start of every pass.
    /// Returns: false = end the notification without reading.
    /// May:     anything.
    /// Base:    true. Overriding need not call the base.
    virtual bool OnReceivePreRead();

    /// Called:  by OnReceive when the peek gave `peeked`: 0 the peer has closed, -1 an error, usually that
    /// nothing
    ///          waits.
    /// Returns: true = start another pass.
    /// May:     anything.
    /// Base:    false. Overriding need not call the base.
    virtual bool OnReceiveNoDataContinue(int peeked);

    /// The place to transform what arrives.
    /// Called:  by OnReceive after every successful read. `buffer` starts with `held` bytes that wait from
    ///          earlier passes, then come the `received` new ones, then a zero byte.
    /// Returns: nothing. It may rewrite the new bytes and lower `received`, or put another array of the array
    ///          allocator into `buffer` (having freed the old one) or null, and set `received` to fit.
    /// May:     send, change the gates, close, delete this socket.
    /// Must not: leave `buffer` dangling when it throws; `held + received` must not exceed the array.
    /// Base:    leaves everything as it is. An override that did the same may call it: the pipeline then
    /// knows
    ///          the array for its own and need not copy it.
    virtual void OnReceivePreProcessResponse(unsigned char*& buffer, int& received, int& held);

    /// The consumer of received bytes.
    /// Called:  by OnReceive, once per pass, with all bytes not yet consumed; a zero byte follows the last
    /// one. Returns: false = nothing consumed, offered again with the next bytes. true = consumed: point
    /// `buffer` at
    ///          the first byte left, inside the same allocation, and set `length` to how many are left (0 =
    ///          none).
    /// May:     send, change the gates, close, delete this socket.
    /// Must not: free or replace the allocation.
    /// Base:    consumes nothing, returns false. Overriding need not call the base.
    virtual bool ProcessReceive(unsigned char*& buffer, int& length);

    /// Offers a buffer to ProcessReceive and keeps what is left for the next pass.
    /// Called:  by OnReceive, once per pass. `buffer` is an array of the array allocator and passes into this
    /// call. Returns: true = everything was consumed. `buffer` and `length` become what the socket now keeps.
    /// May:     what ProcessReceive may.
    /// Base:    as said. An override that does not call the base frees or keeps the array itself.
    virtual bool ProcessReceiveBuffer(unsigned char*& buffer, int& length);

    /// Writes for the send queue.
    /// Called:  by Send with all bytes not yet accepted, again until it has accepted all or fails. The array
    /// is
    ///          private to this socket and ends in a zero byte.
    /// Returns: how many bytes it accepted; -1 with the last error. WSAEWOULDBLOCK keeps the bytes for the
    /// next
    ///          write notification, any other error drops them.
    /// May:     transform what it accepts, send (queued behind), close, delete this socket, take over the
    /// bytes
    ///          with TakeSendChunk.
    /// Must not: keep `data` longer than the call, unless taken over.
    /// Base:    one send of the system; a length of 0 or less is returned unchanged.
    virtual int SendData(unsigned char* data, int length, int flags);

    /// The gate of the send queue.
    /// Called:  by Send, after the new bytes were joined to the queued ones and before anything is written.
    /// Returns: false = only queue.
    /// May:     anything; bytes sent from in here go behind those that asked.
    /// Base:    whether sending is open: from the first write notification on, except after a would-block
    /// until
    ///          the next one. Overrides add conditions to the base's.
    virtual bool OkayToSend();

    /// Called:  with true by OnSend when the queue has been emptied, with false by Send after a would-block.
    /// May:     anything, but must call the base.
    /// Base:    opens or closes the gate; sends nothing.
    virtual void SetOkayToSend(bool allowed);

    /// Whether SendData leaves the bytes offered as they are, so that Send may offer the caller's own instead of a
    /// private copy; what it does not accept is copied then.
    /// Called:  by Send when nothing is queued. Must not: change anything.
    /// Base:    whether SendData is the base's (told on x86-64, elsewhere false).
    virtual bool SendsFromAnyMemory() const;

    /// How many bytes ReceiveData may be asked for without a peek before; 0 for none. A result of 0 or -1 is treated
    /// like that of the peek. kSpareBytes, the most, also means that it reads what the system has, as it is.
    /// Called:  by OnReceive at the start of a pass, when no bytes are held. Must not: change anything.
    /// Base:    the most for the base's ReceiveData, none for one of a derived class (told on x86-64, elsewhere none).
    virtual int ReadsUnasked() const;

    /// Notifications of CAsyncSocket; an override calls the base.
    void OnReceive(int error) override; // the receive pipeline
    void OnSend(int error) override;    // flushes the queue, then opens the gate
    void OnConnect(int error) override; // keeps the outcome for GetConnected
    void OnClose(int error) override;   // GetConnected becomes false; handle and buffers stay

    /// The queued bytes, null when there are none; valid until the next call that sends.
    const unsigned char* GetSendBuffer() const;
    int GetSendBufferSize() const { return m_SendBuffer.Size(); }
    /// Forgets the queue without freeing it: the caller has taken GetSendBuffer() over and frees it with
    /// delete[].
    void ClearSendBuffer();
    /// Inside SendData: makes the caller the owner of the bytes offered, which stay where they are. Send then
    /// neither frees nor queues them, whatever SendData returns.
    tavronet::ByteBuffer TakeSendChunk();
    /// Inside SendData: whether these are all the bytes that Send has offered, where it has offered them.
    bool IsSendChunk(const unsigned char* data, int length) const;

    static constexpr UINT kDefaultPeekBytes = 10240;

    /// The bytes received and not consumed, null when there are none; a zero byte follows. During a pass the
    /// pipeline holds them and this is null.
    const unsigned char* GetReceiveBuffer() const { return m_ReceiveBuffer.Data(); }
    int GetReceiveBufferSize() const { return m_ReceiveBuffer.Size(); }
    void ReleaseReceiveBuffer();
    /// Moves the received bytes out to the caller, so that they outlive this socket.
    tavronet::ByteBuffer TakeReceiveBuffer();

    /// Whether a read notification has ended at the limit of its passes since this was asked last.
    bool TakeCutShort();

    void SetMissedReceive(bool missed) { m_MissedReceive = missed; }

private:
    struct Sending;
    struct Flushing;
    struct Reading;
    using Transfer = int (CTavroSocket::*)(unsigned char*, int, int);

    /// The forms of CAsyncSocket take the same road as the byte forms.
    int Receive(void* buffer, int length, int flags) override;
    int Send(const void* data, int length, int flags) override;

    bool CreateEx(UINT port, int type, LONG events, const wchar_t* address, int family);
    bool BindOrClose(const sockaddr* address, int addressLength);

    int SendLater(const unsigned char* data, int length);
    bool SendChunks(Sending& sending, int flags);
    bool NextChunk(Sending& sending);
    void QueueUnsent(Sending& sending);

    bool ReadPasses(const tavronet::LifetimeGuard& guard, std::uint64_t handle);
    bool ReadPass(Reading& reading);
    int ReadUnasked(Reading& reading, int most);
    int ReadRest(Reading& reading, int received);
    bool PassOn(Reading& reading, int received, int held);
    int PeekWaiting();
    bool DeliverReceived(Reading& reading, int received, int held);
    void KeepReceived(unsigned char* array, int capacity, const unsigned char* rest, int length);

    DWORD m_Tick = 0; // of the last activity
    UINT m_Port = 0;  // as given to Create
    UINT m_OnReceivePeekBufferSize = kDefaultPeekBytes;
    bool m_OkayToSend : 1 = false;
    bool m_MissedReceive : 1 = false;
    bool m_Connected : 1 = false;
    bool m_Connecting : 1 = false;
    bool m_PlainSend : 1 = false; // the last SendData ended in the base, which never takes a chunk over
    bool m_BulkInput : 1 = false; // more comes at a time than the spare array holds
    bool m_CutShort : 1 = false;  // the last notification ended at the limit of its passes

    tavronet::ByteBuffer m_ReceiveBuffer;
    mutable tavronet::ByteBuffer m_SendBuffer; // GetSendBuffer moves the bytes to the start of their array

    Sending* m_pSending = nullptr;   // the Send that runs, on the stack
    Flushing* m_pFlushing = nullptr; // the OnSend that runs, on the stack
    Reading* m_pReading = nullptr;   // the OnReceive that runs, on the stack
};

#endif
