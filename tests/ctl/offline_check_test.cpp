#include "offline_check.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "commands_fixture.h"
#include "errors.h"

namespace kavel::ctl {
namespace {

constexpr const char *kGood = KAVEL_EXAMPLES "/branch-office.json";
constexpr const char *kGoodText = "CPE message for vpn 7: enabled, reboot, 3 hosts, 1 mx, 2 servers, 1 proxy item";

// Its agent does not exist.
class OfflineCheckTest : public CommandsTest {
  protected:
    int GoOffline(const std::vector<std::string> &files, MessageFor target = MessageFor::kVpn)
    {
        return Go([&] { return CheckOffline(session_, files, target); });
    }
};

TEST_F(OfflineCheckTest, PrintsWhatAGoodFileHolds)
{
    EXPECT_EQ(GoOffline({kGood, kGood}), kDone);
    const std::string line = std::string(kGood) + ": " + kGoodText + "\n";
    EXPECT_EQ(out_.str(), line + line);
    EXPECT_EQ(err_.str(), "");
}

TEST_F(OfflineCheckTest, ListsAllErrorsOfAllFiles)
{
    const std::string first = dir_.Write("first", R"({"enable": 1, "operation": "x", "vpnid": 7, "dnshost": []})");
    const std::string second = dir_.Write("second\n", "{");
    EXPECT_EQ(GoOffline({first, kGood, second, "/nonexistent"}), kBadInput);
    EXPECT_EQ(out_.str(), std::string(kGood) + ": " + kGoodText + "\n");
    EXPECT_EQ(err_.str(), "vqctl: " + first + ": enable: expected true or false, not 1\n" + "vqctl: " + first +
                              R"(: operation: expected "reload", "reboot" or a number from 0 to 4294967295, not "x")" +
                              "\nvqctl: " + first + R"(: dnshost: unknown key; did you mean "dnshosts"?)" +
                              "\nvqctl: " + dir_.File("second?") + ": line 1, column 2: unexpected end of file\n" +
                              "vqctl: /nonexistent: cannot be opened: No such file or directory\n");
}

TEST_F(OfflineCheckTest, KnowsMessagesForTheBox)
{
    const std::string file = dir_.Write("box", R"({"enable": false, "operation": "reload"})");
    EXPECT_EQ(GoOffline({file}), kBadInput);
    EXPECT_EQ(err_.str(), "vqctl: " + file + ": vpnid: is missing; give --box if the message is for the box itself\n");
    EXPECT_EQ(GoOffline({file}, MessageFor::kBox), kDone);
}

TEST_F(OfflineCheckTest, PrintsJson)
{
    const std::string bad = dir_.Write("bad", R"({"enable": true, "operation": 1, "vpnid": -1})");
    session_.json = true;
    EXPECT_EQ(GoOffline({bad, kGood}), kBadInput);
    EXPECT_EQ(out_.str(), "{\n  \"schema\": 1,\n  \"files\": [\n    {\n      \"file\": \"" + bad +
                              "\",\n      \"errors\": [\n        \"vpnid: expected a number from 0 to 4294967295, not "
                              "-1\"\n      ]\n    },\n    {\n      \"file\": \"" +
                              kGood + "\",\n      \"message\": \"" + kGoodText +
                              "\",\n      \"errors\": [\n      ]\n    }\n  ]\n}\n");
    EXPECT_EQ(err_.str(), "");
}

} // namespace
} // namespace kavel::ctl
