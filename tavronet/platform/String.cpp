#include "tavronet/platform/String.h"

#include <algorithm>
#include <climits>
#include <new>
#include <stdexcept>

#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/TextConversion.h"

namespace
{

constexpr std::size_t kMaxLength = INT_MAX - 1;

// Runs work that allocates; every standard string operation used here is all or nothing.
template <typename Work>
auto WithMemory(Work work) -> decltype(work())
{
    try {
        return work();
    } catch (const std::bad_alloc&) {
        tavronet::ThrowMemoryException();
    } catch (const std::length_error&) {
        tavronet::ThrowMemoryException();
    }
}

template <typename Char>
std::basic_string<Char> Copied(std::basic_string_view<Char> text)
{
    if (text.size() > kMaxLength)
        tavronet::ThrowMemoryException();
    return WithMemory([&] { return std::basic_string<Char>(text); });
}

template <typename Char>
std::basic_string_view<Char> WithLength(const Char* text, int length)
{
    if (text == nullptr)
        return {};
    return length < 0 ? std::basic_string_view<Char>(text)
                      : std::basic_string_view<Char>(text, static_cast<std::size_t>(length));
}

inline CStringA ConvertedTo(const char*, const wchar_t* text)
{
    return tavronet::Narrow(text);
}

inline CStringW ConvertedTo(const wchar_t*, const char* text)
{
    return tavronet::Widen(text);
}

inline CStringA ConvertedTo(const char*, std::wstring_view text)
{
    return tavronet::Narrow(text);
}

inline CStringW ConvertedTo(const wchar_t*, std::string_view text)
{
    return tavronet::Widen(text);
}

constexpr std::size_t Clamped(int value)
{
    return value < 0 ? 0 : static_cast<std::size_t>(value);
}

// find() of the standard string knows "nothing found" as its largest number.
constexpr int Position(std::size_t found)
{
    return found == std::string::npos ? -1 : static_cast<int>(found);
}

template <typename Char>
void AppendNumber(std::basic_string<Char>& text, unsigned long long number, bool isNegative)
{
    const std::string digits = std::to_string(isNegative ? 0 - number : number);
    if (isNegative)
        text += Char('-');
    text.append(digits.begin(), digits.end());
}

} // namespace

template <typename Char>
CStringT<Char>::CStringT() noexcept = default;

template <typename Char>
CStringT<Char>::CStringT(const CStringT& other) : m_Text(Copied<Char>(other.m_Text))
{
}

template <typename Char>
CStringT<Char>::CStringT(CStringT&& other) noexcept = default;

template <typename Char>
CStringT<Char>::CStringT(const Char* text) : m_Text(Copied(ViewOf(text)))
{
}

template <typename Char>
CStringT<Char>::CStringT(const OtherChar* text)
    : CStringT(ConvertedTo(static_cast<const Char*>(nullptr), text))
{
}

template <typename Char>
CStringT<Char>::CStringT(const CStringT<OtherChar>& other)
    : CStringT(ConvertedTo(static_cast<const Char*>(nullptr), other.View()))
{
}

template <typename Char>
CStringT<Char>::CStringT(const Char* text, int length) : m_Text(Copied(WithLength(text, length)))
{
}

template <typename Char>
CStringT<Char>::CStringT(Char character) : m_Text(1, character)
{
}

template <typename Char>
CStringT<Char>::CStringT(TextView text) : m_Text(Copied(text))
{
}

template <typename Char>
CStringT<Char>::CStringT(std::basic_string<Char>&& text) : m_Text(std::move(text))
{
    if (m_Text.size() > kMaxLength)
        tavronet::ThrowMemoryException();
}

template <typename Char>
CStringT<Char>::~CStringT() = default;

template <typename Char>
CStringT<Char>& CStringT<Char>::operator=(const CStringT& other)
{
    WithMemory([&] { m_Text = other.m_Text; });
    return *this;
}

template <typename Char>
CStringT<Char>& CStringT<Char>::operator=(CStringT&& other) noexcept = default;

template <typename Char>
CStringT<Char>& CStringT<Char>::operator=(const Char* text)
{
    const TextView source = ViewOf(text);
    if (source.size() > kMaxLength)
        tavronet::ThrowMemoryException();
    WithMemory([&] { m_Text.assign(source.data(), source.size()); });
    return *this;
}

template <typename Char>
CStringT<Char>& CStringT<Char>::operator=(const OtherChar* text)
{
    return *this = CStringT(text);
}

template <typename Char>
void CStringT<Char>::Empty()
{
    m_Text = {};
}

template <typename Char>
int CStringT<Char>::Compare(TextView text) const noexcept
{
    return View().compare(text);
}

template <typename Char>
int CStringT<Char>::Compare(const Char* text) const
{
    return Compare(ViewOf(text));
}

template <typename Char>
int CStringT<Char>::CompareNoCase(const Char* text) const
{
    const TextView other = ViewOf(text);
    const auto order = std::lexicographical_compare_three_way(
        m_Text.begin(), m_Text.end(), other.begin(), other.end(),
        [](Char a, Char b) { return tavronet::LowerCase(a) <=> tavronet::LowerCase(b); });
    return order < 0 ? -1 : order > 0 ? 1 : 0;
}

template <typename Char>
int CStringT<Char>::Find(const Char* text, int start) const
{
    return Position(View().find(ViewOf(text), Clamped(start)));
}

template <typename Char>
int CStringT<Char>::Find(Char character, int start) const
{
    return Position(m_Text.find(character, Clamped(start)));
}

template <typename Char>
int CStringT<Char>::ReverseFind(Char character) const
{
    return Position(m_Text.rfind(character));
}

template <typename Char>
CStringT<Char> CStringT<Char>::Left(int count) const
{
    return CStringT(View().substr(0, Clamped(count)));
}

template <typename Char>
CStringT<Char> CStringT<Char>::Mid(int first) const
{
    return Mid(first, INT_MAX);
}

template <typename Char>
CStringT<Char> CStringT<Char>::Mid(int first, int count) const
{
    return CStringT(View().substr(std::min(Clamped(first), m_Text.size()), Clamped(count)));
}

template <typename Char>
CStringT<Char> CStringT<Char>::Right(int count) const
{
    return CStringT(View().substr(m_Text.size() - std::min(Clamped(count), m_Text.size())));
}

template <typename Char>
CStringT<Char>& CStringT<Char>::Trim()
{
    const TextView kept = tavronet::Trimmed(View());
    const std::size_t first = static_cast<std::size_t>(kept.data() - m_Text.data());
    m_Text.resize(first + kept.size());
    m_Text.erase(0, first);
    return *this;
}

template <typename Char>
CStringT<Char>& CStringT<Char>::TrimLeft(const Char* characters)
{
    m_Text.erase(0, std::min(View().find_first_not_of(ViewOf(characters)), m_Text.size()));
    return *this;
}

template <typename Char>
CStringT<Char>& CStringT<Char>::MakeLower()
{
    std::transform(m_Text.begin(), m_Text.end(), m_Text.begin(), tavronet::LowerCase<Char>);
    return *this;
}

template <typename Char>
CStringT<Char>& CStringT<Char>::MakeUpper()
{
    std::transform(m_Text.begin(), m_Text.end(), m_Text.begin(), tavronet::UpperCase<Char>);
    return *this;
}

template <typename Char>
CStringT<Char>& CStringT<Char>::MakeReverse()
{
    std::reverse(m_Text.begin(), m_Text.end());
    return *this;
}

template <typename Char>
CStringT<Char>& CStringT<Char>::Truncate(int length)
{
    m_Text.resize(std::min(Clamped(length), m_Text.size()));
    return *this;
}

template <typename Char>
int CStringT<Char>::Delete(int index, int count)
{
    if (Clamped(index) < m_Text.size())
        m_Text.erase(Clamped(index), Clamped(count));
    return GetLength();
}

template <typename Char>
int CStringT<Char>::Replace(const Char* oldText, const Char* newText)
{
    const TextView wanted = ViewOf(oldText);
    if (wanted.empty())
        return 0;

    int replaced = 0;
    CStringT result;
    std::size_t done = 0;
    for (std::size_t found = m_Text.find(wanted); found != TextView::npos; found = m_Text.find(wanted, done))
    {
        result.Append(View().substr(done, found - done));
        result.Append(ViewOf(newText));
        done = found + wanted.size();
        ++replaced;
    }
    if (replaced > 0) {
        result.Append(View().substr(done));
        *this = std::move(result);
    }
    return replaced;
}

template <typename Char>
CStringT<Char> CStringT<Char>::Joined(TextView a, TextView b)
{
    CStringT result;
    WithMemory([&] { result.m_Text.reserve(a.size() + b.size()); });
    result.Append(a);
    result.Append(b);
    return result;
}

template <typename Char>
CStringT<Char>& CStringT<Char>::Append(TextView text)
{
    if (text.size() > kMaxLength - m_Text.size())
        tavronet::ThrowMemoryException();
    WithMemory([&] { m_Text.append(text); });
    return *this;
}

template <typename Char>
void CStringT<Char>::FormatWith(const Char* format, std::initializer_list<FormatArgument> arguments)
{
    // Built aside: the arguments may point into the present text.
    std::basic_string<Char> result;
    WithMemory([&] {
        const FormatArgument* next = arguments.begin();
        for (const Char* at = format; at != nullptr && *at != Char(0); ++at) {
            const Char kind = *at == Char('%') ? at[1] : Char(0);
            const bool wantsText = kind == Char('s');
            const bool wantsNumber = kind == Char('d') || kind == Char('u');
            const bool fits = next != arguments.end() && next->m_IsText == wantsText;
            if (kind == Char('%'))
                result += kind;
            else if (wantsText && fits)
                result += next++->m_Text;
            else if (wantsNumber && fits) {
                AppendNumber(result, next->m_Number, next->m_Negative);
                ++next;
            } else {
                result += *at;
                continue;
            }
            ++at;
        }
    });
    *this = CStringT(std::move(result));
}

template class CStringT<wchar_t>;
template class CStringT<char>;
