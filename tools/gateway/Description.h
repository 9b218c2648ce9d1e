#pragma once

#include <string>
#include <vector>

#include "Options.h"

namespace gateway
{

/// A service through which mappings are made, and the path where its actions are posted.
struct ConnectionService
{
    std::string type;
    std::string name; // its element of the serviceId
    std::string path;
};

/// The connection services of a model, in the order in which the description lists them.
std::vector<ConnectionService> ConnectionServices(const Model& model);

/// Whether a search for `target` is one for this gateway.
bool AnswersSearch(const Model& model, const std::string& target);

/// "uuid:..." of the device that stands `level` devices below the root.
std::string DeviceName(const Identity& identity, int level);

/// The description document. @param base "http://HOST:PORT" of the gateway as the requester sees it
std::string MakeDescription(const DescriptionOptions& options, const Identity& identity,
                            const std::string& base);

} // namespace gateway
