#include "instances/start_files.h"

#include <unistd.h>

#include <array>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <map>
#include <span>
#include <string_view>
#include <system_error>

#include "base/files.h"
#include "log.h"

namespace kavel::agent {
namespace {

constexpr std::string_view kLaunched = "launched";

using Digests = std::map<std::string, std::uint64_t>; // by the name of the file

// FNV-1a. It tells a change that nobody has made to deceive it.
std::uint64_t DigestOf(std::istream &content)
{
    constexpr std::uint64_t kOffset = 0xcbf29ce484222325U;
    constexpr std::uint64_t kPrime = 0x100000001b3U;
    std::uint64_t digest = kOffset;
    std::array<char, std::size_t{64} * 1024> chunk{};
    while (content.read(chunk.data(), chunk.size()), content.gcount() > 0) {
        for (const char letter : std::span(chunk.data(), static_cast<std::size_t>(content.gcount()))) {
            digest = (digest ^ static_cast<unsigned char>(letter)) * kPrime;
        }
    }
    return digest;
}

void AddFile(Digests &digests, const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    if (file) {
        digests[path.filename().string()] = DigestOf(file);
    }
}

// An empty file says as much as one that does not exist: the module writes empty ones.
Digests DigestsOf(const std::string &directory)
{
    Digests digests;
    AddFile(digests, directory + "/dnsmasq.conf");
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(directory + "/dnsmasq.d", ignored)) {
        if (entry.path().extension() == ".conf" && entry.file_size(ignored) > 0) {
            AddFile(digests, entry.path());
        }
    }
    return digests;
}

} // namespace

void RememberStartFiles(const Instances &instances, std::uint32_t vpnId)
{
    std::string text;
    for (const auto &[name, digest] : DigestsOf(instances.Directory(vpnId))) {
        text += std::to_string(digest) + " " + name + "\n";
    }
    try {
        ReplaceFile(instances.StatePath(vpnId, kLaunched), text);
    } catch (const std::system_error &failure) {
        Log(LogLevel::kDebug, "vpn %u: the files of its start are not remembered: %s", vpnId, failure.what());
    }
}

void ForgetStartFiles(const Instances &instances, std::uint32_t vpnId)
{
    (void)::unlink(instances.StatePath(vpnId, kLaunched).c_str()); // there may be none
}

std::vector<std::string> ChangedSinceStart(const Instances &instances, std::uint32_t vpnId)
{
    std::ifstream file(instances.StatePath(vpnId, kLaunched));
    if (!file) {
        return {};
    }
    Digests digests = DigestsOf(instances.Directory(vpnId));
    std::vector<std::string> changed;
    std::uint64_t digest = 0;
    for (std::string name; file >> digest && file.get() == ' ' && std::getline(file, name);) {
        const auto now = digests.find(name);
        if (now == digests.end() || now->second != digest) {
            changed.push_back(name);
        }
        if (now != digests.end()) {
            digests.erase(now);
        }
    }
    for (const auto &[name, added] : digests) {
        changed.push_back(name);
    }
    return changed;
}

} // namespace kavel::agent
