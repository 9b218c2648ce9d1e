#ifndef TAVRONET_SOCKET_ZLIBCOMPRESSION_H
#define TAVRONET_SOCKET_ZLIBCOMPRESSION_H

#include <cstdint>
#include <memory>

#include "tavronet/platform/Export.h"
#include "tavronet/platform/Types.h"

struct z_stream_s;

/// The two zlib streams of a connection: one deflates what is sent, the other inflates what arrives.
///
/// Both run from Init to End and are never reset. zlib is found at run time; without it Init fails, and nothing
/// else does anything. Not for two threads at once.
class TAVRONET_API CZLibCompression
{
public:
    /// What Compress does behind its bytes, by zlib's numbers.
    static constexpr int kFullFlush = 3; // complete them, so that the other end can inflate all of them
    static constexpr int kFinish = 4;    // end the stream

    /// The results of Decompress that are no error, by zlib's numbers.
    static constexpr int kOk = 0;
    static constexpr int kStreamEnd = 1;
    static constexpr int kNeedsMore = -5; // input, or room for the output

    /// @param level 1 (fast) ... 9 (small).
    explicit CZLibCompression(int level);
    virtual ~CZLibCompression();
    CZLibCompression(const CZLibCompression&) = delete;
    CZLibCompression& operator=(const CZLibCompression&) = delete;

    /// Starts both streams anew. @param windowBits as zlib takes them: 15 for its format with a window of 32 KiB.
    /// @return false, with no stream, when zlib is missing or refuses.
    bool Init(int windowBits);
    void End();

    /// Deflates `length` bytes, which may be none, and what an earlier call has held back.
    /// @param output a new array for the caller to delete[], with room for one byte behind the `outputLength`
    ///        bytes in use.
    /// @param flush one of the numbers above.  @param streamEnd may be null; whether the stream has ended.
    /// @return false with the outputs unchanged: there is no stream, or it has ended.
    bool Compress(const BYTE* input, int length, BYTE** output, int* outputLength, int flush,
                  bool* streamEnd);

    /// Inflates as much as fits into the caller's array.
    /// @param input null: goes on with what the last call has left of its input, which must still be there.
    /// @param output the array; only written into.  @param outputLength its size; becomes the bytes produced,
    ///        in front of a fault too.
    /// @param result may be null; zlib's result: one of the numbers above, anything else is the end of it.
    /// @return whether any bytes were produced.
    bool Decompress(const BYTE* input, int length, BYTE** output, int* outputLength, int* result);

    /// How many bytes of its input Decompress has not taken yet.
    int GetUnread() const;

    /// Whether Compress holds back input that deflate did not take.
    bool HasRemainder() const { return m_pRemainder != nullptr; }

    /// Bytes of both directions.
    std::int64_t GetTotalUncompressed() const { return m_nTotalUncompressed; }
    std::int64_t GetTotalCompressed() const { return m_nTotalCompressed; }

private:
    bool Start(int windowBits);
    std::unique_ptr<BYTE[]> JoinRemainder(const BYTE*& input, int& length);
    void KeepRemainder(z_stream_s& stream);

    std::unique_ptr<z_stream_s> m_pDeflateStream;
    std::unique_ptr<z_stream_s> m_pInflateStream;
    int m_nLevel;
    int m_nRemainderLen = 0;
    std::unique_ptr<BYTE[]> m_pRemainder; // input that deflate did not take
    std::int64_t m_nTotalUncompressed = 0;
    std::int64_t m_nTotalCompressed = 0;
};

#endif
