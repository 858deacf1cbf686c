#include "socket/apply_form.h"

#include <cstddef>

#include "numeric_revision.h"
#include "printable.h"

namespace kavel::agent {
namespace {

constexpr std::size_t kRevisionMax = 64; // bytes
constexpr std::uint32_t kConfirmSecondsMax = 3600;

// It is shown to people, and kept as a line.
std::optional<std::string> RevisionObjection(const Kavel__Request &request)
{
    const std::string revision = RevisionOf(request).value_or("-");
    const bool isGood = !revision.empty() && revision.size() <= kRevisionMax && Printable(revision) == revision &&
                        revision.find('\n') == std::string::npos;
    return isGood
               ? std::nullopt
               : std::optional("revision: it has not 1 to " + std::to_string(kRevisionMax) + " printable characters");
}

std::optional<std::string> NumberObjection(const Kavel__Request &request)
{
    if (!IsOnlyNewer(request)) {
        return std::nullopt;
    }
    const auto revision = RevisionOf(request);
    return revision && NumericRevision(*revision)
               ? std::nullopt
               : std::optional("revision: it is " + (revision ? "\"" + *revision + "\"" : "missing") +
                               "; only_newer needs a number from 1 to " + std::to_string(kNumericRevisionMax));
}

std::optional<std::string> ConfirmationObjection(const Kavel__Request &request)
{
    const std::uint32_t seconds = ConfirmSecondsOf(request).value_or(1);
    return seconds >= 1 && seconds <= kConfirmSecondsMax
               ? std::nullopt
               : std::optional("confirm_seconds: it is " + std::to_string(seconds) + "; 1 to " +
                               std::to_string(kConfirmSecondsMax) + " are possible");
}

std::optional<std::string> VpnObjection(const Kavel__Request &request, std::uint32_t vpnId)
{
    return request.has_vpn == 0 || request.vpn == vpnId
               ? std::nullopt
               : std::optional("vpn: it is " + std::to_string(request.vpn) + ", and the message is for vpn " +
                               std::to_string(vpnId));
}

} // namespace

std::optional<std::string> RevisionOf(const Kavel__Request &request)
{
    return request.revision != nullptr ? std::optional<std::string>(request.revision) : std::nullopt;
}

std::optional<std::uint32_t> ConfirmSecondsOf(const Kavel__Request &request)
{
    return request.has_confirm_seconds != 0 ? std::optional(request.confirm_seconds) : std::nullopt;
}

bool IsOnlyNewer(const Kavel__Request &request)
{
    return request.has_only_newer != 0 && request.only_newer != 0;
}

std::optional<std::string> PlatformObjection(const Kavel__Request &request, Platform platform)
{
    const bool isPop = platform == Platform::kPop;
    if (request.has_pop == 0 || (request.pop != 0) == isPop) {
        return std::nullopt;
    }
    return isPop ? "pop: the message is for a CPE, and the box is a POP"
                 : "pop: the message is for a POP, and the box is a CPE";
}

std::optional<std::string> FormObjection(const Kavel__Request &request, std::uint32_t vpnId)
{
    for (const auto &objection : {VpnObjection(request, vpnId), RevisionObjection(request), NumberObjection(request),
                                  ConfirmationObjection(request)}) {
        if (objection) {
            return objection;
        }
    }
    return std::nullopt;
}

} // namespace kavel::agent
