/// Libraries loaded at run time by name. Internal.
#ifndef TAVRONET_PLATFORM_DYNAMICLIBRARY_H
#define TAVRONET_PLATFORM_DYNAMICLIBRARY_H

#include "tavronet/platform/Types.h"

namespace platform
{

/// Opens a library; every successful load wants its own FreeLibrary.
/// @param name as the system's loader takes it; "zlib1.dll" stands for the system's zlib.
/// @return null when it is not found.
HANDLE LoadLibraryW(const wchar_t* name);

/// The address of an exported name; null when the library has none, or the library is null.
void* GetProcAddress(HANDLE library, const char* name);

/// @return non-zero on success, 0 for null.
BOOL FreeLibrary(HANDLE library);

} // namespace platform

namespace tavronet
{

/// For tests: lets LoadLibraryW or GetProcAddress fail for this very name; null ends it.
/// @param name borrowed until it is replaced.
void SetMissingLibraryName(const char* name);

} // namespace tavronet

#endif
