// The DNS module: found, loaded and checked at run time.
#ifndef KAVEL_AGENT_MODULE_H
#define KAVEL_AGENT_MODULE_H

#include <cstdint>
#include <memory>
#include <string>

#include "base/config.h"
#include "vqDnsmasqConf.h"

struct DnsmasqConf;
struct PopDnsmasqConf;

namespace kavel::agent {

// The module's union for the controller message of either platform.
union MessagePointer {
    const DnsmasqConf *cpe;
    const PopDnsmasqConf *pop;
};

class Module {
  public:
    using PlatformEntry = void();
    using Configure = VQ_ERR_T(const MessagePointer *);
    using Translate = VQ_ERR_T(const MessagePointer *, VQ_DNSMASQ_CONF *);
    using VpnOperation = VQ_ERR_T(std::uint32_t);
    using Recover = VQ_ERR_T();

    // Loads `path`, or when it is empty the library beside the program, or else the installed one, and gives the store
    // the module's conversions. Throws std::runtime_error when it cannot be loaded, needs a service that this program
    // lacks, or lacks a function.
    Module(const std::string &path, Platform platform);

    PlatformEntry *setPlatform = nullptr;
    PlatformEntry *stopOldService = nullptr;
    Configure *configure = nullptr;
    Translate *translate = nullptr;
    VpnOperation *initDirectory = nullptr;
    VpnOperation *releaseDirectory = nullptr;
    VpnOperation *stopInstance = nullptr;
    Recover *recover = nullptr;

    [[nodiscard]] const std::string &Path() const { return path_; }

  private:
    struct Close {
        void operator()(void *handle) const;
    };

    template <typename Function>
    Function *Find(const char *name) const;
    void RefuseMissingFunctions() const;

    std::string path_;
    std::unique_ptr<void, Close> handle_;
};

} // namespace kavel::agent

#endif
