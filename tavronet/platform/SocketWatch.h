#ifndef TAVRONET_PLATFORM_SOCKETWATCH_H
#define TAVRONET_PLATFORM_SOCKETWATCH_H

#include <cstdint>
#include <span>
#include <vector>

namespace tavronet
{

/// What the system reports of one watched descriptor.
struct Readiness
{
    enum : std::uint32_t
    {
        Input = 1,  // bytes, datagrams, a connection, or the end of the stream
        Output = 2, // takes data, or a connect has ended
        Urgent = 4, // urgent data
        HungUp = 8, // the peer has closed its side, or the connection is gone
        Failed = 16 // an error is pending
    };
    std::uint64_t id;
    std::uint32_t what;
};

/// Tells which of the watched descriptors have become ready.
///
/// Each is registered once, edge-triggered, for everything, and never modified: what is selected and what has
/// been served are kept by the sockets, so selecting anew costs no system call.
class SocketWatch
{
public:
    SocketWatch() = default;
    ~SocketWatch();
    SocketWatch(const SocketWatch&) = delete;
    SocketWatch& operator=(const SocketWatch&) = delete;

    /// Makes ready for use, if that has not succeeded yet. @return false with errno when the system refuses.
    bool Open();

    /// Watches a descriptor under a name that is reported with it. Closing the descriptor ends it.
    /// @return false with errno when the system refuses.
    bool Add(int descriptor, std::uint64_t id);

    /// Watches a descriptor for input as long as it lasts, reported each time; for the waker of a queue.
    bool AddLevel(int descriptor, std::uint64_t id);

    /// Ends the watch over a descriptor that stays open.
    void Remove(int descriptor);

    /// Asks the system once. @param timeoutMs 0 never blocks, -1 waits until something is ready.
    /// @return what became ready, valid until the next call; empty on time-out or when a signal came.
    std::span<const Readiness> Collect(int timeoutMs);

    /// Readable while something is ready; for a foreign event loop.
    int Descriptor() const { return m_Epoll; }

private:
    int m_Epoll = -1;
    std::vector<Readiness> m_Ready;
};

} // namespace tavronet

#endif
