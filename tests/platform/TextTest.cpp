#include <gtest/gtest.h>

#include <climits>
#include <tuple>

#include "tavronet/platform/RestrictedFormat.h"
#include "tavronet/platform/TextConversion.h"

using tavronet::NarrowText;
using tavronet::WideText;

TEST(TextConversion, EachByteThatIsNoUtf8AndEachUnitThatIsNoCharacterIsMarked)
{
    // In rows: overlong forms, no start, beyond the last code point; a good character behind, cut off; surrogates.
    const std::pair<const char*, const wchar_t*> rows[] = {
        {"\xC0\xAF", L"\uFFFD\uFFFD"},   {"\xF0\x80\x80\xAF", L"\uFFFD\uFFFD\uFFFD\uFFFD"},
        {"a\x80z", L"a\uFFFDz"},         {"\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"},
        {"\xC3\xC3\xBC", L"\uFFFDü"},    {"\xE0\x80\xAF", L"\uFFFD\uFFFD\uFFFD"},
        {"\xE2\x82z", L"\uFFFD\uFFFDz"}, {"\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD"},
    };
    for (const auto& [narrow, wide] : rows)
        EXPECT_EQ(Widen(narrow), wide);
    EXPECT_EQ(Widen("\xC3\xBC\xC3\xBC", 3), L"ü\uFFFD") << "the length ends it";
    const wchar_t strange[] = {0x110000, 'a', 0xD800, -1, 0xDFFF, 0};
    EXPECT_EQ(Narrow(strange), "?a???");
    EXPECT_EQ(static_cast<const char*>(NarrowText(nullptr)), nullptr) << "no text stays no text";
}

TEST(TextConversion, EveryCharacterSurvivesTheRoundTripInBuffersOnStackAndHeap)
{
    std::wstring all;
    for (wchar_t code = 1; code <= 0x10FFFF; code = code == 0xD7FF ? 0xE000 : code + 1)
        all += code;
    for (const std::size_t length :
         {std::size_t{0}, std::size_t{127}, std::size_t{128}, std::size_t{129}, all.size()})
    {
        const std::wstring wide = all.substr(all.size() - length);
        EXPECT_EQ(Widen(Narrow(wide)).View(), wide);
        EXPECT_STREQ(WideText(NarrowText(wide.c_str())), wide.c_str());
    }
}

TEST(TextConversion, TruncatedCopiesNeverHoldHalfACharacter)
{
    const std::tuple<const char*, int, const char*> rows[] = {
        {"abc", 4, "abc"}, {"a\xC3\xBC", 3, "a"},         {"\x80\x80\x80", 3, "\x80\x80"},
        {nullptr, 4, ""},  {"a\xF0\x9F\x98\x80", 5, "a"}, {"a text", 0, "########"},
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
        {"- 5", 0}, {"-5", -5},   {" \t\r\n\v\f+16abc", 16}, {"4294967304", INT_MAX},
        {"+-5", 0}, {nullptr, 0}, {"2147483648", INT_MAX},   {"-2147483649", INT_MIN},
    };
    for (const auto& [text, expected] : rows)
        EXPECT_EQ(tavronet::ReadInt32(text), expected) << expected;
    EXPECT_TRUE(tavronet::EqualNoCase("Az", "aZ") && !tavronet::EqualNoCase("@", "`"));
}

TEST(String, TextOfEitherWidthAndPartsOfItselfAreAssigned)
{
    EXPECT_EQ(CStringA(CStringW("gr\xC3\xBC\xC3\x9F")), "gr\xC3\xBC\xC3\x9F");
    CStringA text("a long text that does not fit into the object itself");
    text = text.GetString() + 7;
    EXPECT_EQ(text, "text that does not fit into the object itself");
    text += text;
    text.Format("%s-%s", text.Left(4), text.GetString() + 84);
    EXPECT_EQ(text, "text-itself");
    text.Format("%d %u %s %x %s %d %", INT_MIN, 4294967295U, CStringA("ok"), 7, "late");
    EXPECT_EQ(text, "-2147483648 4294967295 ok %x %s 7 %") << "text for %s is not the next argument";
}

TEST(String, PositionsOutOfRangeAreClampedAndChangersTouchOnlyWhatTheyName)
{
    const CString abc(L"abcabc");
    EXPECT_EQ(abc.Left(-1) + L'|' + abc.Left(99) + L'|' + abc.Right(-3) + L'|' + abc.Right(99),
              L"|abcabc||abcabc");
    EXPECT_EQ(abc.Mid(-2, 2) + L'|' + abc.Mid(9, 1) + L'|' + abc.Mid(1, -1) + L'|' + abc.Mid(2),
              L"ab|||cabc");
    EXPECT_TRUE(abc.Find(L"bc", 2) == 4 && abc.Find(L"abc", -7) == 0 && abc.Find(L'c', 99) == -1);
    EXPECT_EQ(CString(L" \t\r\n\v\f a b \u00A0").Trim(), L"a b \u00A0") << "it is no white space";
    EXPECT_TRUE(CString(L"ÄbZ[").MakeLower() == L"Äbz[" && CString(L"ä").CompareNoCase(L"Ä") != 0);
    EXPECT_EQ(CString(L"//abc").TrimLeft(L"/").Truncate(2).Truncate(7), L"ab");
    CString changed(L"aaaa&");
    EXPECT_EQ(changed.Replace(L"&", L"&&"), 1) << "what it put in is not searched";
    EXPECT_TRUE(changed.Replace(L"aa", L"a") == 2 && changed.Delete(3, 99) == 3 && changed == L"aa&");
}

TEST(RestrictedFormat, AnyPatternIsSafeAndTheFirstIntegerConversionTakesTheNumber)
{
    const std::pair<const wchar_t*, const wchar_t*> rows[] = {
        {L"%#X", L"0X2A"},
        {L"%i%% %d %u%%", L"42% %d %u%"},
        {L"%s %n %f %ls %*d", L"%s %n %f %ls %*d"},
        {L"%-08.", L"%-08."},
        {L"%65d %.65d %d", L"%65d %.65d 42"},
        {L"100% game %d", L"100% game 42"},
        {L"%5%d", L"%542"},
        {L"%-+6d|% d", L"+42   |% d"},
        {L"%9999999999d", L"%9999999999d"},
        {L"%6.4u", L"  0042"},
        {L"%#05.9c\u00E9", L"    *\u00E9"},
    };
    for (const auto& [pattern, text] : rows)
        EXPECT_EQ(tavronet::RestrictedFormat(pattern, 42), text);
    EXPECT_EQ(tavronet::RestrictedFormat(L"%#.64x%", 42).GetLength(), 2 + 64 + 1) << "the longest";
    EXPECT_EQ(tavronet::RestrictedFormat(L"%c", 0x20AC), L"\u20AC") << "whatever the locale";
}
