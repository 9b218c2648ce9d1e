#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace gateway
{

enum class Fault
{
    Delay,
    Refuse,
    RefuseAction,
    Status,
    CloseEarly,
    Reset,
    NeverAnswer,
    Garbage,
    EndlessBody,
    EndlessHeader,
    Slow,
    ContentLength,
    RawAnswer,
};

/// How one fault is asked for; the table of these is the documentation.
struct FaultForm
{
    Fault fault;
    const char* name;   // of the option, without the dashes
    const char* syntax; // of its argument
    const char* help;
    bool hasValue;
};

/// The faults that the gateway was asked for, each for some requests only and for a number of times or
/// always.
class Misbehaviour
{
public:
    static std::span<const FaultForm> Forms();

    /// Adds "WHERE[:VALUE][:TIMES]". @return false when the text is not of the fault's form.
    bool Add(const FaultForm& form, const std::string& text);
    void Clear() { m_Rules.clear(); }

    /// The value of the first rule that hits a request, and one use less of it.
    /// @param where the names under which the request may be meant, for instance "all", "soap",
    /// "AddPortMapping"
    std::optional<std::string> Take(Fault fault, const std::vector<std::string>& where);
    /// The error code to refuse a mapping of `port` with.
    std::optional<int> TakeRefusal(unsigned port);

private:
    struct Rule
    {
        Fault fault;
        std::string where;
        std::string value;
        int timesLeft; // -1: always
    };

    static bool Use(Rule& rule);

    std::vector<Rule> m_Rules;
};

} // namespace gateway
