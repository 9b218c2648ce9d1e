#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "tavronet/platform/InterfaceTables.h"
#include "tavronet/platform/TextConversion.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPNetwork.h"
#include "tavronet/upnp/UPnPService.h"
#include "tests/support/PlainSocket.h"

using tavronet::PumpUntil;

inline constexpr bool kClose = true; // the connection ends behind an answer

/// A whole answer with its length.
inline std::string HttpAnswer(const std::string& body, const std::string& status = "200 OK")
{
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

/// What stands between two texts; empty when the first is not there.
inline std::string Between(const std::string& text, const std::string& before, const std::string& behind)
{
    const std::size_t found = text.find(before), begin = found + before.size();
    return found == std::string::npos ? "" : text.substr(begin, text.find(behind, begin) - begin);
}

/// An HTTP server of a few lines on plain sockets, the only one, in the test's own thread: it moves on whenever that
/// thread waits, so it also answers inside a blocking operation.
class ScriptedServer
{
public:
    using Reply = std::pair<std::string, bool>;

    /// @param host the address to listen at, which the loopback must be part of
    explicit ScriptedServer(const char* host)
    {
        const int listener = static_cast<int>(m_Listener.Handle());
        const sockaddr_in address{AF_INET, 0, {inet_addr(host)}, {}};
        EXPECT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener, 64), 0);
        SetWaitHook([](void*) { MoveOn(); }, s_Server = this);
    }
    ~ScriptedServer() { SetWaitHook(nullptr, s_Server = nullptr); }

    std::string Port() const { return std::to_string(m_Listener.Port()); }
    std::string Url(const std::string& path) const { return "http://127.0.0.1:" + Port() + path; }

    /// The answer to the next request.
    void Answer(std::string bytes, bool close = false) { m_Script.emplace_back(std::move(bytes), close); }
    /// The answer to requests for which the script has none; without, they are left waiting.
    void AnswerBy(std::function<Reply(const std::string& request)> rule) { m_Rule = std::move(rule); }
    /// Every request so far, byte for byte.
    const std::vector<std::string>& Requests() const { return m_Requests; }

    /// Forgets the requests and connections so far, all of which have been answered and closed.
    void Forget()
    {
        m_Requests.clear();
        m_Connections.clear();
    }

    /// The connections in the order they were made.
    std::size_t Connections() const { return m_Connections.size(); }
    void Write(std::size_t connection, const std::string& bytes)
    {
        m_Connections.at(connection).socket.Writes(bytes, MSG_DONTWAIT);
    }
    void End(std::size_t connection) { m_Connections.at(connection).socket.Closes(); }
    bool ClosedByClient(std::size_t connection) const
    {
        char byte;
        const int descriptor = static_cast<int>(m_Connections.at(connection).socket.Handle());
        return recv(descriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
    }

    static void MoveOn()
    {
        if (s_Server != nullptr)
            s_Server->Step();
    }

private:
    struct Connection
    {
        tavronet::PlainSocket socket;
        std::string request = "";
    };

    void Step()
    {
        const int listener = static_cast<int>(m_Listener.Handle());
        for (int accepted; (accepted = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;)
            m_Connections.push_back({tavronet::PlainSocket(accepted)});
        for (std::size_t i = 0; i < m_Connections.size(); ++i) {
            if (!ReadRequest(m_Connections[i]))
                continue;
            if (m_Script.empty() && m_Rule)
                m_Script.push_back(m_Rule(m_Requests.back()));
            if (m_Script.empty())
                continue;
            Write(i, m_Script.front().first);
            if (m_Script.front().second)
                End(i);
            m_Script.pop_front();
        }
    }

    /// @return whether the request has become whole.
    bool ReadRequest(Connection& connection)
    {
        std::string& request = connection.request += connection.socket.ReadsWaiting();
        const std::size_t header = request.find("\r\n\r\n");
        const std::string length = Between(request.substr(0, header), "Content-Length: ", "\r\n");
        const std::size_t body = length.empty() ? 0 : std::stoul(length);
        if (header == std::string::npos || request.size() < header + 4 + body)
            return false;
        m_Requests.push_back(std::exchange(request, {}));
        return true;
    }

    inline static ScriptedServer* s_Server = nullptr;

    const tavronet::PlainSocket m_Listener{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    std::vector<Connection> m_Connections;
    std::vector<std::string> m_Requests;
    std::deque<Reply> m_Script;
    std::function<Reply(const std::string&)> m_Rule;
};

/// Has `call` run at the next dispatch, which is inside the next wait.
inline void InTheWait(std::function<void()> call)
{
    static std::deque<std::function<void()>> calls; // where they stay, should nothing be dispatched any more
    calls.push_back(std::move(call));
    const auto run = [](void* raw) { (*static_cast<std::function<void()>*>(raw))(); };
    PostThreadCall(CurrentThreadQueue(), run, &calls.back());
}

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
    explicit GatewayDevice(UPnPEventCallback callback = nullptr, void* context = nullptr,
                           int dialect = UPnPDialectClassic, const char* serverHost = "127.0.0.1")
        : server(serverHost), network(std::make_unique<CUPnPNetwork>(callback, context, dialect, false))
    {
        server.AnswerBy(std::ref(gateway));
    }

    void Ask(const Announced& announced)
    {
        device.reset(MakeRecord(network.get(), announced));
        device->RequestDescription();
    }
    void Describe()
    {
        Ask({.location = server.Url("/d")});
        ASSERT_TRUE(PumpUntil([&] { return device->DiscoverComplete(); }));
    }

    TestClock clock;
    std::optional<NoAdapters> noAdapters{std::in_place};
    ScriptedServer server;
    ToyGateway gateway;
    std::unique_ptr<CUPnPNetwork> network;
    std::unique_ptr<CUPnPDevice> device;
};
