#include "tavronet/upnp/UPnPPortMap.h"

#include <gtest/gtest.h>

namespace
{

CUPnPPortMap Entry(const char* externalPort, const char* enabled, const char* lease)
{
    return CUPnPPortMap("7", "r", externalPort, "UDP", externalPort, "10.0.0.2", enabled, "text", lease);
}

TEST(UPnPPortMap, ARecordToAddMapsAPortToItself)
{
    CUPnPPortMap record(8080, "UDP", "192.168.1.5", "game");
    EXPECT_STREQ(record.GetExternalPort(), L"8080");
    EXPECT_STREQ(record.GetInternalPort(), L"8080");
    EXPECT_STREQ(record.GetProtocol(), L"UDP");
    EXPECT_STREQ(record.GetInternalClient(), L"192.168.1.5");
    EXPECT_STREQ(record.GetPortMappingDescription(), L"game");
    EXPECT_STREQ(record.GetEnabled(), L"1");
    EXPECT_STREQ(record.GetLeaseDuration(), L"0");
    EXPECT_STREQ(record.GetPortMappingIndex(), L"");
    EXPECT_STREQ(record.GetRemoteHost(), L"");
    EXPECT_FALSE(record.GetAdded() || record.GetDeleted());

    record.SetAdded(true);
    record.SetEnabled("0");
    const CUPnPPortMap copy = record;
    EXPECT_TRUE(copy.GetAdded());
    EXPECT_FALSE(copy.Enabled());
}

TEST(UPnPPortMap, NumbersAreReadFromTheStartOfTheTexts)
{
    const struct
    {
        const char* text;
        unsigned int number;
    } kRows[] = {
        {"8080", 8080}, {" 80x", 80},        {"+1", 1},
        {"", 0},        {nullptr, 0},        {"true", 0},
        {"0", 0},       {"-1", 4294967295U}, {"99999999999", 2147483647U},
    };
    for (const auto& row : kRows) {
        const CUPnPPortMap entry = Entry(row.text, row.text, row.text);
        EXPECT_EQ(entry.ExternalPort(), row.number);
        EXPECT_EQ(entry.InternalPort(), row.number);
        EXPECT_EQ(entry.LeaseDuration(), row.number);
        EXPECT_EQ(entry.Enabled(), row.number != 0);
    }
}

} // namespace
