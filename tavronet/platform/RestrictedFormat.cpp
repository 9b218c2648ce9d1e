#include "tavronet/platform/RestrictedFormat.h"

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <string_view>

namespace tavronet
{

namespace
{

constexpr int kMaxField = 64; // width and precision: a pattern must not ask for gigabytes

/// One conversion of a pattern, and the same as a format that is safe to print an int with.
struct Conversion
{
    std::size_t length = 0; // in the pattern; 0: there is none
    CStringW format;
};

/// Takes digits off the front. @return their value, cut just above the limit
int TakeNumber(std::wstring_view& text)
{
    int value = 0;
    for (; !text.empty() && text[0] >= L'0' && text[0] <= L'9'; text.remove_prefix(1))
        value = std::min(value * 10 + (text[0] - L'0'), kMaxField + 1);
    return value;
}

/// Flags of a type are left out where the C library calls their effect undefined.
std::wstring_view DefinedFlags(wchar_t type)
{
    switch (type) {
    case L'c': return L"-";
    case L'd':
    case L'i':
    case L'u': return L"-+ 0";
    default: return L"-+ 0#";
    }
}

/// @param text begins with a percent sign.
Conversion ReadConversion(std::wstring_view text)
{
    std::wstring_view rest = text.substr(1);
    const std::wstring_view flags = rest.substr(0, rest.find_first_not_of(L"-+ 0#"));
    rest.remove_prefix(flags.size());
    const int width = TakeNumber(rest);
    const bool hasPrecision = rest.starts_with(L'.');
    if (hasPrecision)
        rest.remove_prefix(1);
    const int precision = hasPrecision ? TakeNumber(rest) : 0;
    constexpr std::wstring_view kTypes = L"diuxXoc";
    if (width > kMaxField || precision > kMaxField || rest.empty() ||
        kTypes.find(rest[0]) == std::wstring_view::npos)
        return {};

    const wchar_t type = rest[0];
    CStringW format(L"%"), number;
    for (const wchar_t flag : DefinedFlags(type)) {
        if (flags.find(flag) != std::wstring_view::npos)
            format += flag;
    }
    number.Format(L"%d", width);
    if (width > 0)
        format += number;
    number.Format(L".%d", precision);
    if (hasPrecision && type != L'c')
        format += number;
    if (type == L'c')
        format += L'l'; // a character of any script; without it the locale would decide
    return {text.size() - rest.size() + 1, format + type};
}

} // namespace

CStringW RestrictedFormat(const CStringW& pattern, int number)
{
    CStringW text;
    bool filledIn = false;
    for (std::wstring_view rest = pattern.View(); !rest.empty();) {
        const bool escaped = rest.starts_with(L"%%");
        const bool mayConvert = rest[0] == L'%' && !escaped && !filledIn;
        const Conversion conversion = mayConvert ? ReadConversion(rest) : Conversion{};
        if (conversion.length == 0) {
            text += rest[0];
            rest.remove_prefix(escaped ? 2 : 1);
            continue;
        }
        wchar_t printed[kMaxField + 8] = L""; // with a sign or "0x"
        std::swprintf(printed, std::size(printed), conversion.format, number);
        text += printed;
        rest.remove_prefix(conversion.length);
        filledIn = true;
    }
    return text;
}

} // namespace tavronet
