#pragma once

#include <string>
#include <utility>
#include <vector>

/// Sends `request` to 127.0.0.1 and reads until the peer closes, a reset comes, or nothing comes for
/// `idleMs`.
struct PlainAnswer
{
    std::string bytes;
    int connectError = 0; // errno of the connect
    bool closed = false;  // by the peer, in an orderly way
    bool reset = false;
    long long tookMs = 0;

    [[nodiscard]] std::string Body() const;
    [[nodiscard]] bool Contains(const std::string& text) const
    {
        return bytes.find(text) != std::string::npos;
    }
};
PlainAnswer Exchange(unsigned port, const std::string& request, int idleMs = 5000,
                     std::size_t most = 1 << 20);

using PlainArguments = std::vector<std::pair<std::string, std::string>>;

std::string GetRequest(const std::string& path);
/// A SOAP request as control points write it; `service` in full.
std::string ActionRequest(const std::string& path, const std::string& service, const std::string& action,
                          const PlainArguments& arguments);
/// The text of the first element of that name, its prefix included in `name`; "-" when there is none.
std::string ElementText(const std::string& document, const std::string& name);
