#pragma once

#include <string>

namespace tavronet
{

/// The path of a file of make-certificates, which runs when its files are not there yet.
std::string Certificate(const std::string& file);

} // namespace tavronet
