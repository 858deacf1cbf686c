#include "instances/module.h"

#include <dlfcn.h>

#include <array>
#include <filesystem>
#include <stdexcept>

#include "vqStore.h"

namespace kavel::agent {
namespace {

constexpr const char *kFileName = "libvqAdvancedDns.so";

// What every module exports, whether this program calls it or not: a library without one of them is another release.
constexpr std::array<const char *, 38> kFunctions{"VQCtrl_AgentSetCPEAdvancedDnsOps",
                                                  "VQCtrl_AgentSetPOPAdvancedDnsOps",
                                                  "VQCtrl_AgentSetApAdvancedDnsOps",
                                                  "VQCtrl_AgentSetAdAdvancedDnsOps",
                                                  "VQCtrl_AgentSetWinAdvancedDnsOps",
                                                  "VQCtrl_AgentSetMacAdvancedDnsOps",
                                                  "VQCtrl_AgentSetLinuxAdvancedDnsOps",
                                                  "VQCtrl_ConfigAdvancedDns",
                                                  "VQCtrl_AgentRecoverAdvancedDnsConf",
                                                  "VQCtrl_PbToAdvancedDnsConfPlatformCPE",
                                                  "VQCtrl_ValidateDomain",
                                                  "VQCtrl_SetDnsHostConf",
                                                  "VQCtrl_SetDnsHostByDnsHostConf",
                                                  "VQCtrl_SetDnsMxHostConf",
                                                  "VQCtrl_SetDnsServerConf",
                                                  "VQCtrl_SetDnsResolveConf",
                                                  "VQCtrl_SetDnsProxyConf",
                                                  "VQCtrl_AddDnsmasqRouteForVpn",
                                                  "VQCtrl_DelDnsmasqRouteForVpn",
                                                  "VQCtrl_DnsmasqConfInitByVpnId",
                                                  "VQCtrl_DnsmasqConfRelaseByVpnId",
                                                  "VQCtrl_StopOldVersionDnsmasqService",
                                                  "VQCtrl_DnsmasqStart",
                                                  "VQCtrl_DnsmasqStop",
                                                  "VQCtrl_DnsmasqReload",
                                                  "VQCtrl_DnsmasqReboot",
                                                  "VQCtrl_GetDnsServicePid",
                                                  "VQCtrl_PbToAdvancedDnsConfPlatformPOP",
                                                  "VQCtrl_AdvancedDnsConfToJsonStr",
                                                  "VQCtrl_AdvancedDnsJsonStrToConf",
                                                  "VQCtrl_AdvancedDnsmasqAddPersistentConf",
                                                  "VQCtrl_AdvancedDnsmasqUpdatePersistentConf",
                                                  "VQCtrl_AdvancedDnsmasqDelPersistentconf",
                                                  "VQCtrl_AdvancedDnsmasqGetAllPersistentconf",
                                                  "VQCtrl_ConfigAddDnsmasqDnat",
                                                  "VQCtrl_ConfigDelDnsmasqDnat",
                                                  "VQCtrl_ConfigAddDnsmasqPolicy",
                                                  "VQCtrl_ConfigDelDnsmasqPolicy"};

std::string FindLibrary()
{
    std::error_code ignored;
    const auto beside = std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path() / kFileName;
    return std::filesystem::exists(beside, ignored) ? beside.string() : std::string(KAVEL_MODULE_DIR "/") + kFileName;
}

} // namespace

void Module::Close::operator()(void *handle) const
{
    ::dlclose(handle);
}

template <typename Function>
Function *Module::Find(const char *name) const
{
    return reinterpret_cast<Function *>(::dlsym(handle_.get(), name));
}

Module::Module(const std::string &path, Platform platform)
    : path_(path.empty() ? FindLibrary() : std::filesystem::absolute(path).string()),
      handle_(::dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL))
{
    if (!handle_) {
        throw std::runtime_error(::dlerror());
    }
    RefuseMissingFunctions();
    const bool cpe = platform == Platform::kCpe;
    setPlatform = Find<PlatformEntry>(cpe ? "VQCtrl_AgentSetCPEAdvancedDnsOps" : "VQCtrl_AgentSetPOPAdvancedDnsOps");
    stopOldService = Find<PlatformEntry>("VQCtrl_StopOldVersionDnsmasqService");
    configure = Find<Configure>("VQCtrl_ConfigAdvancedDns");
    translate =
        Find<Translate>(cpe ? "VQCtrl_PbToAdvancedDnsConfPlatformCPE" : "VQCtrl_PbToAdvancedDnsConfPlatformPOP");
    recover = Find<Recover>("VQCtrl_AgentRecoverAdvancedDnsConf");
    initDirectory = Find<VpnOperation>("VQCtrl_DnsmasqConfInitByVpnId");
    releaseDirectory = Find<VpnOperation>("VQCtrl_DnsmasqConfRelaseByVpnId");
    stopInstance = Find<VpnOperation>("VQCtrl_DnsmasqStop");
    VQ_DATA_CONTENT_TRANS_OP &conversions = *VQ_GetDbDataTransOp();
    conversions.DnsmasqConfToStr = Find<char *(const VQ_DNSMASQ_CONF *)>("VQCtrl_AdvancedDnsConfToJsonStr");
    conversions.DnsmasqStrToConf = Find<VQ_ERR_T(VQ_DNSMASQ_CONF *, const char *)>("VQCtrl_AdvancedDnsJsonStrToConf");
}

void Module::RefuseMissingFunctions() const
{
    std::string missing;
    for (const char *name : kFunctions) {
        if (::dlsym(handle_.get(), name) == nullptr) {
            missing += std::string(" ") + name;
        }
    }
    if (!missing.empty()) {
        throw std::runtime_error(path_ + ": lacks" + missing);
    }
}

} // namespace kavel::agent
