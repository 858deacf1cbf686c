// The contract on the agent's own services. Everything here happens in namespaces of this process's own; the box is
// made once.
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "base/config.h"
#include "base/netns.h"
#include "process_lab.h"
#include "services/host.h"
#include "unique_fd.h"
#include "world.h"

namespace kavel::contract {
namespace {

// What a shell command writes; its failure is no output.
std::string OutputOf(const std::string &command)
{
    struct Close {
        void operator()(std::FILE *stream) const { ::pclose(stream); }
    };
    // NOLINTNEXTLINE(cert-env33-c): the commands are constants of this file
    const std::unique_ptr<std::FILE, Close> stream(::popen((command + " 2>/dev/null").c_str(), "re"));
    if (!stream) {
        throw std::runtime_error("no shell");
    }
    std::string text;
    std::array<char, 4096> piece{};
    for (std::size_t size = 1; size > 0;) {
        size = std::fread(piece.data(), 1, piece.size(), stream.get());
        text.append(piece.data(), size);
    }
    return text;
}

std::string NamespaceOf(std::uint32_t vpn)
{
    return "vpn_" + std::to_string(vpn);
}

agent::Vpn ConfiguredVpn(std::uint32_t id)
{
    agent::Vpn vpn;
    vpn.id = id;
    vpn.netns = NamespaceOf(id);
    vpn.lan = {"lan0"};
    return vpn;
}

agent::Config ConfiguredBox()
{
    agent::Config config;
    config.customer = kCustomer;
    config.persistence = true;
    config.lan = {"br-*"};
    config.wan = {"up0", "br-9"};
    config.c2p = {"c2p*"};
    agent::Vpn first = ConfiguredVpn(kVpn);
    first.customer = kCustomerOfVpn;
    first.lan = {"lan0", "lan1"};
    first.wan = {{"wan0", false}, {"wan1", true}};
    config.vpns = {first, ConfiguredVpn(kOtherVpn), ConfiguredVpn(kLastVpn)};
    return config;
}

// Each interface has its other end in the same namespace.
std::string MakeNamespace(std::uint32_t vpn, const std::string &address)
{
    const std::string name = NamespaceOf(vpn);
    const std::string in = "ip -n " + name + " ";
    return "ip netns add " + name + " && " + in + "link add lan0 type veth peer name lan1 && " + in + "address add " +
           address + " dev lan0 && " + in + "link set lan0 up && " + in + "link set lan1 up && ";
}

struct Box {
    Box()
    {
        const std::string made = OutputOf(MakeNamespace(kVpn, "10.7.0.1/24") + MakeNamespace(kOtherVpn, "10.8.0.1/24") +
                                          MakeNamespace(kLastVpn, "10.9.0.1/24") + "echo made");
        if (made != "made\n") {
            throw std::runtime_error("the namespaces of the VPNs could not be made");
        }
        host.emplace(ConfiguredBox());
    }

    std::optional<agent::Host> host;
};

// "10.1.1.1 dev lan0 proto static scope link", next hops behind "nexthop", in the words of World::Routes.
std::string RouteText(const std::string &line)
{
    std::istringstream words(line);
    std::string route;
    words >> route;
    route = route == "default" ? "0.0.0.0/0" : route;
    route += route.find('/') == std::string::npos ? "/32" : "";
    std::string word;
    while (words >> word) {
        if (word == "via" || word == "dev") {
            route += " " + word;
            words >> word;
            route += " " + word;
        }
    }
    return route;
}

// "table inet kavel_dns_0_9 {" gives "dns zone 0 id 9"; nothing when it is no such line.
std::string RuleOfTable(std::string line)
{
    std::ranges::replace(line, '_', ' ');
    std::istringstream words(line);
    std::string table;
    std::string family;
    std::string owner;
    std::string kind;
    std::string zone;
    std::string id;
    words >> table >> family >> owner >> kind >> zone >> id;
    return table == "table" && owner == "kavel" ? kind.append(" zone ").append(zone).append(" id ").append(id) : "";
}

void AppendRules(std::vector<std::string> &rules, const std::string &ruleset)
{
    constexpr std::string_view kCustomerChain = "\tchain customer_";
    std::istringstream lines(ruleset);
    std::string rule;
    for (std::string line; std::getline(lines, line);) {
        const std::string found = RuleOfTable(line);
        rule = found.empty() ? rule : found;
        if (line.starts_with(kCustomerChain)) {
            const std::string customer = line.substr(kCustomerChain.size());
            rules.push_back(rule + " customer " + customer.substr(0, customer.find(' ')));
        }
    }
}

class RealWorld : public World {
  public:
    RealWorld()
    {
        static Box box;
        host_ = &*box.host;
        std::filesystem::create_directories(Below("dnsmasq.d"));
        ::pthread_getname_np(::pthread_self(), threadName_.data(), threadName_.size());
    }
    std::optional<std::string> ReadFile(const std::string &path) override
    {
        std::ifstream file(path, std::ios::binary);
        if (!file) {
            return std::nullopt;
        }
        return std::string(std::istreambuf_iterator<char>(file), {});
    }
    void PutFile(const std::string &path, const std::string &content) override
    {
        std::ofstream(path, std::ios::binary) << content;
    }
    void MakeDirectory(const std::string &path) override { std::filesystem::create_directory(path); }
    bool IsDirectory(const std::string &path) override { return std::filesystem::is_directory(path); }
    bool IsReadableByEveryone(const std::string &path) override
    {
        struct stat info {};
        return ::stat(path.c_str(), &info) == 0 && (info.st_mode & 0444U) == 0444U;
    }
    std::function<std::string()> KeepOpen(const std::string &path) override
    {
        auto file = std::make_shared<std::ifstream>(path, std::ios::binary);
        file->peek(); // open and in use
        file->rdbuf()->pubseekpos(0);
        return [file] { return std::string(std::istreambuf_iterator<char>(*file), {}); };
    }
    std::vector<std::string> FilesIn(const std::string &directory) override
    {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(directory)) {
            if (!entry.is_directory()) {
                names.push_back(entry.path().filename());
            }
        }
        std::ranges::sort(names);
        return names;
    }

    pid_t StartInstance(bool endsWhenAsked) override { return lab_.StartInstance(kVpn, endsWhenAsked); }
    pid_t EndedProcess() override { return lab_.EndedProcess(); }
    pid_t Zombie() override { return lab_.Zombie(); }
    bool IsRunning(pid_t pid) override { return ProcessLab::IsRunning(pid); }

    std::uint32_t CurrentVpn() override
    {
        struct stat info {};
        ::stat("/proc/thread-self/ns/net", &info);
        const agent::NamespaceId current{info.st_dev, info.st_ino};
        for (const std::uint32_t vpn : {0U, kVpn, kOtherVpn, kLastVpn}) {
            if (host_->namespaces.IdOf(vpn) == current) {
                return vpn;
            }
        }
        throw std::runtime_error("a namespace of nobody");
    }
    void Listen(std::uint32_t vpn, std::uint16_t port) override
    {
        const agent::NamespaceSwitch inside(host_->namespaces, vpn);
        UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        if (::bind(listener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            ::listen(listener.Get(), 1) != 0) {
            throw std::runtime_error("the port cannot be listened on");
        }
        listeners_.push_back(std::move(listener));
    }
    std::vector<std::string> Routes(std::uint32_t vpn, std::uint32_t table) override
    {
        seenTables_.emplace(vpn, table);
        std::istringstream lines(OutputOf("ip -4 -o " + (vpn == 0 ? std::string() : "-n " + NamespaceOf(vpn)) +
                                          " route show table " + std::to_string(table)));
        std::vector<std::string> routes;
        for (std::string line; std::getline(lines, line);) {
            routes.push_back(RouteText(line));
        }
        std::ranges::sort(routes);
        return routes;
    }
    std::vector<std::string> Rules() override
    {
        rulesSeen_ = true;
        std::vector<std::string> rules;
        AppendRules(rules, OutputOf("for n in " + Namespaces() +
                                    "; do ip netns exec $n nft list ruleset; done; nft list ruleset"));
        std::ranges::sort(rules);
        return rules;
    }

    void NameThread(const std::string &name) override { ::pthread_setname_np(::pthread_self(), name.c_str()); }
    std::string LoggedBy(const std::function<void()> &work) override
    {
        const UniqueFd log(::memfd_create("log", MFD_CLOEXEC));
        const UniqueFd own(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
        ::dup2(log.Get(), STDERR_FILENO);
        work();
        ::dup2(own.Get(), STDERR_FILENO);
        return ReadFile("/proc/self/fd/" + std::to_string(log.Get())).value_or("");
    }

    void AllowUnusualUse() override {}
    std::vector<std::string> Complaints() override
    {
        const bool back = CurrentVpn() == 0;
        return back ? std::vector<std::string>{}
                    : std::vector<std::string>{"the box's namespace is not the current one"};
    }

    void CleanUp() override
    {
        ::pthread_setname_np(::pthread_self(), threadName_.data());
        std::filesystem::remove_all("/etc/kavel");
        std::filesystem::remove_all("/var/lib/kavel");
        for (const auto &[vpn, table] : seenTables_) {
            OutputOf("ip -n " + NamespaceOf(vpn) + " route flush table " + std::to_string(table));
        }
        if (rulesSeen_) {
            OutputOf("for n in " + Namespaces() + "; do ip netns exec $n nft flush ruleset; done; nft flush ruleset");
        }
    }

  private:
    static std::string Namespaces()
    {
        return NamespaceOf(kVpn) + " " + NamespaceOf(kOtherVpn) + " " + NamespaceOf(kLastVpn);
    }

    agent::Host *host_ = nullptr;
    ProcessLab lab_;
    std::vector<UniqueFd> listeners_;
    std::array<char, 16> threadName_{};
    std::set<std::pair<std::uint32_t, std::uint32_t>> seenTables_;
    bool rulesSeen_ = false;
};

} // namespace

std::unique_ptr<World> MakeWorld()
{
    return std::make_unique<RealWorld>();
}

} // namespace kavel::contract
