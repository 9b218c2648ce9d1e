#include "Session.h"

#include "HostNetwork.h"
#include "Report.h"

#include <tavronet/tavronet.h>

#include <sys/socket.h>

#include <algorithm>
#include <cstdio>

namespace command
{

namespace
{

constexpr DWORD kTickleSpacingMs = 1000;
constexpr DWORD kProgressSpacingMs = 100;

// Mappings lead to IPv4 addresses. A gateway that was heard by IPv6 first will be heard by IPv4 at once.
constexpr DWORD kIPv4GraceMs = 300;

std::string Utf8(const CString& text)
{
    return CStringA(text).GetString();
}

std::string Seconds(DWORD milliseconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", milliseconds / 1000.0);
    return text;
}

constexpr DWORD kExchangeMs = 10000; // the longest that the library waits for an answer
constexpr char kUnreadable[] = "gives no description that can be read";

const char* const kFirewallAdvice =
    "a firewall on this machine may drop the answers, which come by unicast to a multicast search: allow UDP "
    "from port "
    "1900 of the gateway (nft add rule inet filter input udp sport 1900 accept)";

} // namespace

Session::Session(const Options& options, const Output& output, HANDLE interrupt)
    : m_Options(options), m_Output(output), m_hInterrupt(interrupt)
{
    const bool search = options.url.empty();
    const int dialect = options.classic ? UPnPDialectClassic : UPnPDialectModern;
    m_pNetwork = std::make_unique<CUPnPNetwork>(OnEvent, this, dialect, search);
    m_pNetwork->SetCancelEvent(interrupt);
    m_TickleTick = GetTickCount();
    if (!search)
        ReadDescriptionOf(options.url);
}

Session::~Session() = default;

void Session::OnEvent(void* context, unsigned int code, CUPnPObject* object)
{
    auto& self = *static_cast<Session*>(context);
    const bool read = code == UPnPEventDeviceDescribed && object->ParentDepth() == 0;
    if (read && !self.m_Options.url.empty() && !object->IsDevice())
        self.m_DescriptionUnreadable = true;
}

/// Registers a device as if it had answered a search.
void Session::ReadDescriptionOf(const std::string& url)
{
    const HttpTarget target = ParseHttpURL(url).value();
    const std::string local =
        m_Options.localAddress.empty() ? LocalAddressTowards(target) : m_Options.localAddress;
    std::string answer = "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=1800\r\nLOCATION: " + url + "\r\n\r\n";
    auto record = std::make_unique<CUPnPDevice>(nullptr, m_pNetwork.get());
    // A name stands for no source of a datagram: what the user named is reached wherever it is.
    const std::string source = AddressFamily(target.host.c_str()) != 0 ? target.host : "";
    record->Init(local.c_str(), source.c_str(), target.port, answer.data());
    m_pNetwork->NewUPnPDevice(record.release());
}

bool Session::IsAdmitted(CUPnPDevice& device) const
{
    return m_Options.localAddress.empty() || Utf8(device.GetIpAddr()) == m_Options.localAddress;
}

std::vector<CUPnPDevice*> Session::Gateways() const
{
    std::vector<CUPnPDevice*> gateways;
    for (int index = 0; CUPnPDevice* const device = m_pNetwork->GetUPnPDevice(index); ++index) {
        if (device->DiscoverComplete() && device->FindConnectionService() != nullptr && IsAdmitted(*device))
            gateways.push_back(device);
    }
    return gateways;
}

CUPnPDevice* Session::AwaitGateway()
{
    if (m_Options.url.empty() && SearchableAddresses().empty())
        return nullptr; // nothing can answer
    const auto settled = [this] { return !Gateways().empty() || m_DescriptionUnreadable; };
    Pump(settled, m_Options.TimeoutMs(), "Looking for a gateway");

    const auto isIPv4 = [](const CUPnPDevice* gateway) {
        return AddressFamily(CStringA(gateway->GetIpAddr())) == AF_INET;
    };
    const auto firstIPv4 = [&]() -> CUPnPDevice* {
        const auto gateways = Gateways();
        const auto found = std::ranges::find_if(gateways, isIPv4);
        return found != gateways.end() ? *found : nullptr;
    };
    const bool chosen = !m_Options.url.empty() || !m_Options.localAddress.empty();
    if (!chosen && !Gateways().empty() && firstIPv4() == nullptr)
        Pump([&] { return firstIPv4() != nullptr; }, kIPv4GraceMs, "Looking for a gateway");

    m_FoundTick = GetTickCount();
    const auto gateways = Gateways();
    if (gateways.empty() || Interrupted())
        return nullptr;
    CUPnPDevice* const preferred = firstIPv4();
    return preferred != nullptr && !chosen ? preferred : gateways.front();
}

CUPnPDevice& Session::NeedGateway()
{
    CUPnPDevice* const gateway = AwaitGateway();
    if (gateway == nullptr)
        throw WhyNone();
    return *gateway;
}

bool Session::Pump(const std::function<bool()>& done, DWORD timeoutMs, const char* doing)
{
    const ProgressLine progress(m_Output);
    const DWORD start = GetTickCount();
    DispatchPending();
    while (!done()) {
        const DWORD elapsed = ElapsedMs(GetTickCount(), start);
        if (elapsed >= timeoutMs)
            return false;
        progress.Show(std::string(doing) + " ... " + Seconds(elapsed));
        const DWORD step = progress.Shown() ? kProgressSpacingMs : kTickleSpacingMs;
        if (!WaitStep(std::min(step, timeoutMs - elapsed)))
            return false;
    }
    return true;
}

/// @return false when the command was interrupted
bool Session::WaitStep(DWORD milliseconds)
{
    const DWORD outcome = MsgWaitForMultipleObjectsEx(1, &m_hInterrupt, milliseconds, kWakeOnAnyInput, 0);
    if (outcome == WAIT_OBJECT_0 || outcome == WAIT_FAILED)
        return false;
    DispatchPending();
    if (ElapsedMs(GetTickCount(), m_TickleTick) >= kTickleSpacingMs) {
        m_TickleTick = GetTickCount();
        for (int index = 0; CUPnPDevice* const device = m_pNetwork->GetUPnPDevice(index); ++index) {
            if (m_UndescribedURL.empty() && !device->DiscoverComplete())
                m_UndescribedURL = Utf8(device->GetDescURL());
        }
        m_pNetwork->Tickle();
    }
    return true;
}

bool Session::Interrupted() const
{
    return MsgWaitForMultipleObjectsEx(1, &m_hInterrupt, 0, kWakeOnAnyInput, 0) == WAIT_OBJECT_0;
}

std::vector<Session::Misfit> Session::Misfits() const
{
    std::vector<Misfit> misfits;
    for (int index = 0; CUPnPDevice* const device = m_pNetwork->GetUPnPDevice(index); ++index) {
        const std::string url = Utf8(device->GetDescURL());
        if (!IsAdmitted(*device))
            misfits.push_back({url, "is reached from " + Utf8(device->GetIpAddr())});
        else if (!device->DiscoverComplete())
            misfits.push_back({url, kUnreadable});
        else if (device->FindConnectionService() == nullptr)
            misfits.push_back({url, "has no service that maps ports"});
    }
    if (misfits.empty() && !m_UndescribedURL.empty())
        misfits.push_back({m_UndescribedURL, kUnreadable});
    return misfits;
}

Failure Session::NoAnswer(const std::string& what) const
{
    if (Interrupted())
        return {.code = UPnPCancelled, .message = "interrupted"};
    const bool inTime = ElapsedMs(GetTickCount(), m_FoundTick) < kExchangeMs;
    return {.code = UPnPFailed,
            .message = "the gateway did not answer when asked " + what + ": " +
                       (inTime ? "the connection failed, or was closed without an answer that could be read"
                               : "no answer within 10 s, or none that could be read"),
            .advice = {"the same again; `tavronet doctor` shows what works"}};
}

void Session::NeedAccepted(const std::string& what, bool answered, const CUPnPDevice& gateway) const
{
    if (!answered)
        throw NoAnswer(what);
    if (gateway.GetCmndRespCode() != kAccepted)
        throw Refusal(what, gateway);
}

Failure Session::WhyNone() const
{
    if (Interrupted())
        return {.code = UPnPCancelled, .message = "interrupted"};

    Failure failure{.code = UPnPNoDevice};
    if (const auto misfits = Misfits(); !misfits.empty()) {
        failure.message = "no usable gateway: " + misfits[0].url + " " + misfits[0].why;
        if (m_Options.classic)
            failure.advice.emplace_back("without --classic");
        if (!m_Options.localAddress.empty())
            failure.advice.emplace_back("without --interface");
        failure.advice.emplace_back("`tavronet doctor` shows all that answers");
    } else if (m_Options.url.empty() && SearchableAddresses().empty()) {
        failure.message =
            "no interface with a private address (192.168.x.x, 172.16-31.x.x, 10.x.x.x, fcxx:, fdxx:) "
            "is up: there is nowhere to search";
        failure.advice = {
            "connect to the local network; a machine with a public address needs no port mapping"};
    } else {
        failure.message = "no gateway answered within " + Seconds(m_Options.TimeoutMs());
        failure.advice = {"switch UPnP on in the settings of the gateway", kFirewallAdvice,
                          "--url, when you know where its description is", "`tavronet doctor`"};
    }
    return failure;
}

} // namespace command
