#include "socket/store_requests.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "services/host.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

using testing::HasSubstr;

class StoreRequestsTest : public testing::Test {
  protected:
    StoreRequestsTest() : host_(Settings()) { host_.conversions.DnsmasqStrToConf = ConvertStoredText; }

    Config Settings() const
    {
        Config config = box_.Configuration();
        config.persistence = true;
        return config;
    }

    void Put(std::uint32_t vpnId, const std::string &text) { host_.store.Put(vpnId, text, VQ_SQL_CONF_CPE_DNSMASQ); }

    Answer Show(std::optional<std::uint32_t> vpnId)
    {
        Kavel__Request request = KAVEL__REQUEST__INIT;
        request.has_vpn = vpnId ? 1 : 0;
        request.vpn = vpnId.value_or(0);
        return ShowStored(host_, request);
    }

    TestBox box_;
    Host host_;
};

TEST_F(StoreRequestsTest, ListsNothingInAnEmptyStore)
{
    const Answer answer = ListStore(host_.store);
    EXPECT_EQ(answer.result, 0);
    EXPECT_TRUE(answer.stored.empty());
}

TEST_F(StoreRequestsTest, ListsTheRecordsByRisingVpn)
{
    Put(8, "off 8");
    Put(7, "on 7");
    Put(9, "nonsense");
    const Answer answer = ListStore(host_.store);
    EXPECT_EQ(answer.result, 0);
    ASSERT_EQ(answer.stored.size(), 3U);
    EXPECT_EQ(answer.stored[0].vpn, 7U);
    EXPECT_TRUE(answer.stored[0].enable);
    EXPECT_EQ(answer.stored[0].forwards, 4U);
    EXPECT_EQ(answer.stored[1].vpn, 8U);
    EXPECT_FALSE(answer.stored[1].enable);
    EXPECT_EQ(answer.stored[2].problem, "Invalid argument");
}

TEST_F(StoreRequestsTest, ShowsTheTextOfAVpn)
{
    Put(7, "on 7");
    const Answer answer = Show(7);
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.vpn, 7U);
    EXPECT_EQ(answer.storedText, "on 7");
}

TEST_F(StoreRequestsTest, ShowNeedsAVpn)
{
    const Answer answer = Show(std::nullopt);
    EXPECT_EQ(answer.result, -EINVAL);
    EXPECT_EQ(answer.text, "no vpn is named");
}

TEST_F(StoreRequestsTest, ShowsNothingThatIsNotStored)
{
    const Answer answer = Show(0);
    EXPECT_EQ(answer.result, -ENOENT);
    EXPECT_EQ(answer.text, "nothing is stored for vpn 0");
    EXPECT_EQ(answer.vpn, 0U);
    EXPECT_FALSE(answer.isUnknownVpn);
}

TEST_F(StoreRequestsTest, SaysThatAVpnWithoutARowIsNotConfigured)
{
    const Answer answer = Show(7);
    EXPECT_EQ(answer.result, -ENOENT);
    EXPECT_EQ(answer.text, "vpn 7 is not configured");
    EXPECT_TRUE(answer.isUnknownVpn);
    host_.config.persistence = false;
    EXPECT_TRUE(Show(7).isUnknownVpn);
    EXPECT_EQ(Show(0).result, -EOPNOTSUPP);
}

TEST_F(StoreRequestsTest, ShowsNoTextThatDoesNotFitIntoAFrame)
{
    constexpr std::size_t kLongest = 16 * 1024 * 1024 - 1024;
    Put(7, std::string(kLongest, ' '));
    EXPECT_EQ(Show(7).result, 0);
    Put(7, std::string(kLongest + 1, ' '));
    const Answer answer = Show(7);
    EXPECT_EQ(answer.result, -EOVERFLOW);
    EXPECT_EQ(answer.text, "its text of 16776193 bytes does not fit into an answer");
    EXPECT_FALSE(answer.storedText);
}

TEST_F(StoreRequestsTest, TellsTheLengthOfATextThatIsNotRead)
{
    Put(7, std::string(kStoredTextMax + 1, ' '));
    const Answer shown = Show(7);
    EXPECT_EQ(shown.result, -EOVERFLOW);
    EXPECT_EQ(shown.text, "its text has 33554433 bytes; at most 33554432 are read");
    EXPECT_EQ(shown.vpn, 7U);
    const Answer listed = ListStore(host_.store);
    ASSERT_EQ(listed.stored.size(), 1U);
    EXPECT_EQ(listed.stored[0].problem, shown.text);
}

TEST_F(StoreRequestsTest, TellsWhyTheStoreCannotBeRead)
{
    box_.Write("/store", "a file in the place of the directory");
    for (const Answer &answer : {ListStore(host_.store), Show(7)}) {
        EXPECT_LT(answer.result, 0);
        EXPECT_THAT(answer.text.value_or(""), HasSubstr(box_.Path("/store")));
    }
}

TEST(StoreRequests, AreRefusedWithoutPersistence)
{
    const TestBox box;
    Host host(box.Configuration());
    const Answer answer = ListStore(host.store);
    EXPECT_EQ(answer.result, -EOPNOTSUPP);
    EXPECT_THAT(answer.text.value_or(""), HasSubstr("persistence is switched off"));
}

} // namespace
} // namespace kavel::agent
