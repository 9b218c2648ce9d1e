#include "tavronet/socket/ZLibCompression.h"

#include <algorithm>
#include <new>
#include <utility>

#include "tavronet/platform/ByteArray.h"
#include "tavronet/socket/ZLibLibrary.h"

static_assert(CZLibCompression::kFullFlush == Z_FULL_FLUSH && CZLibCompression::kFinish == Z_FINISH);
static_assert(CZLibCompression::kStreamEnd == Z_STREAM_END && CZLibCompression::kNeedsMore == Z_BUF_ERROR);

namespace
{

constexpr int kMemoryLevel = 8;
constexpr char kVersion[] = "1.2.4"; // any later zlib 1 takes it
constexpr int kStreamSize = static_cast<int>(sizeof(z_stream));
constexpr int kOutputForNoInput = 4096;

using ByteArray = std::unique_ptr<BYTE[]>;

/// Room for output that grows by doubling; one byte more is always allocated.
struct Output
{
    explicit Output(int room) : capacity(room), array(tavronet::NewByteArray(capacity + 1)) {}

    void Double()
    {
        ByteArray larger(tavronet::NewByteArray(2 * capacity + 1));
        std::copy_n(array.get(), used, larger.get());
        array = std::move(larger);
        capacity *= 2;
    }

    std::int64_t capacity;
    std::int64_t used = 0;
    ByteArray array;
};

int DeflateIntoRest(CZLibDLL& zlib, z_stream& stream, Output& output, int flush)
{
    stream.next_out = output.array.get() + output.used;
    stream.avail_out = static_cast<uInt>(output.capacity - output.used);
    const int result = zlib.deflate(&stream, flush);
    output.used = output.capacity - stream.avail_out;
    return result;
}

/// @return zlib's result.
int Deflate(CZLibDLL& zlib, z_stream& stream, Output& output, int flush)
{
    int result = DeflateIntoRest(zlib, stream, output, flush);
    while (result == Z_OK && stream.avail_out == 0) {
        output.Double();
        result = DeflateIntoRest(zlib, stream, output, flush);
        if (result == Z_BUF_ERROR) // the output had filled its room exactly: there is no more
            return Z_OK;
    }
    return result;
}

} // namespace

CZLibCompression::CZLibCompression(int level) : m_nLevel(level) {}

CZLibCompression::~CZLibCompression()
{
    End();
}

bool CZLibCompression::Init(int windowBits)
{
    End();
    if (Start(windowBits))
        return true;
    End();
    return false;
}

bool CZLibCompression::Start(int windowBits)
{
    CZLibDLL* const zlib = tavronet::ZLibLibrary();
    if (zlib == nullptr || !zlib->IsLoaded())
        return false;

    const auto start = [](std::unique_ptr<z_stream_s>& stream, auto init) {
        std::unique_ptr<z_stream_s> started(new (std::nothrow) z_stream_s());
        if (started == nullptr || init(started.get()) != Z_OK)
            return false;
        stream = std::move(started);
        return true;
    };
    return start(m_pDeflateStream,
                 [&](z_stream* stream) {
                     return zlib->deflateInit2_(stream, m_nLevel, Z_DEFLATED, windowBits, kMemoryLevel,
                                                Z_DEFAULT_STRATEGY, kVersion, kStreamSize);
                 }) &&
           start(m_pInflateStream, [&](z_stream* stream) {
               return zlib->inflateInit2_(stream, windowBits, kVersion, kStreamSize);
           });
}

void CZLibCompression::End()
{
    CZLibDLL* const zlib = tavronet::ZLibLibrary(); // none: it was unloaded before its last user ended
    if (m_pDeflateStream != nullptr && zlib != nullptr)
        zlib->deflateEnd(m_pDeflateStream.get());
    if (m_pInflateStream != nullptr && zlib != nullptr)
        zlib->inflateEnd(m_pInflateStream.get());
    m_pDeflateStream.reset();
    m_pInflateStream.reset();
    m_pRemainder.reset();
    m_nRemainderLen = 0;
}

bool CZLibCompression::Compress(const BYTE* input, int length, BYTE** output, int* outputLength, int flush,
                                bool* streamEnd)
{
    CZLibDLL* const zlib = tavronet::ZLibLibrary();
    if (m_pDeflateStream == nullptr || zlib == nullptr)
        return false;

    const int heldBack = m_nRemainderLen;
    const ByteArray joined = JoinRemainder(input, length);
    Output made(length > 0 ? length : kOutputForNoInput);
    z_stream& stream = *m_pDeflateStream;
    stream.next_in = const_cast<BYTE*>(input);
    stream.avail_in = static_cast<uInt>(length);
    const int result = Deflate(*zlib, stream, made, flush);
    if (result != Z_OK && result != Z_STREAM_END) {
        stream.next_out = nullptr;
        return false;
    }

    const int consumed = length - static_cast<int>(stream.avail_in);
    KeepRemainder(stream);
    m_nTotalUncompressed += std::max(consumed - heldBack, 0);
    m_nTotalCompressed += made.used;
    *outputLength = static_cast<int>(made.used);
    *output = made.array.release();
    if (streamEnd != nullptr)
        *streamEnd = result == Z_STREAM_END;
    return true;
}

/// Puts what was held back in front of the input, when there is any. @return the array that holds both.
std::unique_ptr<BYTE[]> CZLibCompression::JoinRemainder(const BYTE*& input, int& length)
{
    length = input != nullptr ? std::max(length, 0) : 0;
    if (m_pRemainder == nullptr)
        return nullptr;

    const std::int64_t both = std::int64_t{m_nRemainderLen} + length;
    ByteArray joined(tavronet::NewByteArray(both));
    std::copy_n(m_pRemainder.get(), m_nRemainderLen, joined.get());
    std::copy_n(input, length, joined.get() + m_nRemainderLen);
    m_pRemainder.reset();
    m_nRemainderLen = 0;
    input = joined.get();
    length = static_cast<int>(both);
    return joined;
}

/// What deflate has not taken is held back for the next call.
void CZLibCompression::KeepRemainder(z_stream_s& stream)
{
    if (stream.avail_in > 0) {
        m_pRemainder.reset(tavronet::NewByteArray(stream.avail_in));
        m_nRemainderLen = static_cast<int>(stream.avail_in);
        std::copy_n(stream.next_in, m_nRemainderLen, m_pRemainder.get());
    }
    stream.next_in = nullptr;
    stream.avail_in = 0;
}

bool CZLibCompression::Decompress(const BYTE* input, int length, BYTE** output, int* outputLength,
                                  int* result)
{
    CZLibDLL* const zlib = tavronet::ZLibLibrary();
    if (m_pInflateStream == nullptr || zlib == nullptr) {
        *outputLength = 0;
        if (result != nullptr)
            *result = Z_STREAM_ERROR;
        return false;
    }

    z_stream& stream = *m_pInflateStream;
    if (input != nullptr) {
        stream.next_in = const_cast<BYTE*>(input);
        stream.avail_in = static_cast<uInt>(std::max(length, 0));
    }
    const auto room = static_cast<uInt>(std::max(*outputLength, 0));
    stream.next_out = *output;
    stream.avail_out = room;
    const int outcome = zlib->inflate(&stream, Z_FULL_FLUSH);
    if (result != nullptr)
        *result = outcome;
    *outputLength = static_cast<int>(room - stream.avail_out);
    if (outcome != Z_OK && outcome != Z_STREAM_END)
        return false;
    m_nTotalCompressed += length;
    m_nTotalUncompressed += *outputLength;
    return *outputLength > 0;
}

int CZLibCompression::GetUnread() const
{
    return m_pInflateStream != nullptr ? static_cast<int>(m_pInflateStream->avail_in) : 0;
}
