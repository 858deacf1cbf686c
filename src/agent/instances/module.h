// The DNS module: found, loaded and checked at run time. Its functions have the types of its own header.
#ifndef KAVEL_AGENT_MODULE_H
#define KAVEL_AGENT_MODULE_H

#include <memory>
#include <string>

#include "base/config.h"
#include "services/host.h"
#include "vqCtrlAdvancedDns.h"

namespace kavel::agent {

// The functions that the agent calls, of the platform of its box.
struct ModuleFunctions {
    decltype(&VQCtrl_AgentSetCPEAdvancedDnsOps) setPlatform = nullptr;
    decltype(&VQCtrl_StopOldVersionDnsmasqService) stopOldService = nullptr;
    decltype(&VQCtrl_ConfigAdvancedDns) configure = nullptr;
    decltype(&VQCtrl_PbToAdvancedDnsConfPlatformCPE) translate = nullptr;
    decltype(&VQCtrl_AgentRecoverAdvancedDnsConf) recover = nullptr;
    decltype(&VQCtrl_DnsmasqConfInitByVpnId) initDirectory = nullptr;
    decltype(&VQCtrl_DnsmasqConfRelaseByVpnId) releaseDirectory = nullptr;
    decltype(&VQCtrl_DnsmasqStop) stopInstance = nullptr;
    decltype(&VQCtrl_DnsmasqReboot) restartInstance = nullptr;
    decltype(&VQCtrl_AddDnsmasqRouteForVpn) addRoutes = nullptr;
    decltype(&VQCtrl_DelDnsmasqRouteForVpn) removeRoutes = nullptr;
    decltype(&VQCtrl_ConfigAddDnsmasqPolicy) addPolicy = nullptr;
    decltype(&VQCtrl_ConfigDelDnsmasqPolicy) removePolicy = nullptr;
    decltype(&VQCtrl_ConfigAddDnsmasqDnat) addDnat = nullptr;
    decltype(&VQCtrl_ValidateDomain) validateDomain = nullptr;
};

class Module {
  public:
    // Loads `path`; if it is empty, the library beside the program, or else the installed one. Gives `host` the
    // module's conversions. Throws std::runtime_error when the library cannot be loaded, needs a service that this
    // program lacks, or lacks a function.
    Module(const std::string &path, Host &host);

    // Valid while this object lives.
    [[nodiscard]] const ModuleFunctions &Functions() const { return functions_; }
    [[nodiscard]] const std::string &Path() const { return path_; }

  private:
    struct Close {
        void operator()(void *handle) const;
    };

    template <typename Function>
    void Find(Function &function, const char *name) const;
    void CheckExports() const;

    std::string path_;
    ModuleFunctions functions_;
    std::unique_ptr<void, Close> handle_;
};

} // namespace kavel::agent

#endif
