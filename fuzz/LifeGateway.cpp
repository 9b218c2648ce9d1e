#include "LifeGateway.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "Input.h"

namespace
{

std::string Element(const std::string& name, const std::string& content, const std::string& lineBreak)
{
    return "<" + name + ">" + content + "</" + name + ">" + lineBreak;
}

std::string Description(unsigned kind)
{
    const bool isModern = kind == 1;
    const std::string lineBreak = isModern ? "" : "\r\n";
    const std::string urn = "urn:schemas-upnp-org:";
    const char* const services[] = {"WANIPConnection:1", "WANIPConnection:2", "WANPPPConnection:1",
                                    "Layer3:1"};
    return "<root>" + lineBreak + "<device>" + lineBreak +
           Element("deviceType", urn + "device:InternetGatewayDevice:1", lineBreak) +
           Element("manufacturer", kind == 2 ? "Linksys" : "Tavro", lineBreak) +
           Element("UDN", "uuid:gw-1", lineBreak) + "<deviceList>" + lineBreak + "<device>" + lineBreak +
           Element("deviceType", urn + "device:WANConnectionDevice:1", lineBreak) + "<serviceList>" +
           lineBreak + "<service>" + lineBreak +
           Element("serviceType", urn + "service:" + services[kind], lineBreak) +
           Element("controlURL", "/ctl", lineBreak) + "</service>" + lineBreak + "</serviceList>" +
           lineBreak + "</device>" + lineBreak + "</deviceList>" + lineBreak + "</device>" + lineBreak +
           "</root>";
}

std::string Response(const std::string& body, const std::string& status = "200 OK")
{
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string Fault(const std::string& code)
{
    return Element("errorCode", code, "\r\n") + Element("errorDescription", "No", "\r\n");
}

std::string Entry(const std::string& port)
{
    return Element("NewExternalPort", port, "\r\n") + Element("NewInternalPort", port, "\r\n") +
           Element("NewInternalClient", LifeGateway::kAddress, "\r\n") + Element("NewEnabled", "1", "\r\n");
}

/// What an element of the request holds, empty when it is not there.
std::string ValueOf(const std::string& request, const std::string& name)
{
    const std::size_t start = request.find("<" + name + ">");
    if (start == request.npos)
        return {};
    const std::size_t value = start + name.size() + 2;
    return request.substr(value, request.find('<', value) - value);
}

std::string Chunk(const std::string& data)
{
    char size[32];
    std::snprintf(size, sizeof size, "%zx\r\n", data.size());
    return size + data + "\r\n";
}

void Send(int descriptor, const std::string& bytes)
{
    send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL); // not taken: as if lost
}

} // namespace

LifeGateway::LifeGateway(Script& script)
    : m_Script(script), m_Listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{AF_INET, 0, {inet_addr(kAddress)}, {}};
    auto* const raw = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof address;
    Expect(bind(m_Listener, raw, length) == 0 && listen(m_Listener, 64) == 0);
    Expect(getsockname(m_Listener, raw, &length) == 0);
    m_Port = ntohs(address.sin_port);
}

LifeGateway::~LifeGateway()
{
    for (const Connection& connection : m_Connections)
        close(connection.descriptor);
    close(m_Listener);
}

bool LifeGateway::Step()
{
    bool moved = false;
    const int flags = SOCK_NONBLOCK | SOCK_CLOEXEC;
    int accepted = -1;
    while ((accepted = accept4(m_Listener, nullptr, nullptr, flags)) >= 0) {
        m_Connections.push_back({accepted, {}, {}});
        moved = true;
    }
    for (Connection& connection : m_Connections)
        moved |= Serve(connection);
    std::erase_if(m_Connections, [](const Connection& connection) { return connection.descriptor < 0; });
    return moved;
}

void LifeGateway::Close(Connection& connection)
{
    close(std::exchange(connection.descriptor, -1));
}

bool LifeGateway::Serve(Connection& connection)
{
    if (!connection.later.empty()) {
        Send(connection.descriptor, std::exchange(connection.later, {}));
        return true;
    }
    char block[4096];
    const ssize_t got = recv(connection.descriptor, block, sizeof block, 0);
    if (got == 0 || (got < 0 && errno != EAGAIN)) {
        Close(connection);
        return true;
    }
    if (got > 0)
        connection.request.append(block, static_cast<std::size_t>(got));
    const std::string& request = connection.request;
    const bool isWhole = request.starts_with("GET ") ? request.ends_with("\r\n\r\n")
                                                     : request.find("</s:Envelope>") != request.npos;
    if (!isWhole)
        return got > 0;
    const Reply reply = ReplyTo(std::exchange(connection.request, {}));
    Send(connection.descriptor, reply.now);
    connection.later = reply.later;
    if (reply.ends)
        Close(connection);
    return true;
}

LifeGateway::Reply LifeGateway::ReplyTo(const std::string& request)
{
    const bool ends = true;
    const std::string later;
    const std::string body = request.starts_with("GET ") ? Description(m_Script.Number(4)) : Act(request);
    const std::string right = body.empty() ? Response(Fault("714"), "500 Error") : Response(body);
    switch (m_Script.Number(12)) {
    case 1: return {Response(Fault("501"), "500 Error")};
    case 2: return {"HTTP/1.1 200 OK\r\n\r\n" + body, later, ends};
    case 3: return {right.substr(0, right.size() / 2), later, ends};
    case 4: return {}; // nobody will ever say anything
    case 5: return {"", later, ends};
    case 6: return {m_Script.Text()};
    case 7: return {Response(m_Script.Text())};
    case 8: return {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + Chunk(body) + Chunk("")};
    case 9: return {right.substr(0, 20), right.substr(20)};
    case 10: return {"HTTP/1.1 100 Continue\r\n\r\n" + right + right};
    case 11: return {Response(std::string(2000, 'x'), "200 OK\r\nContent-Length: 2000000")};
    default: return {right};
    }
}

/// @return the answer's body, empty for a fault.
std::string LifeGateway::Act(const std::string& request)
{
    const std::string port = ValueOf(request, "NewExternalPort");
    if (request.find("#AddPortMapping") != request.npos)
        m_Mapped.insert(port);
    else if (request.find("#DeletePortMapping") != request.npos)
        return m_Mapped.erase(port) != 0 ? "<x>1</x>" : "";
    else if (request.find("#GetGeneric") != request.npos) {
        const auto index = std::strtoul(ValueOf(request, "NewPortMappingIndex").c_str(), nullptr, 10);
        return index < m_Mapped.size() ? Entry(*std::next(m_Mapped.begin(), static_cast<long>(index))) : "";
    } else if (request.find("#GetSpecific") != request.npos)
        return m_Mapped.contains(port) ? Entry(port) : "";
    return Element("NewExternalIPAddress", "203.0.113.7", "\r\n") + Element("NewNATEnabled", "1", "\r\n");
}
