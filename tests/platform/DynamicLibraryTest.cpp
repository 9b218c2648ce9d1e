#include "tavronet/platform/DynamicLibrary.h"

#include <gtest/gtest.h>

TEST(DynamicLibrary, LoadsAreCountedAndWhatIsMissingIsNull)
{
    EXPECT_EQ(platform::LoadLibraryW(L"no-such-library.so.9"), nullptr);
    EXPECT_EQ(platform::LoadLibraryW(L""), nullptr) << "not the program itself";
    EXPECT_EQ(platform::GetProcAddress(nullptr, "malloc"), nullptr);
    const HANDLE first = platform::LoadLibraryW(L"zlib1.dll");
    if (first == nullptr)
        GTEST_SKIP() << "no zlib on this machine";
    const HANDLE second = platform::LoadLibraryW(L"zlib1.dll");
    EXPECT_EQ(platform::FreeLibrary(first), 1);
    EXPECT_NE(platform::GetProcAddress(second, "zlibVersion"), nullptr);
    EXPECT_EQ(platform::GetProcAddress(second, "no_such_entry"), nullptr);
    EXPECT_EQ(platform::FreeLibrary(second), 1);
}
