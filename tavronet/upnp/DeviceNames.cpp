#include "tavronet/upnp/DeviceNames.h"

#include <algorithm>
#include <random>

#include "tavronet/platform/TextConversion.h"

namespace tavronet
{

namespace
{

constexpr std::uint64_t kPrime = 0x7FFFFFFF;

/// Drawn by each process: who knew it could announce names that all share one number.
std::uint64_t SecretBase()
{
    static const std::uint64_t base = [] {
        std::random_device device;
        return std::uniform_int_distribution<std::uint64_t>(1U << 16, kPrime - 1)(device);
    }();
    return base;
}

} // namespace

std::uint32_t DeviceNames::NumberOf(std::wstring_view name)
{
    const std::uint64_t base = SecretBase();
    std::uint64_t number = 1;
    for (const wchar_t character : name)
        number = (number * base + static_cast<std::uint32_t>(LowerCase(character))) % kPrime;
    return static_cast<std::uint32_t>(number);
}

void DeviceNames::Seal()
{
    std::ranges::sort(m_Numbers);
}

bool DeviceNames::MayHold(std::uint32_t number) const
{
    return std::ranges::binary_search(m_Numbers, number);
}

} // namespace tavronet
