#include "tavronet/platform/ByteArray.h"

#include <new>

#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/TestSeams.h"

namespace tavronet
{

unsigned char* NewByteArray(std::int64_t size)
{
    if (size < 1 || size > kMaxByteArraySize || FaultInjected(FaultPoint::Allocate))
        ThrowMemoryException();

    unsigned char* const bytes = new (std::nothrow) unsigned char[static_cast<std::size_t>(size)];
    if (bytes == nullptr)
        ThrowMemoryException();
    return bytes;
}

} // namespace tavronet
