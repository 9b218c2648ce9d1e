#pragma once

#include <optional>
#include <string>
#include <vector>

namespace command
{

/// Where an http URL leads.
struct HttpTarget
{
    std::string host; // without brackets
    unsigned port = 80;
};

/// @return nothing for text that is no http URL with a host and a usable port.
std::optional<HttpTarget> ParseHttpURL(const std::string& url);

/// The address of this machine from which the target is reached; sends nothing. Host names are looked up.
/// @return empty when there is no route or no such host.
std::string LocalAddressTowards(const HttpTarget& target);

/// This machine's addresses on which gateways are searched for: private ones other than loopback.
std::vector<std::string> SearchableAddresses();

/// All other addresses of this machine, loopback left out.
std::vector<std::string> OtherAddresses();

/// Whether a search could leave from the address; sends nothing.
/// @return empty when it could, otherwise what the system says.
std::string MulticastProblem(const std::string& localAddress);

} // namespace command
