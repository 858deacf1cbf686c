#include "store_output.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace kavel::ctl {
namespace {

Kavel__StoredRecord Record(std::uint32_t vpn, std::uint64_t bytes)
{
    Kavel__StoredRecord record{};
    kavel__stored_record__init(&record);
    record.vpn = vpn;
    record.bytes = bytes;
    return record;
}

class StoreOutputTest : public testing::Test {
  protected:
    StoreOutputTest()
    {
        on_.has_enable = on_.enable = 1;
        on_.hosts = 1024;
        on_.mx_hosts = 2;
        on_.servers = 8;
        on_.forwards = 65535;
        bad_.problem = problem_.data();
    }

    std::string problem_ = "Lack of\nEnable";
    Kavel__StoredRecord on_ = Record(7, 20000000);
    Kavel__StoredRecord off_ = Record(12, 180);
    Kavel__StoredRecord bad_ = Record(4294967295, 3);
};

TEST_F(StoreOutputTest, TableHasARowForEachRecord)
{
    const std::vector<const Kavel__StoredRecord *> all{&on_, &off_, &bad_};
    EXPECT_EQ(StoredTable(all), "       VPN  ENABLED     HOSTS  MX  SERVERS  FORWARDS     BYTES\n"
                                "         7  yes          1024   2        8     65535  20000000\n"
                                "        12  no              0   0        0         0       180\n"
                                "4294967295  unreadable      -   -        -         -         3\n"
                                "\n"
                                "vpn 4294967295: Lack of?Enable\n");
}

TEST_F(StoreOutputTest, TableOfAnEmptyStoreHasOnlyTitles)
{
    EXPECT_EQ(StoredTable({}), "VPN  ENABLED  HOSTS  MX  SERVERS  FORWARDS  BYTES\n");
}

TEST_F(StoreOutputTest, JsonIsIndented)
{
    EXPECT_EQ(StoredText(R"({"Enable":true,"DnsHost":[{"Ip":"10.0.0.1","Domain":"a/b"}]})"), R"({
  "Enable": true,
  "DnsHost": [
    {
      "Ip": "10.0.0.1",
      "Domain": "a/b"
    }
  ]
}
)");
}

TEST_F(StoreOutputTest, ControlsInJsonAreEscaped)
{
    EXPECT_EQ(StoredText("{\"a\u202E\": \"\u009b\"}"), "{\n  \"a\\u202e\": \"\\u009b\"\n}\n");
}

TEST_F(StoreOutputTest, ControlCharactersOfOtherTextAreReplaced)
{
    EXPECT_EQ(StoredText("{\u202E\u009b\x9B"), "{???\n");
    EXPECT_EQ(StoredText("{\033[2J"), "{?[2J\n");
    EXPECT_EQ(StoredText(""), "\n");
    EXPECT_EQ(StoredText(R"({"a": 1} rest)"), "{\"a\": 1} rest\n");
}

} // namespace
} // namespace kavel::ctl
