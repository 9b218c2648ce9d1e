#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Options.h"

namespace gateway
{

using Arguments = std::vector<std::pair<std::string, std::string>>; // name and value, in document order

/// The action of a request body.
struct SoapAction
{
    std::string name;
    std::string service; // the namespace of the action element
    Arguments arguments;
};

/// Reads Envelope, Body, action and arguments. @return nothing when the body is not that, or not well formed.
std::optional<SoapAction> ReadSoapAction(std::string_view body);

/// The body of a successful answer.
std::string MakeSoapAnswer(const AnswerOptions& options, const std::string& action,
                           const std::string& service, const Arguments& results);
/// The body of a fault with a code of the UPnP rules.
std::string MakeSoapFault(const AnswerOptions& options, int code);

} // namespace gateway
