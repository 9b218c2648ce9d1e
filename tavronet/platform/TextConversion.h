/// Text rules that depend on no locale: narrow text is UTF-8, letters are A-Z, white space is ASCII.
#ifndef TAVRONET_PLATFORM_TEXTCONVERSION_H
#define TAVRONET_PLATFORM_TEXTCONVERSION_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "tavronet/platform/String.h"

namespace tavronet
{

/// UTF-8 of wide text. Never fails on content: what is no Unicode character becomes '?'. Null gives empty
/// text.
/// @param length units to convert, zeros included; negative: up to the terminating zero.
CStringA Narrow(const wchar_t* text);
CStringA Narrow(const wchar_t* text, int length);
CStringA Narrow(std::wstring_view text);

/// Code points of UTF-8 text. Never fails on content: each byte that is part of no valid sequence becomes
/// U+FFFD. Null gives empty text.
CStringW Widen(const char* text);
CStringW Widen(const char* text, int length);
CStringW Widen(std::string_view text);

/// Converted text for the length of one call; null stays null. Up to 128 units it stays on the stack:
/// `return IsAllIP(tavronet::NarrowText(text));`
template <typename Char>
class ConvertedText
{
public:
    using Source = typename CStringT<Char>::OtherChar;

    explicit ConvertedText(const Source* text);
    ConvertedText(const ConvertedText&) = delete;
    ConvertedText& operator=(const ConvertedText&) = delete;

    operator const Char*() const { return m_pText; }

private:
    static constexpr std::size_t kShortLength = 128;
    static constexpr std::size_t kUnitsPerSource = sizeof(Char) == 1 ? 4 : 1; // UTF-8 needs up to four bytes

    const Char* m_pText = nullptr;
    std::unique_ptr<Char[]> m_Long;
    Char m_Short[kShortLength * kUnitsPerSource + 1]; // not cleared
};

extern template class ConvertedText<char>;
extern template class ConvertedText<wchar_t>;

using NarrowText = ConvertedText<char>;
using WideText = ConvertedText<wchar_t>;

/// Copies as much of `text` as fits into `size` bytes with a terminating zero, never half a UTF-8 sequence.
/// A null buffer or a size of 0 or less: nothing. Null text is empty text.
void CopyTruncated(char* buffer, int size, const char* text);

/// One character to one character: A-Z only, everything else stays.
template <typename Char>
constexpr Char LowerCase(Char character)
{
    return character >= Char('A') && character <= Char('Z') ? static_cast<Char>(character + ('a' - 'A'))
                                                            : character;
}

template <typename Char>
constexpr Char UpperCase(Char character)
{
    return character >= Char('a') && character <= Char('z') ? static_cast<Char>(character - ('a' - 'A'))
                                                            : character;
}

/// A copy in lower case; of the same length, so positions found in it are positions in the original.
std::string LowerCased(std::string_view text);
std::wstring LowerCased(std::wstring_view text);

bool EqualNoCase(std::string_view a, std::string_view b);
bool EqualNoCase(std::wstring_view a, std::wstring_view b);

/// Blank, tab, CR, LF, VT, FF.
template <typename Char>
constexpr bool IsWhiteSpace(Char character)
{
    return character == Char(' ') || (character >= Char('\t') && character <= Char('\r'));
}

/// The text without white space at both ends; points into the argument.
template <typename Char>
constexpr std::basic_string_view<Char> Trimmed(std::basic_string_view<Char> text)
{
    while (!text.empty() && IsWhiteSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && IsWhiteSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

/// The number at the start of the text: white space, a sign, decimal digits up to the first other character.
/// 0 without digits; beyond 32 bits the nearest limit. Null is 0.
std::int32_t ReadInt32(std::string_view text);
std::int32_t ReadInt32(std::wstring_view text);
std::int32_t ReadInt32(const char* text);
std::int32_t ReadInt32(const wchar_t* text);

} // namespace tavronet

// So frequent, and so clear, that classes outside the namespace may use them bare.
using tavronet::Narrow;
using tavronet::Widen;

#endif
