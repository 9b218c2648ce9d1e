#pragma once

#include <string>
#include <utility>
#include <vector>

struct PlainPeer
{
    PlainPeer(unsigned portNumber, std::string address = "127.0.0.1")
        : port(portNumber), ipv4(std::move(address))
    {
    }

    unsigned port;
    std::string ipv4;
};

struct PlainAnswer
{
    std::string bytes;
    int connectError = 0; // errno of the connect
    bool closed = false;  // by the peer, in an orderly way
    bool reset = false;
    long long tookMs = 0;

    [[nodiscard]] std::string Body() const;
    [[nodiscard]] bool Contains(const std::string& text) const
    {
        return bytes.find(text) != std::string::npos;
    }
};

/// Sends `request` and reads until the peer closes, a reset comes, nothing comes for `idleMs`, or `most` bytes
/// are there.
PlainAnswer Exchange(const PlainPeer& peer, const std::string& request, int idleMs = 5000,
                     std::size_t most = 1 << 20);

using PlainArguments = std::vector<std::pair<std::string, std::string>>;

std::string GetRequest(const std::string& path);
/// A SOAP request as control points write it; `service` in full.
std::string ActionRequest(const std::string& path, const std::string& service, const std::string& action,
                          const PlainArguments& arguments);
/// The text of the first element of that name, its prefix included in `name`; "-" when there is none.
std::string ElementText(const std::string& document, const std::string& name);

/// The arguments that name a mapping, and all those of a new one.
PlainArguments Key(const std::string& port, const std::string& protocol);
PlainArguments MappingOf(const std::string& port, const std::string& protocol, const std::string& client,
                         const std::string& lease = "0");

/// "200", or the error code of the fault.
std::string Outcome(const PlainAnswer& answer);
