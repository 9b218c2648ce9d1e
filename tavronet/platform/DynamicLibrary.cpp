#include "tavronet/platform/DynamicLibrary.h"

#include <dlfcn.h>

#include <atomic>
#include <string_view>

#include "tavronet/platform/TextConversion.h"

namespace
{

std::atomic<const char*> g_MissingName = nullptr;

bool IsMissing(const char* name)
{
    const char* const missing = g_MissingName.load();
    return missing != nullptr && std::string_view(name) == missing;
}

} // namespace

HANDLE platform::LoadLibraryW(const wchar_t* name)
{
    const tavronet::NarrowText narrow(name);
    const char* const wanted = narrow;
    if (wanted == nullptr || *wanted == '\0' || IsMissing(wanted)) // empty would mean the program itself
        return nullptr;
    return dlopen(std::string_view(wanted) == "zlib1.dll" ? "libz.so.1" : wanted, RTLD_NOW | RTLD_LOCAL);
}

void* platform::GetProcAddress(HANDLE library, const char* name)
{
    if (library == nullptr || name == nullptr || IsMissing(name))
        return nullptr;
    return dlsym(library, name);
}

BOOL platform::FreeLibrary(HANDLE library)
{
    return library != nullptr && dlclose(library) == 0;
}

void tavronet::SetMissingLibraryName(const char* name)
{
    g_MissingName.store(name);
}
