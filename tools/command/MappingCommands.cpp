#include "Commands.h"
#include "Options.h"
#include "Output.h"
#include "Report.h"
#include "Session.h"

#include <tavronet/tavronet.h>

namespace command
{

namespace
{

constexpr int kAccepted = 200; // HTTP

CUPnPPortMap RequestedMapping(const Options& options, const CUPnPDevice& gateway)
{
    const std::string client =
        options.client.empty() ? CStringA(gateway.GetIpAddr()).GetString() : options.client;
    const unsigned internalPort = options.internalPort != 0 ? options.internalPort : options.port;
    const char* const noIndex = "";
    const char* const anyHost = "";
    const char* const enabled = "1";
    return {noIndex,
            anyHost,
            std::to_string(options.port).c_str(),
            options.protocol.c_str(),
            std::to_string(internalPort).c_str(),
            client.c_str(),
            enabled,
            options.description.c_str(),
            std::to_string(options.leaseSeconds).c_str()};
}

std::string PortText(const Options& options)
{
    return options.protocol + " port " + std::to_string(options.port);
}

} // namespace

int RunAdd(const Options& options, const Output& output, HANDLE interrupt)
{
    Session session(options, output, interrupt);
    CUPnPDevice* const gateway = session.AwaitGateway();
    if (gateway == nullptr)
        return output.Fail(session.WhyNone());

    CUPnPPortMap mapping = RequestedMapping(options, *gateway);
    if (!gateway->AddPortMap(interrupt, &mapping))
        return output.Fail(session.NoAnswer("whether it mapped " + PortText(options)));
    if (!mapping.GetAdded())
        return output.Fail(Refusal("to map " + PortText(options), *gateway));

    Json result = {{"result", UPnPSuccess}};
    result.update(MappingFacts(mapping));
    result["gateway"] = GatewayFacts(*gateway);
    output.Value(result);
    output.Line("mapped " + MappingLine(result));
    return UPnPSuccess;
}

int RunDelete(const Options& options, const Output& output, HANDLE interrupt)
{
    Session session(options, output, interrupt);
    CUPnPDevice* const gateway = session.AwaitGateway();
    if (gateway == nullptr)
        return output.Fail(session.WhyNone());

    if (!gateway->DeletePortMap(interrupt, options.port, options.protocol.c_str()))
        return output.Fail(session.NoAnswer("whether it deleted " + PortText(options)));
    if (gateway->GetCmndRespCode() != kAccepted)
        return output.Fail(Refusal("to delete " + PortText(options), *gateway));

    output.Value({{"result", UPnPSuccess}, {"protocol", options.protocol}, {"external_port", options.port}});
    output.Line("deleted " + PortText(options));
    return UPnPSuccess;
}

} // namespace command
