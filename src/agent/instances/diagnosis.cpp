#include "instances/diagnosis.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <system_error>

#include "base/dns_name.h"
#include "base/procfs.h"
#include "instances/instance_servers.h"
#include "instances/start_files.h"
#include "log.h"
#include "services/interfaces_netlink.h"
#include "services/routes_netlink.h"
#include "unique_fd.h"

namespace kavel::agent {
namespace {

constexpr std::size_t kServersMax = 64;     // of forwards that are looked at
constexpr std::size_t kSkippedHostsMax = 8; // that are told

// Whether a socket can have the address: it is one of the namespace's own.
bool IsOwnAddress(const DnsTarget &target)
{
    const UniqueFd socket(::socket(target.address6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (target.address6) {
        sockaddr_in6 own{};
        own.sin6_family = AF_INET6;
        own.sin6_addr = *target.address6;
        return ::bind(socket.Get(), reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0;
    }
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(target.address);
    return ::bind(socket.Get(), reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0;
}

class Diagnosis {
  public:
    Diagnosis(Host &host, const Instances &instances, const VpnStatus &status)
        : host_(host), instances_(instances), status_(status), vpnId_(status.fields.vpn)
    {
    }

    std::vector<Finding> Run()
    {
        CheckInstance();
        CheckReadability();
        CheckHosts();
        Try("links", [&] {
            links_ = LinksOf(host_, vpnId_);
            CheckLinks();
        });
        Try("policy rules", [&] { CheckRouteRule(); });
        Try("servers", [&] { CheckServers(); });
        return std::move(found_);
    }

  private:
    void Add(Fault fault, std::string text, std::string subject)
    {
        found_.push_back({fault, std::move(text), std::move(subject)});
    }

    template <typename Check>
    void Try(const char *what, Check check)
    {
        try {
            check();
        } catch (const std::system_error &failure) {
            Log(LogLevel::kDebug, "vpn %u: its %s cannot be read: %s", vpnId_, what, failure.what());
        }
    }

    void CheckInstance()
    {
        const Kavel__VpnStatus &fields = status_.fields;
        if (fields.alive == 0 || fields.is_dnsmasq == 0) {
            return;
        }
        const std::string pid = std::to_string(fields.pid);
        if (InspectProcess(fields.pid).isStopped) {
            Add(Fault::kInstanceSuspended, "process " + pid + " of the instance is stopped by a signal", pid);
        }
        for (const std::string &name : ChangedSinceStart(instances_, vpnId_)) {
            Add(Fault::kRestartPending,
                name + " has changed since the instance started; dnsmasq reads it at a start only", name);
        }
    }

    void CheckReadability()
    {
        struct stat info {};
        for (const std::string &directory : instances_.DirectoriesToFiles(vpnId_)) {
            if (::stat(directory.c_str(), &info) == 0 && (info.st_mode & S_IXOTH) == 0) {
                Add(Fault::kFilesUnreadable, directory + " is closed to dnsmasq's user", directory);
            }
        }
        for (const char *name : {"/hosts", "/resolv.conf"}) {
            const std::string path = instances_.Directory(vpnId_) + name;
            if (::stat(path.c_str(), &info) == 0 && (info.st_mode & S_IROTH) == 0) {
                Add(Fault::kFilesUnreadable, path + " cannot be read by dnsmasq's user", path);
            }
        }
    }

    void CheckHosts()
    {
        std::ifstream file(instances_.Directory(vpnId_) + "/hosts");
        std::size_t number = 1;
        std::size_t skipped = 0;
        for (std::string line; std::getline(file, line) && skipped < kSkippedHostsMax; ++number) {
            std::istringstream words(line);
            std::string address;
            std::string name;
            words >> address >> name;
            const std::size_t longest = LongestLabel(name);
            if (longest > kLabelMax) {
                ++skipped;
                Add(Fault::kHostSkipped,
                    "hosts, line " + std::to_string(number) + ": dnsmasq skips a name with a label of " +
                        std::to_string(longest) + " characters; 63 are allowed",
                    "line " + std::to_string(number));
            }
        }
    }

    void AddMissing(const std::string &name)
    {
        Add(Fault::kInterfaceMissing,
            "interface \"" + name + "\" does not exist in namespace \"" + status_.netns + "\"", name);
    }

    // A port that nothing is plugged into is no fault where others are in use.
    void CheckLink(const std::string &name, const std::string &kind, bool mayBeUnplugged)
    {
        const auto link = links_.find(name);
        if (link == links_.end()) {
            AddMissing(name);
        } else if (link->second == LinkState::kDown) {
            Add(Fault::kLinkDown, kind + " interface " + name + " is down", name);
        } else if (link->second == LinkState::kNoCarrier && !mayBeUnplugged) {
            Add(Fault::kLinkDown, kind + " interface " + name + " has no carrier: its other end is down", name);
        }
    }

    [[nodiscard]] bool IsUp(const std::string &name) const
    {
        const auto link = links_.find(name);
        return link != links_.end() && link->second == LinkState::kUp;
    }

    void CheckLinks()
    {
        const Vpn *vpn = host_.config.Find(vpnId_);
        if (vpn == nullptr) {
            return;
        }
        const bool hasClients = std::ranges::any_of(vpn->lan, [this](const std::string &name) { return IsUp(name); });
        for (const std::string &name : vpn->lan) {
            CheckLink(name, "LAN", hasClients);
        }
        for (const Wan &wan : vpn->wan) {
            CheckLink(wan.name, "WAN", false);
        }
    }

    void CheckRouteRule()
    {
        if (vpnId_ != 0 && !HasPolicyRule(host_, vpnId_)) {
            Add(Fault::kRouteRuleMissing, "policy rule 199 is missing: nothing looks up table 199", "");
        }
    }

    void CheckServers()
    {
        std::vector<InstanceServer> servers = UpstreamsOf(instances_, vpnId_);
        std::ranges::move(ForwardServersOf(instances_, vpnId_, kServersMax), std::back_inserter(servers));
        for (const InstanceServer &server : servers) {
            CheckBinding(server);
        }
        const NamespaceSwitch inside(host_.namespaces, vpnId_);
        for (const InstanceServer &server : servers) {
            CheckLoop(server);
        }
    }

    void CheckBinding(const InstanceServer &server)
    {
        if (server.interface.empty() || links_.empty()) { // every namespace has a loopback interface
            return;
        }
        if (!links_.contains(server.interface)) {
            Add(Fault::kBoundInterfaceMissing,
                "server " + server.address + " is bound to interface " + server.interface + ", which does not exist",
                server.interface);
        }
    }

    // The box may have another resolver on a loopback address of its own.
    void CheckLoop(const InstanceServer &server)
    {
        const DnsTarget target = server.Target(vpnId_);
        const bool isOtherLoopback = vpnId_ == 0 && !target.address6 &&
                                     target.address >> IN_CLASSA_NSHIFT == IN_LOOPBACKNET &&
                                     target.address != INADDR_LOOPBACK;
        if (!isOtherLoopback && IsOwnAddress(target)) {
            const std::string what = server.IsForward() ? "the forward of " + server.domain + " goes to " : "upstream ";
            Add(Fault::kServerLoop,
                what + server.address + (server.IsForward() ? ", which is" : " is") +
                    " an address of the namespace itself: its queries come back to the instance",
                server.address);
        }
    }

    Host &host_;
    const Instances &instances_;
    const VpnStatus &status_;
    std::uint32_t vpnId_;
    std::map<std::string, LinkState> links_;
    std::vector<Finding> found_;
};

// Instances start as the agent's user and count against the same limit.
bool IsInotifyExhausted()
{
    const UniqueFd probe(::inotify_init1(IN_CLOEXEC));
    return !probe && errno == EMFILE;
}

std::size_t OpenDescriptors()
{
    std::error_code ignored;
    const std::filesystem::directory_iterator open("/proc/self/fd", ignored);
    return static_cast<std::size_t>(std::distance(begin(open), end(open)));
}

} // namespace

std::vector<Finding> FindFaults(Host &host, const Instances &instances, const VpnStatus &status)
{
    const bool isServed = status.fields.meant != 0 && host.namespaces.IdOf(status.fields.vpn).has_value();
    return isServed ? Diagnosis(host, instances, status).Run() : std::vector<Finding>();
}

std::vector<Finding> FindFaultsOfBox(Host &host)
{
    constexpr std::size_t kNearly = 10; // descriptors that are left
    std::vector<Finding> found;
    if (IsInotifyExhausted()) {
        found.push_back({Fault::kInotifyLimit,
                         "no inotify instance is left (fs.inotify.max_user_instances): no instance can start", ""});
    }
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && OpenDescriptors() + kNearly > limit.rlim_cur) {
        found.push_back({Fault::kDescriptorLimit,
                         "the agent has " + std::to_string(OpenDescriptors()) + " of " +
                             std::to_string(limit.rlim_cur) + " descriptors open",
                         ""});
    }
    if (host.config.persistence) {
        try {
            if (host.store.IsLocked()) {
                found.push_back({Fault::kStoreLocked, "another program has locked the store: nothing can be stored",
                                 host.config.store});
            }
        } catch (const std::system_error &failure) {
            Log(LogLevel::kDebug, "the store cannot be looked at: %s", failure.what());
        }
    }
    return found;
}

} // namespace kavel::agent
