#include "tavronet/platform/TextConversion.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

namespace
{

TEST(TextConversion, WidensUtf8AndMarksEachByteThatIsNone)
{
    const struct
    {
        const char* narrow;
        const wchar_t* wide;
        const char* why;
    } rows[] = {
        {"gr\xC3\xBC\xC3\x9F", L"grüß", "two bytes"},
        {"\xE2\x82\xAC 1", L"€ 1", "three bytes"},
        {"\xF0\x9F\x98\x80", L"\U0001F600", "four bytes are one unit"},
        {"\xF4\x8F\xBF\xBF", L"\U0010FFFF", "the last code point"},
        {"a\x80z", L"a\uFFFDz", "continuation without a start"},
        {"\xC3", L"\uFFFD", "cut off at the end"},
        {"\xE2\x82z", L"\uFFFD\uFFFDz", "cut off by another character, byte by byte"},
        {"\xC0\xAF", L"\uFFFD\uFFFD", "overlong, two bytes"},
        {"\xE0\x80\xAF", L"\uFFFD\uFFFD\uFFFD", "overlong, three bytes"},
        {"\xF0\x80\x80\xAF", L"\uFFFD\uFFFD\uFFFD\uFFFD", "overlong, four bytes"},
        {"\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD", "surrogate"},
        {"\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD", "beyond the last code point"},
        {"\xF8\x88\x80\x80\x80\xFF", L"\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD", "never part of UTF-8"},
        {"\xC3\xC3\xBC", L"\uFFFDü", "a good character right behind a bad byte"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Widen(row.narrow), row.wide) << row.why;
}

TEST(TextConversion, NarrowsWhatIsUnicodeAndMarksTheRest)
{
    EXPECT_EQ(Narrow(L"grüß € \U0001F600"), "gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x98\x80");
    const wchar_t strange[] = {0x110000, 'a', 0xD800, -1, 0xDFFF, 0};
    EXPECT_EQ(Narrow(strange), "?a???");
}

TEST(TextConversion, EveryCharacterSurvivesTheRoundTrip)
{
    std::wstring all;
    for (wchar_t code = 1; code <= 0x10FFFF; code = code == 0xD7FF ? 0xE000 : code + 1)
        all += code;
    EXPECT_EQ(Widen(Narrow(all)).View(), all);
}

TEST(TextConversion, StopsAtTheLengthAndKeepsZeros)
{
    EXPECT_EQ(Widen("\xC3\xBC\xC3\xBC", 3), L"ü\uFFFD");
    EXPECT_EQ(Narrow(L"a\0b", 3).View(), std::string_view("a\0b", 3));
    EXPECT_EQ(Narrow(L"abc", 0), "");
    EXPECT_EQ(Narrow(L"abc", -1), "abc");
    EXPECT_EQ(Narrow(static_cast<const wchar_t*>(nullptr), 5), "");
    EXPECT_EQ(Widen(static_cast<const char*>(nullptr)), L"");
}

TEST(TextConversion, BuffersOnTheStackAndOnTheHeapGiveTheSame)
{
    for (const std::size_t length : {0U, 127U, 128U, 129U, 1000U}) {
        const std::wstring wide(length, L'\U0001F600');
        const CStringA narrow = Narrow(wide);
        EXPECT_EQ(narrow.GetLength(), static_cast<int>(4 * length));
        EXPECT_STREQ(tavronet::NarrowText(wide.c_str()), narrow);
        EXPECT_STREQ(tavronet::WideText(narrow), wide.c_str());
    }
    EXPECT_EQ(static_cast<const char*>(tavronet::NarrowText(nullptr)), nullptr) << "no text stays no text";
}

TEST(TextConversion, TruncatedCopiesNeverHoldHalfACharacter)
{
    const struct
    {
        const char* text;
        int size;
        const char* expected;
        const char* why;
    } rows[] = {
        {"abc", 4, "abc", "fits"},
        {"abc", 3, "ab", "cut"},
        {"abc", 1, "", "room for the end only"},
        {"a\xC3\xBC", 4, "a\xC3\xBC", "fits"},
        {"a\xC3\xBC", 3, "a", "the character does not fit"},
        {"a\xF0\x9F\x98\x80", 5, "a", "three of four bytes fit"},
        {"\x80\x80\x80\x80\x80\x80", 6, "\x80\x80\x80\x80\x80", "no UTF-8 to be torn apart"},
        {nullptr, 4, "", "no text"},
    };
    for (const auto& row : rows) {
        char buffer[8];
        std::memset(buffer, '#', sizeof buffer);
        tavronet::CopyTruncated(buffer, row.size, row.text);
        EXPECT_STREQ(buffer, row.expected) << row.why;
        EXPECT_EQ(buffer[row.size], '#') << row.why;
    }

    char untouched = '#';
    tavronet::CopyTruncated(&untouched, 0, "abc");
    tavronet::CopyTruncated(&untouched, -1, "abc");
    tavronet::CopyTruncated(nullptr, 5, "abc");
    EXPECT_EQ(untouched, '#');
}

TEST(TextConversion, ReadsNumbersUpToTheFirstOtherCharacter)
{
    const struct
    {
        const char* text;
        int expected;
        const char* why;
    } rows[] = {
        {"16", 16, "plain"},
        {" \t\r\n\v\f+16abc", 16, "white space, sign, rest ignored"},
        {"-5", -5, "negative"},
        {"", 0, "nothing"},
        {"abc", 0, "no digits"},
        {"- 5", 0, "blank behind the sign"},
        {"+-5", 0, "one sign only"},
        {"0x10", 0, "decimal only"},
        {"007", 7, "leading zeros"},
        {"2147483647", INT_MAX, "upper limit"},
        {"2147483648", INT_MAX, "saturates"},
        {"-2147483648", INT_MIN, "lower limit"},
        {"-2147483649", INT_MIN, "saturates"},
        {"4294967304", INT_MAX, "does not wrap to 8"},
        {"99999999999999999999999999999999999", INT_MAX, "beyond 64 bits"},
        {"-99999999999999999999999999999999999", INT_MIN, "beyond 64 bits"},
        {nullptr, 0, "no text"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(tavronet::ReadInt32(row.text), row.expected) << row.why;
        EXPECT_EQ(tavronet::ReadInt32(tavronet::WideText(row.text)), row.expected) << row.why;
    }
}

TEST(TextConversion, LetterCaseIsAsciiAndKeepsPositions)
{
    EXPECT_EQ(tavronet::LowerCased("HTTP/1.1 \xC3\x84@[`{"), "http/1.1 \xC3\x84@[`{");
    EXPECT_TRUE(tavronet::EqualNoCase("Content-Length", "CONTENT-length"));
    EXPECT_FALSE(tavronet::EqualNoCase("abc", "abcd"));
    EXPECT_FALSE(tavronet::EqualNoCase("@", "`")) << "32 apart, and no letters";
}

} // namespace
