#ifndef TAVRONET_SOCKET_BYTEBUFFER_H
#define TAVRONET_SOCKET_BYTEBUFFER_H

#include <cstdint>
#include <utility>

#include "tavronet/platform/Export.h"

namespace tavronet
{

/// A queue of bytes in one array: contiguous, a zero byte behind the last one, spare room behind that.
///
/// The first bytes get an array of their exact size; growing doubles it, so that appending costs a constant
/// time per byte. Bytes dropped from the front stay in the array, so that dropping costs nothing. A buffer
/// may hold an array without a byte in it; that is not the same as holding none.
class TAVRONET_API ByteBuffer
{
public:
    ByteBuffer() = default;

    /// Takes over an array of NewByteArray(capacity + 1) whose first `size` bytes are in use.
    ByteBuffer(unsigned char* array, int size, int capacity);

    ByteBuffer(ByteBuffer&& other) noexcept { Swap(other); }
    ByteBuffer& operator=(ByteBuffer&& other) noexcept
    {
        ByteBuffer taken(std::move(other));
        Swap(taken);
        return *this;
    }
    ~ByteBuffer() { delete[] m_pArray; }

    [[nodiscard]] bool Holds() const { return m_pArray != nullptr; }
    /// The first byte; null when no array is held.
    [[nodiscard]] unsigned char* Data() const { return m_pArray + m_Begin; }
    [[nodiscard]] int Size() const { return m_Size; }
    /// How many bytes fit behind the dropped ones, the present ones included.
    [[nodiscard]] int Capacity() const { return m_Capacity - m_Begin; }

    /// Makes room for `more` bytes behind the present ones.
    /// Throws CMemoryException* with the buffer unchanged, also beyond kMaxByteArraySize.
    void Reserve(int more);

    /// Copies bytes behind the present ones; they may be part of this buffer. Throws as Reserve.
    void Append(const unsigned char* data, int length);

    /// Counts bytes in that were written behind the present ones, into room of Reserve.
    void Extend(int count);

    void DropFront(int count);

    /// Whether Data() is the start of the array, so that whoever takes the array over can use delete[] on it.
    [[nodiscard]] bool AtStart() const { return m_Begin == 0; }
    void MoveToStart();
    /// The same bytes in an array of their own. Throws as Reserve.
    [[nodiscard]] ByteBuffer Copy() const;

    /// Gives up the array, which the caller now owns; see MoveToStart.
    unsigned char* Release();

private:
    void Swap(ByteBuffer& other) noexcept;
    ByteBuffer Grown(std::int64_t needed) const;

    unsigned char* m_pArray = nullptr; // owned, m_Capacity + 1 bytes
    int m_Begin = 0;                   // bytes dropped from the front
    int m_Size = 0;
    int m_Capacity = 0;
};

} // namespace tavronet

#endif
