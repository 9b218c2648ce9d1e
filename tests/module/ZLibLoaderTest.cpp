#include "tavronet/module/ZLibLoader.h"

#include <gtest/gtest.h>

#include "tavronet/platform/DynamicLibrary.h"
#include "tavronet/socket/ZLibCompression.h"

TEST(ZLibLoader, BringsZlibToTheCompressorsUnlessOneOfTheThirteenEntryPointsIsMissing)
{
    EXPECT_EQ(tavronet::ZLibLibrary(), &g_ZLibDLL);
    for (const char* missing :
         {"zlib1.dll", "gzopen", "gzread", "gzwrite", "gzclose", "zlibVersion", "deflateInit_", "deflate",
          "deflateEnd", "inflateInit_", "inflate", "inflateEnd", "deflateInit2_", "inflateInit2_"})
    {
        CZLibCompression outlivesIt(6);
        ASSERT_TRUE(outlivesIt.Init(15));
        tavronet::SetMissingLibraryName(missing);
        CZLibDLL library;
        tavronet::SetMissingLibraryName(nullptr);
        EXPECT_EQ(library.inflateEnd(nullptr), 0) << "calls nothing";
        for (CZLibDLL* without : {&library, static_cast<CZLibDLL*>(nullptr)}) {
            tavronet::SetZLibLibrary(without);
            EXPECT_FALSE(CZLibCompression(6).Init(15)) << missing;
        }
        BYTE* output = nullptr;
        int length = 0;
        EXPECT_FALSE(outlivesIt.Compress(nullptr, 0, &output, &length, CZLibCompression::kFinish, nullptr));
        tavronet::SetZLibLibrary(&g_ZLibDLL);
    }
}
