#include "Report.h"

#include <tavronet/tavronet.h>

#include <charconv>

namespace command
{

namespace
{

struct Reason
{
    int code;
    const char* advice;
};

// What the codes of refusals mean in practice.
constexpr Reason kReasons[] = {
    {401, "the gateway does not know this action; it may allow it in its own settings only"},
    {402, "the gateway disliked an argument: try without --lease and --description, or --classic"},
    {501, "its table may be full: see what `tavronet list` shows and delete what nobody needs"},
    {606, "the gateway does not allow this port or this client: try a port above 1023 and your own address, "
          "and look at "
          "the UPnP settings of the gateway"},
    {714, "there is no such mapping: `tavronet list` shows what there is; is the protocol right?"},
    {715, "the gateway wants a mapping for one remote host"},
    {716, "the gateway wants another external port than this one"},
    {718, "another machine has this port: choose another port, or delete the mapping on that machine"},
    {724, "the gateway wants the same port inside and outside: leave out --internal-port"},
    {725, "the gateway only has mappings without an end: leave out --lease"},
    {728, "its table is full: see what `tavronet list` shows and delete what nobody needs"},
    {729, "the gateway itself, or another way of mapping, has this port: choose another port"},
};

std::string Utf8(const CString& text)
{
    return CStringA(text).GetString();
}

std::string Utf8(const wchar_t* text)
{
    return CStringA(text).GetString();
}

int Number(const CString& text)
{
    const std::string narrow = Utf8(text);
    int number = 0;
    std::from_chars(narrow.data(), narrow.data() + narrow.size(), number);
    return number;
}

std::vector<std::string> AdviceFor(int upnpCode)
{
    for (const Reason& reason : kReasons) {
        if (reason.code == upnpCode)
            return {reason.advice};
    }
    return {"look at the UPnP settings of the gateway"};
}

/// A copy of a value's text, fit for a terminal.
std::string Text(const Json& facts, const char* field)
{
    const Json& value = facts.at(field);
    return value.is_string() ? Printable(value.get<std::string>()) : value.dump();
}

std::string Lease(const Json& mapping)
{
    return mapping.at("lease_seconds") == 0 ? "no end" : Text(mapping, "lease_seconds") + " s";
}

} // namespace

Json GatewayFacts(CUPnPDevice& gateway)
{
    const CUPnPService* const service = gateway.FindConnectionService();
    return {{"name", Utf8(gateway.GetFriendlyName())},
            {"manufacturer", Utf8(gateway.GetManufacturer())},
            {"model", Utf8(gateway.GetModelName())},
            {"local_address", Utf8(gateway.GetIpAddr())},
            {"address", Utf8(gateway.GetDeviceAddr())},
            {"description_url", Utf8(gateway.GetDescURL())},
            {"server", Utf8(gateway.GetServer())},
            {"service", service != nullptr ? Utf8(service->GetType()) : ""}};
}

Json MappingFacts(const CUPnPPortMap& mapping)
{
    return {{"protocol", Utf8(mapping.GetProtocol())},
            {"external_port", mapping.ExternalPort()},
            {"internal_client", Utf8(mapping.GetInternalClient())},
            {"internal_port", mapping.InternalPort()},
            {"description", Utf8(mapping.GetPortMappingDescription())},
            {"enabled", mapping.Enabled()},
            {"lease_seconds", mapping.LeaseDuration()},
            {"remote_host", Utf8(mapping.GetRemoteHost())}};
}

std::string GatewayLine(const Json& gateway)
{
    const std::string name = Text(gateway, "name"), maker = Text(gateway, "manufacturer");
    const std::string model = Text(gateway, "model");
    std::string what = maker + (maker.empty() || model.empty() ? "" : " ") + model;
    if (!what.empty())
        what = " (" + what + ")";
    return (name.empty() ? "unnamed gateway" : name) + what + " at " + Text(gateway, "description_url") +
           ", reached from " + Text(gateway, "local_address");
}

std::string MappingLine(const Json& mapping)
{
    return Text(mapping, "protocol") + " " + Text(mapping, "external_port") + " -> " +
           Text(mapping, "internal_client") + ":" + Text(mapping, "internal_port") + " (" +
           Text(mapping, "description") + ")" + (mapping.at("enabled") ? "" : ", switched off");
}

std::string PortText(const std::string& protocol, unsigned port)
{
    return protocol + " port " + std::to_string(port);
}

std::vector<std::string> MappingTable(const Json& mappings)
{
    std::vector<std::vector<std::string>> rows{
        {"PROTOCOL", "PORT", "LEADS TO", "LEASE", "STATE", "DESCRIPTION"}};
    for (const Json& mapping : mappings)
        rows.push_back({Text(mapping, "protocol"), Text(mapping, "external_port"),
                        Text(mapping, "internal_client") + ":" + Text(mapping, "internal_port"),
                        Lease(mapping), mapping.at("enabled") ? "on" : "off", Text(mapping, "description")});
    return Table(rows);
}

Json ReadMappings(CUPnPDevice& gateway, void* interrupt)
{
    std::vector<CUPnPPortMap*> list;
    if (!gateway.GetPortMaps(interrupt, list))
        return nullptr;
    Json mappings = Json::array();
    for (const CUPnPPortMap* const mapping : list)
        mappings.push_back(MappingFacts(*mapping));
    CUPnPDevice::ReleasePortMaps(list);
    return mappings;
}

Failure Refusal(const std::string& what, const CUPnPDevice& gateway)
{
    Failure failure{.code = UPnPFailed};
    failure.httpStatus = gateway.GetCmndRespCode();
    failure.upnpCode = Number(gateway.GetCmndErrorCode());
    failure.upnpText = Utf8(gateway.GetCmndErrorDescription());
    failure.message = "the gateway refused " + what + ": ";
    if (failure.upnpCode != 0)
        failure.message += "UPnP error " + std::to_string(failure.upnpCode) + " " + failure.upnpText;
    else
        failure.message += "HTTP status " + std::to_string(failure.httpStatus);
    failure.advice = AdviceFor(failure.upnpCode);
    return failure;
}

} // namespace command
