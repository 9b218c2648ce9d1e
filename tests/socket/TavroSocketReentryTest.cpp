// A host may do anything inside a hook. One scenario - connect, queue, receive in parts, a send that blocks, the
// peer's close - runs for every hook, every action and both sides of the base's part. The address sanitizer
// finds what is touched after death; the end of the scenario finds flags that stayed set.

#include <gtest/gtest.h>

#include <string>

#include "HookScenario.h"
#include "tavronet/platform/TestSeams.h"

namespace
{

class TavroSocketReentry : public testing::TestWithParam<const char*>
{};

TEST_P(TavroSocketReentry, AnActionInAHookLeavesTheSocketWholeOrGone)
{
    for (const char* action : {"delete", "close", "renew", "attach", "send", "receive", "notify", "select",
                               "release", "pump", "throw"})
    {
        for (const bool after : {false, true}) {
            SCOPED_TRACE(std::string(action) + (after ? " after the base's part" : " before"));
            {
                HookScenario<ScriptedSocket> scenario(GetParam(), action, after);
                scenario.RunToTheEnd();
                scenario.ExpectWholeOrGone();
            }
            EXPECT_EQ(tavronet::CountLivingObjects().sockets, 0);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Hooks, TavroSocketReentry,
                         testing::Values("OkayToReceive", "OnReceivePreRead", "ReceiveData",
                                         "OnReceiveNoDataContinue", "OnReceivePreProcessResponse",
                                         "ProcessReceive", "ProcessReceiveBuffer", "Send", "SendData",
                                         "OkayToSend", "SetOkayToSend", "OnConnect", "OnReceive", "OnSend",
                                         "OnClose"),
                         [](const auto& run) { return std::string(run.param); });

} // namespace
