#pragma once

#include <optional>
#include <string>

#include "Options.h"

namespace gateway
{

struct HttpAnswer
{
    int status = 200;
    std::string body;
    std::string contentType = "text/xml; charset=\"utf-8\"";
    std::optional<std::string> announcedLength; // instead of the true one
};

/// The bytes of an answer, framed as the options want it.
std::string FrameAnswer(const HttpAnswer& answer, const AnswerOptions& options, const std::string& server);

/// Whether the connection stays open behind an answer framed so.
bool KeepsOpen(Transfer transfer);

std::string StatusLine(int status);

} // namespace gateway
