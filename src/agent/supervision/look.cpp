#include "supervision/look.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "log.h"
#include "services/interfaces_netlink.h"
#include "services/routes_netlink.h"
#include "services/rules_nftables.h"

namespace kavel::agent {
namespace {

class Look {
  public:
    Look(Host &host, const Instances &instances, std::uint32_t vpnId, const InForce &wanted, const LookOptions &options)
        : host_(host), instances_(instances), vpnId_(vpnId), wanted_(wanted), options_(options)
    {
    }

    std::vector<Difference> Run()
    {
        CheckFiles();
        CheckRoutes();
        CheckInstance();
        if (!options_.skipsRules) {
            CheckRules();
        }
        return std::move(found_);
    }

  private:
    void Add(Part part, std::string text) { found_.push_back({part, std::move(text)}); }

    // Runs `check`; a part that cannot be read is no difference.
    template <typename Check>
    void Try(const char *what, Check check)
    {
        try {
            check();
        } catch (const std::system_error &failure) {
            Log(LogLevel::kDebug, "vpn %u: its %s cannot be read: %s", vpnId_, what, failure.what());
        }
    }

    [[nodiscard]] static bool IsClosedDirectory(const std::string &directory)
    {
        struct stat info {};
        return ::stat(directory.c_str(), &info) == 0 && (info.st_mode & S_IXOTH) == 0;
    }

    void CheckFiles()
    {
        const std::filesystem::path directory = instances_.Directory(vpnId_);
        std::error_code ignored;
        if (!std::filesystem::is_directory(directory / "dnsmasq.d", ignored)) {
            Add(Part::kFiles, "its directory was gone");
            return;
        }
        if (std::ranges::any_of(instances_.DirectoriesToFiles(vpnId_), IsClosedDirectory)) {
            Add(Part::kFiles, "its directory was closed to dnsmasq's user");
            return;
        }
        const std::vector<std::string> files = instances_.Files(vpnId_);
        for (std::size_t i = 0; i < files.size() && i < wanted_.files.size(); ++i) {
            const FileMark now = MarkOfFile(files[i]);
            if (now != wanted_.files[i]) {
                Add(Part::kFiles, std::filesystem::path(files[i]).filename().string() +
                                      (now.inode == 0 ? " was gone" : " was changed"));
                return;
            }
        }
    }

    void CheckRoutes()
    {
        if (vpnId_ == 0 || !wanted_.routes) {
            return;
        }
        Try("routes", [&] {
            const std::uint32_t count = CountRoutes(host_, vpnId_, kDnsRouteTable);
            if (count != *wanted_.routes) {
                Add(Part::kRoutes,
                    "there were " + std::to_string(count) + " of its " + std::to_string(*wanted_.routes) + " routes");
            }
        });
    }

    void CheckInstance()
    {
        const PidFile file = instances_.ReadPidFile(vpnId_);
        const pid_t pid = options_.instance != 0 ? options_.instance : instances_.IsRunning(vpnId_) ? file.pid : 0;
        if (!wanted_.enables) {
            if (pid != 0) {
                Add(Part::kInstance, "its instance ran although the service is off");
            } else if (file.exists) {
                Add(Part::kPidFile, "its pid file was left over");
            }
            return;
        }
        const auto netns = NamespaceOfProcess(pid);
        if (!netns && options_.instance != 0) {
            return; // it is ending, and that is reported
        }
        if (!netns) {
            Add(Part::kInstance, "no instance ran");
        } else if (netns != host_.namespaces.IdOf(vpnId_)) {
            Add(Part::kInstance, "its instance ran in another network namespace");
        } else if (file.pid != pid || !file.isOwn) {
            Add(Part::kPidFile, file.exists ? "its pid file was changed" : "its pid file was gone");
        }
    }

    void CheckRules()
    {
        Try("rules", [&] {
            const InstalledRules rules = FindInstalledRules(host_, vpnId_);
            const bool needsDnat = vpnId_ == 0 && host_.config.platform == Platform::kPop;
            const bool isThere = rules.dns && (rules.dnat || !needsDnat);
            const bool isSome = rules.dns || rules.dnat || rules.stale;
            if (wanted_.enables && !isThere) {
                Add(Part::kRule, rules.stale ? "the steering rule was changed" : "the steering rule was gone");
            } else if (!wanted_.enables && isSome) {
                Add(Part::kRule, "the steering rule was there although the service is off");
            }
        });
    }

    Host &host_;
    const Instances &instances_;
    std::uint32_t vpnId_;
    const InForce &wanted_;
    const LookOptions &options_;
    std::vector<Difference> found_;
};

void AddMissingInterface(Host &host, const Vpn &vpn, const std::string &name, Missing &missing)
{
    try {
        (void)InterfaceIndex(host, vpn.id, name);
    } catch (const std::system_error &failure) {
        missing.findings.push_back(
            {Fault::kInterfaceMissing,
             "interface \"" + name + "\"" +
                 (failure.code().value() == ENODEV ? " does not exist in namespace \"" + vpn.netns + "\""
                                                   : ": " + failure.code().message()),
             name});
    }
}

} // namespace

bool Has(std::span<const Difference> differences, Part part)
{
    return std::ranges::find(differences, part, &Difference::part) != differences.end();
}

std::vector<Difference> LookAt(Host &host, const Instances &instances, std::uint32_t vpnId, const InForce &wanted,
                               const LookOptions &options)
{
    return host.namespaces.IdOf(vpnId) ? Look(host, instances, vpnId, wanted, options).Run()
                                       : std::vector<Difference>();
}

Missing FindMissing(Host &host, std::uint32_t vpnId)
{
    Missing missing;
    const Vpn *vpn = host.config.Find(vpnId);
    if (vpn == nullptr) {
        return missing;
    }
    try {
        const NamespaceSwitch inside(host.namespaces, vpnId);
    } catch (const std::system_error &failure) {
        missing.isNamespace = true;
        const int error = failure.code().value();
        missing.findings.push_back({Fault::kNamespaceMissing,
                                    "namespace \"" + vpn->netns + "\"" +
                                        (error == ENOENT   ? " does not exist"
                                         : error == EINVAL ? " is not a network namespace"
                                                           : ": " + failure.code().message()),
                                    vpn->netns});
        return missing;
    }
    for (const std::string &name : vpn->lan) {
        AddMissingInterface(host, *vpn, name, missing);
    }
    for (const Wan &wan : vpn->wan) {
        AddMissingInterface(host, *vpn, wan.name, missing);
    }
    return missing;
}

} // namespace kavel::agent
