// The part of a bundle that needs no agent.
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

#include "bundle_collector.h"
#include "bundle_programs.h"
#include "deadline.h"
#include "input_error.h"
#include "json_reader.h"
#include "number.h"
#include "unique_fd.h"

namespace kavel::ctl {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kProgramTimeout{3};
constexpr std::chrono::seconds kNamespacesTimeout{60};
constexpr std::size_t kPathsMax = 20000;

// At most `most` bytes, and one more if there are more. Only regular files are read: no other kind can block.
std::optional<std::string> ReadFileBounded(const std::string &path, std::size_t most, int &error)
{
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    struct stat info {};
    if (!file || ::fstat(file.Get(), &info) != 0) {
        error = errno;
        return std::nullopt;
    }
    if (!S_ISREG(info.st_mode)) {
        error = EINVAL;
        return std::nullopt;
    }
    std::string content;
    std::array<char, 65536> chunk{};
    while (content.size() <= most) {
        const ssize_t got = ::read(file.Get(), chunk.data(), std::min(chunk.size(), most + 1 - content.size()));
        if (got < 0 && errno != EINTR) {
            error = errno;
            return std::nullopt;
        }
        if (got == 0) {
            break;
        }
        content.append(chunk.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    return content;
}

std::string WithoutSlash(const std::string &path)
{
    return path.substr(std::min(path.size(), path.find_first_not_of('/')));
}

class BoxPart {
  public:
    BoxPart(const BundlePaths &paths, BundleContent &content) : paths_(paths), content_(content) {}

    void AddFile(const std::string &path, bool isPublic = false)
    {
        int error = 0;
        if (auto text = ReadFileBounded(path, BundleContent::kFileMax, error)) {
            content_.Add({WithoutSlash(path), *std::move(text), isPublic});
        } else {
            content_.Note(path, std::generic_category().message(error));
        }
    }

    // The regular files of a directory, of which the name begins with `stem`.
    void AddDirectory(const std::string &path, bool isRecursive, std::string_view stem = "")
    {
        std::vector<std::string> found;
        std::vector<std::string> directories{path};
        while (!directories.empty() && found.size() < kPathsMax) {
            const std::string directory = std::exchange(directories.back(), {});
            directories.pop_back();
            std::error_code error;
            for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
                std::error_code ignored;
                const fs::file_status status = entry->symlink_status(ignored);
                if (isRecursive && fs::is_directory(status)) {
                    directories.push_back(entry->path().string());
                } else if (fs::is_regular_file(status) && entry->path().filename().string().starts_with(stem)) {
                    found.push_back(entry->path().string());
                }
            }
            if (error) {
                content_.Note(directory, error.message());
            }
        }
        std::ranges::sort(found);
        std::ranges::for_each(found, [this](const std::string &file) { AddFile(file); });
    }

    // The file holds what the program prints.
    void AddProgram(const std::string &file, const std::vector<std::string> &words)
    {
        ProgramResult result = RunProgram(words, kProgramTimeout, BundleContent::kFileMax);
        if (!result.problem.empty()) {
            std::string command;
            for (const std::string &word : words) {
                command += (command.empty() ? "" : " ") + word;
            }
            content_.Note(file, command + ": " + result.problem);
        }
        if (!result.output.empty() || result.problem.empty()) {
            content_.Add({file, std::move(result.output)});
        }
    }

    void AddProcesses();
    void AddLimits();
    void AddNamespaces();
    void AddStore();

  private:
    void AddNamespace(const std::string &directory, const std::vector<std::string> &inside,
                      const std::vector<std::string> &ip);
    [[nodiscard]] JsonPtr Configuration() const;
    [[nodiscard]] std::vector<std::string> NamespaceNames() const;

    const BundlePaths &paths_;
    BundleContent &content_;
};

std::string TextOfFile(const std::string &path)
{
    constexpr std::size_t kMost = 65536;
    int error = 0;
    return ReadFileBounded(path, kMost, error).value_or("(" + std::generic_category().message(error) + ")\n");
}

std::string LinkTarget(const std::string &path)
{
    std::error_code error;
    const fs::path target = fs::read_symlink(path, error);
    return error ? "(" + error.message() + ")" : target.string();
}

// Of the agent and of dnsmasq.
void BoxPart::AddProcesses()
{
    std::string text;
    std::error_code error;
    for (fs::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error)) {
        const std::string directory = entry->path().string();
        if (!WholeNumber<std::uint32_t>(entry->path().filename().string())) {
            continue;
        }
        const std::string name = TextOfFile(directory + "/comm");
        if (name != "dnsmasq\n" && name != "vqagent\n") {
            continue;
        }
        std::string command = TextOfFile(directory + "/cmdline");
        std::ranges::replace(command, '\0', ' ');
        std::error_code ignored;
        const auto descriptors =
            std::distance(fs::directory_iterator(directory + "/fd", ignored), fs::directory_iterator());
        text += "process " + entry->path().filename().string() + ": " + command + "\nnetwork " +
                LinkTarget(directory + "/ns/net") + ", program " + LinkTarget(directory + "/exe") + ", descriptors " +
                std::to_string(descriptors) + "\n" + TextOfFile(directory + "/status") +
                TextOfFile(directory + "/limits") + "\n";
    }
    content_.Add({"processes.txt", text.empty() ? "neither vqagent nor dnsmasq runs\n" : std::move(text)});
}

void BoxPart::AddLimits()
{
    std::string text;
    for (const char *name : {"inotify/max_user_instances", "inotify/max_user_watches", "inotify/max_queued_events",
                             "file-nr", "nr_open"}) {
        text += std::string("fs/") + name + ": " + TextOfFile(std::string("/proc/sys/fs/") + name);
    }
    content_.Add({"limits.txt", text + "\n" + TextOfFile("/proc/loadavg") + TextOfFile("/proc/meminfo")});
}

// Null when the configuration cannot be read.
JsonPtr BoxPart::Configuration() const
{
    int error = 0;
    const auto text = ReadFileBounded(paths_.config, BundleContent::kFileMax, error);
    try {
        JsonPtr json = text ? ParseJson(*text) : nullptr;
        return IsType(json.get(), json_type_object) ? std::move(json) : nullptr;
    } catch (const InputError &) {
        return nullptr;
    }
}

std::vector<std::string> NamesOfFiles(const std::string &directory)
{
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
        names.push_back(entry->path().filename().string());
    }
    return names;
}

// Of the configured VPNs. Without a configuration: all.
std::vector<std::string> BoxPart::NamespaceNames() const
{
    const JsonPtr config = Configuration();
    json_object *vpns = nullptr;
    if (!config || json_object_object_get_ex(config.get(), "vpns", &vpns) == 0 || !IsType(vpns, json_type_array)) {
        return config ? std::vector<std::string>() : NamesOfFiles(paths_.namespaces);
    }
    std::vector<std::string> names;
    for (std::size_t i = 0; i < json_object_array_length(vpns); ++i) {
        json_object *const vpn = json_object_array_get_idx(vpns, i);
        json_object *value = nullptr;
        if (!IsType(vpn, json_type_object)) {
            continue;
        }
        if (json_object_object_get_ex(vpn, "namespace", &value) != 0 && IsType(value, json_type_string)) {
            names.emplace_back(json_object_get_string(value));
        } else if (json_object_object_get_ex(vpn, "id", &value) != 0) {
            names.push_back("vpn_" + std::to_string(json_object_get_int64(value)));
        }
    }
    return names;
}

std::vector<std::string> Joined(std::vector<std::string> words, const std::vector<std::string> &more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

void BoxPart::AddNamespace(const std::string &directory, const std::vector<std::string> &inside,
                           const std::vector<std::string> &ip)
{
    AddProgram(directory + "/addresses.json", Joined(ip, {"-j", "-s", "address", "show"}));
    AddProgram(directory + "/routes.json", Joined(ip, {"-j", "route", "show", "table", "all"}));
    AddProgram(directory + "/rules.json", Joined(ip, {"-j", "rule", "show"}));
    AddProgram(directory + "/nftables.json", Joined(inside, {"nft", "-j", "list", "ruleset"}));
}

void BoxPart::AddNamespaces()
{
    AddNamespace("box", {}, {"ip"});
    const Deadline deadline(kNamespacesTimeout);
    for (const std::string &name : NamespaceNames()) {
        std::error_code ignored;
        const std::string directory = "namespaces/" + name;
        if (name.empty() || name.find('/') != std::string::npos || name.starts_with('-') ||
            !fs::exists(paths_.namespaces + "/" + name, ignored)) {
            content_.Note(directory, "there is no such namespace");
        } else if (deadline.HasPassed()) {
            content_.Note(directory, "not looked at: the time is over");
        } else {
            AddNamespace(directory, {"ip", "netns", "exec", name}, {"ip", "-n", name});
        }
    }
}

// The file and its write-ahead log, when no agent tells what is in them.
void BoxPart::AddStore()
{
    std::string path = "/var/lib/kavel/agent.db";
    const JsonPtr config = Configuration();
    json_object *value = nullptr;
    if (config && json_object_object_get_ex(config.get(), "store", &value) != 0 && IsType(value, json_type_string)) {
        path = json_object_get_string(value);
    }
    for (const char *ending : {"", "-wal"}) {
        int error = 0;
        auto file = ReadFileBounded(path + ending, BundleContent::kOpaqueMax, error);
        if (!file) {
            content_.Note(path + ending, std::generic_category().message(error));
        } else if (file->size() > BundleContent::kOpaqueMax) {
            content_.Note(path + ending, "left out: it is too large");
        } else {
            content_.Add({std::string("store/agent.db") + ending, *std::move(file), false, true});
        }
    }
}

} // namespace

void CollectFromBox(const BundlePaths &paths, bool withStore, BundleContent &content)
{
    BoxPart part(paths, content);
    part.AddFile(paths.config);
    part.AddDirectory(paths.files, true);
    part.AddDirectory(paths.state, false);
    part.AddDirectory(paths.pidFiles, false, "kvl_dns_vpn_");
    part.AddFile("/usr/lib/os-release", true);
    part.AddProcesses();
    part.AddLimits();
    part.AddProgram("dnsmasq.txt", {"dnsmasq", "--version"});
    part.AddProgram("unit.txt", {"systemctl", "--no-pager", "show", "vqagent"});
    part.AddProgram("journal.txt", {"journalctl", "--no-pager", "-u", "vqagent", "-n", "2000"});
    if (withStore) {
        part.AddStore();
    }
    part.AddNamespaces();
}

} // namespace kavel::ctl
