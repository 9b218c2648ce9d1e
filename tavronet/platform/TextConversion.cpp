#include "tavronet/platform/TextConversion.h"

#include <limits>
#include <new>
#include <stdexcept>
#include <string>

#include "tavronet/platform/Exceptions.h"

namespace tavronet
{

namespace
{

constexpr wchar_t kReplacement = 0xFFFD;
constexpr std::size_t kShortLength = 128;

// The shape of a UTF-8 sequence, told by its first byte.
struct Sequence
{
    std::size_t length;
    unsigned firstBits;
    unsigned lowest; // smaller code points have a shorter form, which alone is valid
};

constexpr Sequence SequenceOf(unsigned char first)
{
    if (first >= 0xC2 && first <= 0xDF)
        return {2, first & 0x1FU, 0x80};
    if (first >= 0xE0 && first <= 0xEF)
        return {3, first & 0x0FU, 0x800};
    if (first >= 0xF0 && first <= 0xF4)
        return {4, first & 0x07U, 0x10000};
    return {0, 0, 0};
}

constexpr bool IsCharacter(unsigned code)
{
    const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
    return code <= 0x10FFFF && !isSurrogate;
}

constexpr bool IsContinuation(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

// Decodes the sequence at the start of `text`; its length, or 0 when it is malformed or cut off.
std::size_t Decode(std::string_view text, wchar_t& character)
{
    const Sequence sequence = SequenceOf(static_cast<unsigned char>(text.front()));
    if (sequence.length == 0 || sequence.length > text.size())
        return 0;

    unsigned code = sequence.firstBits;
    for (const char byte : text.substr(1, sequence.length - 1)) {
        if (!IsContinuation(byte))
            return 0;
        code = (code << 6) | (static_cast<unsigned char>(byte) & 0x3FU);
    }
    if (code < sequence.lowest || !IsCharacter(code))
        return 0;
    character = static_cast<wchar_t>(code);
    return sequence.length;
}

// Room for as many units as `text` has bytes is enough.
std::size_t Convert(std::string_view text, wchar_t* out)
{
    wchar_t* end = out;
    for (std::size_t i = 0; i < text.size();) {
        const unsigned char byte = static_cast<unsigned char>(text[i]);
        if (byte < 0x80) {
            *end++ = static_cast<wchar_t>(byte);
            ++i;
            continue;
        }
        wchar_t character = kReplacement;
        const std::size_t used = Decode(text.substr(i), character);
        *end++ = character;
        i += used == 0 ? 1 : used;
    }
    return static_cast<std::size_t>(end - out);
}

char* Encode(unsigned code, char* end)
{
    const auto continuation = [](unsigned bits) { return static_cast<char>(0x80U | (bits & 0x3FU)); };
    if (code < 0x800) {
        *end++ = static_cast<char>(0xC0U | (code >> 6));
    } else {
        if (code < 0x10000) {
            *end++ = static_cast<char>(0xE0U | (code >> 12));
        } else {
            *end++ = static_cast<char>(0xF0U | (code >> 18));
            *end++ = continuation(code >> 12);
        }
        *end++ = continuation(code >> 6);
    }
    *end++ = continuation(code);
    return end;
}

// Room for four bytes per unit is enough.
std::size_t Convert(std::wstring_view text, char* out)
{
    char* end = out;
    for (const wchar_t unit : text) {
        const unsigned code = static_cast<unsigned>(unit);
        if (code < 0x80)
            *end++ = static_cast<char>(code);
        else if (IsCharacter(code))
            end = Encode(code, end);
        else
            *end++ = '?';
    }
    return static_cast<std::size_t>(end - out);
}

template <typename To, typename From>
CStringT<To> Converted(std::basic_string_view<From> text)
{
    constexpr std::size_t unitsPerSource = sizeof(To) == 1 ? 4 : 1;
    if (text.size() <= kShortLength) {
        To buffer[kShortLength * unitsPerSource];
        return CStringT<To>(std::basic_string_view<To>(buffer, Convert(text, buffer)));
    }
    try {
        std::basic_string<To> result(text.size() * unitsPerSource, To(0));
        result.resize(Convert(text, result.data()));
        if (unitsPerSource > 1)
            result.shrink_to_fit();
        return CStringT<To>(std::move(result));
    } catch (const std::bad_alloc&) {
        ThrowMemoryException();
    } catch (const std::length_error&) {
        ThrowMemoryException();
    }
}

template <typename Char>
std::basic_string_view<Char> ViewOf(const Char* text, int length)
{
    if (text == nullptr)
        return {};
    return length < 0 ? std::basic_string_view<Char>(text)
                      : std::basic_string_view<Char>(text, static_cast<std::size_t>(length));
}

template <typename Char>
std::int32_t ReadNumber(std::basic_string_view<Char> text)
{
    using Limits = std::numeric_limits<std::int32_t>;
    while (!text.empty() && IsWhiteSpace(text.front()))
        text.remove_prefix(1);

    const bool isNegative = !text.empty() && text.front() == Char('-');
    if (isNegative || (!text.empty() && text.front() == Char('+')))
        text.remove_prefix(1);

    const std::int64_t limit = isNegative ? -std::int64_t{Limits::min()} : std::int64_t{Limits::max()};
    std::int64_t value = 0;
    for (const Char digit : text) {
        if (digit < Char('0') || digit > Char('9'))
            break;
        value = std::min(value * 10 + (digit - Char('0')), limit);
    }
    return static_cast<std::int32_t>(isNegative ? -value : value);
}

template <typename Char>
std::basic_string<Char> LowerCopy(std::basic_string_view<Char> text)
{
    try {
        std::basic_string<Char> lower(text);
        std::transform(lower.begin(), lower.end(), lower.begin(), LowerCase<Char>);
        return lower;
    } catch (const std::bad_alloc&) {
        ThrowMemoryException();
    }
}

template <typename Char>
bool SameNoCase(std::basic_string_view<Char> a, std::basic_string_view<Char> b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](Char x, Char y) { return LowerCase(x) == LowerCase(y); });
}

} // namespace

CStringA Narrow(const wchar_t* text)
{
    return Narrow(ViewOf(text, -1));
}

CStringA Narrow(const wchar_t* text, int length)
{
    return Narrow(ViewOf(text, length));
}

CStringA Narrow(std::wstring_view text)
{
    return Converted<char>(text);
}

CStringW Widen(const char* text)
{
    return Widen(ViewOf(text, -1));
}

CStringW Widen(const char* text, int length)
{
    return Widen(ViewOf(text, length));
}

CStringW Widen(std::string_view text)
{
    return Converted<wchar_t>(text);
}

template <typename Char>
ConvertedText<Char>::ConvertedText(const Source* text)
{
    if (text == nullptr)
        return;

    const std::basic_string_view<Source> source(text);
    Char* buffer = m_Short;
    if (source.size() > kShortLength) {
        m_Long.reset(new (std::nothrow) Char[source.size() * kUnitsPerSource + 1]);
        if (m_Long == nullptr)
            ThrowMemoryException();
        buffer = m_Long.get();
    }
    buffer[Convert(source, buffer)] = Char(0);
    m_pText = buffer;
}

template class ConvertedText<char>;
template class ConvertedText<wchar_t>;

void CopyTruncated(char* buffer, int size, const char* text)
{
    if (buffer == nullptr || size <= 0)
        return;

    const std::string_view source = ViewOf(text, -1);
    std::size_t count = std::min(source.size(), static_cast<std::size_t>(size) - 1);
    if (count < source.size()) {
        std::size_t cut = count;
        while (cut > 0 && count - cut < 3 && IsContinuation(source[cut]))
            --cut;
        // More continuation bytes than any sequence has: no UTF-8, so nothing there can be torn apart.
        count = IsContinuation(source[cut]) ? count : cut;
    }
    buffer[source.copy(buffer, count)] = '\0';
}

std::string LowerCased(std::string_view text)
{
    return LowerCopy(text);
}

std::wstring LowerCased(std::wstring_view text)
{
    return LowerCopy(text);
}

bool EqualNoCase(std::string_view a, std::string_view b)
{
    return SameNoCase(a, b);
}

bool EqualNoCase(std::wstring_view a, std::wstring_view b)
{
    return SameNoCase(a, b);
}

std::int32_t ReadInt32(std::string_view text)
{
    return ReadNumber(text);
}

std::int32_t ReadInt32(std::wstring_view text)
{
    return ReadNumber(text);
}

std::int32_t ReadInt32(const char* text)
{
    return ReadNumber(ViewOf(text, -1));
}

std::int32_t ReadInt32(const wchar_t* text)
{
    return ReadNumber(ViewOf(text, -1));
}

} // namespace tavronet
