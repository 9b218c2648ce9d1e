#include "Output.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace command
{

namespace
{

/// Never throws for content.
std::string Dump(const Json& value, int indent)
{
    return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

Json ToJson(const Failure& failure)
{
    Json json = {{"result", failure.code}, {"error", failure.message}, {"try", failure.advice}};
    if (failure.httpStatus != 0) {
        json["http_status"] = failure.httpStatus;
        json["upnp_code"] = failure.upnpCode;
        json["upnp_text"] = failure.upnpText;
    }
    return json;
}

/// Characters, not bytes, of UTF-8 text.
std::size_t Width(const std::string& text)
{
    return static_cast<std::size_t>(std::ranges::count_if(text, [](char c) { return (c & 0xC0) != 0x80; }));
}

} // namespace

void Output::Line(const std::string& text) const
{
    if (m_Json)
        return;
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

void Output::Value(const Json& value) const
{
    constexpr int kIndent = 2;
    if (m_Json)
        std::printf("%s\n", Dump(value, kIndent).c_str());
}

void Output::Event(const Json& value) const
{
    constexpr int kOneLine = -1;
    if (!m_Json)
        return;
    std::printf("%s\n", Dump(value, kOneLine).c_str());
    std::fflush(stdout);
}

int Output::Fail(const Failure& failure) const
{
    Value(ToJson(failure));
    std::fprintf(stderr, "tavronet: %s\n", Printable(failure.message).c_str());
    for (const std::string& advice : failure.advice)
        std::fprintf(stderr, "  try: %s\n", Printable(advice).c_str());
    return failure.code;
}

std::string Printable(std::string_view text)
{
    std::string printable(text);
    for (std::size_t i = 0; i < printable.size(); ++i) {
        const auto byte = static_cast<unsigned char>(printable[i]);
        // C2 80 to C2 9F are the second half of the control characters
        const bool control = byte < 0x20 || byte == 0x7F ||
                             (byte >= 0x80 && byte < 0xA0 && i > 0 && printable[i - 1] == '\xC2');
        if (!control)
            continue;
        if (byte >= 0x80)
            printable.erase(--i, 1);
        printable[i] = '?';
    }
    return printable;
}

std::vector<std::string> Table(const std::vector<std::vector<std::string>>& rows)
{
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t column = 0; column < row.size(); ++column)
            widths[column] = std::max(widths[column], Width(row[column]));
    }

    std::vector<std::string> lines;
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t column = 0; column < row.size(); ++column) {
            const bool last = column + 1 == row.size();
            line += row[column] + (last ? "" : std::string(widths[column] - Width(row[column]) + 2, ' '));
        }
        lines.push_back(line);
    }
    return lines;
}

ProgressLine::ProgressLine(const Output& output)
    : m_Shown(!output.WantsJson() && ::isatty(STDERR_FILENO) == 1)
{
}

ProgressLine::~ProgressLine()
{
    Show("");
}

void ProgressLine::Show(const std::string& text) const
{
    if (m_Shown)
        std::fprintf(stderr, "\r\033[K%s", text.c_str());
}

} // namespace command
