#include "tavronet/upnp/UPnPDevice.h"

#include <gtest/gtest.h>
#include <string>

#include "tavronet/platform/TextConversion.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/upnp/DescriptionBuilder.h"

namespace
{

std::string Text(const CString& wide)
{
    return std::string(Narrow(wide).View());
}

void Fill(CUPnPDevice& device, std::string headers)
{
    headers = "NOTIFY * HTTP/1.1\r\n" + headers + "\r\n";
    device.Init("192.168.1.2", "192.168.1.1", 1900, headers.data());
}

/// A clock that the test moves.
class UPnPDeviceClock : public testing::Test
{
protected:
    UPnPDeviceClock()
    {
        s_Now = 5000;
        SetTickSource([] { return s_Now; });
    }
    ~UPnPDeviceClock() override { SetTickSource(nullptr); }

    inline static DWORD s_Now = 0;
};

TEST(UPnPDevice, ADatagramFillsTheRecord)
{
    CUPnPDevice device;
    Fill(device,
         "Location:  http://192.168.1.1:5000/Root.xml \r\nCACHE-CONTROL: max-age = 1800\r\nSERVER: a/1\r\n"
         "NTS: ssdp:ALIVE\r\nNT: upnp:RootDevice\r\nST: urn:x\r\nEXT:\r\n"
         "USN: uuid:abc-123::urn:schemas-upnp-org:device:InternetGatewayDevice:1\r\n");
    EXPECT_EQ(Text(device.GetIpAddr()), "192.168.1.2");
    EXPECT_EQ(Text(device.GetDeviceAddr()), "192.168.1.1");
    EXPECT_EQ(device.GetDevicePort(), 1900U);
    EXPECT_EQ(Text(device.GetDescURL()), "http://192.168.1.1:5000/Root.xml");
    EXPECT_EQ(Text(device.GetDescAddr()), "192.168.1.1");
    EXPECT_EQ(device.GetDescPort(), 5000U);
    EXPECT_EQ(Text(device.GetDescPath()), "/Root.xml");
    EXPECT_EQ(Text(device.GetServer()), "a/1");
    EXPECT_EQ(Text(device.GetST()), "urn:x");
    EXPECT_EQ(Text(device.GetUUID()), "uuid:abc-123");
    EXPECT_EQ(Text(device.GetURN()), "urn:schemas-upnp-org:device:InternetGatewayDevice:1");
    EXPECT_EQ(device.GetMaxAge(), 1800);
    EXPECT_TRUE(device.IsAlive() && device.IsRoot());
    EXPECT_FALSE(device.IsByeBye() || device.DiscoverComplete());

    // What a second datagram leaves out stays.
    Fill(device, "NTS: ssdp:byebye\r\nUSN: uuid:abc-124::upnp:rootdevice\r\nCACHE-CONTROL: no-cache\r\n");
    EXPECT_TRUE(device.IsByeBye());
    EXPECT_EQ(Text(device.GetServer()), "a/1");
    EXPECT_EQ(Text(device.GetUUID()), "uuid:abc-124");
    EXPECT_EQ(Text(device.GetURN()), "urn:schemas-upnp-org:device:InternetGatewayDevice:1");
    EXPECT_EQ(device.GetMaxAge(), 0);
    EXPECT_EQ(device.GetExpires(), 0U);
}

TEST_F(UPnPDeviceClock, AnAnnouncementLapsesAfterItsMaxAge)
{
    CUPnPDevice device;
    EXPECT_TRUE(device.Expired());
    Fill(device, "CACHE-CONTROL: max-age=2\r\n");
    EXPECT_FALSE(device.Expired());
    EXPECT_EQ(device.GetExpires(), 7000U);

    device.SetMaxAge(2147483647); // wraps as the tick does
    EXPECT_EQ(device.GetExpires(), 5000U + 2147483647U * 1000U);
    device.SetMaxAge(0);
    EXPECT_EQ(device.GetExpires(), 0U);
    device.SetMaxAge(-1);
    EXPECT_TRUE(device.Expired());
    EXPECT_EQ(device.GetExpires(), 0U);
}

TEST_F(UPnPDeviceClock, SearchesAreCountedUntilTheDeviceIsHeardOf)
{
    CUPnPDevice device;
    device.SetIssuedRediscover(true);
    device.SetIssuedRediscover(true);
    EXPECT_EQ(device.GetRediscoverAttempt(), 2U);
    s_Now += 10000;
    EXPECT_TRUE(device.GetIssuedRediscover());
    s_Now += 1;
    EXPECT_FALSE(device.GetIssuedRediscover());
    s_Now -= 1;
    EXPECT_FALSE(device.GetIssuedRediscover()); // stays cleared

    device.SetMaxAge(-1);
    EXPECT_EQ(device.GetRediscoverAttempt(), 2U);
    device.SetMaxAge(0);
    EXPECT_EQ(device.GetRediscoverAttempt(), 0U);
}

TEST(UPnPDevice, EmbeddedDevicesAnswerWithTheirRootsAnnouncement)
{
    CUPnPDevice root;
    Fill(root, "LOCATION: http://192.168.1.1:81/d\r\nUSN: uuid:root\r\nCACHE-CONTROL: max-age=60\r\n");
    tavronet::DescriptionBuilder builder;
    CUPnPDevice& embedded = *builder.AddDevice(*builder.AddDevice(root));
    EXPECT_EQ(Text(embedded.GetDescURL()), "http://192.168.1.1:81/d");
    EXPECT_EQ(embedded.GetDescPort(), 81U);
    EXPECT_EQ(Text(embedded.GetUSN()), "uuid:root");
    EXPECT_EQ(Text(embedded.GetIpAddr()), "192.168.1.2");
    EXPECT_EQ(embedded.GetMaxAge(), 60);
    EXPECT_EQ(Text(embedded.GetUDN()), "");
    EXPECT_TRUE(embedded.Expired()); // its own max-age was never set
}

TEST(UPnPDevice, IsFoundByItsNameOrThatOfAnEmbeddedDevice)
{
    CUPnPDevice root;
    Fill(root, "USN: uuid:Root::urn:x\r\n");
    const char* const description = "<device>\r\n<deviceType>urn:schemas-upnp-org:device:A:1</deviceType>\r\n"
                                    "<UDN>uuid:own</UDN>\r\n<deviceList>\r\n<device>\r\n"
                                    "<deviceType>urn:schemas-upnp-org:device:B:1</deviceType>\r\n"
                                    "<UDN>uuid:1234</UDN>\r\n</device>\r\n</deviceList>\r\n</device>\r\n";
    const char* position = description;
    int remaining = static_cast<int>(std::string(description).size());
    root.BuildDevice(position, remaining);

    const struct
    {
        const char* usn;
        bool matches;
    } kRows[] = {
        {"UUID:ROOT::URN:X", true},
        {"uuid:root::upnp:rootdevice", true},
        {"uuid:OWN", true},
        {"uuid:1234::urn:other", true},
        {"NOTIFY\r\nx uuid:1234\r\n", true},
        {"uuid:12345", false},
        {"uuid:1234 ::urn:other", false},
        {"urn:x", false},
        {"", false},
    };
    for (const auto& row : kRows)
        EXPECT_EQ(root.MatchingDevice(row.usn), row.matches) << row.usn;

    // Without a name of its own a record goes by the name of everything that has none.
    CUPnPDevice nameless;
    EXPECT_TRUE(nameless.MatchingDevice("anything"));
}

} // namespace
