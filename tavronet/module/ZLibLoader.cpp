#include "tavronet/module/ZLibLoader.h"

namespace
{

/// Compressors that outlive it find no zlib, rather than code that is no longer there.
struct LoadedZLib : CZLibDLL
{
    LoadedZLib() { tavronet::SetZLibLibrary(this); }
    ~LoadedZLib() override { tavronet::SetZLibLibrary(nullptr); }
};

LoadedZLib g_LoadedZLib;

} // namespace

CZLibDLL& g_ZLibDLL = g_LoadedZLib;
