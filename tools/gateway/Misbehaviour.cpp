#include "Misbehaviour.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace gateway
{

namespace
{

constexpr std::array kForms = {
    FaultForm{Fault::Delay, "delay", "WHERE:MS[:N]", "answer only after MS milliseconds", true},
    FaultForm{Fault::Refuse, "refuse", "PORT[-PORT]:CODE[:N]", "refuse mappings of these external ports",
              true},
    FaultForm{Fault::RefuseAction, "refuse-action", "ACTION:CODE[:N]", "answer with a fault of this code",
              true},
    FaultForm{Fault::Status, "status", "WHERE:STATUS[:N]", "HTTP status instead of 200 or 500", true},
    FaultForm{Fault::CloseEarly, "close-early", "WHERE:BYTES[:N]", "close after BYTES bytes of the answer",
              true},
    FaultForm{Fault::Reset, "reset", "WHERE:BYTES[:N]", "the same, with a connection reset", true},
    FaultForm{Fault::NeverAnswer, "never-answer", "WHERE[:N]", "take the request and stay silent", false},
    FaultForm{Fault::Garbage, "garbage", "WHERE[:N]", "answer with bytes that are no HTTP", false},
    FaultForm{Fault::EndlessBody, "endless-body", "WHERE[:N]", "a body that never ends", false},
    FaultForm{Fault::EndlessHeader, "endless-header", "WHERE[:N]", "a header that never ends", false},
    FaultForm{Fault::Slow, "slow", "WHERE:BYTES[:N]", "send BYTES bytes a second", true},
    FaultForm{Fault::ContentLength, "content-length", "WHERE:TEXT[:N]",
              "announce this length, whatever is sent", true},
    FaultForm{Fault::RawAnswer, "raw-answer", "WHERE:FILE[:N]", "send the bytes of FILE as the whole answer",
              true},
};

std::optional<int> ReadNumber(std::string_view text)
{
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || text.empty())
        return std::nullopt;
    return number;
}

std::vector<std::string> SplitAtColons(const std::string& text)
{
    std::vector<std::string> parts(1);
    for (const char c : text) {
        if (c == ':')
            parts.emplace_back();
        else
            parts.back() += c;
    }
    return parts;
}

bool ValueIsText(Fault fault)
{
    return fault == Fault::ContentLength || fault == Fault::RawAnswer;
}

bool PortIsMeant(const std::string& range, unsigned port)
{
    const std::size_t dash = range.find('-');
    const auto low = ReadNumber(std::string_view(range).substr(0, dash));
    const auto high = dash == std::string::npos ? low : ReadNumber(std::string_view(range).substr(dash + 1));
    return low && high && port >= static_cast<unsigned>(*low) && port <= static_cast<unsigned>(*high);
}

} // namespace

std::span<const FaultForm> Misbehaviour::Forms()
{
    return kForms;
}

bool Misbehaviour::Add(const FaultForm& form, const std::string& text)
{
    const std::vector<std::string> parts = SplitAtColons(text);
    const std::size_t needed = form.hasValue ? 2 : 1;
    if (parts.size() < needed || parts.size() > needed + 1 || parts[0].empty())
        return false;

    Rule rule{form.fault, parts[0], form.hasValue ? parts[1] : "", -1};
    if (form.hasValue && !ValueIsText(form.fault) && !ReadNumber(rule.value))
        return false;
    if (parts.size() > needed) {
        const auto times = ReadNumber(parts[needed]);
        if (!times || *times < 1)
            return false;
        rule.timesLeft = *times;
    }
    m_Rules.push_back(rule);
    return true;
}

std::optional<std::string> Misbehaviour::Take(Fault fault, const std::vector<std::string>& where)
{
    for (Rule& rule : m_Rules) {
        const bool meant = rule.fault == fault && std::ranges::find(where, rule.where) != where.end();
        if (meant && Use(rule))
            return rule.value;
    }
    return std::nullopt;
}

std::optional<int> Misbehaviour::TakeRefusal(unsigned port)
{
    for (Rule& rule : m_Rules) {
        if (rule.fault == Fault::Refuse && PortIsMeant(rule.where, port) && Use(rule))
            return ReadNumber(rule.value);
    }
    return std::nullopt;
}

bool Misbehaviour::Use(Rule& rule)
{
    if (rule.timesLeft == 0)
        return false;
    if (rule.timesLeft > 0)
        --rule.timesLeft;
    return true;
}

} // namespace gateway
