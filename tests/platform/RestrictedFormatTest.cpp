#include "tavronet/platform/RestrictedFormat.h"

#include <gtest/gtest.h>

TEST(RestrictedFormat, AnyPatternIsSafeAndTheFirstIntegerConversionTakesTheNumber)
{
    const std::wstring width64(L"%64d"), spaces(62, L' ');
    const struct
    {
        std::wstring pattern, text; // of 42
        const char* why;
    } rows[] = {
        {L"Game %d", L"Game 42", "the plain case"},
        {L"%i %d %u", L"42 %d %u", "later conversions stay"},
        {L"%u%%|%x|%%", L"42%|%x|%", "percent signs before and behind"},
        {L"%x %%", L"2a %", "hexadecimal"},
        {L"%#X|%c", L"0X2A|%c", "with its prefix"},
        {L"%#o", L"052", "octal"},
        {L"%c\u00E9", L"*\u00E9", "a character"},
        {L"%-+6d|", L"+42   |", "flags and width"},
        {L"% 06d|", L" 00042|", "zeros behind the sign"},
        {L"%6.4d|%d", L"  0042|%d", "precision"},
        {L"%5c|", L"    *|", "a padded character"},
        {L"%#0.9c|%+#u", L"*|%+#u", "flags that mean nothing here"},
        {width64, spaces + L"42", "the widest"},
        {L"%.64x", std::wstring(62, L'0') + L"2a", "the most precise"},
        {L"%65d %.65d %d", L"%65d %.65d 42", "too wide, too precise"},
        {L"%99999999999d %.99999999999d", L"%99999999999d %.99999999999d", "far too wide"},
        {L"%s %n %p %f %ls %*d %ld %hhd", L"%s %n %p %f %ls %*d %ld %hhd", "never understood"},
        {L"100% game %d", L"100% game 42", "\"% g\" is no conversion"},
        {L"%5%d", L"%542", "only a percent sign right behind makes it plain"},
        {L"%", L"%", "cut"},
        {L"%-08.", L"%-08.", "cut"},
        {L"", L"", "empty"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(tavronet::RestrictedFormat(row.pattern.c_str(), 42).View(), row.text) << row.why;
    EXPECT_EQ(tavronet::RestrictedFormat(L"%d %%", -7), L"-7 %");
    EXPECT_EQ(tavronet::RestrictedFormat(L"%c", 0x20AC), L"\u20AC") << "whatever the locale";
}
