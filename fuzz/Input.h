#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

/// Ends the program where a promise is broken, so that the input which broke it is kept.
inline void Expect(bool holds)
{
    if (!holds)
        std::abort();
}

/// An input on the heap, as the library's own buffers hold it: a zero byte stands behind it and nothing else, so
/// that the sanitizer notices who reads further.
class HeldInput
{
public:
    HeldInput(const std::uint8_t* data, std::size_t size) : m_Size(size), m_Bytes(new char[size + 1])
    {
        std::memcpy(m_Bytes.get(), size != 0 ? static_cast<const void*>(data) : "", size);
        m_Bytes[size] = '\0';
    }

    char* Text() { return m_Bytes.get(); }
    std::string_view View() const { return {m_Bytes.get(), m_Size}; }

private:
    std::size_t m_Size;
    std::unique_ptr<char[]> m_Bytes;
};
