#ifndef TESTS_UPNP_GATEWAYRECORDS_H
#define TESTS_UPNP_GATEWAYRECORDS_H

#include <memory>
#include <string>
#include <vector>

#include "ScriptedServer.h"
#include "tavronet/platform/InterfaceTables.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPNetwork.h"

inline constexpr const char* kConnectionService = "urn:schemas-upnp-org:service:WANIPConnection:1";
inline constexpr const char* kGatewayType = "urn:schemas-upnp-org:device:InternetGatewayDevice:1";

/// While it lives the machine has no adapters, so that a network searches nowhere.
struct NoAdapters
{
    NoAdapters()
    {
        tavronet::SetInterfaceTableSource([](int, std::vector<tavronet::InterfaceEntry>& interfaces) {
            interfaces.clear();
            return tavronet::InterfaceQuery::Done;
        });
    }
    ~NoAdapters() { tavronet::SetInterfaceTableSource(nullptr); }
};

/// A clock that stands still until it is told otherwise.
struct TestClock
{
    explicit TestClock(DWORD start = 1000000)
    {
        s_Now = start;
        SetTickSource([] { return s_Now; });
    }
    ~TestClock() { SetTickSource(nullptr); }
    static void Advance(DWORD milliseconds) { s_Now += milliseconds; }

    inline static DWORD s_Now = 0;
};

struct Announced
{
    std::string localAddress = "127.0.0.1";
    std::string source = "127.0.0.1";
    std::string location = "";
    std::string usn = "uuid:gw-1::urn:schemas-upnp-org:device:WANConnectionDevice:1";
    std::string nts = "";
    std::string cacheControl = "max-age=1800";
};

/// A record as a datagram makes it.
inline CUPnPDevice* MakeRecord(CUPnPNetwork* network, const Announced& announced)
{
    std::string datagram = (announced.nts.empty() ? "HTTP/1.1 200 OK\r\n" : "NOTIFY * HTTP/1.1\r\n");
    const auto add = [&](const char* name, const std::string& value) {
        if (!value.empty())
            datagram += name + (": " + value) + "\r\n";
    };
    add("LOCATION", announced.location);
    add("CACHE-CONTROL", announced.cacheControl);
    add("USN", announced.usn);
    add("NTS", announced.nts);
    datagram += "\r\n";

    auto record = std::make_unique<CUPnPDevice>(nullptr, network);
    record->Init(announced.localAddress.c_str(), announced.source.c_str(), 1900, datagram.data());
    return record.release();
}

/// A description with a tag a line: a root with one embedded device that holds the connection service.
inline std::string Description(const std::string& controlUrl = "/ctl")
{
    return "<root>\r\n<device>\r\n<deviceType>" + std::string(kGatewayType) +
           "</deviceType>\r\n<UDN>uuid:gw-1</UDN>\r\n<deviceList>\r\n<device>\r\n"
           "<deviceType>urn:schemas-upnp-org:device:WANConnectionDevice:1</"
           "deviceType>\r\n<serviceList>\r\n<service>\r\n"
           "<serviceType>" +
           std::string(kConnectionService) + "</serviceType>\r\n<controlURL>" + controlUrl +
           "</controlURL>\r\n</service>\r\n</serviceList>\r\n</device>\r\n</deviceList>\r\n</device>\r\n</"
           "root>\r\n";
}

#endif
