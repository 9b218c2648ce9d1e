#include "tavronet/socket/ByteBuffer.h"

#include <algorithm>
#include <cstring>

#include "tavronet/platform/ByteArray.h"

namespace tavronet
{

namespace
{

void CopyBytes(unsigned char* to, const unsigned char* from, int count)
{
    if (count > 0)
        std::memcpy(to, from, static_cast<std::size_t>(count));
}

/// The room of the next array: exact at first, doubled later; the same when half of it was dropped bytes.
std::int64_t NextCapacity(int capacity, std::int64_t needed)
{
    if (needed <= capacity / 2)
        return capacity;
    const std::int64_t doubled = std::min<std::int64_t>(2LL * capacity, kMaxByteArraySize - 1);
    return std::max(needed, doubled);
}

} // namespace

ByteBuffer::ByteBuffer(unsigned char* array, int size, int capacity)
    : m_pArray(array), m_Size(size), m_Capacity(capacity)
{
    m_pArray[m_Size] = 0;
}

void ByteBuffer::Swap(ByteBuffer& other) noexcept
{
    std::swap(m_pArray, other.m_pArray);
    std::swap(m_Begin, other.m_Begin);
    std::swap(m_Size, other.m_Size);
    std::swap(m_Capacity, other.m_Capacity);
}

ByteBuffer ByteBuffer::Grown(std::int64_t needed) const
{
    const std::int64_t bytes = needed < kMaxByteArraySize ? NextCapacity(m_Capacity, needed) + 1 : needed + 1;
    ByteBuffer grown(NewByteArray(bytes), m_Size, static_cast<int>(bytes - 1));
    CopyBytes(grown.m_pArray, Data(), m_Size);
    return grown;
}

void ByteBuffer::Reserve(int more)
{
    const std::int64_t needed = std::int64_t{m_Size} + more;
    if (!Holds() || needed > Capacity())
        *this = Grown(needed);
}

void ByteBuffer::Append(const unsigned char* data, int length)
{
    const std::int64_t needed = std::int64_t{m_Size} + length;
    ByteBuffer old; // kept to the end: the new bytes may lie in it
    if (!Holds() || needed > Capacity()) {
        old = Grown(needed);
        Swap(old);
    }
    CopyBytes(Data() + m_Size, data, length);
    m_Size = static_cast<int>(needed);
    Data()[m_Size] = 0;
}

ByteBuffer ByteBuffer::Copy() const
{
    ByteBuffer copy;
    copy.Append(Data(), m_Size);
    return copy;
}

void ByteBuffer::Extend(int count)
{
    m_Size += count;
    Data()[m_Size] = 0;
}

void ByteBuffer::DropFront(int count)
{
    const int dropped = std::min(count, m_Size);
    m_Begin += dropped;
    m_Size -= dropped;
}

void ByteBuffer::MoveToStart()
{
    if (m_Begin == 0)
        return;
    std::memmove(m_pArray, Data(), static_cast<std::size_t>(m_Size) + 1);
    m_Begin = 0;
}

unsigned char* ByteBuffer::Release()
{
    ByteBuffer released;
    Swap(released);
    return std::exchange(released.m_pArray, nullptr);
}

} // namespace tavronet
