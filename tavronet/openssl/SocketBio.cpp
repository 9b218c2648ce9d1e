#include "tavronet/openssl/SocketBio.h"

#include <openssl/bio.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

#include "tavronet/socket/OpenSSLContract.h"

namespace tavronet
{
namespace
{

/// What a read may take beyond its buffer: the header of the next record, and mostly a small one whole, so that a
/// message costs one system call instead of two.
constexpr std::size_t kMostAhead = 1024;

struct SocketState
{
    int handle = -1;
    bool dropsWrites = false;
    bool drained = false;       // the last read has taken all that the system had, and nobody has asked since
    std::size_t aheadBegin = 0; // read ahead, to be given first
    std::size_t aheadEnd = 0;
    char ahead[kMostAhead];

    [[nodiscard]] std::size_t Waiting() const { return aheadEnd - aheadBegin; }
    std::size_t Take(void* buffer, std::size_t most);
    bool Give(const void* bytes, std::size_t length);
};

std::size_t SocketState::Take(void* buffer, std::size_t most)
{
    const std::size_t length = std::min(most, Waiting());
    std::memcpy(buffer, ahead + aheadBegin, length);
    aheadBegin += length;
    if (Waiting() == 0)
        aheadBegin = aheadEnd = 0;
    return length;
}

bool SocketState::Give(const void* bytes, std::size_t length)
{
    if (length > kMostAhead - aheadEnd)
        return false;
    std::memcpy(ahead + aheadEnd, bytes, length);
    aheadEnd += length;
    return true;
}

SocketState& StateOf(BIO* bio)
{
    return *static_cast<SocketState*>(BIO_get_data(bio));
}

int Write(BIO* bio, const char* data, int length)
{
    if (StateOf(bio).dropsWrites)
        return length;
    errno = 0;
    const auto sent =
        static_cast<int>(send(StateOf(bio).handle, data, static_cast<std::size_t>(length), MSG_NOSIGNAL));
    BIO_clear_retry_flags(bio);
    if (sent <= 0 && BIO_sock_should_retry(sent))
        BIO_set_retry_write(bio);
    return sent;
}

int Read(BIO* bio, char* buffer, int length)
{
    SocketState& state = StateOf(bio);
    const auto wanted = static_cast<std::size_t>(length);
    BIO_clear_retry_flags(bio);
    if (state.Waiting() > 0)
        return static_cast<int>(state.Take(buffer, wanted));

    errno = 0;
    iovec parts[] = {{buffer, wanted}, {state.ahead, kMostAhead}};
    const ssize_t got = readv(state.handle, parts, 2);
    const bool wouldBlock = got < 0 && BIO_sock_should_retry(-1);
    state.drained = wouldBlock || (got > 0 && got < static_cast<ssize_t>(wanted + kMostAhead));
    if (wouldBlock)
        BIO_set_retry_read(bio);
    else if (got == 0)
        BIO_set_flags(bio, BIO_FLAGS_IN_EOF); // what tells a cut connection from an error
    if (got <= length)
        return static_cast<int>(got);
    state.aheadEnd = static_cast<std::size_t>(got) - wanted;
    return length;
}

int Puts(BIO* bio, const char* text)
{
    return Write(bio, text, static_cast<int>(std::strlen(text)));
}

void CloseIfOwned(BIO* bio)
{
    if (BIO_get_shutdown(bio) && BIO_get_init(bio))
        close(StateOf(bio).handle);
    BIO_set_init(bio, 0);
}

long SetHandleByPointer(BIO* bio, long closesHandle, const void* handle)
{
    CloseIfOwned(bio);
    StateOf(bio).handle = *static_cast<const int*>(handle);
    BIO_set_shutdown(bio, static_cast<int>(closesHandle));
    BIO_set_init(bio, 1);
    return 1;
}

long Control(BIO* bio, int command, long argument, void* pointer)
{
    switch (command) {
    case BIO_C_SET_FD: return SetHandleByPointer(bio, argument, pointer);
    case BIO_C_GET_FD:
        if (!BIO_get_init(bio))
            return -1;
        if (pointer != nullptr)
            *static_cast<int*>(pointer) = StateOf(bio).handle;
        return StateOf(bio).handle;
    case BIO_CTRL_GET_CLOSE: return BIO_get_shutdown(bio);
    case BIO_CTRL_SET_CLOSE: BIO_set_shutdown(bio, static_cast<int>(argument)); return 1;
    case BIO_CTRL_EOF: return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0;
    case BIO_CTRL_PENDING: return static_cast<long>(StateOf(bio).Waiting());
    case kSSLBioTakeDrained: return std::exchange(StateOf(bio).drained, false);
    case kSSLBioTakeAhead:
        return static_cast<long>(StateOf(bio).Take(pointer, static_cast<std::size_t>(argument)));
    case kSSLBioGiveAhead: return StateOf(bio).Give(pointer, static_cast<std::size_t>(argument));
    case kDropWrites: return StateOf(bio).dropsWrites = true;
    case BIO_CTRL_FLUSH:
    case BIO_CTRL_DUP: return 1;
    default: return 0;
    }
}

int Create(BIO* bio)
{
    BIO_set_init(bio, 0); // no handle yet
    BIO_set_data(bio, new (std::nothrow) SocketState);
    return BIO_get_data(bio) != nullptr;
}

int Destroy(BIO* bio)
{
    if (bio == nullptr)
        return 0;
    CloseIfOwned(bio);
    delete &StateOf(bio);
    BIO_set_data(bio, nullptr);
    return 1;
}

/// Made once and kept: objects may live until the process ends.
const BIO_METHOD* SocketMethod()
{
    static const BIO_METHOD* const method = [] {
        BIO_METHOD* const made =
            BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR, "TavroNET socket");
        if (made != nullptr) {
            BIO_meth_set_write(made, Write);
            BIO_meth_set_read(made, Read);
            BIO_meth_set_puts(made, Puts);
            BIO_meth_set_ctrl(made, Control);
            BIO_meth_set_create(made, Create);
            BIO_meth_set_destroy(made, Destroy);
        }
        return made;
    }();
    return method;
}

} // namespace

bio_st* NewSocketBio(int handle, int closesHandle)
{
    BIO* const bio = SocketMethod() != nullptr ? BIO_new(SocketMethod()) : nullptr;
    if (bio != nullptr)
        BIO_set_fd(bio, handle, closesHandle);
    return bio;
}

} // namespace tavronet
