// A record becomes a message from which the real module makes the same record.
#include "instances/record_message.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

#include "base/zeroed_pages.h"
#include "instances/controller_message.h"
#include "instances/module.h"
#include "services/host.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

using Record = ZeroedPages<VQ_DNSMASQ_CONF>;

template <std::size_t Size>
void SetText(char (&target)[Size], const std::string &text)
{
    ASSERT_LT(text.size(), Size);
    text.copy(target, text.size());
}

class RecordMessageTest : public testing::Test {
  protected:
    Config Settings() const
    {
        Config config = box_.Configuration();
        config.persistence = true; // otherwise the module does not take the flag
        config.platform = Platform::kCpe;
        return config;
    }

    [[nodiscard]] std::optional<ControllerMessage> MessageFor(const VQ_DNSMASQ_CONF &record) const
    {
        return UnpackControllerMessage(Platform::kCpe, MessageOfRecord(Platform::kCpe, record));
    }

    // The record that the module makes of the message of `record` is the same, byte by byte.
    void ExpectSame(const VQ_DNSMASQ_CONF &record)
    {
        const auto message = MessageFor(record);
        ASSERT_TRUE(message);
        const Record again = MapZeroed<VQ_DNSMASQ_CONF>();
        ASSERT_GE(module_.Functions().translate(&message->pointer, again.get()), 0) << log_.Take();
        EXPECT_EQ(std::memcmp(again.get(), &record, sizeof record), 0);
    }

    // Appends a forward.
    static void AddPair(VQ_DNSMASQ_CONF &record, const std::string &domain, std::uint32_t server)
    {
        VQ_DNS_PROXY_CONF &pair = record.DnsProxy[record.DnsProxyNum++];
        SetText(pair.Domain, domain);
        pair.ServerIp = server;
    }

    [[nodiscard]] std::size_t Items(const VQ_DNSMASQ_CONF &record) const
    {
        const auto message = MessageFor(record);
        return message ? message->pointer.DnsmasqPbCPE->n_dnsproxies : 0;
    }

    TestBox box_;
    LogCapture log_;
    Host host_{Settings()};
    const Module module_{KAVEL_MODULE, host_};
    Record record_ = MapZeroed<VQ_DNSMASQ_CONF>();
};

TEST_F(RecordMessageTest, AnEmptyRecord)
{
    ExpectSame(*record_);
}

TEST_F(RecordMessageTest, EveryPartOfARecord)
{
    record_->Enable = TRUE;
    record_->Op = VQ_DNSMASQ_OP_REBOOT;
    record_->PersistentFlag = TRUE;
    record_->VpnId = 0xFFFFFFFFU;
    record_->DnsHostNum = 2;
    SetText(record_->DnsHost[0].Domain, "nas.example");
    record_->DnsHost[0].Ip = 0xC0A8070AU;
    SetText(record_->DnsHost[1].Domain, "printer.example");
    record_->DnsMxHostNum = 1;
    SetText(record_->DnsMxHost[0].TargetDomain, "mail.example");
    SetText(record_->DnsMxHost[0].SourceDomain, "branch.example");
    record_->DnsMxHost[0].Preference = 65536;
    record_->DnsServerNum = 2;
    record_->DnsServer[0].DnsServerIp = 0x0A000035U;
    record_->DnsServer[1].DnsServerIp = 0x0A000035U;
    SetText(record_->DnsServer[1].Ifname, "wan0");
    AddPair(*record_, "corp.example", 1);
    ExpectSame(*record_);
}

TEST_F(RecordMessageTest, ForwardsWithTheSameServersAreOneItem)
{
    for (const char *domain : {"a.example", "b.example", "c.example"}) {
        AddPair(*record_, domain, 1);
        AddPair(*record_, domain, 2);
    }
    EXPECT_EQ(Items(*record_), 1U);
    ExpectSame(*record_);
}

TEST_F(RecordMessageTest, ForwardsWithOtherServersAreOtherItems)
{
    AddPair(*record_, "a.example", 1);
    AddPair(*record_, "a.example", 2);
    AddPair(*record_, "b.example", 2);
    AddPair(*record_, "b.example", 1);
    EXPECT_EQ(Items(*record_), 2U);
    ExpectSame(*record_);
}

// Taking the longest item first would need three: eight servers of a, two of a, five of b.
TEST_F(RecordMessageTest, AsFewItemsAsPossible)
{
    for (std::uint32_t server = 1; server <= 10; ++server) {
        AddPair(*record_, "a.example", server);
    }
    for (std::uint32_t server = 6; server <= 10; ++server) {
        AddPair(*record_, "b.example", server);
    }
    EXPECT_EQ(Items(*record_), 2U);
    ExpectSame(*record_);
}

TEST_F(RecordMessageTest, TheLargestRecord)
{
    constexpr std::size_t kItems = 1023; // a full table counts as an empty one
    for (std::size_t item = 0; item < kItems; ++item) {
        for (int domain = 0; domain < 8; ++domain) {
            for (std::uint32_t server = 1; server <= 8; ++server) {
                AddPair(*record_, "d" + std::to_string(domain) + ".i" + std::to_string(item % 7) + ".example",
                        static_cast<std::uint32_t>(item) * 8 + server);
            }
        }
    }
    EXPECT_EQ(Items(*record_), kItems);
    ExpectSame(*record_);
}

TEST_F(RecordMessageTest, RandomForwards)
{
    constexpr std::uint32_t kRounds = 50;
    for (std::uint32_t seed = 0; seed < kRounds; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        ClearPages(*record_);
        std::size_t items = 0;
        for (; items < 20; ++items) {
            const auto domains = 1 + random() % 3;
            const auto servers = 1 + random() % 3;
            for (std::uint32_t domain = 0; domain < domains; ++domain) {
                for (std::uint32_t server = 1; server <= servers; ++server) {
                    AddPair(*record_, std::string(1, static_cast<char>('a' + (seed + domain) % 3)) + ".example",
                            server);
                }
            }
        }
        EXPECT_LE(Items(*record_), items);
        ExpectSame(*record_);
    }
}

TEST_F(RecordMessageTest, OfAPop)
{
    record_->Enable = TRUE;
    record_->PersistentFlag = TRUE;
    record_->LocalIp = 0x0A580001U;
    record_->DnsServerNum = 2;
    record_->DnsServer[0].DnsServerIp = 1;
    record_->DnsServer[1].DnsServerIp = 2;
    const auto message = UnpackControllerMessage(Platform::kPop, MessageOfRecord(Platform::kPop, *record_));
    ASSERT_TRUE(message);
    const PopDnsmasqConf &pop = *message->pointer.DnsmasqPbPOP;
    EXPECT_NE(pop.enable, 0);
    EXPECT_TRUE(message->isKept);
    EXPECT_EQ(pop.localip, 0x0A580001U);
    ASSERT_EQ(pop.n_dns, 2U);
    EXPECT_EQ(pop.dns[1], 2U);
}

} // namespace
} // namespace kavel::agent
