#include "topics.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace kavel::broker {
namespace {

TEST(IsBoxName, TakesLettersDigitsDotsLinesAndDashes)
{
    for (const std::string_view name : {"a", "Z", "0", "branch-1", "a.b_c-D9", "a..b"}) {
        EXPECT_TRUE(IsBoxName(name)) << name;
    }
    EXPECT_TRUE(IsBoxName(std::string(kBoxNameMax, 'a')));
}

TEST(IsBoxName, RefusesWhatATopicOrAFileNameCouldTakeDifferently)
{
    for (const std::string_view name :
         {"", ".a", "_a", "-a", "a/b", "+", "#", "a+", "a b", "a\n", "\xC3\xA9", "$a", "a#"}) {
        EXPECT_FALSE(IsBoxName(name)) << name;
    }
    EXPECT_FALSE(IsBoxName(std::string(kBoxNameMax + 1, 'a')));
    EXPECT_FALSE(IsBoxName(std::string_view("a\0b", 3)));
}

TEST(TopicText, NamesBoxAndVpn)
{
    EXPECT_EQ(TopicText({TopicKind::kDesired, "branch-1", 7}), "kavel/branch-1/desired/7");
    EXPECT_EQ(TopicText({TopicKind::kReported, "b", 4294967295}), "kavel/b/reported/4294967295");
    EXPECT_EQ(TopicText({TopicKind::kOnline, "b", 0}), "kavel/b/online");
}

TEST(TopicFilter, NamesOneBoxOrAll)
{
    EXPECT_EQ(TopicFilter(TopicKind::kDesired), "kavel/+/desired/+");
    EXPECT_EQ(TopicFilter(TopicKind::kReported, "b"), "kavel/b/reported/+");
    EXPECT_EQ(TopicFilter(TopicKind::kOnline), "kavel/+/online");
    EXPECT_EQ(TopicFilter(TopicKind::kOnline, "b"), "kavel/b/online");
}

TEST(ParseTopic, ReadsWhatTopicTextGives)
{
    for (const Topic &topic : {Topic{TopicKind::kDesired, "branch-1", 0}, Topic{TopicKind::kDesired, "b", 4294967295},
                               Topic{TopicKind::kReported, "desired", 12}, Topic{TopicKind::kOnline, "online", 0}}) {
        EXPECT_EQ(ParseTopic(TopicText(topic)), topic);
    }
}

TEST(ParseTopic, RefusesEverythingElse)
{
    for (const std::string_view text : {"",
                                        "/",
                                        "kavel",
                                        "kavel/b",
                                        "kavel/b/desired",
                                        "kavel/b/desired/",
                                        "kavel/b/desired/x",
                                        "kavel/b/desired/-1",
                                        "kavel/b/desired/+1",
                                        "kavel/b/desired/01",
                                        "kavel/b/desired/00",
                                        "kavel/b/desired/4294967296",
                                        "kavel/b/desired/1/",
                                        "kavel/b/desired/1/2",
                                        "kavel/b/desired/+",
                                        "kavel/+/desired/1",
                                        "kavel/b/online/",
                                        "kavel/b/online/1",
                                        "kavel/b/Online",
                                        "kavel/b/wanted/1",
                                        "kavel//desired/1",
                                        "/b/desired/1",
                                        "Kavel/b/desired/1",
                                        "kavel/.b/desired/1",
                                        "xkavel/b/online",
                                        "/kavel/b/online",
                                        " kavel/b/online",
                                        "kavel/b/online "}) {
        EXPECT_EQ(ParseTopic(text), std::nullopt) << text;
    }
    EXPECT_EQ(ParseTopic(std::string_view("kavel/b/desired/1\0", 18)), std::nullopt);
    EXPECT_EQ(ParseTopic("kavel/" + std::string(kBoxNameMax + 1, 'a') + "/online"), std::nullopt);
}

} // namespace
} // namespace kavel::broker
