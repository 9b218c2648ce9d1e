// zlib streams of the connection class.
//
// Every chunk that is sent is flushed in full, so that the peer can inflate it as soon as it has it. The chunk counts
// as accepted once it is deflated, since the stream has counted it in: what the system does not take of it
// becomes the pending write, and nothing overtakes that.

#include <algorithm>
#include <cstdint>
#include <new>
#include <utility>

#include "tavronet/platform/ByteArray.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/socket/TavroProductSocket.h"
#include "tavronet/socket/VirtualEntry.h"
#include "tavronet/socket/ZLibCompression.h"

namespace
{

constexpr int kLeastRoom = 4096; // for what a read inflates to
constexpr int kMostRoom = 16 << 20;

} // namespace

bool CTavroProductSocket::InitCompression(int windowBits)
{
    ReleaseCompression();
    m_pZLibCompression.reset(new (std::nothrow) CZLibCompression(m_nCompressionLevel));
    if (m_pZLibCompression != nullptr && m_pZLibCompression->Init(windowBits))
        return true;
    ReleaseCompression();
    return false;
}

void CTavroProductSocket::ReleaseCompression()
{
    m_pZLibCompression.reset();
    m_bInflateBroken = false;
}

bool CTavroProductSocket::HasZLibRemainder() const
{
    return m_pZLibCompression != nullptr && m_pZLibCompression->HasRemainder();
}

int CTavroProductSocket::SendCompressed(unsigned char* data, int length, int flags)
{
    const bool endsStream = data == nullptr;
    if (endsStream && GetSendBufferSize() > 0) { // the end comes behind what is queued
        WSASetLastError(WSAEWOULDBLOCK);
        return SOCKET_ERROR;
    }

    BYTE* output = nullptr;
    int wireLength = 0;
    const int flush = endsStream ? CZLibCompression::kFinish : CZLibCompression::kFullFlush;
    if (!m_pZLibCompression->Compress(data, length, &output, &wireLength, flush, nullptr))
        return SendPlain(data, length, flags); // deflate refuses once its stream has ended
    tavronet::ByteBuffer bytes(output, wireLength, wireLength);
    if (wireLength == 0)
        return 0;

    const tavronet::LifetimeGuard guard(*this);
    const int plainLength = endsStream ? 0 : length;
    if (!WriteOut(bytes, flags))
        return SOCKET_ERROR;
    if (bytes.Size() > 0) {
        KeepUnwritten(std::move(bytes), plainLength, wireLength);
        SetOkayToSend(false);
    } else {
        BytesOutCompressed(plainLength, wireLength);
    }
    return guard.Alive() ? plainLength : SOCKET_ERROR;
}

void CTavroProductSocket::OnReceivePreProcessResponse(unsigned char*& buffer, int& received, int& held)
{
    const int wireLength = received;
    bool newlyBroken = false;
    if (UsingCompression())
        newlyBroken = !InflateReceived(buffer, received, held);
    else if (IsLastToTransform())
        CTavroSocket::OnReceivePreProcessResponse(buffer, received, held); // the pipeline may keep the array

    const tavronet::LifetimeGuard guard(*this);
    BytesInCompressed(received, wireLength);
    if (newlyBroken && guard.Alive())
        NotifyInflateError();
}

/// Whether no derived class can replace the array after this one has left it as it was.
bool CTavroProductSocket::IsLastToTransform() const
{
    return tavronet::ReachesOwn<&CTavroProductSocket::OnReceivePreProcessResponse>(*this);
}

/// Replaces the new bytes by what they inflate to. @return false when the stream has broken just now.
bool CTavroProductSocket::InflateReceived(unsigned char*& buffer, int& received, int held)
{
    tavronet::ByteBuffer bytes;
    if (held > 0)
        bytes.Append(buffer, held);
    const bool wasBroken = m_bInflateBroken;
    m_bInflateBroken = true; // also when memory runs out on the way: a gap would be worse
    m_bInflateBroken = wasBroken || !InflateInto(bytes, buffer + held, received);

    delete[] buffer;
    received = bytes.Size() - held;
    buffer = bytes.Size() > 0 ? bytes.Release() : nullptr;
    return wasBroken || !m_bInflateBroken;
}

/// Inflates behind the present bytes of `bytes`. @return false when the stream cannot be read any further; what
/// came before the fault has been added.
bool CTavroProductSocket::InflateInto(tavronet::ByteBuffer& bytes, const unsigned char* wire, int wireLength)
{
    const int room = static_cast<int>(std::clamp<std::int64_t>(3LL * wireLength, kLeastRoom, kMostRoom));
    std::int64_t allowed = std::max(m_nMaxInflatedBytes, 0);
    for (;;) {
        const int offered = static_cast<int>(std::min<std::int64_t>(room, allowed + 1)); // to see an excess
        bytes.Reserve(offered);
        unsigned char* output = bytes.Data() + bytes.Size();
        int produced = offered;
        int result = 0;
        m_pZLibCompression->Decompress(wire, wireLength, &output, &produced, &result);
        bytes.Extend(static_cast<int>(std::min<std::int64_t>(produced, allowed)));
        if (produced > allowed)
            return false;
        if (result == CZLibCompression::kStreamEnd)
            return m_pZLibCompression->GetUnread() == 0; // what stands behind the end belongs to no stream
        if (result != CZLibCompression::kOk || produced < offered)
            return result == CZLibCompression::kOk || result == CZLibCompression::kNeedsMore;
        allowed -= produced;
        wire = nullptr; // go on with what is left of it
        wireLength = 0;
    }
}
