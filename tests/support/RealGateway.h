#pragma once

#include "tests/support/ChildProcess.h"

#include <string>

namespace tavronet
{

/// A gateway daemon that people really use, in the gateway namespace of the private LAN (scripts/real-gateway).
/// It serves http://10.77.1.1:5555/rootDesc.xml, its address outside is 44.128.0.7, ports 1 to 1023 are refused
/// with 606, a port that another client has with 718; a mapping may lead to any client.
class RealGateway
{
public:
    /// Returns when the daemon serves its description, or cannot. @param version of the device: 1 or 2
    explicit RealGateway(int version)
        : m_Process({TAVRONET_TEST_SOURCE_DIR "/scripts/real-gateway", "--any-client", "--igd",
                     std::to_string(version)},
                    ChildProcess::Place::GatewayOfLan)
    {
        constexpr int kTimeoutMs = 10000;
        const std::string ready = m_Process.AwaitLine("ready", kTimeoutMs);
        m_Url = ready.substr(ready.rfind(' ') + 1);
    }

    /// False where the daemon is not installed, or there is no private LAN: skip the test then.
    [[nodiscard]] bool Available() const { return !m_Url.empty(); }
    [[nodiscard]] const std::string& Url() const { return m_Url; }

private:
    ChildProcess m_Process;
    std::string m_Url;
};

} // namespace tavronet
