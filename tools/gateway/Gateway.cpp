#include "Gateway.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "FileContent.h"

namespace gateway
{

namespace
{

std::string Garbage()
{
    std::string bytes;
    unsigned state = 12345;
    for (int i = 0; i < 4096; ++i) {
        state = state * 1103515245 + 12345;
        bytes += static_cast<char>(state >> 16);
    }
    return bytes;
}

/// Long enough to send it in few calls.
std::string Repeated(const std::string& line)
{
    std::string text;
    while (text.size() < 64 * 1024)
        text += line;
    return text;
}

std::string Unquoted(const std::string& text)
{
    const bool quoted = text.size() >= 2 && text.front() == '"' && text.back() == '"';
    return quoted ? text.substr(1, text.size() - 2) : text;
}

} // namespace

Gateway::Gateway(EventLoop& loop, EventLog& log, Options& options)
    : m_Loop(loop),
      m_Log(log),
      m_Options(options),
      m_Services(ConnectionServices(options.description.model)),
      m_FixedDescription(FileContent(options.description.file)),
      m_Actions(options),
      m_Http(loop, log, [this](const HttpRequest& request) { return Serve(request); }),
      m_Ssdp(loop, log, options)
{
}

std::string Gateway::Open()
{
    std::uint16_t port = m_Options.httpPort; // the first address chooses, the others take the same
    for (const std::string& text : m_Options.addresses) {
        auto address = Endpoint::Parse(text, port);
        if (!address)
            return text + " is no address";
        if (!m_Http.Listen(*address, m_Options.refuseConnections))
            return "cannot listen on " + address->Text() + ": " + std::strerror(errno);
        port = address->Port();
        m_Urls.push_back("http://" + address->UrlHost(m_Options.search.scopeInUrl) + ":" +
                         std::to_string(port) + m_Options.description.path);
        if (m_Options.search.enabled && !m_Ssdp.Open(*address, m_Urls.back()))
            return "cannot hear searches on " + address->Host() + ": " + std::strerror(errno);
    }
    return "";
}

HttpReply Gateway::Serve(const HttpRequest& request)
{
    m_Log.Event("request " + Shortened(request.method + " " + request.path) + " from " + request.peer.Text());
    if (request.method == "GET" && request.path == m_Options.description.path)
        return Finish(AnswerDescription(request), {"all", "description"});

    const ConnectionService* const service = ServiceAt(request.path);
    if (request.method != "POST" || service == nullptr)
        return Finish(HttpAnswer{404, "", "text/plain", {}}, {"all"});
    const auto action = ReadSoapAction(request.body);
    if (!action) {
        m_Log.Event("request body not understood");
        return Finish(HttpAnswer{400, "", "text/plain", {}}, {"all", "soap"});
    }
    return Finish(AnswerAction(request, *service, *action), {"all", "soap", action->name});
}

HttpAnswer Gateway::AnswerDescription(const HttpRequest& request) const
{
    HttpAnswer answer;
    const std::string base = "http://" + request.local.UrlHost(m_Options.search.scopeInUrl) + ":" +
                             std::to_string(request.local.Port());
    answer.body = m_Options.description.file.empty()
                      ? MakeDescription(m_Options.description, m_Options.identity, base)
                      : Filled(m_FixedDescription, "{base}", base);
    return answer;
}

HttpAnswer Gateway::AnswerAction(const HttpRequest& request, const ConnectionService& service,
                                 const SoapAction& action)
{
    std::string said = "soap " + action.name;
    for (const auto& [name, value] : action.arguments)
        said += " " + name + "=" + Shortened(value);
    m_Log.Event(said);

    if (const auto code = m_Options.misbehaviour.Take(Fault::RefuseAction, {"all", "soap", action.name}))
        return AnswerFault(std::stoi(*code));
    const std::string announced = Unquoted(request.Header("soapaction"));
    if (announced != service.type + "#" + action.name || action.service != service.type) {
        m_Log.Event("soap header or namespace does not fit: " + Shortened(announced));
        return AnswerFault(kInvalidAction);
    }
    Arguments results;
    if (const int code = m_Actions.Perform(action, request.peer.Host(), results); code != kSuccess)
        return AnswerFault(code);
    HttpAnswer answer;
    answer.body = MakeSoapAnswer(m_Options.answers, action.name, service.type, results);
    return answer;
}

HttpAnswer Gateway::AnswerFault(int code) const
{
    m_Log.Event("soap fault " + std::to_string(code));
    HttpAnswer answer;
    answer.status = 500;
    answer.body = MakeSoapFault(m_Options.answers, code);
    return answer;
}

/// Frames the answer, after the faults that change its content.
HttpReply Gateway::Finish(HttpAnswer answer, const std::vector<std::string>& where)
{
    Misbehaviour& faults = m_Options.misbehaviour;
    if (const auto status = faults.Take(Fault::Status, where))
        answer.status = std::stoi(*status);
    answer.announcedLength = faults.Take(Fault::ContentLength, where);
    m_Log.Event("answer " + std::to_string(answer.status) + " " + where.back());

    HttpReply reply;
    reply.bytes = FrameAnswer(answer, m_Options.answers, m_Options.identity.server);
    reply.keepOpen = KeepsOpen(m_Options.answers.transfer);
    Spoil(reply, where);
    return reply;
}

/// The faults that change how, or whether, the answer goes out.
void Gateway::Spoil(HttpReply& reply, const std::vector<std::string>& where)
{
    Misbehaviour& faults = m_Options.misbehaviour;
    if (const auto file = faults.Take(Fault::RawAnswer, where))
        reply.bytes = FileContent(*file);
    if (faults.Take(Fault::Garbage, where))
        reply.bytes = Garbage();
    if (faults.Take(Fault::EndlessBody, where)) {
        reply.bytes = StatusLine(200) + "Content-Type: text/xml\r\n\r\n";
        reply.filler = Repeated("<element>text</element>\r\n");
    }
    if (faults.Take(Fault::EndlessHeader, where)) {
        reply.bytes = StatusLine(200);
        reply.filler = Repeated("X-Header: text\r\n");
    }
    if (const auto bytes = faults.Take(Fault::CloseEarly, where)) {
        reply.bytes.resize(std::min(reply.bytes.size(), std::size_t(std::stoi(*bytes))));
        reply.keepOpen = false;
    }
    if (const auto bytes = faults.Take(Fault::Reset, where)) {
        reply.bytes.resize(std::min(reply.bytes.size(), std::size_t(std::stoi(*bytes))));
        reply.reset = true;
    }
    if (const auto ms = faults.Take(Fault::Delay, where))
        reply.delayMs = std::stoi(*ms);
    if (const auto bytes = faults.Take(Fault::Slow, where))
        reply.bytesPerSecond = std::stoi(*bytes);
    reply.silent = faults.Take(Fault::NeverAnswer, where).has_value();
}

const ConnectionService* Gateway::ServiceAt(const std::string& path) const
{
    const auto found = std::ranges::find(m_Services, path, &ConnectionService::path);
    return found == m_Services.end() ? nullptr : &*found;
}

bool Gateway::Command(const std::string& line)
{
    const std::size_t blank = line.find(' ');
    const std::string name = line.substr(0, blank);
    if (name == "byebye" || name == "alive" || name == "update")
        Announce("ssdp:" + name);
    else if (name == "clear")
        m_Actions.Table().Clear();
    else if (name == "disable")
        m_Actions.Table().DisableAll();
    else if (name == "well")
        m_Options.misbehaviour.Clear();
    else if (name == "quit")
        m_Loop.Stop();
    else if (blank == std::string::npos || !CommandWithText(name, line.substr(blank + 1)))
        return false;
    return true;
}

bool Gateway::CommandWithText(const std::string& name, const std::string& text)
{
    if (name == "external-ip")
        m_Options.identity.externalAddress = text;
    else if (name == "nat")
        m_Options.identity.natEnabled = text != "0";
    else if (name == "fault") {
        const std::size_t blank = text.find(' ');
        const auto form = std::ranges::find(Misbehaviour::Forms(), text.substr(0, blank), &FaultForm::name);
        return form != Misbehaviour::Forms().end() && blank != std::string::npos &&
               m_Options.misbehaviour.Add(*form, text.substr(blank + 1));
    } else
        return false;
    return true;
}

} // namespace gateway
