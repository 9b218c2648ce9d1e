#include "Commands.h"
#include "Options.h"
#include "Output.h"
#include "Report.h"
#include "Session.h"

#include <tavronet/tavronet.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <limits>
#include <map>
#include <tuple>

namespace command
{

namespace
{

constexpr DWORD kLongest = std::numeric_limits<DWORD>::max() / 2; // three weeks and a half

std::string FormatTime(const char* format, const std::tm& time)
{
    char text[64];
    return {text, std::strftime(text, sizeof text, format, &time)};
}

DWORD Milliseconds(double seconds)
{
    return static_cast<DWORD>(std::min(seconds * 1000, static_cast<double>(kLongest)));
}

/// Compares what gateways say with what they said before, and tells the difference.
class Watcher
{
public:
    Watcher(Session& session, const Output& output) : m_Session(session), m_Output(output) {}

    /// One exchange after the other with each gateway.
    void Look()
    {
        m_Verified = 0;
        const auto gateways = m_Session.Gateways();
        ForgetAllBut(gateways);
        for (CUPnPDevice* const gateway : gateways)
            LookAt(*gateway);
    }

    /// Whether a gateway has come or gone since the last look.
    [[nodiscard]] bool Outdated() const
    {
        const auto gateways = m_Session.Gateways();
        return gateways.size() != m_Known.size() ||
               std::ranges::any_of(gateways, [this](CUPnPDevice* g) { return !m_Known.contains(KeyOf(*g)); });
    }

    /// "Watching 1 gateway, 3 mappings verified".
    [[nodiscard]] std::string Summary() const
    {
        const auto counted = [](std::size_t count, const char* what) {
            return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
        };
        return "Watching " + counted(m_Known.size(), "gateway") + ", " + counted(m_Verified, "mapping") +
               " verified";
    }

private:
    using Place = std::tuple<std::string, unsigned, std::string>; // protocol, port, remote host
    using Mappings = std::map<Place, Json>;

    struct Known
    {
        Json facts;
        Mappings mappings;
        std::string externalAddress;
    };

    static Place PlaceOf(const Json& mapping)
    {
        return {mapping.at("protocol").get<std::string>(), mapping.at("external_port").get<unsigned>(),
                mapping.at("remote_host").get<std::string>()};
    }

    /// Whether the same mapping stands there; what is left of its lease does not count.
    static bool Has(const Mappings& mappings, const Place& place, const Json& mapping)
    {
        const auto found = mappings.find(place);
        if (found == mappings.end())
            return false;
        const auto same = [&](const char* field) { return found->second.at(field) == mapping.at(field); };
        return same("internal_client") && same("internal_port") && same("description") && same("enabled");
    }

    static std::string KeyOf(const CUPnPDevice& gateway)
    {
        return CStringA(gateway.GetDescURL() + L" " + gateway.GetIpAddr()).GetString();
    }

    void ForgetAllBut(const std::vector<CUPnPDevice*>& gateways)
    {
        std::erase_if(m_Known, [&](const auto& known) {
            const bool here =
                std::ranges::any_of(gateways, [&](CUPnPDevice* g) { return KeyOf(*g) == known.first; });
            if (!here)
                Tell("gateway_gone", known.second, known.second.facts,
                     "gone: " + GatewayLine(known.second.facts));
            return !here;
        });
    }

    void LookAt(CUPnPDevice& gateway)
    {
        const auto [entry, isNew] = m_Known.try_emplace(KeyOf(gateway));
        Known& known = entry->second;
        if (isNew) {
            known.facts = GatewayFacts(gateway);
            Tell("gateway_found", known, known.facts, "found: " + GatewayLine(known.facts));
        }
        CompareAddress(gateway, known);
        CompareMappings(gateway, known);
    }

    void CompareAddress(CUPnPDevice& gateway, Known& known)
    {
        CString address;
        if (!gateway.GetExternalIPAddress(m_Session.Interrupt(), address) ||
            gateway.GetCmndRespCode() != kAccepted)
            return;
        const std::string now = CStringA(address).GetString();
        if (now != std::exchange(known.externalAddress, now))
            Tell("external_address", known, now, "external address: " + Printable(now));
    }

    void CompareMappings(CUPnPDevice& gateway, Known& known)
    {
        const Json table = ReadMappings(gateway, m_Session.Interrupt());
        if (table.is_null()) // it is dropped by the upkeep, which tells it gone
            return;
        Mappings now;
        for (const Json& mapping : table)
            now.try_emplace(PlaceOf(mapping), mapping);
        std::size_t verified = 0;
        for (const auto& [place, mapping] : known.mappings) {
            if (m_Session.Interrupted()) // a table can have 65536 entries, and each a line
                return;
            const bool isOurs = mapping.at("internal_client") == known.facts.at("local_address");
            if (Has(now, place, mapping))
                ++verified;
            else if (isOurs)
                Tell("mapping_lost", known, mapping, "lost: " + MappingLine(mapping));
            else
                Tell("mapping_removed", known, mapping, "removed: " + MappingLine(mapping));
        }
        if (verified > 0)
            TellProgram("mappings_verified", known, verified);
        m_Verified += verified;
        for (const auto& [place, mapping] : now) {
            if (m_Session.Interrupted())
                return;
            if (!Has(known.mappings, place, mapping))
                Tell("mapping_added", known, mapping, "added: " + MappingLine(mapping));
        }
        known.mappings = std::move(now);
    }

    void Tell(const char* event, const Known& gateway, const Json& value, const std::string& line)
    {
        TellProgram(event, gateway, value);
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        ::localtime_r(&now, &local);
        m_Output.Line(FormatTime("%H:%M:%S  ", local) + line);
    }

    /// What would flood a page; on a terminal people see it in the progress line.
    void TellProgram(const char* event, const Known& gateway, const Json& value)
    {
        const std::time_t now = std::time(nullptr);
        std::tm universal{};
        ::gmtime_r(&now, &universal);
        m_Output.Event({{"time", FormatTime("%Y-%m-%dT%H:%M:%SZ", universal)},
                        {"event", event},
                        {"gateway", gateway.facts.at("description_url")},
                        {"value", value}});
    }

    Session& m_Session;
    const Output& m_Output;
    std::map<std::string, Known> m_Known;
    std::size_t m_Verified = 0; // mappings that the last look found as they were before
};

} // namespace

int RunWatch(const Options& options, const Output& output, HANDLE interrupt)
{
    const DWORD start = GetTickCount();
    const DWORD wholeMs = options.watchSeconds > 0 ? Milliseconds(options.watchSeconds) : kLongest;
    const auto left = [&] {
        const DWORD elapsed = ElapsedMs(GetTickCount(), start);
        return options.watchSeconds > 0 ? wholeMs - std::min(wholeMs, elapsed) : kLongest;
    };

    Session session(options, output, interrupt);
    Watcher watcher(session, output);
    while (left() > 0 && !session.Interrupted()) {
        session.Pump([&] { return watcher.Outdated(); },
                     std::min(left(), Milliseconds(options.intervalSeconds)), watcher.Summary().c_str());
        if (!session.Interrupted())
            watcher.Look();
    }
    return UPnPSuccess;
}

} // namespace command
