#include "instances/recovery.h"

#include <chrono>
#include <cstdint>
#include <set>
#include <system_error>
#include <vector>

#include "base/config.h"
#include "base/log.h"
#include "instances/instances.h"
#include "services/rules_nftables.h"
#include "services/store.h"

namespace kavel::agent {
namespace {

// All are launched by the time that the wait begins: it is for the last of them.
constexpr std::chrono::milliseconds kStartPatience{10000};

std::vector<StoredRecord> ReadableRecords()
{
    try {
        std::vector<StoredRecord> records = ReadStored();
        std::erase_if(records, [](const StoredRecord &record) {
            return !record.problem.empty() || !ActiveConfig().Serves(record.vpn);
        });
        return records;
    } catch (const std::system_error &) {
        return {}; // the module's own attempt to read them has been logged
    }
}

// Without its rule the module does not stop an instance: one that failed to go may still lead queries there. Where the
// kernel knows of none, an agent died between the launch and the rule of a message that was never confirmed.
void StopUnsteered(const Module &module, std::uint32_t vpnId)
{
    if (!IsRunning(vpnId)) {
        return;
    }
    const auto rules = FindInstalledRules(vpnId);
    if (rules && !rules->dns && !rules->dnat) {
        Log(LogLevel::kNotice, "vpn %u: stored as switched off, and no rule leads to its instance: it is stopped",
            vpnId);
        (void)module.stopInstance(vpnId); // its failure is logged
    }
}

} // namespace

void RecoverStored(const Module &module, Launches &launches)
{
    ModuleErrors().Clear();
    (void)module.recover(); // succeeds always
    const std::vector<StoredRecord> records = ReadableRecords();
    std::set<std::uint32_t> enabled;
    for (const StoredRecord &record : records) {
        SetMeantToRun(record.vpn, record.enable);
        if (record.enable) {
            enabled.insert(record.vpn);
        } else {
            StopUnsteered(module, record.vpn);
        }
    }
    const auto failed = AwaitStarts(launches, enabled, kStartPatience);
    for (const std::uint32_t vpnId : failed) {
        Log(LogLevel::kError, "vpn %u: its instance did not come up again", vpnId);
    }
    Log(LogLevel::kNotice, "recovered: %zu stored, %zu running", records.size(), enabled.size() - failed.size());
}

} // namespace kavel::agent
