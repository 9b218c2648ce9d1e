#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tests/support/ChildProcess.h"

namespace tavronet
{

/// One request as the simulated gateway received it, byte for byte.
struct GatewayRequest
{
    std::string kind; // "request", "datagram" or "incomplete"
    std::string peer; // "127.0.0.1:40000"
    std::string bytes;
};

/// A simulated gateway (tavronet-gateway) that lives as long as this object. One that ends otherwise than
/// well, by a sanitizer's finding for instance, is a failure of the test.
///
/// The constructor returns when the gateway listens, or reports a failure of the test and leaves Started()
/// false. The other calls wait, where they wait, without pumping messages: pump first, then ask what the
/// gateway saw.
class GatewayProcess
{
public:
    using Place = ChildProcess::Place;

    /// @param arguments of the program. Without --address it serves HTTP only, on 127.0.0.1 at a free port.
    ///        Its log, its record of requests and the command input are set up here.
    explicit GatewayProcess(const std::vector<std::string>& arguments = {}, Place place = Place::Here);
    ~GatewayProcess();
    GatewayProcess(const GatewayProcess&) = delete;
    GatewayProcess& operator=(const GatewayProcess&) = delete;

    [[nodiscard]] bool Started() const { return !m_Urls.empty(); }

    /// URL of the description, for the n-th --address.
    [[nodiscard]] std::string Url(std::size_t n = 0) const { return n < m_Urls.size() ? m_Urls[n] : ""; }
    /// The HTTP port; all addresses have the same.
    [[nodiscard]] unsigned Port() const;

    /// Sends one command line ("byebye", "clear", "fault delay soap:500" ...) and waits until it is obeyed.
    /// @return false when the gateway did not understand it
    bool Command(const std::string& line);
    /// How many lines of the log contain `text`.
    [[nodiscard]] int Logged(std::string_view text) const;
    /// Waits until `count` lines of the log contain `text`. @return false when that takes longer
    [[nodiscard]] bool WaitForLog(std::string_view text, int count = 1, int timeoutMs = 5000) const;

    /// Everything that was sent to the gateway so far, in order of arrival.
    [[nodiscard]] std::vector<GatewayRequest> Requests() const;

private:
    std::string m_Folder; // temporary, removed at the end
    ChildProcess m_Process;
    std::vector<std::string> m_Urls;
};

} // namespace tavronet
