#pragma once

#include "ScriptedSocket.h"
#include "tavronet/socket/TavroProductSocket.h"
#include "tavronet/socket/ZLibCompression.h"
#include "tavronet/socket/ZLibLibrary.h"

/// A connection of a host whose hooks do what a test says; Hooks is ScriptedSocketOf or ScriptedHooks.
template <template <typename> typename Hooks>
class ScriptedProductOf : public Hooks<CTavroProductSocket>
{
    using HookBase = CTavroProductSocket;

public:
    SCRIPTED_HOOK(void, SetSocketOptions, (), ())
    SCRIPTED_HOOK(void, PostClose, (), ())
    SCRIPTED_HOOK(void, BytesInCompressed, (int plain, int wire), (plain, wire))
    SCRIPTED_HOOK(void, BytesOutCompressed, (int plain, int wire), (plain, wire))
    SCRIPTED_HOOK(void, NotifyInflateError, (), ())
    SCRIPTED_HOOK(void, NotifySSLAcceptPending, (), ())
    SCRIPTED_HOOK(void, NotifySSLAcceptSuccess,
                  (const char* name, const char* version, const char* description, const char* certificate,
                   int bits),
                  (name, version, description, certificate, bits))
    SCRIPTED_HOOK(void, NotifySSLAcceptError, (const char* library, const char* function, const char* reason),
                  (library, function, reason))
    SCRIPTED_HOOK(void, NotifySSLConnectionShutdown, (), ())
    SCRIPTED_HOOK(void, NotifySSLCantOpenCertFile, (const wchar_t* path), (path))
    SCRIPTED_HOOK(void, NotifySSLCantOpenPrivateKeyFile, (const wchar_t* path), (path))
    SCRIPTED_HOOK(void, NotifySSLCantLoadTrustedCAFile, (const wchar_t* path), (path))

    using CTavroProductSocket::GetMissedReceive;
    using CTavroProductSocket::GetPendingPackets;
    using CTavroProductSocket::IncrementPendingPackets;
    using CTavroProductSocket::InitCompression;
    using CTavroProductSocket::SendData;
    using CTavroProductSocket::SetCompressionLevel;
    using CTavroProductSocket::SetMaxInflatedBytes;

    /// As where a close alert only ends the session.
    void BaseOnClose(int error)
    {
        const tavronet::LifetimeGuard guard(*this);
        CTavroProductSocket::OnClose(error);
        if (guard.Alive())
            this->StopSSLMode();
    }
    int BaseReceiveData(unsigned char* buffer, int length, int flags)
    {
        return CTavroProductSocket::ReceiveData(buffer, length, flags);
    }

    /// Has ProcessReceive take everything, and the hooks about SSL and the close note that they came.
    void Collect()
    {
        this->ProcessReceiveScript = [this](unsigned char*& buffer, int& length) {
            received += ScriptedSocket::Text(buffer, std::exchange(length, 0));
            return true;
        };
        this->OnCloseScript = [this](int error) {
            told += "closed " + std::to_string(error) + ", ";
            BaseOnClose(error);
        };
        NotifySSLAcceptSuccessScript = [this](auto, const char* version, auto, const std::string& pem, int) {
            told += std::string("entered ") + version +
                    (pem.starts_with("-----BEGIN CERT") ? " certified, " : ", ");
        };
        NotifySSLAcceptErrorScript = [this](auto, auto, const char* reason) { told += reason; };
        NotifySSLConnectionShutdownScript = [this] { told += "left, "; };
        const auto refused = [this](const wchar_t* path) { told += "refused " + CStringA(path); };
        NotifySSLCantOpenCertFileScript = refused;
        NotifySSLCantOpenPrivateKeyFileScript = refused;
        NotifySSLCantLoadTrustedCAFileScript = refused;
    }
    std::string received, told;
};

using ScriptedProduct = ScriptedProductOf<ScriptedSocketOf>;
using ProductPair = tavronet::LoopbackPair<ScriptedProduct>;

/// zlib for compressors, which the library's start-up brings along and a test program does not.
struct WithZLib
{
    WithZLib() { tavronet::SetZLibLibrary(&library); }
    ~WithZLib() { tavronet::SetZLibLibrary(nullptr); }
    WithZLib(const WithZLib&) = delete;
    WithZLib& operator=(const WithZLib&) = delete;

    CZLibDLL library;
};

/// The other end of a compressed connection.
class ZlibPeer
{
public:
    ZlibPeer() { EXPECT_TRUE(m_Streams.Init(15)); }

    std::string Deflated(const std::string& text, int flush = CZLibCompression::kFullFlush)
    {
        BYTE* output = nullptr;
        int length = 0;
        m_Streams.Compress(Bytes(text), static_cast<int>(text.size()), &output, &length, flush, nullptr);
        const std::unique_ptr<BYTE[]> owned(output);
        return ScriptedSocket::Text(output, length);
    }
    std::string Inflated(const std::string& wire)
    {
        BYTE* output = m_Room.get();
        int produced = kRoom;
        m_Streams.Decompress(Bytes(wire), static_cast<int>(wire.size()), &output, &produced, nullptr);
        return ScriptedSocket::Text(m_Room.get(), produced);
    }

private:
    static constexpr int kRoom = 4 << 20; // more than a test looks at in one go
    static const BYTE* Bytes(const std::string& text) { return reinterpret_cast<const BYTE*>(text.data()); }

    CZLibCompression m_Streams{6};
    std::unique_ptr<BYTE[]> m_Room = std::make_unique_for_overwrite<BYTE[]>(kRoom);
};
