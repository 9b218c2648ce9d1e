#include "tavronet/upnp/ModernHttp.h"

#include <algorithm>
#include <charconv>

#include "tavronet/platform/TextConversion.h"

namespace tavronet
{

namespace
{

constexpr std::size_t kNotFound = std::string_view::npos;

/// Takes the text up to the next line feed, which is consumed. @return false when there is none.
bool TakeLine(std::string_view& rest, std::string_view& line)
{
    const std::size_t end = rest.find('\n');
    if (end == kNotFound)
        return false;
    line = Trimmed(rest.substr(0, end));
    rest.remove_prefix(end + 1);
    return true;
}

bool ReadChunkSize(std::string_view line, std::size_t& size)
{
    line = Trimmed(line);
    return std::from_chars(line.data(), line.data() + line.size(), size, 16).ec == std::errc();
}

} // namespace

std::size_t FindHeaderEnd(std::string_view message, std::size_t from)
{
    for (std::size_t end = message.find('\n', from); end != kNotFound; end = message.find('\n', end + 1)) {
        const std::string_view next = message.substr(end + 1, 2);
        if (next.starts_with('\n'))
            return end + 2;
        if (next == "\r\n")
            return end + 3;
    }
    return kNotFound;
}

int StatusOf(std::string_view header)
{
    const std::size_t blank = header.substr(0, header.find('\n')).find(' ');
    return header.starts_with("HTTP/") && blank != kNotFound ? ReadInt32(header.substr(blank)) : 0;
}

std::size_t InterimBytes(std::string_view message)
{
    std::size_t start = 0;
    while (StatusOf(message.substr(start)) / 100 == 1) {
        const std::size_t end = FindHeaderEnd(message, start);
        if (end == kNotFound)
            break;
        start = end;
    }
    return start;
}

bool FindHeaderValue(std::string_view header, std::string_view name, std::string_view& value)
{
    std::string_view line;
    while (TakeLine(header, line)) {
        const std::size_t colon = line.find(':');
        if (colon == kNotFound || !EqualNoCase(Trimmed(line.substr(0, colon)), name))
            continue;
        value = Trimmed(line.substr(colon + 1));
        return true;
    }
    return false;
}

bool IsChunked(std::string_view header)
{
    std::string_view coding;
    return FindHeaderValue(header, "transfer-encoding", coding) &&
           LowerCased(coding).find("chunked") != std::string::npos;
}

bool BeginsWithChunk(std::string_view body)
{
    std::size_t size = 0;
    return body.empty() || ReadChunkSize(body.substr(0, body.find('\n')), size);
}

bool JoinChunks(std::string_view body, ChunkScan& scan, std::string* joined)
{
    while (scan.next < body.size()) {
        const std::size_t end = body.find('\n', std::max(scan.next, scan.searched));
        if (end == kNotFound) {
            scan.searched = body.size();
            return false;
        }
        const std::string_view line = body.substr(scan.next, end - scan.next);
        const std::size_t behindLine = end + 1;
        if (scan.behindData) {
            scan.behindData = false;
            scan.next = behindLine;
            continue;
        }

        std::size_t size = 0;
        const bool isChunk = ReadChunkSize(line, size);
        if (isChunk && size == 0)
            return true; // the scan stays in front of it: asked again, it says the same
        if (joined != nullptr && isChunk)
            *joined += body.substr(behindLine, size);
        const bool canArrive = isChunk && size < kNotFound - behindLine;
        scan.next = canArrive ? behindLine + size : kNotFound;
        scan.behindData = true;
    }
    return false;
}

} // namespace tavronet
