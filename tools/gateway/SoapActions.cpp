#include "SoapActions.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include "Endpoint.h"

namespace gateway
{

namespace
{

constexpr unsigned kLongestLeaseSeconds = 604800; // a week

std::optional<std::string> Value(const Arguments& arguments, const std::string& name)
{
    const auto found = std::ranges::find(arguments, name, &Arguments::value_type::first);
    return found == arguments.end() ? std::nullopt : std::optional(found->second);
}

std::optional<unsigned> Number(const std::optional<std::string>& text, unsigned highest)
{
    unsigned number = 0;
    if (!text || text->empty())
        return std::nullopt;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), number);
    const bool whole = error == std::errc() && end == text->data() + text->size();
    return whole && number <= highest ? std::optional(number) : std::nullopt;
}

bool IsProtocol(const std::string& text)
{
    return text == "TCP" || text == "UDP";
}

/// The three arguments that name a mapping. @return 0 or the code of the fault
int ReadKey(const Arguments& arguments, Mapping& mapping)
{
    const auto host = Value(arguments, "NewRemoteHost"), protocol = Value(arguments, "NewProtocol");
    const auto portText = Value(arguments, "NewExternalPort");
    if (!host || !protocol || !portText)
        return kInvalidArgs;
    const auto port = Number(portText, 65535);
    if (!port || !IsProtocol(*protocol))
        return kArgumentValueInvalid;
    mapping.remoteHost = *host;
    mapping.externalPort = *port;
    mapping.protocol = *protocol;
    return kSuccess;
}

/// All eight arguments of a new mapping. @return 0 or the code of the fault
int ReadMapping(const Arguments& arguments, Mapping& mapping)
{
    if (const int error = ReadKey(arguments, mapping); error != kSuccess)
        return error;
    const auto client = Value(arguments, "NewInternalClient"), enabled = Value(arguments, "NewEnabled");
    const auto description = Value(arguments, "NewPortMappingDescription");
    const auto portText = Value(arguments, "NewInternalPort"),
               leaseText = Value(arguments, "NewLeaseDuration");
    if (!client || !enabled || !description || !portText || !leaseText || !Endpoint::Parse(*client, 0))
        return kInvalidArgs;

    const auto port = Number(portText, 65535), lease = Number(leaseText, kLongestLeaseSeconds);
    const bool isFlag = *enabled == "0" || *enabled == "1";
    if (!port || *port == 0 || !lease || !isFlag)
        return kArgumentValueInvalid;
    mapping.internalPort = *port;
    mapping.internalClient = *client;
    mapping.enabled = *enabled == "1";
    mapping.description = *description;
    mapping.leaseSeconds = *lease;
    return kSuccess;
}

} // namespace

int SoapActions::Perform(const SoapAction& action, const std::string& client, Arguments& results)
{
    if (action.name == "GetExternalIPAddress") {
        results = {{"NewExternalIPAddress", m_Options.identity.externalAddress}};
        return kSuccess;
    }
    if (action.name == "GetNATRSIPStatus") {
        results = {{"NewRSIPAvailable", "0"}, {"NewNATEnabled", m_Options.identity.natEnabled ? "1" : "0"}};
        return kSuccess;
    }
    if (action.name == "GetStatusInfo") {
        results = {{"NewConnectionStatus", "Connected"},
                   {"NewLastConnectionError", "ERROR_NONE"},
                   {"NewUptime", "1"}};
        return kSuccess;
    }
    if (action.name == "AddPortMapping")
        return AddPortMapping(action.arguments, client);
    if (action.name == "DeletePortMapping")
        return DeletePortMapping(action.arguments);
    if (action.name == "GetSpecificPortMappingEntry")
        return GetSpecificPortMappingEntry(action.arguments, results);
    if (action.name == "GetGenericPortMappingEntry")
        return GetGenericPortMappingEntry(action.arguments, results);
    return kInvalidAction;
}

int SoapActions::AddPortMapping(const Arguments& arguments, const std::string& client)
{
    Mapping mapping;
    if (const int error = ReadMapping(arguments, mapping); error != kSuccess)
        return error;
    if (const int error = RefusalFor(mapping, client); error != kSuccess)
        return error;
    return m_Options.table.forget ? kSuccess : m_Table.Add(mapping);
}

int SoapActions::RefusalFor(const Mapping& mapping, const std::string& client)
{
    const TableOptions& table = m_Options.table;
    if (const auto code = m_Options.misbehaviour.TakeRefusal(mapping.externalPort))
        return *code;
    if (mapping.externalPort == 0)
        return kWildCardNotPermittedInExtPort;

    const int port = static_cast<int>(mapping.externalPort);
    const bool foreign = table.ownClientOnly && mapping.internalClient != client;
    if (foreign || port < table.lowestPort || port > table.highestPort)
        return kActionNotAuthorized;
    if (table.samePorts && mapping.internalPort != mapping.externalPort)
        return kSamePortValuesRequired;
    return table.permanentLeasesOnly && mapping.leaseSeconds != 0 ? kOnlyPermanentLeasesSupported : kSuccess;
}

int SoapActions::DeletePortMapping(const Arguments& arguments)
{
    Mapping key;
    if (const int error = ReadKey(arguments, key); error != kSuccess)
        return error;
    return m_Table.Remove(key.remoteHost, key.externalPort, key.protocol);
}

int SoapActions::GetSpecificPortMappingEntry(const Arguments& arguments, Arguments& results)
{
    Mapping mapping;
    if (const int error = ReadKey(arguments, mapping); error != kSuccess)
        return error;
    if (const int error = m_Table.Find(mapping.remoteHost, mapping.externalPort, mapping.protocol, mapping);
        error != kSuccess)
        return error;
    DescribeMapping(mapping, results);
    return kSuccess;
}

int SoapActions::GetGenericPortMappingEntry(const Arguments& arguments, Arguments& results)
{
    const auto indexText = Value(arguments, "NewPortMappingIndex");
    if (!indexText)
        return kInvalidArgs;
    const auto index = Number(indexText, 0xFFFFFFFE);
    if (!index)
        return kArgumentValueInvalid;

    Mapping mapping;
    if (m_Options.table.endless)
        mapping = Mapping{"", 1 + *index % 65535, "TCP", 1 + *index % 65535, "10.0.0.2", true, "endless", 0};
    else if (const int error = m_Table.At(*index, mapping); error != kSuccess)
        return error;
    results = {{"NewRemoteHost", mapping.remoteHost},
               {"NewExternalPort", std::to_string(mapping.externalPort)},
               {"NewProtocol", mapping.protocol}};
    DescribeMapping(mapping, results);
    return kSuccess;
}

void SoapActions::DescribeMapping(Mapping mapping, Arguments& results) const
{
    if (m_Options.table.alter)
        mapping.enabled = false;
    results.insert(results.end(), {{"NewInternalPort", std::to_string(mapping.internalPort)},
                                   {"NewInternalClient", mapping.internalClient},
                                   {"NewEnabled", mapping.enabled ? "1" : "0"},
                                   {"NewPortMappingDescription", mapping.description},
                                   {"NewLeaseDuration", std::to_string(mapping.leaseSeconds)}});
}

} // namespace gateway
