#include "tavronet/platform/DynamicLibrary.h"

#include <gtest/gtest.h>

namespace
{

TEST(DynamicLibrary, OpensTheSystemsZlibUnderItsOtherName)
{
    const HANDLE first = platform::LoadLibraryW(L"zlib1.dll");
    if (first == nullptr)
        GTEST_SKIP() << "no zlib on this machine";
    const HANDLE second = platform::LoadLibraryW(L"zlib1.dll");
    EXPECT_EQ(platform::FreeLibrary(first), 1);
    EXPECT_NE(platform::GetProcAddress(second, "zlibVersion"), nullptr) << "loads are counted";
    EXPECT_EQ(platform::GetProcAddress(second, "no_such_entry"), nullptr);

    tavronet::SetMissingLibraryName("zlibVersion");
    EXPECT_EQ(platform::GetProcAddress(second, "zlibVersion"), nullptr);
    tavronet::SetMissingLibraryName("zlib1.dll");
    EXPECT_EQ(platform::LoadLibraryW(L"zlib1.dll"), nullptr);
    tavronet::SetMissingLibraryName(nullptr);
    EXPECT_EQ(platform::FreeLibrary(second), 1);
}

TEST(DynamicLibrary, WhatIsMissingIsNull)
{
    EXPECT_EQ(platform::LoadLibraryW(L"no-such-library.so.9"), nullptr);
    EXPECT_EQ(platform::LoadLibraryW(L""), nullptr) << "not the program itself";
    EXPECT_EQ(platform::LoadLibraryW(nullptr), nullptr);
    EXPECT_EQ(platform::GetProcAddress(nullptr, "malloc"), nullptr);
    EXPECT_EQ(platform::FreeLibrary(nullptr), 0);
}

} // namespace
