#pragma once

#include <fstream>
#include <iterator>
#include <string>

namespace gateway
{

/// The bytes of a file; empty when the path is empty or cannot be read.
inline std::string FileContent(const std::string& path)
{
    if (path.empty())
        return "";
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

} // namespace gateway
