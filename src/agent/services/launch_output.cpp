#include "services/launch_output.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>
#include <utility>

#include "failure.h"

namespace kavel::agent {
namespace {

constexpr std::size_t kSize = 16384;
constexpr std::string_view kSpeaker = "dnsmasq: ";

std::string_view LastLine(std::string_view text)
{
    return text.substr(text.rfind('\n') + 1); // npos + 1 is 0
}

// dnsmasq's last line; empty when it has written none.
std::string_view LineOfDnsmasq(std::string_view text)
{
    while (!text.empty()) {
        const std::string_view line = LastLine(text);
        if (line.starts_with(kSpeaker)) {
            return line;
        }
        text.remove_suffix(std::min(text.size(), line.size() + 1));
    }
    return {};
}

} // namespace

// The size is fixed: an instance that never stops writing must not fill the box's memory.
int LaunchOutputs::Begin(std::uint32_t vpnId)
{
    UniqueFd output(::memfd_create("launch", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!output || ::ftruncate(output.Get(), kSize) != 0 ||
        ::fcntl(output.Get(), F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK) != 0) {
        ThrowLastErrno("the output of a launch");
    }
    return outputs_.insert_or_assign(vpnId, std::move(output)).first->second.Get();
}

std::string LaunchOutputs::Text(std::uint32_t vpnId) const
{
    const auto output = outputs_.find(vpnId);
    if (output == outputs_.end()) {
        return {};
    }
    std::array<char, kSize> bytes{};
    const ssize_t size = ::pread(output->second.Get(), bytes.data(), bytes.size(), 0);
    std::string_view text(bytes.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    text = text.substr(0, text.find('\0'));
    while (text.starts_with('\n')) {
        text.remove_prefix(1);
    }
    while (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    return std::string(text);
}

std::string LaunchOutputs::Reason(std::uint32_t vpnId) const
{
    const std::string text = Text(vpnId);
    const std::string_view line = LineOfDnsmasq(text);
    return std::string(line.empty() ? LastLine(text) : line);
}

bool LaunchOutputs::HasFailed(std::uint32_t vpnId) const
{
    return !LineOfDnsmasq(Text(vpnId)).empty();
}

} // namespace kavel::agent
