#pragma once

#include "Output.h"

#include <string>
#include <vector>

class CUPnPDevice;
class CUPnPPortMap;

namespace command
{

constexpr int kAccepted = 200; // HTTP

/// The stable field names of the JSON output; the text output is made from the same values.
Json GatewayFacts(CUPnPDevice& gateway);
Json MappingFacts(const CUPnPPortMap& mapping);

/// "Name (maker model) at http://..., reached from 192.168.1.100", fit for a terminal.
std::string GatewayLine(const Json& gateway);

/// "TCP 8080 -> 192.168.1.100:8080 (game)", fit for a terminal.
std::string MappingLine(const Json& mapping);

/// "TCP port 8080".
std::string PortText(const std::string& protocol, unsigned port);

/// A heading and a line for each mapping, aligned.
std::vector<std::string> MappingTable(const Json& mappings);

/// Reads the gateway's table. @return an array, in the gateway's order; null when it did not answer.
Json ReadMappings(CUPnPDevice& gateway, void* interrupt);

/// The gateway answered, and said no.
/// @param what "to map TCP port 8080"
Failure Refusal(const std::string& what, const CUPnPDevice& gateway);

} // namespace command
