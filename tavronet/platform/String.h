#ifndef TAVRONET_PLATFORM_STRING_H
#define TAVRONET_PLATFORM_STRING_H

#include <compare>
#include <concepts>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>

#include "tavronet/platform/Export.h"

/// Text as a value: CStringW (also CString) holds wchar_t code points, CStringA holds UTF-8 bytes.
///
/// Either is made from text of either width; the other width is converted as UTF-8, whatever the locale. Null
/// text is empty text. Positions and lengths count code units; positions out of range are clamped, never an
/// error. Letter case is ASCII only: other characters stay as they are. White space is blank, tab, CR, LF,
/// VT, FF. Exhausted memory (and text beyond 2^31-2 units) throws CMemoryException*; the string keeps its old
/// value.
template <typename Char>
class TAVRONET_API CStringT
{
public:
    using OtherChar = std::conditional_t<std::is_same_v<Char, char>, wchar_t, char>;
    using TextView = std::basic_string_view<Char>;

    CStringT() noexcept;
    CStringT(const CStringT& other);
    CStringT(CStringT&& other) noexcept;
    CStringT(const Char* text);
    CStringT(const OtherChar* text);
    CStringT(const CStringT<OtherChar>& other);
    /// The first `length` units, zeros included; a negative length stands for "up to the terminating zero".
    CStringT(const Char* text, int length);
    explicit CStringT(Char character);
    explicit CStringT(TextView text);
    explicit CStringT(std::basic_string<Char>&& text);
    ~CStringT();

    CStringT& operator=(const CStringT& other);
    CStringT& operator=(CStringT&& other) noexcept;
    /// The text may be a part of this string.
    CStringT& operator=(const Char* text);
    CStringT& operator=(const OtherChar* text);

    int GetLength() const { return static_cast<int>(m_Text.size()); }
    bool IsEmpty() const { return m_Text.empty(); }
    void Empty();

    /// The unit at `index`; zero outside the text.
    Char GetAt(int index) const { return Has(index) ? m_Text[static_cast<std::size_t>(index)] : Char(0); }
    Char operator[](int index) const { return GetAt(index); }

    /// Terminated text, valid until this string changes or dies.
    operator const Char*() const { return m_Text.c_str(); }
    const Char* GetString() const { return m_Text.c_str(); }
    /// As GetString, for the algorithms of the standard library.
    TextView View() const { return m_Text; }

    /// Negative, 0 or positive as this text orders before, equals or orders after the other, by code unit.
    int Compare(const Char* text) const;
    int CompareNoCase(const Char* text) const;

    /// The first position at or after `start`; -1 when there is none.
    int Find(const Char* text, int start = 0) const;
    int Find(Char character, int start = 0) const;
    int ReverseFind(Char character) const;

    CStringT Left(int count) const;
    CStringT Mid(int first) const;
    CStringT Mid(int first, int count) const;
    CStringT Right(int count) const;

    /// Changers return this string.
    CStringT& Trim();
    CStringT& TrimLeft(const Char* characters);
    CStringT& MakeLower();
    CStringT& MakeUpper();
    CStringT& MakeReverse();
    /// Cuts the text to at most `length` units.
    CStringT& Truncate(int length);

    /// Removes `count` units from `index` on. @return the new length.
    int Delete(int index, int count = 1);

    /// Replaces every occurrence from left to right; what was put in is not searched again.
    /// @return how many were replaced.
    int Replace(const Char* oldText, const Char* newText);

    CStringT& operator+=(const CStringT& other) { return Append(other.m_Text); }
    CStringT& operator+=(const Char* text) { return Append(ViewOf(text)); }
    CStringT& operator+=(Char character) { return Append(TextView(&character, 1)); }

    /// One argument of Format: a number of up to 64 bits, or text of the same width.
    class FormatArgument
    {
    public:
        template <std::integral Integer>
        FormatArgument(Integer value) : m_Number(static_cast<unsigned long long>(value))
        {
            if constexpr (std::is_signed_v<Integer>)
                m_Negative = value < 0;
        }
        FormatArgument(const Char* text) : m_Text(ViewOf(text)), m_IsText(true) {}
        FormatArgument(const CStringT& text) : m_Text(text.m_Text), m_IsText(true) {}

    private:
        friend class CStringT;
        unsigned long long m_Number = 0; // two's complement
        TextView m_Text;
        bool m_Negative = false;
        bool m_IsText = false;
    };

    /// Replaces this text by the format with %d or %u (numbers, each by its own sign), %s (text of this
    /// width) and %% filled in. A conversion without a fitting argument is copied as it stands. The arguments
    /// may be parts of this string. The format is a literal of the caller, never text from outside.
    template <typename... Arguments>
    void Format(const Char* format, const Arguments&... arguments)
    {
        FormatWith(format, {FormatArgument(arguments)...});
    }

    friend CStringT operator+(const CStringT& a, const CStringT& b) { return Joined(a.m_Text, b.m_Text); }
    friend CStringT operator+(const CStringT& a, const Char* b) { return Joined(a.m_Text, ViewOf(b)); }
    friend CStringT operator+(const Char* a, const CStringT& b) { return Joined(ViewOf(a), b.m_Text); }
    friend CStringT operator+(const CStringT& a, Char b) { return Joined(a.m_Text, TextView(&b, 1)); }
    friend CStringT operator+(Char a, const CStringT& b) { return Joined(TextView(&a, 1), b.m_Text); }

    friend bool operator==(const CStringT& a, const CStringT& b) noexcept { return a.m_Text == b.m_Text; }
    friend bool operator==(const CStringT& a, const Char* b) noexcept { return a.View() == ViewOf(b); }
    friend std::strong_ordering operator<=>(const CStringT& a, const CStringT& b) noexcept
    {
        return a.Compare(b.View()) <=> 0;
    }
    friend std::strong_ordering operator<=>(const CStringT& a, const Char* b) noexcept
    {
        return a.Compare(ViewOf(b)) <=> 0;
    }

private:
    static TextView ViewOf(const Char* text) { return text == nullptr ? TextView() : TextView(text); }
    static CStringT Joined(TextView a, TextView b);

    bool Has(int index) const { return index >= 0 && static_cast<std::size_t>(index) < m_Text.size(); }
    int Compare(TextView text) const noexcept;
    CStringT& Append(TextView text);
    void FormatWith(const Char* format, std::initializer_list<FormatArgument> arguments);

    std::basic_string<Char> m_Text;
};

extern template class CStringT<wchar_t>;
extern template class CStringT<char>;

using CStringW = CStringT<wchar_t>;
using CStringA = CStringT<char>;
using CString = CStringW;

#endif
