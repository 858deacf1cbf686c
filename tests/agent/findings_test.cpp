#include "instances/findings.h"

#include <cctype>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

TEST(Findings, EachFaultHasACodeOfItsOwnThatFitsIntoAScript)
{
    std::set<std::string_view> codes;
    for (const Fault fault : AllFaults()) {
        const std::string_view code = CodeOf(fault);
        EXPECT_TRUE(codes.insert(code).second) << code;
        for (const char letter : code) {
            EXPECT_TRUE(std::islower(letter) != 0 || letter == '-') << code;
        }
    }
}

TEST(Findings, ARemedyNamesTheVpnItsNamespaceAndTheSubject)
{
    EXPECT_EQ(RemedyOf({Fault::kRoutesMissing, "", ""}, 7, "blue"), "vqctl repair --vpn 7");
    EXPECT_EQ(RemedyOf({Fault::kUpstreamSilent, "", "10.7.0.53"}, 7, "blue"),
              "ip netns exec blue dig @10.7.0.53; check that server and the way to it");
    EXPECT_EQ(RemedyOf({Fault::kUpstreamSilent, "", "10.7.0.53"}, 0, "-"),
              "dig @10.7.0.53; check that server and the way to it");
}

TEST(Findings, NoRemedyKeepsAVariable)
{
    for (const Fault fault : AllFaults()) {
        const std::string remedy = RemedyOf({fault, "", "it"}, 7, "blue");
        EXPECT_FALSE(remedy.empty());
        EXPECT_THAT(remedy, Not(HasSubstr("$"))) << CodeOf(fault);
    }
}

TEST(Findings, CausesComeBeforeWhatFollowsFromThem)
{
    std::vector<Finding> findings{{Fault::kUpstreamSilent, "u", "1.1.1.1"}, {Fault::kLinkDown, "l", "lan0"}};
    PutInOrder(findings);
    EXPECT_EQ(findings.front().text, "l");
}

TEST(Findings, TheSameIsToldOnce)
{
    std::vector<Finding> findings{
        {Fault::kUpstreamSilent, "by the watch", "1.1.1.1"}, {Fault::kUpstreamSilent, "asked now", "1.1.1.1"},
        {Fault::kUpstreamSilent, "another", "2.2.2.2"},      {Fault::kFilesChanged, "hosts was changed", ""},
        {Fault::kFilesChanged, "hosts was changed", ""},     {Fault::kFilesChanged, "resolv.conf was changed", ""}};
    PutInOrder(findings);
    EXPECT_THAT(findings, ElementsAre(Finding{Fault::kFilesChanged, "hosts was changed", ""},
                                      Finding{Fault::kFilesChanged, "resolv.conf was changed", ""},
                                      Finding{Fault::kUpstreamSilent, "by the watch", "1.1.1.1"},
                                      Finding{Fault::kUpstreamSilent, "another", "2.2.2.2"}));
}

} // namespace
} // namespace kavel::agent
