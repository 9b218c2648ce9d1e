#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <type_traits>

#include "tavronet/platform/LastError.h"
#include "tavronet/socket/TavroSocket.h"
#include "tests/support/PlainSocket.h"

/// A hook that does what the script `...` + Script says, without one what the base does, between two calls of
/// `around`.
#define SCRIPTED_HOOK(result, name, parameters, arguments)                           \
    std::function<result parameters> name##Script;                                   \
    result name parameters override                                                  \
    {                                                                                \
        return this->template Around<result>(#name, [&]() -> result {                \
            return name##Script ? name##Script arguments : HookBase::name arguments; \
        });                                                                          \
    }

/// A socket whose hooks do what a test says, all but SendData and ReceiveData: it may take the short roads past them.
template <typename Base>
class ScriptedHooks : public Base
{
    using HookBase = Base;

public:
    SCRIPTED_HOOK(bool, OkayToReceive, (), ())
    SCRIPTED_HOOK(bool, OnReceivePreRead, (), ())
    SCRIPTED_HOOK(bool, OnReceiveNoDataContinue, (int peeked), (peeked))
    SCRIPTED_HOOK(void, OnReceivePreProcessResponse, (unsigned char*& buffer, int& received, int& held),
                  (buffer, received, held))
    SCRIPTED_HOOK(bool, ProcessReceive, (unsigned char*& buffer, int& length), (buffer, length))
    SCRIPTED_HOOK(bool, ProcessReceiveBuffer, (unsigned char*& buffer, int& length), (buffer, length))
    SCRIPTED_HOOK(int, Send, (unsigned char* data, int length, int flags), (data, length, flags))
    SCRIPTED_HOOK(bool, OkayToSend, (), ())
    SCRIPTED_HOOK(void, SetOkayToSend, (bool allowed), (allowed))
    SCRIPTED_HOOK(void, OnConnect, (int error), (error))
    SCRIPTED_HOOK(void, OnReceive, (int error), (error))
    SCRIPTED_HOOK(void, OnSend, (int error), (error))
    SCRIPTED_HOOK(void, OnClose, (int error), (error))
    std::function<void(const std::string& hook, bool after)> around;

    using Base::ClearSendBuffer;
    using Base::GetReceiveBuffer;
    using Base::GetReceiveBufferSize;
    using Base::GetSendBuffer;
    using Base::GetSendBufferSize;
    using Base::ReleaseReceiveBuffer;
    using Base::TakeReceiveBuffer;
    using Base::TakeSendChunk;

    int Send(const auto& text) { return Base::Send(text); }
    int BaseSend(unsigned char* data, int length) { return Base::Send(data, length, 0); }
    void Renew()
    {
        this->Close();
        EXPECT_EQ(this->Create(0, SOCK_DGRAM, FD_ALL, L"127.0.0.1", 0), 1);
    }

    [[nodiscard]] std::string Queued() const { return Text(GetSendBuffer(), GetSendBufferSize()); }
    [[nodiscard]] std::string Held() const { return Text(GetReceiveBuffer(), GetReceiveBufferSize()); }
    static std::string Text(const unsigned char* bytes, int length) { return {bytes, bytes + length}; }

protected:
    template <typename Result, typename Call>
    Result Around(const char* hook, Call call)
    {
        const tavronet::LifetimeGuard guard(*this);
        const auto tell = [this, &guard, hook](bool after) {
            if (const auto told = guard.Alive() ? around : nullptr) // a copy: it may delete this socket
                told(hook, after);
            return guard.Alive();
        };
        if constexpr (std::is_void_v<Result>) {
            if (tell(false))
                call();
            tell(true);
        } else {
            const Result result = tell(false) ? call() : Result();
            return tell(true) ? result : Result();
        }
    }
};

/// The same with those two; it takes none of the short roads.
template <typename Base>
class ScriptedSocketOf : public ScriptedHooks<Base>
{
    using HookBase = Base;

public:
    SCRIPTED_HOOK(int, ReceiveData, (unsigned char* data, int length, int flags), (data, length, flags))
    SCRIPTED_HOOK(int, SendData, (unsigned char* data, int length, int flags), (data, length, flags))
};

using ScriptedSocket = ScriptedSocketOf<CTavroSocket>;

/// Text that deflating hardly shortens, always the same.
inline std::string Noise(std::size_t length)
{
    std::string noise(length, '\0');
    std::minstd_rand random(7);
    std::ranges::generate(noise, [&] { return static_cast<char>('!' + random() % 90); });
    return noise;
}

/// What SendData or ReceiveData answers.
struct Answer
{
    int result;
    int error = 0; // stored as last error when not 0

    [[nodiscard]] int Give() const
    {
        if (error != 0)
            WSASetLastError(error);
        return result;
    }
};
