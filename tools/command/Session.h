#pragma once

#include "Options.h"
#include "Output.h"

#include <tavronet/upnp/UPnPNetwork.h>

#include <functional>
#include <memory>
#include <vector>

namespace command
{

/// The search of one command, and the waiting for what comes of it.
///
/// Gateways stay valid while an operation runs; they may go inside Pump and AwaitGateway, which run the
/// upkeep.
class Session
{
public:
    /// Starts to search, or to read the description that the options name.
    Session(const Options& options, const Output& output, HANDLE interrupt);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Described gateways that can map ports and that the options admit, in the order in which they answered.
    [[nodiscard]] std::vector<CUPnPDevice*> Gateways() const;

    /// Waits until there is one, for the time that the options give.
    /// @return the first, one reached by IPv4 before others; null when there is none
    CUPnPDevice* AwaitGateway();
    /// The same for commands that are nothing without one. @throw Failure why there is none
    CUPnPDevice& NeedGateway();

    /// Dispatches what arrives and runs the upkeep until `done` holds, asked after each step.
    /// @return false when the time is over first, or the command was interrupted
    bool Pump(const std::function<bool()>& done, DWORD timeoutMs, const char* doing);

    [[nodiscard]] bool Interrupted() const;
    [[nodiscard]] HANDLE Interrupt() const { return m_hInterrupt; }

    /// Why there is no gateway.
    [[nodiscard]] Failure WhyNone() const;

    /// The gateway gave no answer in time, or none that could be read.
    /// @param what "to map TCP port 8080"
    [[nodiscard]] Failure NoAnswer(const std::string& what) const;
    /// For commands that end with an operation that failed.
    /// @param answered what the operation returned  @throw Failure when that is false, or the gateway refused
    void NeedAccepted(const std::string& what, bool answered, const CUPnPDevice& gateway) const;

    /// Devices that answered but are no such gateway: URL and why not.
    struct Misfit
    {
        std::string url;
        std::string why;
    };
    [[nodiscard]] std::vector<Misfit> Misfits() const;

private:
    static void OnEvent(void* context, unsigned int code, CUPnPObject* object);
    bool IsAdmitted(CUPnPDevice& device) const;
    void ReadDescriptionOf(const std::string& url);
    bool WaitStep(DWORD milliseconds);

    const Options& m_Options;
    const Output& m_Output;
    const HANDLE m_hInterrupt; // main's
    std::unique_ptr<CUPnPNetwork> m_pNetwork;
    DWORD m_TickleTick = 0;
    DWORD m_FoundTick = 0;                // when AwaitGateway was over: only exchanges have taken time since
    std::string m_UndescribedURL;         // of a device that the upkeep may have dropped since
    bool m_DescriptionUnreadable = false; // of the URL that the options name
};

} // namespace command
