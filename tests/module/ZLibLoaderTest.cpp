#include "tavronet/module/ZLibLoader.h"

#include <gtest/gtest.h>

#include "tavronet/platform/DynamicLibrary.h"
#include "tavronet/socket/ZLibCompression.h"

namespace
{

TEST(ZLibLoader, BringsZlibToTheCompressorsUnlessOneOfTheThirteenEntryPointsIsMissing)
{
    EXPECT_TRUE(g_ZLibDLL.IsLoaded());
    EXPECT_EQ(tavronet::ZLibLibrary(), &g_ZLibDLL);
    EXPECT_TRUE(CZLibCompression(6).Init(15));
    for (const char* missing :
         {"zlib1.dll", "gzopen", "gzread", "gzwrite", "gzclose", "zlibVersion", "deflateInit_", "deflate",
          "deflateEnd", "inflateInit_", "inflate", "inflateEnd", "deflateInit2_", "inflateInit2_"})
    {
        tavronet::SetMissingLibraryName(missing);
        CZLibDLL library;
        tavronet::SetMissingLibraryName(nullptr);
        EXPECT_FALSE(library.IsLoaded()) << missing;
        EXPECT_EQ(library.inflateEnd(nullptr), 0) << "calls nothing";
        tavronet::SetZLibLibrary(&library);
        EXPECT_FALSE(CZLibCompression(6).Init(15)) << missing;
        tavronet::SetZLibLibrary(&g_ZLibDLL);
    }
}

TEST(ZLibLoader, ACompressorThatOutlivesZlibDoesNothing)
{
    CZLibCompression streams(6);
    BYTE* output = nullptr;
    int length = 0;
    {
        CZLibDLL library;
        tavronet::SetZLibLibrary(&library);
        ASSERT_TRUE(streams.Init(15));
        tavronet::SetZLibLibrary(nullptr);
    }
    EXPECT_FALSE(streams.Compress(nullptr, 0, &output, &length, CZLibCompression::kFinish, nullptr));
    tavronet::SetZLibLibrary(&g_ZLibDLL);
    streams.End();
}

} // namespace
