#include "tavronet/socket/ZLibLibrary.h"

#include <type_traits>

#include "tavronet/platform/DynamicLibrary.h"

namespace
{

CZLibDLL* g_pZLibLibrary = nullptr;

struct Lock
{
    explicit Lock(CCriticalSection& criticalSection) : m_CriticalSection(criticalSection)
    {
        m_CriticalSection.Lock();
    }
    ~Lock() { m_CriticalSection.Unlock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    CCriticalSection& m_CriticalSection;
};

} // namespace

CZLibDLL::CZLibDLL(const wchar_t* name)
{
    const Lock lock(m_CriticalSection);
    m_hModule = platform::LoadLibraryW(name);
    m_bLoaded = m_hModule != nullptr && FindEntryPoints();
}

CZLibDLL::~CZLibDLL()
{
    m_bLoaded = false; // first of all: nobody may be led into code that is no longer there
    platform::FreeLibrary(m_hModule);
}

/// @return whether there is none missing.
bool CZLibDLL::FindEntryPoints()
{
    bool complete = true;
    const auto find = [this, &complete](auto& entryPoint, const char* name) {
        void* const found = platform::GetProcAddress(m_hModule, name);
        entryPoint = reinterpret_cast<std::remove_reference_t<decltype(entryPoint)>>(found);
        complete = complete && found != nullptr;
    };
    find(m_pGzOpen, "gzopen");
    find(m_pGzRead, "gzread");
    find(m_pGzWrite, "gzwrite");
    find(m_pGzClose, "gzclose");
    find(m_pZLibVersion, "zlibVersion");
    find(m_pDeflateInit, "deflateInit_");
    find(m_pDeflate, "deflate");
    find(m_pDeflateEnd, "deflateEnd");
    find(m_pInflateInit, "inflateInit_");
    find(m_pInflate, "inflate");
    find(m_pInflateEnd, "inflateEnd");
    find(m_pDeflateInit2, "deflateInit2_");
    find(m_pInflateInit2, "inflateInit2_");
    return complete;
}

bool CZLibDLL::IsLoaded()
{
    const Lock lock(m_CriticalSection);
    return m_bLoaded;
}

int CZLibDLL::deflate(z_stream* stream, int flush)
{
    return m_bLoaded ? m_pDeflate(stream, flush) : 0;
}

int CZLibDLL::deflateEnd(z_stream* stream)
{
    return m_bLoaded ? m_pDeflateEnd(stream) : 0;
}

int CZLibDLL::inflate(z_stream* stream, int flush)
{
    return m_bLoaded ? m_pInflate(stream, flush) : 0;
}

int CZLibDLL::inflateEnd(z_stream* stream)
{
    return m_bLoaded ? m_pInflateEnd(stream) : 0;
}

int CZLibDLL::deflateInit2_(z_stream* stream, int level, int method, int windowBits, int memLevel,
                            int strategy, const char* version, int streamSize)
{
    return m_bLoaded
               ? m_pDeflateInit2(stream, level, method, windowBits, memLevel, strategy, version, streamSize)
               : 0;
}

int CZLibDLL::inflateInit2_(z_stream* stream, int windowBits, const char* version, int streamSize)
{
    return m_bLoaded ? m_pInflateInit2(stream, windowBits, version, streamSize) : 0;
}

namespace tavronet
{

void SetZLibLibrary(CZLibDLL* library)
{
    g_pZLibLibrary = library;
}

CZLibDLL* ZLibLibrary()
{
    return g_pZLibLibrary;
}

} // namespace tavronet
