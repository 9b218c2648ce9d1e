#ifndef TAVRONET_SOCKET_VIRTUALENTRY_H
#define TAVRONET_SOCKET_VIRTUALENTRY_H

#include <cstddef>
#include <cstring>

namespace tavronet
{

/// The function that a call of a virtual member of `object` reaches: two objects with the same entry have the
/// same override. Read from the table of virtual functions, whose layout the C++ ABI of x86-64 fixes: a
/// pointer to a virtual member function holds one more than the place in the table.
/// @return null on other machines.
template <typename Object, typename Member>
const void* VirtualEntry([[maybe_unused]] const Object& object, [[maybe_unused]] Member Object::*member)
{
#ifdef __x86_64__
    std::ptrdiff_t place = 0;
    std::memcpy(&place, &member, sizeof place);
    const char* table = nullptr;
    std::memcpy(&table, static_cast<const void*>(&object), sizeof table);
    const void* entry = nullptr;
    std::memcpy(&entry, table + place - 1, sizeof entry);
    return entry;
#else
    return nullptr;
#endif
}

/// Whether a call of the virtual member `kMember` of `object` reaches the function of `Class` itself and not one of
/// a class derived from it. @return false on machines where that cannot be told.
template <auto kMember, typename Class>
bool ReachesOwn(const Class& object)
{
    static const void* const own = VirtualEntry(Class(), kMember);
    return own != nullptr && VirtualEntry(object, kMember) == own;
}

} // namespace tavronet

#endif
