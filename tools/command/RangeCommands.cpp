#include "Commands.h"
#include "Options.h"
#include "Output.h"
#include "ProgressBar.h"
#include "Report.h"
#include "Session.h"

#include <tavronet/tavronet.h>

#include <algorithm>
#include <optional>

namespace command
{

namespace
{

constexpr unsigned kHighestPort = 65535;

using PortMapList = std::vector<CUPnPPortMap*>;

std::string RangeText(const Options& options)
{
    return std::to_string(options.count) + " " + options.protocol + " ports from " +
           std::to_string(options.port) + " on";
}

/// Looks at a range while it is being added, from inside the waits of the operation.
class RangeWatch
{
public:
    RangeWatch(const Options& options, const Output& output, const PortMapList& list, CUPnPDevice& gateway)
        : m_Options(options), m_List(list), m_Gateway(gateway), m_Bar(output, "Mapping", options.count)
    {
        ::SetWaitHook([](void* self) { static_cast<RangeWatch*>(self)->Look(); }, this);
    }
    ~RangeWatch() { ::SetWaitHook(nullptr, nullptr); }
    RangeWatch(const RangeWatch&) = delete;
    RangeWatch& operator=(const RangeWatch&) = delete;

    /// What the gateway said to a port that it refused.
    [[nodiscard]] const std::optional<Failure>& WhyRefused() const { return m_Refusal; }

private:
    void Look() noexcept
    {
        if (m_List.empty()) {
            m_Bar.ShowText("Looking for free ports ...");
            return;
        }
        const auto added = std::ranges::count_if(m_List, &CUPnPPortMap::GetAdded);
        m_Bar.Show(static_cast<unsigned>(added));

        // A refused range is deleted again, whose answers tell nothing about the refusal.
        constexpr int kNoSuchMapping = 714;
        const int status = m_Gateway.GetCmndRespCode();
        if (m_Refusal || status == 0 || status == kAccepted)
            return;
        if (Failure refusal = Refusal("to map " + RangeText(m_Options), m_Gateway);
            refusal.upnpCode != kNoSuchMapping)
            m_Refusal = std::move(refusal);
    }

    const Options& m_Options;
    const PortMapList& m_List;
    CUPnPDevice& m_Gateway;
    ProgressBar m_Bar;
    std::optional<Failure> m_Refusal;
};

/// A list that owns its records.
struct OwnedMappings
{
    ~OwnedMappings() { CUPnPDevice::ReleasePortMaps(records); }

    PortMapList records;
};

/// @param list what the operation left.
Failure WhyNotAdded(const Options& options, const PortMapList& list, const std::optional<Failure>& refusal,
                    const Session& session)
{
    const auto added = std::ranges::count_if(list, &CUPnPPortMap::GetAdded);
    if (session.Interrupted() || !list.empty()) {
        Failure failure = session.NoAnswer("to map " + RangeText(options));
        if (added > 0)
            failure.advice.insert(failure.advice.begin(),
                                  "tavronet delete-range " + std::to_string(list.front()->ExternalPort()) +
                                      " " + std::to_string(added) + " --protocol " + options.protocol +
                                      ", to take back what was mapped so far");
        return failure;
    }
    if (refusal)
        return *refusal;
    return {.code = UPnPFailed,
            .message = "no room for " + RangeText(options) +
                       ": there is no stretch of so many free ports up to " + std::to_string(kHighestPort),
            .advice = {"a lower port to begin with, or fewer ports; `tavronet list` shows what is taken"}};
}

} // namespace

int RunAddRange(const Options& options, const Output& output, HANDLE interrupt)
{
    Session session(options, output, interrupt);
    CUPnPDevice& gateway = session.NeedGateway();

    OwnedMappings list;
    std::optional<Failure> refusal;
    bool added = false;
    {
        const RangeWatch watch(options, output, list.records, gateway);
        added = gateway.AddPortMaps(interrupt, options.port, options.count, options.description.c_str(),
                                    list.records, options.protocol.c_str());
        refusal = watch.WhyRefused();
    }
    if (!added)
        throw WhyNotAdded(options, list.records, refusal, session);

    Json mappings = Json::array();
    for (const CUPnPPortMap* const mapping : list.records) {
        mappings.push_back(MappingFacts(*mapping));
        output.Line("mapped " + MappingLine(mappings.back()));
    }
    output.Value({{"result", UPnPSuccess},
                  {"protocol", options.protocol},
                  {"first_port", list.records.front()->ExternalPort()},
                  {"count", options.count},
                  {"mappings", mappings},
                  {"gateway", GatewayFacts(gateway)}});
    return UPnPSuccess;
}

int RunDeleteRange(const Options& options, const Output& output, HANDLE interrupt)
{
    Session session(options, output, interrupt);
    CUPnPDevice& gateway = session.NeedGateway();

    std::optional<Failure> failure; // the first
    Json deleted = Json::array();
    const unsigned end = std::min(options.port + options.count, kHighestPort + 1);
    {
        ProgressBar bar(output, "Deleting", options.count);
        for (unsigned port = options.port; port < end; ++port) {
            bar.Show(port - options.port);
            if (!gateway.DeletePortMap(interrupt, port, options.protocol.c_str())) {
                failure = session.NoAnswer("to delete " + PortText(options.protocol, port));
                break; // the others would take 10 s each
            }
            if (gateway.GetCmndRespCode() == kAccepted) {
                deleted.push_back(port);
                bar.Hide();
                output.Line("deleted " + PortText(options.protocol, port));
            } else if (!failure) {
                failure = Refusal("to delete " + PortText(options.protocol, port), gateway);
            }
        }
    }
    if (!failure && end < options.port + options.count)
        failure = {.code = UPnPFailed, .message = "there are no ports above " + std::to_string(kHighestPort)};
    if (failure) {
        failure->message += "; " + std::to_string(deleted.size()) + " of " + std::to_string(options.count) +
                            " ports were deleted";
        throw *failure;
    }
    output.Value({{"result", UPnPSuccess},
                  {"protocol", options.protocol},
                  {"first_port", options.port},
                  {"count", options.count},
                  {"deleted", deleted}});
    return UPnPSuccess;
}

} // namespace command
