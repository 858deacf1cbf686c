#include "instances/module.h"

#include <dlfcn.h>

#include <filesystem>
#include <stdexcept>

#include "base/program_files.h"
#include "module_exports.h"

namespace kavel::agent {
namespace {

constexpr const char *kFileName = "libvqAdvancedDns.so";

} // namespace

void Module::Close::operator()(void *handle) const
{
    ::dlclose(handle);
}

template <typename Function>
void Module::Find(Function &function, const char *name) const
{
    function = reinterpret_cast<Function>(::dlsym(handle_.get(), name));
}

Module::Module(const std::string &path, Host &host)
    : path_(path.empty() ? ProgramFile(KAVEL_MODULE_DIR, kFileName) : std::filesystem::absolute(path).string()),
      handle_(::dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL))
{
    if (!handle_) {
        throw std::runtime_error(::dlerror());
    }
    CheckExports();
    const bool isCpe = host.config.platform == Platform::kCpe;
    Find(functions_.setPlatform, isCpe ? "VQCtrl_AgentSetCPEAdvancedDnsOps" : "VQCtrl_AgentSetPOPAdvancedDnsOps");
    Find(functions_.stopOldService, "VQCtrl_StopOldVersionDnsmasqService");
    Find(functions_.configure, "VQCtrl_ConfigAdvancedDns");
    Find(functions_.translate,
         isCpe ? "VQCtrl_PbToAdvancedDnsConfPlatformCPE" : "VQCtrl_PbToAdvancedDnsConfPlatformPOP");
    Find(functions_.recover, "VQCtrl_AgentRecoverAdvancedDnsConf");
    Find(functions_.initDirectory, "VQCtrl_DnsmasqConfInitByVpnId");
    Find(functions_.releaseDirectory, "VQCtrl_DnsmasqConfRelaseByVpnId");
    Find(functions_.stopInstance, "VQCtrl_DnsmasqStop");
    Find(functions_.restartInstance, "VQCtrl_DnsmasqReboot");
    Find(functions_.addRoutes, "VQCtrl_AddDnsmasqRouteForVpn");
    Find(functions_.removeRoutes, "VQCtrl_DelDnsmasqRouteForVpn");
    Find(functions_.addPolicy, "VQCtrl_ConfigAddDnsmasqPolicy");
    Find(functions_.removePolicy, "VQCtrl_ConfigDelDnsmasqPolicy");
    Find(functions_.addDnat, "VQCtrl_ConfigAddDnsmasqDnat");
    Find(functions_.validateDomain, "VQCtrl_ValidateDomain");
    Find(host.conversions.DnsmasqConfToStr, "VQCtrl_AdvancedDnsConfToJsonStr");
    Find(host.conversions.DnsmasqStrToConf, "VQCtrl_AdvancedDnsJsonStrToConf");
}

// A library that lacks an exported function, even one that this program does not call, is of another release.
void Module::CheckExports() const
{
    std::string missing;
    for (const char *name : kModuleExports) {
        if (::dlsym(handle_.get(), name) == nullptr) {
            missing += std::string(" ") + name;
        }
    }
    if (!missing.empty()) {
        throw std::runtime_error(path_ + ": lacks" + missing);
    }
}

} // namespace kavel::agent
