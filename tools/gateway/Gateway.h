#pragma once

#include <string>
#include <vector>

#include "Description.h"
#include "EventLog.h"
#include "EventLoop.h"
#include "HttpAnswer.h"
#include "HttpServer.h"
#include "Options.h"
#include "SoapActions.h"
#include "SsdpResponder.h"

namespace gateway
{

/// The whole gateway: which request is for what, what the answer is, and how it is spoilt when that is
/// wanted.
class Gateway
{
public:
    Gateway(EventLoop& loop, EventLog& log, Options& options);

    /// Opens all sockets. @return what went wrong, empty when nothing did
    std::string Open();
    /// The description URLs, one per address in the order given.
    [[nodiscard]] const std::vector<std::string>& Urls() const { return m_Urls; }

    /// One command line of the driver. @return false when it is not known
    bool Command(const std::string& line);
    void Announce(const std::string& subtype) { m_Ssdp.Announce(subtype); }

private:
    HttpReply Serve(const HttpRequest& request);
    HttpAnswer AnswerDescription(const HttpRequest& request) const;
    HttpAnswer AnswerAction(const HttpRequest& request, const ConnectionService& service,
                            const SoapAction& action);
    HttpAnswer AnswerFault(int code) const;
    HttpReply Finish(HttpAnswer answer, const std::vector<std::string>& where);
    void Spoil(HttpReply& reply, const std::vector<std::string>& where);
    const ConnectionService* ServiceAt(const std::string& path) const;
    bool CommandWithText(const std::string& name, const std::string& text);

    EventLoop& m_Loop;
    EventLog& m_Log;
    Options& m_Options;
    std::vector<ConnectionService> m_Services;
    std::string m_FixedDescription; // not empty: served instead of a made one
    SoapActions m_Actions;
    HttpServer m_Http;
    SsdpResponder m_Ssdp;
    std::vector<std::string> m_Urls;
};

} // namespace gateway
