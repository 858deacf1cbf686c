#include "instances/recovery.h"

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <system_error>

#include "base/log.h"
#include "services/rules_nftables.h"
#include "services/store.h"

namespace kavel::agent {
namespace {

// All instances are launched before the wait begins: this is the time for the last of them.
constexpr std::chrono::milliseconds kRecoveryTimeout{10000};

bool HasNoRule(Host &host, std::uint32_t vpnId)
{
    try {
        const InstalledRules rules = FindInstalledRules(host, vpnId);
        return !rules.dns && !rules.dnat && !rules.stale;
    } catch (const std::system_error &failure) {
        Log(LogLevel::kWarning, "vpn %u: its rules cannot be read: %s", vpnId, failure.what());
        return false;
    }
}

// An instance whose record is switched off and that has no steering rule was launched by a message that was never
// confirmed: the agent died between the launch and the rule. With a rule it stays: the module could not remove the
// rule, and queries may still be steered to the instance.
void StopUnconfirmed(Host &host, const Instances &instances, const ModuleFunctions &module, std::uint32_t vpnId)
{
    if (instances.IsRunning(vpnId) && HasNoRule(host, vpnId)) {
        Log(LogLevel::kNotice, "vpn %u: stopping its instance: it is stored as switched off and has no steering rule",
            vpnId);
        const VpnScope scope(host, vpnId);
        (void)module.stopInstance(vpnId); // the module logs a failure
    }
}

} // namespace

bool RecoverStored(EventLoop &loop, Host &host, const Instances &instances, const ModuleFunctions &module,
                   PendingLaunches &launches)
{
    host.moduleErrors.Clear();
    {
        const RecoveryScope scope(host);
        (void)module.recover(); // always succeeds
    }
    std::set<std::uint32_t> enabled;
    for (const StoredRecord &record : host.store.Listed()) {
        instances.SetMeantToRun(record.vpn, record.enable);
        if (record.enable) {
            enabled.insert(record.vpn);
        } else {
            StopUnconfirmed(host, instances, module, record.vpn);
        }
    }
    const auto failed = RunUntilLaunched(loop, launches, enabled, kRecoveryTimeout);
    if (!failed) {
        return false;
    }
    for (const std::uint32_t vpnId : *failed) {
        const std::string reason = host.launchOutputs.Reason(vpnId);
        Log(LogLevel::kError, "vpn %u: its instance did not come up again%s%s", vpnId, reason.empty() ? "" : ": ",
            reason.c_str());
    }
    Log(LogLevel::kNotice, "recovered: %zu stored, %zu running", host.store.Listed().size(),
        enabled.size() - failed->size());
    return true;
}

} // namespace kavel::agent
