#include "tavronet/platform/TextConversion.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <tuple>

TEST(TextConversion, WidensUtf8AndMarksEachByteThatIsNone)
{
    const std::tuple<const char*, const wchar_t*, const char*> rows[] = {
        {"\xF4\x8F\xBF\xBF", L"\U0010FFFF", "the last code point"},
        {"a\x80z", L"a\uFFFDz", "continuation without a start"},
        {"\xC3", L"\uFFFD", "cut off at the end"},
        {"\xE2\x82z", L"\uFFFD\uFFFDz", "cut off by another character, byte by byte"},
        {"\xC0\xAF", L"\uFFFD\uFFFD", "overlong, two bytes"},
        {"\xE0\x80\xAF", L"\uFFFD\uFFFD\uFFFD", "overlong, three bytes"},
        {"\xF0\x80\x80\xAF", L"\uFFFD\uFFFD\uFFFD\uFFFD", "overlong, four bytes"},
        {"\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD", "surrogate"},
        {"\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD", "beyond the last code point"},
        {"\xC3\xC3\xBC", L"\uFFFDü", "a good character right behind a bad byte"},
    };
    for (const auto& [narrow, wide, why] : rows)
        EXPECT_EQ(Widen(narrow), wide) << why;
    EXPECT_EQ(Widen("\xC3\xBC\xC3\xBC", 3), L"ü\uFFFD") << "the length ends it";

    const wchar_t strange[] = {0x110000, 'a', 0xD800, -1, 0xDFFF, 0};
    EXPECT_EQ(Narrow(strange), "?a???");
    EXPECT_EQ(Narrow(L"a\0b", 3).View(), std::string_view("a\0b", 3));
    EXPECT_EQ(Narrow(static_cast<const wchar_t*>(nullptr), 5), "");
    EXPECT_EQ(static_cast<const char*>(tavronet::NarrowText(nullptr)), nullptr) << "no text stays no text";
}

TEST(TextConversion, EveryCharacterSurvivesTheRoundTripInBuffersOnStackAndHeap)
{
    std::wstring all;
    for (wchar_t code = 1; code <= 0x10FFFF; code = code == 0xD7FF ? 0xE000 : code + 1)
        all += code;
    EXPECT_EQ(Widen(Narrow(all)).View(), all);
    for (const std::size_t length : {0U, 127U, 128U, 129U, 1000U}) {
        const std::wstring wide(length, L'\U0001F600');
        EXPECT_STREQ(tavronet::WideText(tavronet::NarrowText(wide.c_str())), wide.c_str());
    }
}

TEST(TextConversion, TruncatedCopiesNeverHoldHalfACharacter)
{
    const std::tuple<const char*, int, const char*> rows[] = {
        {"abc", 4, "abc"},
        {"abc", 3, "ab"},
        {"abc", 1, ""},
        {"a\xC3\xBC", 4, "a\xC3\xBC"},
        {"a\xC3\xBC", 3, "a"},
        {"a\xF0\x9F\x98\x80", 5, "a"},
        {"\x80\x80\x80\x80\x80\x80", 6, "\x80\x80\x80\x80\x80"}, // no UTF-8 to be torn apart
        {nullptr, 4, ""},
        {"abc", 0, "########"},
    };
    for (const auto& [text, size, expected] : rows) {
        char buffer[9] = "########";
        tavronet::CopyTruncated(buffer, size, text);
        EXPECT_STREQ(buffer, expected);
        EXPECT_EQ(buffer[size], '#') << expected;
    }
}

TEST(TextConversion, ReadsNumbersUpToTheFirstOtherCharacter)
{
    const std::pair<const char*, int> rows[] = {
        {" \t\r\n\v\f+16abc", 16},
        {"-5", -5},
        {"- 5", 0},
        {"+-5", 0},
        {"0x10", 0},
        {"2147483648", INT_MAX},
        {"-2147483649", INT_MIN},
        {"4294967304", INT_MAX}, // does not wrap to 8
        {"-99999999999999999999999999999999999", INT_MIN},
        {nullptr, 0},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(tavronet::ReadInt32(text), expected) << expected;
        EXPECT_EQ(tavronet::ReadInt32(tavronet::WideText(text)), expected) << expected;
    }
    EXPECT_FALSE(tavronet::EqualNoCase("@", "`")) << "32 apart, and no letters";
}
