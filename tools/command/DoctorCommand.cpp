#include "Commands.h"
#include "HostNetwork.h"
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

/// Tells the findings in the order in which a search meets obstacles.
class Doctor
{
public:
    Doctor(const Options& options, const Output& output, HANDLE interrupt)
        : m_Options(options), m_Output(output), m_hInterrupt(interrupt)
    {
    }

    int Examine()
    {
        if (m_Options.url.empty()) {
            CheckAddresses();
            CheckMulticast();
        }
        const int result = CheckGateways();
        m_Output.Value({{"result", result}, {"checks", m_Checks}});
        return result;
    }

private:
    enum class State
    {
        Ok,
        Warning,
        Failed
    };

    void Tell(const char* check, State state, const std::string& finding, const std::string& advice = "")
    {
        const char* const kWords[] = {"ok", "warning", "failed"};
        const char* const word = kWords[static_cast<int>(state)];
        m_Checks.push_back({{"check", check}, {"state", word}, {"finding", finding}, {"try", advice}});
        m_Output.Line(std::string(word) + std::string(9 - std::string(word).size(), ' ') +
                      Printable(finding));
        if (!advice.empty())
            m_Output.Line("         try: " + Printable(advice));
    }

    void CheckAddresses()
    {
        for (const std::string& address : SearchableAddresses())
            Tell("address", State::Ok, address + " is private: gateways are searched for on its interface");
        for (const std::string& address : OtherAddresses())
            Tell("address", State::Ok, address + " is not private: no search there");
        if (SearchableAddresses().empty())
            Tell("address", State::Failed, "no interface with a private address is up",
                 "connect to the local network; a machine with a public address needs no port mapping");
    }

    void CheckMulticast()
    {
        for (const std::string& address : SearchableAddresses()) {
            const std::string problem = MulticastProblem(address);
            if (problem.empty())
                Tell("multicast", State::Ok, "multicast can leave from " + address);
            else
                Tell("multicast", State::Failed, "multicast cannot leave from " + address + ": " + problem,
                     "ip route add 239.0.0.0/8 dev INTERFACE; ip link set INTERFACE multicast on");
        }
    }

    int CheckGateways()
    {
        if (m_Options.url.empty() && SearchableAddresses().empty())
            return UPnPNoDevice; // said already
        Session session(m_Options, m_Output, m_hInterrupt);
        CUPnPDevice* const first = session.AwaitGateway();
        for (const Session::Misfit& misfit : session.Misfits())
            Tell("answer", State::Warning, misfit.url + " answered, but " + misfit.why);
        if (first == nullptr) {
            const Failure failure = session.WhyNone();
            Tell("gateway", State::Failed, failure.message);
            for (const std::string& advice : failure.advice)
                m_Output.Line("         try: " + advice);
            m_Checks.back()["try"] = failure.advice;
            return failure.code;
        }
        return CheckGateway(session, *first);
    }

    int CheckGateway(const Session& session, CUPnPDevice& gateway)
    {
        const Json facts = GatewayFacts(gateway);
        Tell("gateway", State::Ok, GatewayLine(facts));
        Tell("service", State::Ok, "it maps ports by " + facts["service"].get<std::string>());

        CString address;
        if (!gateway.GetExternalIPAddress(m_hInterrupt, address) || gateway.GetCmndRespCode() != kAccepted) {
            const Failure failure = session.NoAnswer("to tell its external address");
            Tell("control", State::Failed, failure.message, failure.advice.empty() ? "" : failure.advice[0]);
            return failure.code;
        }
        Tell("control", State::Ok, "it answers to commands");
        TellExternalAddress(CStringA(address).GetString());

        const Json mappings = ReadMappings(gateway, m_hInterrupt);
        if (!mappings.is_null())
            Tell("mappings", State::Ok, "mappings in its table: " + std::to_string(mappings.size()));
        return UPnPSuccess;
    }

    void TellExternalAddress(const std::string& address)
    {
        const bool shared = MatchesCIDR("100.64.0.0/10", address.c_str(), false);
        if (address.empty() || AddressFamily(address.c_str()) == 0 || IsAllIP(address.c_str()))
            Tell("external_address", State::Failed, "it has no address outside: '" + address + "'",
                 "is its line to the Internet up?");
        else if (shared || IsPrivateIP(address.c_str()) != 0)
            Tell("external_address", State::Warning,
                 "its address outside, " + address +
                     ", is itself behind another gateway: mappings do not reach the "
                     "Internet",
                 "map the port on that one too, or ask the provider for a public address");
        else
            Tell("external_address", State::Ok, "its address outside is " + address);
    }

    const Options& m_Options;
    const Output& m_Output;
    const HANDLE m_hInterrupt; // main's
    Json m_Checks = Json::array();
};

} // namespace

int RunDoctor(const Options& options, const Output& output, HANDLE interrupt)
{
    return Doctor(options, output, interrupt).Examine();
}

} // namespace command
