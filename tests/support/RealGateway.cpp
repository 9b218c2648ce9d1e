#include "tests/support/RealGateway.h"

namespace tavronet
{

RealGateway::RealGateway(int version)
    : m_Process({TAVRONET_TEST_SOURCE_DIR "/scripts/real-gateway", "--any-client", "--igd",
                 std::to_string(version)},
                ChildProcess::Place::GatewayOfLan)
{
    constexpr int kTimeoutMs = 10000;
    const std::string ready = m_Process.AwaitLine("ready", kTimeoutMs);
    m_Url = ready.substr(ready.rfind(' ') + 1);
}

} // namespace tavronet
