// The connection class under the scenario of HookScenario.h, uncompressed and compressed.

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "HookScenario.h"
#include "ScriptedProduct.h"
#include "tavronet/platform/TestSeams.h"

namespace
{

class ProductScenario : public HookScenario<ScriptedProduct>
{
public:
    ProductScenario(const std::string& hook, const std::string& action, bool after, bool compressed)
        : HookScenario(hook, action, after), m_Compressed(compressed)
    {
        socket->SetDeleteWhenDone(true);
        StartStreams();
    }

private:
    std::string OnTheWire(const std::string& text) override
    {
        return m_Compressed ? m_Peer->Deflated(text) : text;
    }
    std::string Plain(const std::string& wire) override
    {
        return m_Compressed ? m_Peer->Inflated(wire) : wire;
    }
    void StartStreams() override
    {
        if (!m_Compressed)
            return;
        socket->SetZlibType();
        EXPECT_TRUE(socket->InitCompression(15));
        m_Peer = std::make_unique<ZlibPeer>();
    }
    std::string LastBytes() override { return m_Compressed ? "not of the stream" : ""; }

    void Act(const std::string& action) override
    {
        if (action == "gates") {
            socket->PauseReceive(true);
            for (int i = 0; i < 10; ++i)
                socket->IncrementPendingPackets();
            socket->PauseReceive(false);
            for (int i = 0; i < 10; ++i)
                socket->PacketProcessed();
        } else if (action == "streams") {
            StartStreams();
        } else {
            HookScenario::Act(action);
        }
    }

    const bool m_Compressed;
    std::unique_ptr<ZlibPeer> m_Peer;
};

class ProductSocketReentry : public testing::TestWithParam<std::tuple<const char*, bool>>
{};

TEST_P(ProductSocketReentry, AnActionInAHookLeavesTheSocketWholeOrGone)
{
    const auto [hook, compressed] = GetParam();
    const WithZLib zlib;
    for (const char* action :
         {"delete", "close", "renew", "send", "receive", "release", "pump", "throw", "gates", "streams"})
    {
        for (const bool after : {false, true}) {
            SCOPED_TRACE(std::string(action) + (after ? " after the base's part" : " before"));
            {
                ProductScenario scenario(hook, action, after, compressed);
                scenario.RunToTheEnd();
                scenario.ExpectWholeOrGone();
            }
            EXPECT_EQ(tavronet::CountLivingObjects().sockets, 0);
        }
    }
}

std::string NameOf(const testing::TestParamInfo<std::tuple<const char*, bool>>& run)
{
    return std::get<0>(run.param) + std::string(std::get<1>(run.param) ? "Compressed" : "");
}

INSTANTIATE_TEST_SUITE_P(
    Hooks, ProductSocketReentry,
    testing::Combine(testing::Values("OkayToReceive", "OnReceivePreRead", "ReceiveData",
                                     "OnReceiveNoDataContinue", "OnReceivePreProcessResponse",
                                     "ProcessReceive", "ProcessReceiveBuffer", "Send", "SendData",
                                     "OkayToSend", "SetOkayToSend", "OnConnect", "OnReceive", "OnSend",
                                     "OnClose", "PostClose", "BytesInCompressed", "BytesOutCompressed"),
                     testing::Bool()),
    NameOf);
INSTANTIATE_TEST_SUITE_P(CompressionHooks, ProductSocketReentry,
                         testing::Values(std::tuple("NotifyInflateError", true)), NameOf);

} // namespace
