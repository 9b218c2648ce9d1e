#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace command
{

using Json = nlohmann::ordered_json;

/// Why a command did not do its work, and what might help. Commands return its code, or throw it for `main` to tell.
struct Failure
{
    int code = 0; // of the flat interface
    std::string message{};
    std::vector<std::string> advice{};
    int httpStatus = 0; // what the gateway said, 0 when it said nothing
    int upnpCode = 0;
    std::string upnpText{};
};

/// Where a command writes: text for people, or one JSON value (a line each for `watch`), on the standard
/// output; why it failed on the standard error.
class Output
{
public:
    explicit Output(bool json) : m_Json(json) {}

    [[nodiscard]] bool WantsJson() const { return m_Json; }

    /// A line of text; nothing in JSON mode.
    void Line(const std::string& text) const;
    /// The value; nothing in text mode.
    void Value(const Json& value) const;
    /// The value on one line, at once; nothing in text mode.
    void Event(const Json& value) const;
    /// @return the failure's code
    int Fail(const Failure& failure) const;

private:
    const bool m_Json;
};

/// Text from the network made fit for a terminal: control characters become question marks.
std::string Printable(std::string_view text);

/// Lines with the columns aligned.
std::vector<std::string> Table(const std::vector<std::vector<std::string>>& rows);

/// One line on the standard error that is written over and over; nothing where that is no terminal.
class ProgressLine
{
public:
    explicit ProgressLine(const Output& output);
    ~ProgressLine(); // wipes it out
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    [[nodiscard]] bool Shown() const { return m_Shown; }
    void Show(const std::string& text) const;

private:
    const bool m_Shown;
};

} // namespace command
