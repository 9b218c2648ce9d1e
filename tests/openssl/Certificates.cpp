#include "tests/openssl/Certificates.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace tavronet
{

std::string Certificate(const std::string& file)
{
    static const std::string directory = [] {
        const std::string made = TAVRONET_TEST_BINARY_DIR "/certificates";
        const std::string command =
            "'" TAVRONET_TEST_SOURCE_DIR "/tests/openssl/make-certificates' '" + made + "' >/dev/null 2>&1";
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
        return made;
    }();
    return directory + "/" + file;
}

} // namespace tavronet
