#pragma once

#include <functional>
#include <string>
#include <utility>

#include "tavronet/socket/TavroSocket.h"

/// A socket whose hooks do what a test says; a hook without a script is the base's.
class ScriptedSocket : public CTavroSocket
{
public:
    using Transfer = std::function<int(unsigned char* data, int length, int flags)>;

    Transfer send, sendData, receiveData;
    std::function<bool()> okayToSend, okayToReceive, onReceivePreRead;
    std::function<void(bool)> setOkayToSend;
    std::function<bool(int)> onReceiveNoDataContinue;
    std::function<void(unsigned char*&, int&, int&)> onReceivePreProcessResponse;
    std::function<bool(unsigned char*&, int&)> processReceive;

    using CTavroSocket::ClearSendBuffer;
    using CTavroSocket::GetReceiveBuffer;
    using CTavroSocket::GetSendBuffer;
    using CTavroSocket::GetSendBufferSize;
    using CTavroSocket::OnReceive;
    using CTavroSocket::OnSend;
    using CTavroSocket::ReleaseReceiveBuffer;
    using CTavroSocket::TakeReceiveBuffer;
    using CTavroSocket::TakeSendChunk;

    /// The base's hooks, for scripts.
    int BaseSend(unsigned char* data, int length, int flags)
    {
        return CTavroSocket::Send(data, length, flags);
    }
    int BaseSendData(unsigned char* data, int length, int flags)
    {
        return CTavroSocket::SendData(data, length, flags);
    }
    void OpenGate(bool open = true) { CTavroSocket::SetOkayToSend(open); }
    bool GateIsOpen() { return CTavroSocket::OkayToSend(); }

    [[nodiscard]] std::string Queued() const { return Text(GetSendBuffer(), GetSendBufferSize()); }
    [[nodiscard]] std::string Held() const { return Text(GetReceiveBuffer(), GetReceiveBufferSize()); }

    static std::string Text(const unsigned char* bytes, int length)
    {
        return {reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length)};
    }

    template <typename Text>
    int Send(const Text& text)
    {
        return CTavroSocket::Send(text);
    }
    int Send(unsigned char* data, int length, int flags) override
    {
        return send ? send(data, length, flags) : CTavroSocket::Send(data, length, flags);
    }
    bool OkayToReceive() override { return okayToReceive ? okayToReceive() : CTavroSocket::OkayToReceive(); }

protected:
    int ReceiveData(unsigned char* buffer, int length, int flags) override
    {
        return receiveData ? receiveData(buffer, length, flags)
                           : CTavroSocket::ReceiveData(buffer, length, flags);
    }
    bool OnReceivePreRead() override { return onReceivePreRead ? onReceivePreRead() : true; }
    bool OnReceiveNoDataContinue(int peeked) override
    {
        return onReceiveNoDataContinue ? onReceiveNoDataContinue(peeked) : false;
    }
    void OnReceivePreProcessResponse(unsigned char*& buffer, int& received, int& held) override
    {
        if (onReceivePreProcessResponse)
            onReceivePreProcessResponse(buffer, received, held);
        else
            CTavroSocket::OnReceivePreProcessResponse(buffer, received, held);
    }
    bool ProcessReceive(unsigned char*& buffer, int& length) override
    {
        return processReceive ? processReceive(buffer, length) : CTavroSocket::ProcessReceive(buffer, length);
    }
    int SendData(unsigned char* data, int length, int flags) override
    {
        return sendData ? sendData(data, length, flags) : CTavroSocket::SendData(data, length, flags);
    }
    bool OkayToSend() override { return okayToSend ? okayToSend() : CTavroSocket::OkayToSend(); }
    void SetOkayToSend(bool allowed) override
    {
        setOkayToSend ? setOkayToSend(allowed) : CTavroSocket::SetOkayToSend(allowed);
    }
};

/// What SendData or ReceiveData answers, one entry a call; the last one for ever.
struct Answer
{
    int result;
    int error = 0; // stored as last error when not 0
};
