#pragma once

#include <unistd.h>

#include <utility>

namespace gateway
{

/// Owns one file descriptor and closes it. -1 means none.
class Descriptor
{
public:
    Descriptor() = default;
    explicit Descriptor(int value) : m_Value(value) {}
    Descriptor(Descriptor&& other) noexcept : m_Value(std::exchange(other.m_Value, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(m_Value, other.m_Value);
        return *this;
    }
    ~Descriptor()
    {
        if (m_Value >= 0)
            ::close(m_Value);
    }

    [[nodiscard]] int Get() const { return m_Value; }
    [[nodiscard]] bool Valid() const { return m_Value >= 0; }

private:
    int m_Value = -1;
};

} // namespace gateway
