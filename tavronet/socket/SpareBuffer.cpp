#include "tavronet/socket/SpareBuffer.h"

#include <utility>

namespace tavronet
{
namespace
{

// Apart from its owner, so that a socket that is used while the thread ends finds null and no dead object.
[[gnu::tls_model("initial-exec")]] constinit thread_local unsigned char* t_pSpare = nullptr;

struct SpareOwner
{
    ~SpareOwner() { delete[] std::exchange(t_pSpare, nullptr); }
};

} // namespace

ByteBuffer TakeSpareBuffer(int size)
{
    if (size <= kSpareBytes && t_pSpare != nullptr)
        return {std::exchange(t_pSpare, nullptr), 0, kSpareBytes};
    ByteBuffer buffer;
    buffer.Reserve(size <= kSpareBytes ? kSpareBytes : size);
    return buffer;
}

void GiveSpareBuffer(ByteBuffer buffer)
{
    thread_local SpareOwner owner;
    if (t_pSpare == nullptr && buffer.AtStart() && buffer.Capacity() == kSpareBytes)
        t_pSpare = buffer.Release();
}

} // namespace tavronet
