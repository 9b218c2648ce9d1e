#include "HttpAnswer.h"

#include <algorithm>
#include <sstream>

namespace gateway
{

namespace
{

std::string Chunks(const std::string& body, std::size_t chunkBytes)
{
    std::ostringstream out;
    for (std::size_t at = 0; at < body.size(); at += chunkBytes) {
        const std::string chunk = body.substr(at, chunkBytes);
        out << std::hex << chunk.size() << "\r\n" << chunk << "\r\n";
    }
    out << "0\r\n\r\n";
    return out.str();
}

std::string FramingHeader(const HttpAnswer& answer, Transfer transfer)
{
    const std::size_t length = answer.body.size();
    switch (transfer) {
    case Transfer::Close: return "";
    case Transfer::Chunked:
    case Transfer::ChunkedKeepAlive: return "Transfer-Encoding: chunked\r\n";
    case Transfer::WrongLengthShort: return "Content-Length: " + std::to_string(length - length / 3) + "\r\n";
    case Transfer::WrongLengthLong: return "Content-Length: " + std::to_string(length + 100) + "\r\n";
    default: return "Content-Length: " + answer.announcedLength.value_or(std::to_string(length)) + "\r\n";
    }
}

} // namespace

std::string StatusLine(int status)
{
    const char* const reason = status == 200   ? "OK"
                               : status == 404 ? "Not Found"
                               : status == 500 ? "Internal Server Error"
                                               : "Status";
    return "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\n";
}

bool KeepsOpen(Transfer transfer)
{
    return transfer == Transfer::LengthKeepAlive || transfer == Transfer::ChunkedKeepAlive;
}

std::string FrameAnswer(const HttpAnswer& answer, const AnswerOptions& options, const std::string& server)
{
    if (options.transfer == Transfer::NoHeader)
        return answer.body;

    const bool chunked =
        options.transfer == Transfer::Chunked || options.transfer == Transfer::ChunkedKeepAlive;
    return StatusLine(answer.status) + "Content-Type: " + answer.contentType + "\r\n" +
           FramingHeader(answer, options.transfer) + "Server: " + server +
           "\r\nEXT:\r\nConnection: " + (KeepsOpen(options.transfer) ? "keep-alive" : "close") + "\r\n\r\n" +
           (chunked ? Chunks(answer.body, static_cast<std::size_t>(options.chunkBytes)) : answer.body);
}

} // namespace gateway
