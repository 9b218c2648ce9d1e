#ifndef TAVRONET_UPNP_RESPONSEDESK_H
#define TAVRONET_UPNP_RESPONSEDESK_H

#include <cstddef>
#include <functional>
#include <memory>

namespace tavronet
{

class ResponseDesk;

/// An HTTP response's place among those of the thread that its connection was made on: how many bytes it holds
/// while it arrives, and when it is read.
///
/// Thread: the one it was made on; it may be destroyed on any other once that one has ended.
class ResponsePlace
{
public:
    ResponsePlace();
    ~ResponsePlace();
    ResponsePlace(const ResponsePlace&) = delete;
    ResponsePlace& operator=(const ResponsePlace&) = delete;

    /// Replaces the number of bytes that the response holds.
    void Hold(std::size_t bytes);

    /// Whether the responses of the thread hold no more than they may together, or this one is an ordinary one.
    bool HasRoom() const;

    /// Runs `read` once: at once, or in a later round of the thread's loop when this one has read enough; never
    /// after this place is gone. Runs foreign code, which may delete this place.
    void Read(std::function<void()> read);

private:
    std::shared_ptr<ResponseDesk> m_pDesk; // the thread's; outlives it as long as a place is left
    std::shared_ptr<std::function<void()>> m_pWaiting;
    std::size_t m_Bytes = 0;
};

} // namespace tavronet

#endif
