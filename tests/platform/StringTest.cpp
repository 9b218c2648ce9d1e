#include "tavronet/platform/String.h"

#include <gtest/gtest.h>

#include <climits>
#include <utility>

TEST(String, TextOfEitherWidthAndPartsOfItselfAreAssigned)
{
    EXPECT_EQ(CStringA(CStringW("gr\xC3\xBC\xC3\x9F")), "gr\xC3\xBC\xC3\x9F");
    EXPECT_EQ(CStringW(static_cast<const wchar_t*>(nullptr)), L"");
    CStringA text("a long text that does not fit into the object itself");
    text = text.GetString() + 7;
    EXPECT_EQ(text, "text that does not fit into the object itself");
    text += text;
    EXPECT_EQ(text.GetLength(), 2 * 45);
    text.Format("%s-%s", text.Left(4), text.GetString() + 84);
    EXPECT_EQ(text, "text-itself");
    text.Format("%d %u %s %x %s %d %", INT_MIN, 4294967295U, CStringA("ok"), 7, "late");
    EXPECT_EQ(text, "-2147483648 4294967295 ok %x %s 7 %") << "text for %s is not the next argument";
}

TEST(String, PositionsOutOfRangeAreClamped)
{
    const CString text(L"abcabc");
    const std::pair<CString, const wchar_t*> cuts[] = {
        {text.Left(-1), L""},   {text.Left(99), L"abcabc"},
        {text.Right(2), L"bc"}, {text.Right(99), L"abcabc"},
        {text.Right(-3), L""},  {text.Mid(-2, 2), L"ab"},
        {text.Mid(6, 1), L""},  {text.Mid(99), L""},
        {text.Mid(1, -1), L""}, {text.Mid(2, INT_MAX), L"cabc"},
    };
    for (const auto& [got, expected] : cuts)
        EXPECT_EQ(got, expected);
    const std::pair<int, int> finds[] = {
        {text.Find(L"bc", 2), 4},  {text.Find(L"bc", 5), -1}, {text.Find(L"abc", -7), 0},
        {text.Find(L'c', 99), -1}, {text.Find(L""), 0},       {text.ReverseFind(L'a'), 3},
    };
    for (const auto& [got, expected] : finds)
        EXPECT_EQ(got, expected);
    EXPECT_EQ(text.GetAt(-1), L'\0');
}

TEST(String, ChangersTouchOnlyAsciiAndOnlyWhatTheyName)
{
    EXPECT_EQ(CString(L" \t\r\n\v\f a b \u00A0").Trim(), L"a b \u00A0") << "it is no white space";
    EXPECT_EQ(CString(L"//").TrimLeft(L"/"), L"");
    EXPECT_EQ(CString(L"ÄbZ[").MakeLower(), L"Äbz[");
    EXPECT_NE(CString(L"ä").CompareNoCase(L"Ä"), 0) << "letters are A-Z";
    EXPECT_EQ(CString(L"abc").Truncate(2).Truncate(7).Truncate(-1), L"");
    CString text(L"aaaa&");
    EXPECT_EQ(text.Replace(L"&", L"&&"), 1) << "what it put in is not searched";
    EXPECT_EQ(text.Replace(L"aa", L"a"), 2);
    EXPECT_EQ(text.Replace(L"", L"x"), 0);
    EXPECT_EQ(text, L"aa&&");
    EXPECT_EQ(text.Delete(3, 99), 3);
}
