#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace tavronet
{

/// The path of a file of make-certificates, which runs when the first one is asked for.
inline std::string Certificate(const std::string& file)
{
    static const std::string directory = [] {
        const std::string made = TAVRONET_TEST_BINARY_DIR "/certificates";
        const std::string script = TAVRONET_TEST_SOURCE_DIR "/tests/openssl/make-certificates";
        EXPECT_EQ(std::system(("'" + script + "' '" + made + "' >/dev/null 2>&1").c_str()), 0);
        return made;
    }();
    return directory + "/" + file;
}

} // namespace tavronet
