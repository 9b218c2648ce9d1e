#ifndef TAVRONET_SOCKET_SPAREBUFFER_H
#define TAVRONET_SOCKET_SPAREBUFFER_H

#include "tavronet/socket/ByteBuffer.h"

namespace tavronet
{

/// The room of the array that every thread with sockets keeps for the message in hand: much longer than most
/// messages, shorter than a processor's second cache.
inline constexpr int kSpareBytes = 64 * 1024;

/// @return an empty buffer that holds an array with room for `size` bytes or more; up to kSpareBytes it is
///         the thread's spare one, if that is there. Throws CMemoryException*.
ByteBuffer TakeSpareBuffer(int size);

/// Gives an array back that is needed no more; its bytes are forgotten.
void GiveSpareBuffer(ByteBuffer buffer);

} // namespace tavronet

#endif
