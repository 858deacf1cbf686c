// Sets up a box with one real VPN and measures the agent's services on it. It changes the network of its namespace:
// run it with scripts/private.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iterator>
#include <map>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "base/config.h"
#include "services.h"
#include "services/host.h"
#include "services/memory_malloc.h"

namespace kavel::bench {
namespace {

using Topic = std::vector<Comparison> (*)(const Setting &);

const std::map<std::string, Topic> &Topics()
{
    static const std::map<std::string, Topic> topics{{"files", CompareFiles},
                                                     {"memory", CompareMemory},
                                                     {"routes", CompareRoutes},
                                                     {"rules", CompareRules},
                                                     {"store", CompareStore}};
    return topics;
}

std::vector<std::string> TopicNames()
{
    std::vector<std::string> names;
    std::ranges::transform(Topics(), std::back_inserter(names), [](const auto &topic) { return topic.first; });
    return names;
}

struct Options {
    std::string out;
    std::size_t pairs = 9;
    std::string parent = "/var/tmp";
    std::vector<std::string> topics = TopicNames();
};

// A temporary directory; the destructor removes it.
class Workshop {
  public:
    explicit Workshop(const std::string &parent) : path_(parent + "/kavel-bench.XXXXXX")
    {
        if (::mkdtemp(path_.data()) == nullptr) {
            throw std::system_error(errno, std::system_category(), path_);
        }
    }
    Workshop(const Workshop &) = delete;
    Workshop &operator=(const Workshop &) = delete;
    ~Workshop()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    [[nodiscard]] const std::string &Path() const { return path_; }

  private:
    std::string path_;
};

std::string NamespaceName(std::uint32_t vpn)
{
    return "vpn_" + std::to_string(vpn);
}

agent::Config BoxConfig(const std::string &directory)
{
    agent::Config config;
    config.customer = 1;
    config.persistence = true;
    config.store = directory + "/agent.db";
    for (std::uint32_t id = 1; id <= kLastVpn; ++id) {
        agent::Vpn vpn;
        vpn.id = id;
        vpn.netns = NamespaceName(id);
        vpn.lan = {kLan};
        config.vpns.push_back(vpn);
    }
    return config;
}

// Both ends of the interface are in the same namespace.
void MakeVpn()
{
    const std::string name = NamespaceName(kVpn);
    RunProgram({"ip", "netns", "add", name});
    RunProgram({"ip", "-n", name, "link", "add", kLan, "type", "veth", "peer", "name", "lan1"});
    RunProgram({"ip", "-n", name, "address", "add", "10.7.0.1/24", "dev", kLan});
    RunProgram({"ip", "-n", name, "link", "set", kLan, "up"});
    RunProgram({"ip", "-n", name, "link", "set", "lan1", "up"});
}

void Measure(const Options &options)
{
    agent::ReturnLargeMemory(); // the agent configures its allocator in the same way
    const Workshop workshop(options.parent);
    MakeVpn();
    const agent::Host host(BoxConfig(workshop.Path()));
    std::vector<Comparison> comparisons;
    for (const std::string &topic : options.topics) {
        std::ranges::move(Topics().at(topic)({options.pairs, workshop.Path()}), std::back_inserter(comparisons));
    }
    WriteJson(options.out, comparisons);
}

} // namespace

void RunProgram(std::vector<std::string> words)
{
    std::vector<char *> arguments;
    std::ranges::transform(words, std::back_inserter(arguments), [](std::string &word) { return word.data(); });
    arguments.push_back(nullptr);
    pid_t child = 0;
    const int error = ::posix_spawnp(&child, arguments.front(), nullptr, nullptr, arguments.data(), environ);
    if (error != 0) {
        throw std::system_error(error, std::system_category(), words.front());
    }
    int status = 0;
    Expect(::waitpid(child, &status, 0) == child && status == 0, words.front() + ": failed");
}

} // namespace kavel::bench

int main(int argc, char **argv)
{
    try {
        kavel::bench::Options options;
        CLI::App app("Measures the agent's services, each with the least that the same work costs.", "bench_services");
        app.add_option("--out", options.out, "file for the figures, JSON")->required();
        app.add_option("--pairs", options.pairs, "pairs of measurements for each case")->check(CLI::Range(1, 1000));
        app.add_option("--directory", options.parent, "parent of a temporary directory for durable files")
            ->capture_default_str();
        app.add_option("topics", options.topics, "what to measure; default: everything")
            ->check(CLI::IsMember(kavel::bench::TopicNames()));
        CLI11_PARSE(app, argc, argv);
        kavel::bench::Measure(options);
        return EXIT_SUCCESS;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "bench_services: %s\n", failure.what());
        return EXIT_FAILURE;
    }
}
