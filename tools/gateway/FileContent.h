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

/// `text` with every `placeholder` replaced by `value`.
inline std::string Filled(std::string text, const std::string& placeholder, const std::string& value)
{
    for (std::size_t at = text.find(placeholder); at != std::string::npos;
         at = text.find(placeholder, at + value.size()))
        text.replace(at, placeholder.size(), value);
    return text;
}

} // namespace gateway
