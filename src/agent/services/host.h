// The state that the module's services share. There is one Host per process: main makes it, and the C functions reach
// it through Host::Current().
#ifndef KAVEL_AGENT_HOST_H
#define KAVEL_AGENT_HOST_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/config.h"
#include "base/files.h"
#include "base/instance_process.h"
#include "base/netlink.h"
#include "base/netns.h"
#include "base/nftables.h"
#include "base/pattern_cache.h"
#include "services/error_trail.h"
#include "services/launch_output.h"
#include "services/numbered_messages.h"
#include "services/own_questions.h"
#include "services/store.h"
#include "vqStore.h"

namespace kavel::agent {

class Host {
  public:
    // Becomes the current host until it is destroyed. The calling thread's namespace becomes the box's own. Throws
    // std::system_error.
    explicit Host(Config configuration);
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;
    ~Host();

    // The living host. Aborts the process when there is none: a service was called before main was ready.
    static Host &Current();
    // The living host, or null.
    static Host *CurrentOrNull();

    Config config; // replaced in place when the configuration file is read again
    Namespaces namespaces{config};
    RouteSockets routeSockets{namespaces};
    NftablesContexts nftables{namespaces};
    PatternCache patterns;
    const std::string namespaceTool = NamespaceTool();
    InstanceIdentity identity = InstanceIdentity::OfBox();
    LaunchOutputs launchOutputs;
    OwnQuestions ownQuestions{std::string(kStateDirectory) + "/questions"};
    std::optional<std::uint32_t> currentVpn; // see VpnScope
    std::vector<std::string> endedProcesses; // what VQ_KillPid ended beside the instance itself, since the last Clear
    std::map<std::string, FileMark> writtenFiles; // by path, as this agent has written them for the module
    ErrorTrail moduleErrors;                      // since the last Clear()
    std::string flexLog;
    bool moduleIsSilent = false; // the module's lines are not written; its errors are kept all the same
    VQ_DATA_CONTENT_TRANS_OP conversions{};
    Store store{*this};
    NumberedMessages numbered{*this};
};

// The VPN that the module works for during a scope: its log lines name this VPN, and it may end processes of this VPN
// only.
class VpnScope {
  public:
    VpnScope(Host &host, std::uint32_t vpnId) : host_(host) { host_.currentVpn = vpnId; }
    VpnScope(const VpnScope &) = delete;
    VpnScope &operator=(const VpnScope &) = delete;
    ~VpnScope() { host_.currentVpn.reset(); }

  private:
    Host &host_;
};

// Keeps the module's lines out of the log for a scope.
class ModuleSilence {
  public:
    explicit ModuleSilence(Host &host) : host_(host) { host_.moduleIsSilent = true; }
    ModuleSilence(const ModuleSilence &) = delete;
    ModuleSilence &operator=(const ModuleSilence &) = delete;
    ~ModuleSilence() { host_.moduleIsSilent = false; }

  private:
    Host &host_;
};

} // namespace kavel::agent

#endif
