#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tavronet/api/UPnPApi.h"
#include "tavronet/platform/TestSeams.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPNetwork.h"
#include "tavronet/upnp/UPnPService.h"
#include "tests/support/GatewayProcess.h"
#include "tests/support/LoopbackPair.h"
#include "tests/support/OnPrivateLan.h"

inline std::string Utf8(const CString& text)
{
    return CStringA(text).GetString();
}

/// "TCP 8080 10.77.1.2:8080 game".
inline std::string Line(const CUPnPPortMap& map)
{
    return Utf8(map.GetProtocol()) + " " + Utf8(map.GetExternalPort()) + " " + Utf8(map.GetInternalClient()) +
           ":" + Utf8(map.GetInternalPort()) + " " + Utf8(map.GetPortMappingDescription());
}

/// The lines of a gateway's table, which must be readable.
inline std::vector<std::string> Table(CUPnPDevice& device)
{
    std::vector<CUPnPPortMap*> list;
    EXPECT_TRUE(device.GetPortMaps(nullptr, list));
    std::vector<std::string> lines;
    for (const CUPnPPortMap* const map : list)
        lines.push_back(Line(*map));
    CUPnPDevice::ReleasePortMaps(list);
    return lines;
}

/// A test on the private LAN that uses the class interface and notes the events.
class LanNetwork : public tavronet::OnPrivateLan
{
protected:
    void TearDown() override
    {
        network.reset();
        UPnPClose();
        UPnPSetDialect(UPnPDialectClassic);
        EXPECT_EQ(tavronet::CountLivingObjects(), (tavronet::LivingObjects{0, 0}));
    }

    tavronet::GatewayProcess& StartGateway(const std::string& address, std::vector<std::string> options = {})
    {
        options.insert(options.end(), {"--address", address});
        const auto place = tavronet::GatewayProcess::Place::GatewayOfLan;
        return *gateways.emplace_back(std::make_unique<tavronet::GatewayProcess>(options, place));
    }

    void Search(int dialect) { network = std::make_unique<CUPnPNetwork>(OnEvent, this, dialect); }

    /// Pumps until the device reached from that address of this machine is described. @return null when none
    /// is
    CUPnPDevice* AwaitDevice(const std::string& localAddress)
    {
        const auto described = [&] {
            CUPnPDevice* const device = network->FindDevice(localAddress.c_str());
            return device != nullptr && device->DiscoverComplete();
        };
        return tavronet::PumpUntil(described) ? network->FindDevice(localAddress.c_str()) : nullptr;
    }

    /// Starts the flat interface in the modern dialect, beside the network as a second program would, and
    /// waits until the gateways reached from these addresses are described.
    static void StartFlat(const std::vector<const char*>& localAddresses)
    {
        ASSERT_EQ(UPnPSetDialect(UPnPDialectModern), UPnPSuccess);
        ASSERT_EQ(UPnPDiscoverStartup(), UPnPSuccess);
        for (const char* const local : localAddresses)
            ASSERT_TRUE(tavronet::PumpUntil([local] {
                bool complete = false;
                return UPnPDeviceIsDescriptionComplete(nullptr, local, &complete) == UPnPSuccess && complete;
            }));
    }

    std::vector<std::unique_ptr<tavronet::GatewayProcess>> gateways;
    std::unique_ptr<CUPnPNetwork> network;
    std::vector<std::pair<unsigned, int>> events; // code and depth of the node

private:
    static void OnEvent(void* context, unsigned code, CUPnPObject* object)
    {
        static_cast<LanNetwork*>(context)->events.emplace_back(code, object->ParentDepth());
    }
};
