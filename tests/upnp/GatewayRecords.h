#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ScriptedServer.h"
#include "tavronet/platform/InterfaceTables.h"
#include "tavronet/platform/TextConversion.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPNetwork.h"
#include "tavronet/upnp/UPnPService.h"

inline constexpr const char* kConnectionService = "urn:schemas-upnp-org:service:WANIPConnection:1";
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

/// A wait hook: ten seconds pass, and a message has the wait look at the clock.
inline void TheTimePasses(void*)
{
    TestClock::Advance(10000);
    InTheWait([] {});
}

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
        (announced.nts.empty() ? "HTTP/1.1 200 OK" : "NOTIFY * HTTP/1.1\r\nNTS: " + announced.nts) +
        "\r\nLOCATION: " + announced.location + "\r\nCACHE-CONTROL: " + announced.cacheControl +
        "\r\nUSN: " + announced.usn + "\r\n\r\n";
    auto record = std::make_unique<CUPnPDevice>(nullptr, network);
    record->Init(announced.localAddress.c_str(), announced.source.c_str(), 1900, datagram.data());
    return record.release();
}

/// A description with a tag a line: a root with one embedded device that holds the connection service.
inline std::string Description()
{
    return "<root>\r\n<device>\r\n<deviceType>" + std::string(kGatewayType) +
           "</deviceType>\r\n<UDN>uuid:gw-1</UDN>\r\n<deviceList>\r\n<device>\r\n"
           "<deviceType>urn:schemas-upnp-org:device:WANConnectionDevice:1</deviceType>\r\n<UDN>uuid:wan</"
           "UDN>\r\n"
           "<serviceList>\r\n<service>\r\n<serviceType>" +
           kConnectionService +
           "</serviceType>\r\n<controlURL>/ctl</controlURL>\r\n</service>\r\n</serviceList>\r\n</device>\r\n"
           "</deviceList>\r\n</device>\r\n</root>\r\n";
}

/// The answer to a look-up.
inline std::string MapEntry(const std::string& port, const std::string& client, const std::string& enabled)
{
    return "<NewInternalPort>" + port + "</NewInternalPort>\r\n<NewInternalClient>" + client +
           "</NewInternalClient>\r\n<NewEnabled>" + enabled + "</NewEnabled>\r\n";
}

/// What stands between two texts; empty when the first is not there.
inline std::string Between(const std::string& text, const std::string& before, const std::string& behind)
{
    const std::size_t found = text.find(before), begin = found + before.size();
    return found == std::string::npos ? "" : text.substr(begin, text.find(behind, begin) - begin);
}
