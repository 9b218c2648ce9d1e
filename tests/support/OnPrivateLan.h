#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string_view>

namespace tavronet
{

/// A test that searches: skips itself anywhere but on a private LAN, so that no other network sees its multicast.
class OnPrivateLan : public testing::Test
{
protected:
    void SetUp() override
    {
        const char* const lan = std::getenv("TAVRONET_LAN");
        if (lan == nullptr || std::string_view(lan) != "private")
            GTEST_SKIP() << "searches only on a private LAN; run under scripts/with-lan";
    }
};

} // namespace tavronet
