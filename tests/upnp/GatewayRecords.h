#pragma once

#include <map>
#include <memory>
#include <set>

#include "ScriptedServer.h"
#include "tavronet/platform/InterfaceTables.h"
#include "tavronet/platform/TextConversion.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPNetwork.h"
#include "tavronet/upnp/UPnPService.h"

inline constexpr const char* kConnectionService = "urn:schemas-upnp-org:service:WANIPConnection:1";
inline constexpr const char* kOtherService = "urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1";
inline constexpr const char* kGatewayType = "urn:schemas-upnp-org:device:InternetGatewayDevice:1";

inline std::string Text(const CString& wide)
{
    return std::string(Narrow(wide).View());
}

/// While it lives the machine has no adapters, so that a network searches nowhere.
struct NoAdapters
{
    NoAdapters()
    {
        tavronet::SetInterfaceTableSource([](int, auto&) { return tavronet::InterfaceQuery::NoLibrary; });
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
    std::string localAddress = "127.0.0.1", source = "127.0.0.1", location = "";
    std::string usn = "uuid:gw-1::urn:schemas-upnp-org:device:WANConnectionDevice:1";
    std::string nts = "", cacheControl = "max-age=1800";
};

/// A record as a datagram makes it.
inline CUPnPDevice* MakeRecord(CUPnPNetwork* network, const Announced& announced)
{
    std::string datagram =
        "NOTIFY * HTTP/1.1\r\nNTS: " + announced.nts + "\r\nLOCATION: " + announced.location +
        "\r\nCACHE-CONTROL: " + announced.cacheControl + "\r\nUSN: " + announced.usn + "\r\n\r\n";
    auto record = std::make_unique<CUPnPDevice>(nullptr, network);
    record->Init(announced.localAddress.c_str(), announced.source.c_str(), 1900, datagram.data());
    return record.release();
}

using PortMapList = std::vector<CUPnPPortMap*>;

inline PortMapList Records(const std::vector<unsigned>& ports)
{
    PortMapList records;
    for (const unsigned port : ports)
        records.push_back(new CUPnPPortMap(port, "TCP", "127.0.0.1", "x"));
    return records;
}

/// A description with a tag a line: a root with one embedded device that holds the connection service and another.
inline std::string Description()
{
    const auto service = [](const std::string& type, const std::string& control) {
        return "<service>\r\n<serviceType>" + type + "</serviceType>\r\n<controlURL>" + control +
               "</controlURL>\r\n</service>\r\n";
    };
    return "<root>\r\n<device>\r\n<deviceType>" + std::string(kGatewayType) +
           "</deviceType>\r\n<UDN>uuid:gw-1</UDN>\r\n<deviceList>\r\n<device>\r\n"
           "<deviceType>urn:schemas-upnp-org:device:WANConnectionDevice:1</deviceType>\r\n"
           "<UDN>uuid:wan</UDN>\r\n<serviceList>\r\n" +
           service(kOtherService, "/other") + service(kConnectionService, "/ctl") +
           "</serviceList>\r\n</device>\r\n</deviceList>\r\n</device>\r\n</root>\r\n";
}

/// What a gateway says that keeps a table of mappings.
struct ToyGateway
{
    struct Mapping
    {
        std::string port, client, enabled;
    };

    ScriptedServer::Reply operator()(const std::string& request)
    {
        if (silent)
            return {};
        if (request.starts_with("GET "))
            return {untilClose ? "HTTP/1.1 200 OK\r\n\r\n" + Description() : HttpAnswer(Description()),
                    kClose};
        const std::string port = Between(request, "<NewExternalPort>", "<");
        const std::string index = Between(request, "<NewPortMappingIndex>", "<");
        const std::string action = Between(request, "<u:", " ");
        if (action.starts_with("Get") && action.ends_with("Entry")) {
            lookUps.push_back(port);
            const auto row = index.empty() ? table.find(port) : index == "0" ? table.begin() : table.end();
            return {row != table.end() ? Entry(row->second) : HttpAnswer("", "500 No such entry"), kClose};
        }
        if (action == "DeletePortMapping")
            table.erase(port);
        else if (refused.contains(port))
            return {HttpAnswer("", "500 Refused"), kClose};
        else if (action == "AddPortMapping")
            table[port] = {port, Between(request, "<NewInternalClient>", "<"), "1"};
        return {HttpAnswer("<NewExternalIPAddress>203.0.113.7</NewExternalIPAddress>\r\n"), kClose};
    }
    static std::string Entry(const Mapping& mapping)
    {
        return HttpAnswer("<NewInternalPort>" + mapping.port + "</NewInternalPort>\r\n<NewInternalClient>" +
                          mapping.client + "</NewInternalClient>\r\n<NewEnabled>" + mapping.enabled +
                          "</NewEnabled>\r\n");
    }

    std::map<std::string, Mapping> table; // by external port
    std::set<std::string> refused;        // ports
    std::vector<std::string> lookUps;     // ports
    bool silent = false;                  // takes every request and never answers
    bool untilClose = false;              // describes itself without telling the length
};

/// A device of a gateway in the test's own thread, with a network that searches nowhere, while the clock stands.
struct GatewayDevice
{
    explicit GatewayDevice(UPnPEventCallback callback = nullptr, void* context = nullptr, bool search = false)
        : network(std::make_unique<CUPnPNetwork>(callback, context, UPnPDialectClassic, search))
    {
        server.AnswerBy(std::ref(gateway));
    }

    void Ask(const std::string& location)
    {
        device.reset(MakeRecord(network.get(), {.location = location}));
        device->RequestDescription();
    }
    void Describe()
    {
        Ask(server.Url("/d"));
        ASSERT_TRUE(PumpUntil([&] { return device->DiscoverComplete(); }));
    }

    TestClock clock;
    ScriptedServer server;
    ToyGateway gateway;
    std::unique_ptr<CUPnPNetwork> network;
    std::unique_ptr<CUPnPDevice> device;
};
