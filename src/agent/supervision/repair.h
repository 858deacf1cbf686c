// Brings a VPN back to what is in force, through the module.
#ifndef KAVEL_AGENT_REPAIR_H
#define KAVEL_AGENT_REPAIR_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "event_loop.h"
#include "instances/in_force.h"
#include "instances/instances.h"
#include "instances/module.h"
#include "services/host.h"
#include "supervision/look.h"

namespace kavel::agent {

// What a repair has done.
struct RepairOutcome {
    std::optional<std::string> problem; // why something could not be repaired
};

class Repairs {
  public:
    // The references must outlive this object.
    Repairs(Host &host, const Instances &instances, const ModuleFunctions &module, const InForceFiles &inForce)
        : host_(host), instances_(instances), module_(module), inForce_(inForce)
    {
    }

    // Repairs these differences of a VPN. `instance` is the process that is known to be its running instance; 0: none.
    [[nodiscard]] RepairOutcome Repair(std::uint32_t vpnId, const InForce &wanted,
                                       std::span<const Difference> differences, pid_t instance);

    // Ends what is left of the instance, and starts it with everything that belongs to it.
    [[nodiscard]] RepairOutcome Restart(std::uint32_t vpnId);

    // Ends the instance, removes its pid file and, unless they are gone already, its rule and routes.
    [[nodiscard]] RepairOutcome SwitchOff(std::uint32_t vpnId);

    // Ends the instance and removes its pid file, its rules, its routes, their policy rule, and what the agent keeps
    // about it. Files and stored row stay. The problem says what is left.
    [[nodiscard]] RepairOutcome TakeDown(std::uint32_t vpnId);

    // Removes what a message has left behind that nobody has confirmed, in a VPN for which nothing is in force.
    void Forsake(std::uint32_t vpnId);

    // Ends every process of the VPN's instance, also without a pid file.
    void EndProcesses(std::uint32_t vpnId);

  private:
    [[nodiscard]] RepairOutcome Apply(std::uint32_t vpnId, VQ_DNSMASQ_OPERATION operation, bool switchesOff = false);
    void RemoveRulesAndRoutes(std::uint32_t vpnId);
    void PrepareDirectory(std::uint32_t vpnId);
    [[nodiscard]] std::vector<FileMark> MarksOf(std::uint32_t vpnId) const;
    [[nodiscard]] RepairOutcome RepairFiles(std::uint32_t vpnId, pid_t instance);
    [[nodiscard]] RepairOutcome RepairRoutes(std::uint32_t vpnId);
    [[nodiscard]] RepairOutcome RepairPidFile(std::uint32_t vpnId, pid_t instance);
    [[nodiscard]] RepairOutcome InstallRules(std::uint32_t vpnId);
    [[nodiscard]] RepairOutcome RepairPart(std::uint32_t vpnId, Part part, pid_t instance);
    template <typename Work>
    [[nodiscard]] RepairOutcome WithModule(std::uint32_t vpnId, Work work);

    Host &host_;
    const Instances &instances_;
    const ModuleFunctions &module_;
    const InForceFiles &inForce_;
    // All processes of instances, read once for VPNs that are repaired in a row.
    std::map<std::uint32_t, std::vector<pid_t>> processes_;
    EventLoop::Clock::time_point processesReadAt_;
};

} // namespace kavel::agent

#endif
