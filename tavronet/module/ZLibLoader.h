/// Start-up of the library: zlib is loaded with it. Internal.
#ifndef TAVRONET_MODULE_ZLIBLOADER_H
#define TAVRONET_MODULE_ZLIBLOADER_H

#include "tavronet/socket/ZLibLibrary.h"

/// Loaded when the library comes into the process, unloaded when it leaves; found out once, never again.
/// In between it is what compressors use.
extern CZLibDLL& g_ZLibDLL;

#endif
