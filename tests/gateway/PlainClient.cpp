#include "PlainClient.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

std::string PlainAnswer::Body() const
{
    const std::size_t headerEnd = bytes.find("\r\n\r\n");
    return headerEnd == std::string::npos ? "" : bytes.substr(headerEnd + 4);
}

PlainAnswer Exchange(const PlainPeer& peer, const std::string& request, int idleMs, std::size_t most)
{
    PlainAnswer answer;
    const auto start = std::chrono::steady_clock::now();
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(peer.port));
    ::inet_pton(AF_INET, peer.ipv4.c_str(), &address.sin_addr);
    if (::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        answer.connectError = errno;
    else
        ::send(socket, request.data(), request.size(), MSG_NOSIGNAL);

    while (answer.connectError == 0 && answer.bytes.size() < most) {
        char buffer[65536];
        pollfd waiting{socket, POLLIN, 0};
        if (::poll(&waiting, 1, idleMs) <= 0)
            break;
        const ssize_t got = ::recv(socket, buffer, sizeof buffer, 0);
        answer.closed = got == 0;
        answer.reset = got < 0;
        if (got <= 0)
            break;
        answer.bytes.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(socket);
    answer.tookMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
            .count();
    return answer;
}

std::string GetRequest(const std::string& path)
{
    return "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
}

std::string ActionRequest(const std::string& path, const std::string& service, const std::string& action,
                          const PlainArguments& arguments)
{
    std::string body =
        "<?xml version=\"1.0\"?>\n<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
        "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><u:" +
        action + " xmlns:u=\"" + service + "\">";
    for (const auto& [name, value] : arguments)
        body += value.empty() ? "<" + name + " />" : "<" + name + ">" + value + "</" + name + ">";
    body += "</u:" + action + "></s:Body></s:Envelope>";
    return "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nSOAPAction: \"" + service + "#" + action +
           "\"\r\nContent-Type: text/xml\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
           body;
}

std::string ElementText(const std::string& document, const std::string& name)
{
    const std::size_t start = document.find("<" + name + ">");
    const std::size_t end = document.find("</" + name + ">", start);
    if (start == std::string::npos || end == std::string::npos)
        return "-";
    return document.substr(start + name.size() + 2, end - start - name.size() - 2);
}

PlainArguments Key(const std::string& port, const std::string& protocol)
{
    return {{"NewRemoteHost", ""}, {"NewExternalPort", port}, {"NewProtocol", protocol}};
}

PlainArguments MappingOf(const std::string& port, const std::string& protocol, const std::string& client,
                         const std::string& lease)
{
    PlainArguments arguments = Key(port, protocol);
    arguments.insert(arguments.end(), {{"NewInternalPort", port},
                                       {"NewInternalClient", client},
                                       {"NewEnabled", "1"},
                                       {"NewPortMappingDescription", "a &lt; b"},
                                       {"NewLeaseDuration", lease}});
    return arguments;
}

std::string Outcome(const PlainAnswer& answer)
{
    if (answer.bytes.starts_with("HTTP/1.1 200 OK\r\n"))
        return "200";
    return answer.bytes.starts_with("HTTP/1.1 500 ") ? ElementText(answer.bytes, "errorCode") : "?";
}
