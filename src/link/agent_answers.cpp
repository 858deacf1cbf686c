#include "agent_answers.h"

#include <optional>
#include <string>
#include <string_view>

namespace kavel::link {

namespace {

constexpr std::string_view kOwnNamespace = "-";

std::optional<broker::Revision> RevisionOf(const char *text)
{
    return text != nullptr ? broker::ParseRevision(text) : std::nullopt;
}

broker::Result ResultOf(std::int32_t result)
{
    return result >= 0 ? broker::Result::kApplied : broker::Result::kRefused;
}

// The service is as the message in force wants it.
bool IsAsWanted(const broker::Report &report)
{
    return report.enabled && report.running && *report.enabled == *report.running;
}

// "refused: WHY", "applied, NOT RUNNING: WHY", "applied".
std::string ReasonOf(const Kavel__HistoryEntry &entry)
{
    constexpr std::string_view kBefore = ": ";
    const std::string_view outcome = entry.outcome;
    const std::size_t position = outcome.find(kBefore);
    return std::string(position != std::string_view::npos ? outcome.substr(position + kBefore.size()) : "");
}

std::string ReasonOf(const Kavel__Reply &reply)
{
    if (reply.result < 0 && reply.reason != nullptr) {
        return reply.reason;
    }
    return reply.text != nullptr ? reply.text : "";
}

void SetHandled(broker::Report &report, broker::Revision revision, const Kavel__HistoryEntry &entry)
{
    report.revision = revision;
    report.result = ResultOf(entry.result);
    report.reason = ReasonOf(entry);
    report.time = static_cast<std::int64_t>(entry.time);
}

const Kavel__HistoryEntry *HandledBefore(const Kavel__Reply &reply)
{
    return reply.has_not_newer != 0 && reply.not_newer != 0 && reply.n_history == 1 ? reply.history[0] : nullptr;
}

// What a refusal does not say is as it was.
void TakeState(broker::Report &report, const Kavel__Reply &reply)
{
    if (reply.has_enabled != 0) {
        report.enabled = reply.enabled != 0;
    }
    if (reply.has_running != 0) {
        report.running = reply.running != 0;
    }
    if (reply.result >= 0 || HandledBefore(reply) != nullptr || reply.in_force_revision != nullptr) {
        report.inForce = RevisionOf(reply.in_force_revision);
    }
}

} // namespace

void TakeAnswer(broker::Report &report, const Kavel__Reply &reply, broker::Revision revision, std::int64_t now)
{
    TakeState(report, reply);
    const Kavel__HistoryEntry *before = HandledBefore(reply);
    const auto revisionBefore = before != nullptr ? RevisionOf(before->revision) : std::nullopt;
    if (revisionBefore) {
        SetHandled(report, *revisionBefore, *before);
    } else {
        report.revision = revision;
        report.result = ResultOf(reply.result);
        report.reason = ReasonOf(reply);
        report.time = now;
    }
    if (report.result == broker::Result::kApplied && IsAsWanted(report)) {
        report.reason.clear();
    }
}

void TakeStatus(broker::Report &report, const Kavel__VpnStatus &status)
{
    const broker::Revision last = LastHandled(status);
    const bool isNews = last > report.revision.value_or(0) || (last != 0 && last == report.revision &&
                                                               report.result != ResultOf(status.last_numbered->result));
    if (isNews) {
        SetHandled(report, last, *status.last_numbered);
    }
    report.inForce = RevisionOf(status.revision);
    report.enabled = status.meant != 0;
    const bool isStarting = status.has_starting != 0 && status.starting != 0;
    report.running = isStarting ? std::nullopt : std::optional(status.alive != 0 && status.is_dnsmasq != 0);
    if (report.result != broker::Result::kApplied || isStarting) {
        return;
    }
    if (IsAsWanted(report)) {
        report.reason.clear();
    } else if (report.reason.empty() && status.n_problems != 0) {
        report.reason = status.problems[0]->text;
    }
}

broker::Revision LastHandled(const Kavel__VpnStatus &status)
{
    return status.last_numbered != nullptr ? RevisionOf(status.last_numbered->revision).value_or(0) : 0;
}

bool IsConfigured(const Kavel__VpnStatus &status)
{
    return status.vpn == 0 || status.namespace_ != kOwnNamespace;
}

} // namespace kavel::link
