// The connection class under the scenario of HookScenario.h: uncompressed, by the short roads too, and compressed.

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "HookScenario.h"
#include "ScriptedProduct.h"
#include "tavronet/platform/TestSeams.h"

namespace
{

enum class Road
{
    Plain,
    Short, // no SendData and ReceiveData of its own
    Compressed
};

template <typename Socket>
class ProductScenario : public HookScenario<Socket>
{
public:
    using HookScenario<Socket>::socket;

    ProductScenario(const std::string& hook, const std::string& action, bool after, bool compressed)
        : HookScenario<Socket>(hook, action, after), m_Compressed(compressed)
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
            HookScenario<Socket>::Act(action);
        }
    }

    const bool m_Compressed;
    std::unique_ptr<ZlibPeer> m_Peer;
};

class ProductSocketReentry : public testing::TestWithParam<std::tuple<const char*, Road>>
{};

template <typename Socket>
void RunAll(const char* hook, bool compressed)
{
    const WithZLib zlib;
    for (const char* action :
         {"delete", "close", "renew", "send", "receive", "release", "pump", "throw", "gates", "streams"})
    {
        for (const bool after : {false, true}) {
            SCOPED_TRACE(std::string(action) + (after ? " after the base's part" : " before"));
            {
                ProductScenario<Socket> scenario(hook, action, after, compressed);
                scenario.RunToTheEnd();
                scenario.ExpectWholeOrGone();
            }
            EXPECT_EQ(tavronet::CountLivingObjects().sockets, 0);
        }
    }
}

TEST_P(ProductSocketReentry, AnActionInAHookLeavesTheSocketWholeOrGone)
{
    const auto [hook, road] = GetParam();
    if (road == Road::Short)
        RunAll<ScriptedProductOf<ScriptedHooks>>(hook, false);
    else
        RunAll<ScriptedProduct>(hook, road == Road::Compressed);
}

std::string NameOf(const testing::TestParamInfo<std::tuple<const char*, Road>>& run)
{
    const char* const roads[] = {"", "_Short", "_Compressed"};
    return std::get<0>(run.param) + std::string(roads[static_cast<int>(std::get<1>(run.param))]);
}

const auto kHooks = testing::Values("OkayToReceive", "OnReceivePreRead", "OnReceiveNoDataContinue",
                                    "OnReceivePreProcessResponse", "ProcessReceive", "ProcessReceiveBuffer",
                                    "Send", "OkayToSend", "SetOkayToSend", "OnConnect", "OnReceive", "OnSend",
                                    "OnClose", "PostClose", "BytesInCompressed", "BytesOutCompressed");
INSTANTIATE_TEST_SUITE_P(Hooks, ProductSocketReentry,
                         testing::Combine(kHooks,
                                          testing::Values(Road::Plain, Road::Short, Road::Compressed)),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(Transfers, ProductSocketReentry,
                         testing::Combine(testing::Values("SendData", "ReceiveData"),
                                          testing::Values(Road::Plain, Road::Compressed)),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(Streams, ProductSocketReentry,
                         testing::Values(std::tuple("NotifyInflateError", Road::Compressed)), NameOf);

} // namespace
