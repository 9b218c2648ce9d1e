#include "Commands.h"
#include "Options.h"
#include "Output.h"
#include "Report.h"
#include "Session.h"

#include <tavronet/tavronet.h>

#include <algorithm>

namespace command
{

namespace
{

// Gateways spread their answers: how long to go on listening behind the last one.
constexpr DWORD kFurtherGatewaysMs = 500;

/// Takes gateways as they are described, which is not the order in which they answered.
class Discovery
{
public:
    Discovery(const Session& session, const Output& output) : m_Session(session), m_Output(output) {}

    /// Tells of those not told of before. @return whether there were any
    bool TakeNew()
    {
        const std::size_t before = m_Found.size();
        for (CUPnPDevice* const gateway : m_Session.Gateways()) {
            const Json facts = GatewayFacts(*gateway);
            if (std::ranges::find(m_Found, facts) != m_Found.end())
                continue;
            m_Found.push_back(facts);
            m_Output.Line(GatewayLine(facts));
        }
        return m_Found.size() > before;
    }

    [[nodiscard]] const Json& Found() const { return m_Found; }

private:
    const Session& m_Session;
    const Output& m_Output;
    Json m_Found = Json::array();
};

Json DiscoverAll(Session& session, const Options& options, const Output& output)
{
    Discovery discovery(session, output);
    if (options.all) {
        const auto untilTimeIsOver = [&] {
            discovery.TakeNew();
            return false;
        };
        session.Pump(untilTimeIsOver, options.TimeoutMs(), "Listening");
        return discovery.Found();
    }
    if (session.AwaitGateway() == nullptr)
        return discovery.Found();
    discovery.TakeNew();
    const auto another = [&] { return discovery.TakeNew(); };
    while (options.url.empty() && session.Pump(another, kFurtherGatewaysMs, "Listening"))
        continue;
    return discovery.Found();
}

std::string ExternalAddressText(const std::string& address)
{
    if (IsPrivateIP(address.c_str()) == 0)
        return Printable(address);
    return Printable(address) +
           " (private: a second gateway stands behind this one, mappings do not reach the outside)";
}

} // namespace

int RunDiscover(const Options& options, const Output& output, HANDLE interrupt)
{
    Session session(options, output, interrupt);
    const Json found = DiscoverAll(session, options, output);
    if (found.empty() || session.Interrupted())
        throw session.WhyNone();
    output.Value(found);
    return UPnPSuccess;
}

int RunStatus(const Options& options, const Output& output, HANDLE interrupt)
{
    Session session(options, output, interrupt);
    CUPnPDevice& gateway = session.NeedGateway();
    CString address;
    session.NeedAccepted("to tell its external address", gateway.GetExternalIPAddress(interrupt, address),
                         gateway);
    Json facts = GatewayFacts(gateway);
    facts["external_address"] = CStringA(address).GetString();

    // Not every gateway has this action: no reason to fail.
    bool translates = false;
    const bool told = gateway.GetNATEnabled(interrupt, translates) && gateway.GetCmndRespCode() == kAccepted;
    facts["nat_enabled"] = told ? Json(translates) : Json();

    output.Value(facts);
    output.Line("gateway            " + GatewayLine(facts));
    output.Line("external address   " + ExternalAddressText(facts["external_address"]));
    output.Line(std::string("translates         ") + (told ? translates ? "yes" : "no" : "not told"));
    return UPnPSuccess;
}

int RunList(const Options& options, const Output& output, HANDLE interrupt)
{
    Session session(options, output, interrupt);
    CUPnPDevice& gateway = session.NeedGateway();
    const Json mappings = ReadMappings(gateway, interrupt);
    if (mappings.is_null())
        throw session.NoAnswer("to list its mappings");

    output.Value(mappings);
    if (mappings.empty())
        output.Line("no mappings");
    else
        for (const std::string& line : MappingTable(mappings))
            output.Line(line);
    return UPnPSuccess;
}

} // namespace command
