#ifndef TAVRONET_PLATFORM_BYTEARRAY_H
#define TAVRONET_PLATFORM_BYTEARRAY_H

#include <cstdint>

namespace tavronet
{

/// The longest byte array, so that every length fits an int.
inline constexpr std::int64_t kMaxByteArraySize = INT32_MAX - 1;

/// Allocates `size` bytes, not cleared, with the array allocator; whoever owns them uses delete[].
/// Throws CMemoryException* when memory is exhausted or the size is not in 1 ... kMaxByteArraySize.
[[nodiscard]] unsigned char* NewByteArray(std::int64_t size);

} // namespace tavronet

#endif
