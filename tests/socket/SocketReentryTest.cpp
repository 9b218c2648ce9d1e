// A host may do anything inside a hook. One scenario - connect, queue, receive in parts, a send that blocks, the
// peer's close - runs for every hook, every action and both sides of the base's part. The address sanitizer
// finds what is touched after death; the end of the scenario finds flags that stayed set.

#include "HookScenario.h"
#include "ScriptedProduct.h"

namespace
{

struct Compressed : HookScenario<ScriptedProduct>
{
    Compressed(auto... meeting) : HookScenario(meeting...) { StartStreams(); }

    std::string OnTheWire(const std::string& text) override { return zlib->Deflated(text); }
    std::string Plain(const std::string& wire) override { return zlib->Inflated(wire); }
    std::string LastBytes() override { return "not of the stream"; }
    void StartStreams() override
    {
        socket->SetZlibType();
        EXPECT_TRUE(socket->InitCompression(15));
        zlib = std::make_unique<ZlibPeer>();
    }

    std::unique_ptr<ZlibPeer> zlib;
};

struct SocketReentry : testing::TestWithParam<const char*>
{
    const WithZLib zlib;
};

TEST_P(SocketReentry, AnActionInAHookLeavesTheSocketWholeOrGone)
{
    const std::string hook = GetParam();
    const auto actions = {"delete",  "close", "renew", "attach", "send",   "receive",
                          "release", "pump",  "throw", "gates",  "streams"};
    MeetEvery<Compressed>(actions, hook);
    if (hook == "NotifyInflateError")
        return;
    MeetEvery<HookScenario<ScriptedProduct>>(actions, hook);
    if (!hook.ends_with("Data")) // by the short roads
        MeetEvery<HookScenario<ScriptedProductOf<ScriptedHooks>>>(actions, hook);
    if (hook != "PostClose" && !hook.starts_with("Bytes"))
        MeetEvery<HookScenario<ScriptedSocket>>(actions, hook);
}

INSTANTIATE_TEST_SUITE_P(Hooks, SocketReentry,
                         testing::Values("OkayToReceive", "OnReceivePreRead", "ReceiveData",
                                         "OnReceiveNoDataContinue", "OnReceivePreProcessResponse",
                                         "ProcessReceive", "ProcessReceiveBuffer", "Send", "SendData",
                                         "OkayToSend", "SetOkayToSend", "OnConnect", "OnReceive", "OnSend",
                                         "OnClose", "PostClose", "BytesInCompressed", "BytesOutCompressed",
                                         "NotifyInflateError"),
                         [](const auto& run) { return std::string(run.param); });

} // namespace
