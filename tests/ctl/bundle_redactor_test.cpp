#include "bundle_redactor.h"

#include <ctime>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <utility>

namespace kavel::ctl {
namespace {

using testing::HasSubstr;
using testing::Not;

class RedactorTest : public testing::Test {
  protected:
    Redactor redactor_;
};

TEST_F(RedactorTest, DomainNamesAreReplaced)
{
    EXPECT_EQ(redactor_.Redact("192.168.7.10 nas.branch.example"), "ip-1 host-1.redacted");
    EXPECT_EQ(redactor_.Redact("domain:nas.branch.example, or NAS.Branch.Example."),
              "domain:host-1.redacted, or host-1.redacted.");
    EXPECT_EQ(redactor_.Redact("*.other.example"), "*.host-2.redacted");
    EXPECT_EQ(redactor_.Redact("_sip._tcp.other.example 10.7.168.192.in-addr.arpa"), "host-3.redacted host-4.redacted");
}

TEST_F(RedactorTest, AddressesAreReplaced)
{
    EXPECT_EQ(redactor_.Redact("10.7.0.53#53, 10.7.0.53:53, 10.7.0.0/24 and (10.7.0.54)."),
              "ip-1#53, ip-1:53, ip-2/24 and (ip-3).");
    EXPECT_EQ(redactor_.Redact("10.7.0.53-10.7.0.54"), "ip-1-ip-3");
    EXPECT_EQ(redactor_.Redact("[fd00::1]:53 fd00::1/64 fd00:0:0::1, dst:fd00::1: end"),
              "[ip-4]:53 ip-4/64 ip-4, dst:ip-4: end");
    EXPECT_EQ(redactor_.Redact("fd00::1-fd00::2 fe80::1%eth0 ::ffff:10.7.0.53"), "ip-4-ip-5 ip-6%eth0 ip-7");
}

TEST_F(RedactorTest, MacAddressesAreReplaced)
{
    EXPECT_EQ(redactor_.Redact(R"("address":"0a:1B:2c:3d:4e:5f" link 0a:1b:2c:3d:4e:5f)"),
              R"("address":"mac-1" link mac-1)");
}

TEST_F(RedactorTest, LoopbackAndUnspecifiedAddressesStay)
{
    const std::string text = "127.0.0.1 127.0.0.53 0.0.0.0 :: ::1 [::]:53";
    EXPECT_EQ(redactor_.Redact(text), text);
}

TEST_F(RedactorTest, WhatIsNoNameStays)
{
    const std::string text = "/run/kavel/vpn_7.inforce /etc/kavel/agent.json vqagent.service 15:03:54 2.90 6.1.0-13 "
                             "table 199: fs.inotify.max_user_instances e.g. std::string end. Next ---...::: a:b:c "
                             "vpn 7: lan0 eth0.100 ServerMap.conf";
    EXPECT_EQ(redactor_.Redact(text), text);
}

TEST_F(RedactorTest, NamesThatAreLearnedAreReplacedWhateverTheyLookLike)
{
    redactor_.LearnHosts("192.168.7.10 nas printer # comment\n\n192.168.7.11\tagent.json\n");
    redactor_.LearnOptions("server=/corp/local.conf/10.7.0.54@wan0\nmx-host=mail-in,mx1,10\nconf-dir=/etc/kavel\n"
                           "interface=lan0\n# server=/no\n");
    EXPECT_THAT(redactor_.Redact("nas"), Not(HasSubstr("nas")));
    EXPECT_THAT(redactor_.Redact("a PRINTER is here"), Not(HasSubstr("PRINTER")));
    for (const char *word : {"agent.json", "corp", "local.conf", "mail-in", "mx1"}) {
        EXPECT_THAT(redactor_.Redact(word), HasSubstr(".redacted")) << word;
    }
    EXPECT_EQ(redactor_.Redact("lan0 wan0 comment /etc/kavel no 10"), "lan0 wan0 comment /etc/kavel no 10");
}

TEST_F(RedactorTest, NamesInJsonAreLearned)
{
    redactor_.LearnJson(R"({"DnsHost": [{"Ip": "192.168.7.10", "Domain": "nas"}],
                            "DnsMxHost": [{"TargetDomain": "mx.local.service", "SourceDomain": "corp", "Preference": 10}],
                            "DnsServer": [{"Ifname": "wan0"}], "domains": ["one", "two"]})");
    for (const char *word : {"nas", "mx.local.service", "corp", "one", "two"}) {
        EXPECT_THAT(redactor_.Redact(word), HasSubstr(".redacted")) << word;
    }
    EXPECT_EQ(redactor_.Redact("wan0 Preference"), "wan0 Preference");
    redactor_.LearnJson("no json: {");
}

TEST_F(RedactorTest, NamesBelowALearnedOneStayBelowIt)
{
    redactor_.Learn("corp.example");
    EXPECT_EQ(redactor_.Redact("corp.example"), "host-1.redacted");
    EXPECT_EQ(redactor_.Redact("www.corp.example crm.corp.example corp.example"),
              "host-2.host-1.redacted host-3.host-1.redacted host-1.redacted");
}

TEST_F(RedactorTest, WordsThatWouldBreakATextAreNotLearned)
{
    for (const char *word : {"", "7", "a", "true", "null", "localhost", "10.7.0.53", "..", "*."}) {
        redactor_.Learn(word);
    }
    EXPECT_EQ(redactor_.Redact("7 a true null localhost"), "7 a true null localhost");
}

TEST_F(RedactorTest, TheSameTokenStandsForTheSameNameInEveryText)
{
    const std::string first = redactor_.Redact("upstream 10.7.0.53 does not answer for crm.corp.example");
    (void)redactor_.Redact("other.example 10.9.9.9");
    EXPECT_EQ(redactor_.Redact("upstream 10.7.0.53 does not answer for crm.corp.example"), first);
}

TEST_F(RedactorTest, RedactedTextStays)
{
    const std::string once = redactor_.Redact("nas.branch.example 192.168.7.10");
    EXPECT_EQ(redactor_.Redact(once), once);
}

// A time that grows with the square of the length would be minutes. It is the processor's time: other work on the
// machine does not count.
TEST_F(RedactorTest, LongRunsTakeNoLongTime)
{
    const std::clock_t start = std::clock();
    for (const std::string piece : {"-", ":", "a", ".", "1", "_", "a1:-._"}) {
        std::string text;
        while (text.size() < 200'000) {
            text += piece;
        }
        EXPECT_EQ(redactor_.Redact(text), text) << piece;
    }
    EXPECT_LT((std::clock() - start) / CLOCKS_PER_SEC, 30);
}

} // namespace
} // namespace kavel::ctl
