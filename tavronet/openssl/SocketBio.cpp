#include "tavronet/openssl/SocketBio.h"

#include <openssl/bio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

namespace tavronet
{
namespace
{

void SetHandle(BIO* bio, int handle)
{
    BIO_set_data(bio, reinterpret_cast<void*>(static_cast<std::intptr_t>(handle)));
}

int HandleOf(BIO* bio)
{
    return static_cast<int>(reinterpret_cast<std::intptr_t>(BIO_get_data(bio)));
}

int Write(BIO* bio, const char* data, int length)
{
    errno = 0;
    const auto sent =
        static_cast<int>(send(HandleOf(bio), data, static_cast<std::size_t>(length), MSG_NOSIGNAL));
    BIO_clear_retry_flags(bio);
    if (sent <= 0 && BIO_sock_should_retry(sent))
        BIO_set_retry_write(bio);
    return sent;
}

int Read(BIO* bio, char* buffer, int length)
{
    errno = 0;
    const auto got = static_cast<int>(recv(HandleOf(bio), buffer, static_cast<std::size_t>(length), 0));
    BIO_clear_retry_flags(bio);
    if (got < 0 && BIO_sock_should_retry(got))
        BIO_set_retry_read(bio);
    else if (got == 0)
        BIO_set_flags(bio, BIO_FLAGS_IN_EOF); // what tells a cut connection from an error
    return got;
}

int Puts(BIO* bio, const char* text)
{
    return Write(bio, text, static_cast<int>(std::strlen(text)));
}

void CloseIfOwned(BIO* bio)
{
    if (BIO_get_shutdown(bio) && BIO_get_init(bio))
        close(HandleOf(bio));
    BIO_set_init(bio, 0);
}

long SetHandleByPointer(BIO* bio, long closesHandle, const void* handle)
{
    CloseIfOwned(bio);
    SetHandle(bio, *static_cast<const int*>(handle));
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
            *static_cast<int*>(pointer) = HandleOf(bio);
        return HandleOf(bio);
    case BIO_CTRL_GET_CLOSE: return BIO_get_shutdown(bio);
    case BIO_CTRL_SET_CLOSE: BIO_set_shutdown(bio, static_cast<int>(argument)); return 1;
    case BIO_CTRL_EOF: return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0;
    case BIO_CTRL_FLUSH:
    case BIO_CTRL_DUP: return 1;
    default: return 0;
    }
}

int Create(BIO* bio)
{
    BIO_set_init(bio, 0); // no handle yet
    return 1;
}

int Destroy(BIO* bio)
{
    if (bio == nullptr)
        return 0;
    CloseIfOwned(bio);
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
