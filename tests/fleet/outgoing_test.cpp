#include "outgoing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fleet_samples.h"
#include "topics.h"

namespace kavel::fleet {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char *kCpe = R"({"enable": true, "operation": "reload", "vpnid": 7})";
constexpr const char *kCpe8 = R"({"enable": true, "operation": "reload", "vpnid": 8})";
constexpr const char *kPop = R"({"enable": true, "localip": "10.0.0.1", "dns": ["10.0.0.53"]})";

class OutgoingTest : public testing::Test {
  protected:
    std::vector<Outgoing> Load(std::vector<std::string> files)
    {
        errors_.clear();
        return LoadOutgoing(files, [this](const std::string &error) { errors_.push_back(error); });
    }

    ScratchDir scratch_;
    std::string cpe_ = scratch_.Write("cpe.json", kCpe);
    std::string cpe8_ = scratch_.Write("cpe8.json", kCpe8);
    std::string pop_ = scratch_.Write("pop.json", kPop);
    std::vector<std::string> errors_;
};

TEST_F(OutgoingTest, AMessageIsForTheVpnThatItNames)
{
    const std::vector<Outgoing> messages = Load({cpe8_, cpe_});
    EXPECT_THAT(errors_, IsEmpty());
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[0].vpn, 8U);
    EXPECT_EQ(messages[1].vpn, 7U);
    EXPECT_FALSE(messages[1].isForPop);
    EXPECT_FALSE(messages[1].bytes.empty());
}

TEST_F(OutgoingTest, ABoxForgetsWhatIsNotPersistent)
{
    const auto isForgotten = [this](const std::string &json) {
        return Load({scratch_.Write("one.json", json)}).at(0).isForgotten;
    };
    EXPECT_TRUE(isForgotten(kCpe));
    EXPECT_TRUE(isForgotten(kPop));
    EXPECT_TRUE(isForgotten(R"({"enable": true, "operation": "reload", "vpnid": 7, "persistentflag": false})"));
    EXPECT_FALSE(isForgotten(R"({"enable": true, "operation": "reload", "vpnid": 7, "persistentflag": true})"));
    EXPECT_FALSE(isForgotten(R"({"enable": false, "operation": "reload", "vpnid": 7})"));
}

TEST_F(OutgoingTest, WhatIsPublished)
{
    const broker::Message message = MessageFor("branch-1", Load({cpe_}).at(0), 18);
    EXPECT_EQ(message.topic, "kavel/branch-1/desired/7");
    EXPECT_EQ(message.payload, Load({cpe_}).at(0).bytes);
    EXPECT_EQ(message.properties, (std::map<std::string, std::string>{{"platform", "cpe"}, {"revision", "18"}}));
    const broker::Message pop = MessageFor("pop-1", Load({pop_}).at(0), 1);
    EXPECT_EQ(pop.topic, "kavel/pop-1/desired/0");
    EXPECT_EQ(pop.properties.at("platform"), "pop");
}

TEST_F(OutgoingTest, AllErrorsOfAllFilesAreTold)
{
    const std::string bad = scratch_.Write("bad.json", R"({"enable": 1, "operation": "reload"})");
    Load({bad, scratch_.Path("none.json"), cpe_});
    EXPECT_THAT(errors_,
                ElementsAre(HasSubstr(bad + ": enable: expected"), bad + ": vpnid: is missing; 0 is the box itself",
                            scratch_.Path("none.json") + ": cannot be opened: No such file or directory"));
}

TEST_F(OutgoingTest, TwoMessagesForOneVpn)
{
    Load({cpe_, cpe_});
    EXPECT_THAT(errors_, ElementsAre(cpe_ + ": is for vpn 7, as " + cpe_ + " is"));
}

TEST_F(OutgoingTest, ABoxIsEitherACpeOrAPop)
{
    Load({cpe_, pop_});
    EXPECT_THAT(errors_, ElementsAre(pop_ + ": is for a POP, but " + cpe_ + " is for a CPE"));
}

TEST_F(OutgoingTest, HashesTellMessagesAndListsApart)
{
    const auto seven = Load({cpe_});
    const auto both = Load({cpe_, cpe8_});
    EXPECT_EQ(ContentHash(seven), ContentHash(Load({cpe_})));
    EXPECT_NE(ContentHash(seven), ContentHash(both));
    EXPECT_NE(ContentHash(seven), ContentHash(Load({cpe8_})));
    EXPECT_EQ(ContentHash(seven).size(), 64U);
    EXPECT_NE(ListHash(std::vector<std::string>{"ab", "c"}), ListHash(std::vector<std::string>{"a", "bc"}));
    EXPECT_NE(ListHash(std::vector<std::string>{"a", "b"}), ListHash(std::vector<std::string>{"b", "a"}));
    // As sha256sum has it for "2 ab".
    EXPECT_EQ(ListHash(std::vector<std::string>{"ab"}),
              "2130ee4873aeb7a0572aee74b31acb28db0ce75d8fedc070f111a12280d78ca3");
}

} // namespace
} // namespace kavel::fleet
