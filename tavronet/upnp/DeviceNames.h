#ifndef TAVRONET_UPNP_DEVICENAMES_H
#define TAVRONET_UPNP_DEVICENAMES_H

#include <cstdint>
#include <string_view>
#include <vector>

namespace tavronet
{

/// The names of a device and of all that is embedded in it, as sorted numbers: a look-up in a registry full of
/// large descriptions walks only the tree that has the name.
class DeviceNames
{
public:
    /// The number of a name, the same for either case. Nobody outside can tell which names share one.
    static std::uint32_t NumberOf(std::wstring_view name);

    void Add(std::wstring_view name) { m_Numbers.push_back(NumberOf(name)); }

    /// Called once, behind the last Add.
    void Seal();

    /// Whether a name with this number may be among them.
    bool MayHold(std::uint32_t number) const;

private:
    std::vector<std::uint32_t> m_Numbers;
};

} // namespace tavronet

#endif
