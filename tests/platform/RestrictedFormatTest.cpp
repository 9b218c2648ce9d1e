#include "tavronet/platform/RestrictedFormat.h"

#include <gtest/gtest.h>

TEST(RestrictedFormat, AnyPatternIsSafeAndTheFirstIntegerConversionTakesTheNumber)
{
    const struct
    {
        const wchar_t *pattern, *text; // of 42
        const char* why;
    } rows[] = {
        {L"%i%% %d %u%%", L"42% %d %u%", "later conversions stay"},
        {L"%#X", L"0X2A", "with its prefix"},
        {L"%#o", L"052", "octal"},
        {L"%-+6d|% d", L"+42   |% d", "flags and width"},
        {L"% 06d", L" 00042", "zeros behind the sign"},
        {L"%6.4u", L"  0042", "precision"},
        {L"%#05.9c\u00E9", L"    *\u00E9", "a character; flags that mean nothing for it"},
        {L"%65d %.65d %d", L"%65d %.65d 42", "too wide, too precise"},
        {L"%99999999999d %.99999999999d", L"%99999999999d %.99999999999d", "beyond any number"},
        {L"%s %n %p %f %ls %*d %ld", L"%s %n %p %f %ls %*d %ld", "never understood"},
        {L"100% game %d", L"100% game 42", "\"% g\" is no conversion"},
        {L"%5%d", L"%542", "only a percent sign right behind makes it plain"},
        {L"%-08.", L"%-08.", "cut"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(tavronet::RestrictedFormat(row.pattern, 42), row.text) << row.why;
    EXPECT_EQ(tavronet::RestrictedFormat(L"%#.64x%", 42).GetLength(), 2 + 64 + 1) << "the longest";
    EXPECT_EQ(tavronet::RestrictedFormat(L"%c", 0x20AC), L"\u20AC") << "whatever the locale";
}
