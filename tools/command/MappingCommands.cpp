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

} // namespace

int RunAdd(const Options& options, const Output& output, HANDLE interrupt)
{
    Session session(options, output, interrupt);
    CUPnPDevice& gateway = session.NeedGateway();
    CUPnPPortMap mapping = RequestedMapping(options, gateway);
    const std::string port = PortText(options.protocol, options.port);
    session.NeedAccepted("to map " + port, gateway.AddPortMap(interrupt, &mapping), gateway);

    Json result = {{"result", UPnPSuccess}};
    result.update(MappingFacts(mapping));
    result["gateway"] = GatewayFacts(gateway);
    output.Value(result);
    output.Line("mapped " + MappingLine(result));
    return UPnPSuccess;
}

int RunDelete(const Options& options, const Output& output, HANDLE interrupt)
{
    Session session(options, output, interrupt);
    CUPnPDevice& gateway = session.NeedGateway();
    const std::string port = PortText(options.protocol, options.port);
    const bool answered = gateway.DeletePortMap(interrupt, options.port, options.protocol.c_str());
    session.NeedAccepted("to delete " + port, answered, gateway);

    output.Value({{"result", UPnPSuccess}, {"protocol", options.protocol}, {"external_port", options.port}});
    output.Line("deleted " + port);
    return UPnPSuccess;
}

} // namespace command
