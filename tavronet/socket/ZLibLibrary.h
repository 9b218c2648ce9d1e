/// zlib as it is found at run time. Internal: it includes zlib's header.
#ifndef TAVRONET_SOCKET_ZLIBLIBRARY_H
#define TAVRONET_SOCKET_ZLIBLIBRARY_H

#include <zlib.h>

#include "tavronet/platform/CriticalSection.h"
#include "tavronet/platform/Types.h"

/// zlib's entry points. One object serves the process: see tavronet/module/ZLibLoader.cpp.
///
/// The entry points have zlib's own arguments and results. Each yields 0 and does nothing when zlib is not
/// loaded, also after this object has been destroyed: a connection of the host may outlive it.
class CZLibDLL
{
public:
    /// Loads the library; all thirteen entry points must be there.
    explicit CZLibDLL(const wchar_t* name = L"zlib1.dll");
    virtual ~CZLibDLL();
    CZLibDLL(const CZLibDLL&) = delete;
    CZLibDLL& operator=(const CZLibDLL&) = delete;

    bool IsLoaded();

    int deflate(z_stream* stream, int flush);
    int deflateEnd(z_stream* stream);
    int inflate(z_stream* stream, int flush);
    int inflateEnd(z_stream* stream);
    int deflateInit2_(z_stream* stream, int level, int method, int windowBits, int memLevel, int strategy,
                      const char* version, int streamSize);
    int inflateInit2_(z_stream* stream, int windowBits, const char* version, int streamSize);

private:
    bool FindEntryPoints();

    HANDLE m_hModule = nullptr;
    bool m_bLoaded = false; // and none of the entry points is missing

    // In this order they are looked up.
    decltype(&::gzopen) m_pGzOpen = nullptr;
    decltype(&::gzread) m_pGzRead = nullptr;
    decltype(&::gzwrite) m_pGzWrite = nullptr;
    decltype(&::gzclose) m_pGzClose = nullptr;
    decltype(&::zlibVersion) m_pZLibVersion = nullptr;
    decltype(&::deflateInit_) m_pDeflateInit = nullptr;
    decltype(&::deflate) m_pDeflate = nullptr;
    decltype(&::deflateEnd) m_pDeflateEnd = nullptr;
    decltype(&::inflateInit_) m_pInflateInit = nullptr;
    decltype(&::inflate) m_pInflate = nullptr;
    decltype(&::inflateEnd) m_pInflateEnd = nullptr;
    decltype(&::deflateInit2_) m_pDeflateInit2 = nullptr;
    decltype(&::inflateInit2_) m_pInflateInit2 = nullptr;

    CCriticalSection m_CriticalSection; // guards loading, and the question whether it is loaded
};

namespace tavronet
{

/// The object that compressors use; null for none, which is how a process starts. Not owned.
void SetZLibLibrary(CZLibDLL* library);
CZLibDLL* ZLibLibrary();

} // namespace tavronet

#endif
