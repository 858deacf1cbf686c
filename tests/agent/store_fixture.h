// A store in a temporary directory, and a conversion of its texts.
#ifndef KAVEL_TESTS_AGENT_STORE_FIXTURE_H
#define KAVEL_TESTS_AGENT_STORE_FIXTURE_H

#include <gtest/gtest.h>

#include <cerrno>
#include <charconv>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "scratch.h"
#include "services/host.h"
#include "services/store.h"
#include "vqLog.h"

namespace kavel::agent {

inline constexpr VQ_SQL_CONF_TBL kCpe = VQ_SQL_CONF_CPE_DNSMASQ;
inline constexpr VQ_SQL_CONF_TBL kPop = VQ_SQL_CONF_POP_DNSMASQ;
inline constexpr std::uint32_t kLargest = 0xFFFFFFFFU;

// The conversion of the module: "<vpn>" or "<vpn> <a sign or a word>" becomes a record with one of each entry.
inline VQ_ERR_T Convert(VQ_DNSMASQ_CONF *record, const char *text)
{
    const std::string_view whole = text;
    if (whole.ends_with("reported")) {
        VQ_FlexLogSetFormatData("%s", "member \"Host\" is no list");
        VQ_FlexLogSetFormatData("%s", "record is bad(22:Invalid argument)\n");
        return -EINVAL;
    }
    if (whole.ends_with("silent")) {
        return -EINVAL;
    }
    if (whole.ends_with("memory")) {
        throw std::bad_alloc();
    }
    std::from_chars(whole.data(), whole.data() + whole.size(), record->VpnId);
    EXPECT_EQ(record->DnsHostNum, 0U) << "the record is not zeroed";
    record->Enable = whole.ends_with("disabled") ? FALSE : TRUE;
    record->DnsHostNum = 1;
    record->DnsMxHostNum = 2;
    record->DnsServerNum = 3;
    record->DnsProxyNum = 4;
    return 0;
}

inline std::vector<std::uint32_t> VpnsOf(const std::vector<StoredRecord> &records)
{
    std::vector<std::uint32_t> vpns;
    for (const StoredRecord &record : records) {
        vpns.push_back(record.vpn);
    }
    return vpns;
}

struct ReleaseList {
    void operator()(VQ_PersistentConfList *list) const { VQ_SqliteConfListRelease(list); }
};
using ListPtr = std::unique_ptr<VQ_PersistentConfList, ReleaseList>;

inline std::vector<std::uint32_t> VpnsOf(const ListPtr &list)
{
    std::vector<std::uint32_t> vpns;
    for (const VQ_LIST_HEAD *link = list->Head.next; link != &list->Head; link = link->next) {
        vpns.push_back(reinterpret_cast<const VQ_DnsmasqConfNode *>(link)->Dnsmasq.VpnId);
    }
    EXPECT_EQ(list->Count, static_cast<std::int32_t>(vpns.size()));
    return vpns;
}

class StoreTest : public testing::Test {
  protected:
    // The box serves the VPNs 0, 7 and 8.
    [[nodiscard]] Config BaseConfig() const
    {
        Config config;
        config.persistence = true;
        config.store = directory_.File("agent.db");
        for (const std::uint32_t id : {7U, 8U}) {
            Vpn vpn;
            vpn.id = id;
            config.vpns.push_back(vpn);
        }
        return config;
    }
    void Start(const Config &config)
    {
        host_.reset();
        host_.emplace(config);
        host_->conversions.DnsmasqStrToConf = Convert;
    }
    void Start() { Start(BaseConfig()); }
    Store &TheStore() { return host_->store; }
    [[nodiscard]] std::string Path() const { return directory_.File("agent.db"); }

    // What opening the store says when this is at its path.
    ThrownError FailureToOpen()
    {
        const CapturedStderr captured;
        return FailureOf([&] { (void)TheStore().Read(); });
    }
    // Why the record of VPN 7 cannot be read, when this text is stored.
    std::optional<std::string> ProblemOf(const std::string &text)
    {
        TheStore().Put(7, text, kCpe);
        const std::optional<StoredRecord> record = TheStore().Read(7);
        EXPECT_TRUE(record);
        EXPECT_EQ(record->vpn, 7U);
        EXPECT_EQ(record->bytes, text.size());
        return record->problem;
    }

    ScratchDirectory directory_;
    std::optional<Host> host_;
};

} // namespace kavel::agent

#endif
