#include "tavronet/platform/String.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <map>
#include <vector>

#include "tavronet/platform/Exceptions.h"

namespace
{

TEST(String, TextOfEitherWidthAndPartsOfItselfAreAssigned)
{
    CStringW wide("gr\xC3\xBC\xC3\x9F");
    EXPECT_EQ(wide, L"grüß");
    EXPECT_EQ(CStringA(wide), "gr\xC3\xBC\xC3\x9F");
    EXPECT_EQ(CStringW(static_cast<const wchar_t*>(nullptr)), L"");
    EXPECT_EQ(CStringA("one\0two", 7).GetLength(), 7);
    EXPECT_EQ(CStringA("three", -1), "three");

    CStringA text("a long text that does not fit into the object itself");
    text = text.GetString() + 7;
    EXPECT_EQ(text, "text that does not fit into the object itself");
    text += text;
    EXPECT_EQ(text.GetLength(), 2 * 45);
    text.Format("%s-%s", text.Left(4), text.GetString() + 84);
    EXPECT_EQ(text, "text-itself");
}

TEST(String, PositionsOutOfRangeAreClamped)
{
    const CString text(L"abcabc");
    const struct
    {
        CString got;
        const wchar_t* expected;
        const char* why;
    } cuts[] = {
        {text.Left(-1), L"", "negative count"},
        {text.Left(99), L"abcabc", "more than there is"},
        {text.Right(2), L"bc", "from the end"},
        {text.Right(99), L"abcabc", "more than there is"},
        {text.Right(-3), L"", "negative count"},
        {text.Mid(4), L"bc", "to the end"},
        {text.Mid(-2, 2), L"ab", "negative start is the start"},
        {text.Mid(6, 1), L"", "at the end"},
        {text.Mid(99), L"", "behind the end"},
        {text.Mid(1, -1), L"", "negative count"},
        {text.Mid(2, INT_MAX), L"cabc", "sum beyond int"},
    };
    for (const auto& row : cuts)
        EXPECT_EQ(row.got, row.expected) << row.why;

    EXPECT_EQ(text[5], L'c');
    EXPECT_EQ(text[6], L'\0');
    EXPECT_EQ(text.GetAt(-1), L'\0');
}

TEST(String, FindsFromAStartAndFromTheEnd)
{
    const CString text(L"abcabc");
    const struct
    {
        int got;
        int expected;
        const char* why;
    } finds[] = {
        {text.Find(L"bc"), 1, "first"},
        {text.Find(L"bc", 2), 4, "next"},
        {text.Find(L"bc", 5), -1, "none behind the start"},
        {text.Find(L"abc", -7), 0, "negative start is the start"},
        {text.Find(L'c', 99), -1, "start behind the end"},
        {text.Find(L""), 0, "empty text is everywhere"},
        {text.Find(L"ABC"), -1, "exact case"},
        {text.ReverseFind(L'a'), 3, "last"},
        {text.ReverseFind(L'x'), -1, "none"},
    };
    for (const auto& row : finds)
        EXPECT_EQ(row.got, row.expected) << row.why;
}

TEST(String, ChangersTouchOnlyAsciiAndOnlyWhatTheyName)
{
    EXPECT_EQ(CString(L" \t\r\n\v\f a b \u00A0").Trim(), L"a b \u00A0")
        << "a no-break space is no white space";
    EXPECT_EQ(CString(L" \r\n ").Trim(), L"");
    EXPECT_EQ(CString(L"://host/").TrimLeft(L":/"), L"host/");
    EXPECT_EQ(CString(L"//").TrimLeft(L"/"), L"");
    EXPECT_EQ(CString(L"ÄbZ[").MakeLower(), L"Äbz[");
    EXPECT_EQ(CStringA("\xC3\xA4z{").MakeUpper(), "\xC3\xA4Z{");
    EXPECT_EQ(CString(L"abc").MakeReverse(), L"cba");
    EXPECT_EQ(CString(L"abc").Truncate(2).Truncate(7).Truncate(-1), L"");

    CString text(L"abcdef");
    EXPECT_EQ(text.Delete(1, 2), 4);
    EXPECT_EQ(text.Delete(3, 99), 3);
    EXPECT_EQ(text.Delete(3), 3) << "nothing there";
    EXPECT_EQ(text, L"ade");
}

TEST(String, ReplaceDoesNotSearchWhatItPutIn)
{
    const struct
    {
        const wchar_t* text;
        const wchar_t* oldText;
        const wchar_t* newText;
        const wchar_t* expected;
        int replaced;
    } rows[] = {
        {L"a&b&", L"&", L"&amp;", L"a&amp;b&amp;", 2},
        {L"aaaa", L"aa", L"a", L"aa", 2},
        {L"aba", L"a", nullptr, L"b", 2},
        {L"abc", L"", L"x", L"abc", 0},
        {L"abc", L"d", L"x", L"abc", 0},
    };
    for (const auto& row : rows) {
        CString text(row.text);
        EXPECT_EQ(text.Replace(row.oldText, row.newText), row.replaced) << CStringA(row.text);
        EXPECT_EQ(text, row.expected) << CStringA(row.text);
    }
}

TEST(String, FormatFillsInNumbersAndTextAndCopiesTheRest)
{
    CStringA text;
    text.Format("%d %d %u %s%%", INT_MIN, 65535U, 4294967295U, CStringA("ok"));
    EXPECT_EQ(text, "-2147483648 65535 4294967295 ok%");
    text.Format("%d|%d", LLONG_MIN, true);
    EXPECT_EQ(text, "-9223372036854775808|1");
    text.Format("100% %x %s %d %", 7, "late");
    EXPECT_EQ(text, "100% %x %s 7 %") << "text for %s is not the next argument";
}

TEST(String, OrdersAsValuesDo)
{
    EXPECT_LT(CString(L"a"), L"b");
    EXPECT_LT(CString(L"a"), L"aa");
    EXPECT_TRUE(L"b" == CString("b"));
    EXPECT_NE(CString(L"a"), L"A");
    EXPECT_EQ(CString(L"aBc").CompareNoCase(L"AbC"), 0);
    EXPECT_LT(CString(L"a").CompareNoCase(L"B"), 0);
    EXPECT_NE(CString(L"ä").CompareNoCase(L"Ä"), 0) << "letters are A-Z";

    std::map<CString, int> byName{{L"b", 2}, {"a", 1}};
    EXPECT_EQ(byName[L"a"], 1);
    EXPECT_EQ(byName.begin()->first, L"a");

    struct Named
    {
        CString name;
    };
    const std::vector<Named> list{{L"x"}, {L"y"}};
    EXPECT_EQ(std::ranges::find(list, CString(L"y"), &Named::name) - list.begin(), 1);
}

TEST(String, TextBeyondTheLimitThrowsTheMemoryException)
{
    const std::string_view endless("x", INT_MAX); // refused before a byte of it is read
    CStringA text("kept");
    try {
        text = CStringA(endless);
        FAIL() << "nothing thrown";
    } catch (CMemoryException* exception) {
        exception->Delete();
    }
    EXPECT_EQ(text, "kept");
}

} // namespace
