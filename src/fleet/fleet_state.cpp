#include "fleet_state.h"

#include <algorithm>
#include <array>
#include <utility>

#include "input_error.h"
#include "printable.h"
#include "topics.h"

namespace kavel::fleet {

namespace {

using broker::Presence;
using broker::Report;
using broker::Result;
using enum Standing;

constexpr std::array<std::string_view, kStandings> kStandingNames = {
    "nothing_wanted", "applied", "refused",      "not_running", "still_running",
    "not_in_force",   "offline", "not_reported", "newer",       "unreadable"};

std::string_view TextOf(const broker::Message &message)
{
    return {reinterpret_cast<const char *>(message.payload.data()), message.payload.size()};
}

void TakeWanted(VpnState &vpn, const broker::Message &message)
{
    vpn.wanted.reset();
    vpn.wantedProblem.clear();
    if (message.payload.empty()) {
        return;
    }
    const auto property = message.properties.find(broker::kRevisionProperty);
    if (property == message.properties.end()) {
        vpn.wantedProblem = "the published message has no revision";
        return;
    }
    vpn.wanted = broker::ParseRevision(property->second);
    if (!vpn.wanted) {
        vpn.wantedProblem = "the revision of the published message is no number from 1 to 9223372036854775807";
    }
}

void TakeReport(VpnState &vpn, const broker::Message &message)
{
    vpn.report.reset();
    vpn.reportProblem.clear();
    if (message.payload.empty()) {
        return;
    }
    try {
        vpn.report = broker::ParseReport(TextOf(message));
    } catch (const InputError &error) {
        vpn.reportProblem = error.what();
    }
}

void TakePresence(BoxState &box, const broker::Message &message)
{
    box.presence.reset();
    box.presenceProblem.clear();
    if (message.payload.empty()) {
        return;
    }
    try {
        box.presence = broker::ParsePresence(TextOf(message));
    } catch (const InputError &error) {
        box.presenceProblem = error.what();
    }
}

void TakeVpn(BoxState &box, const broker::Topic &topic, const broker::Message &message)
{
    if (!box.vpns.contains(topic.vpn) && box.vpns.size() >= kVpnsMax) {
        box.hasTooManyVpns = true;
        return;
    }
    VpnState &vpn = box.vpns[topic.vpn];
    topic.kind == broker::TopicKind::kDesired ? TakeWanted(vpn, message) : TakeReport(vpn, message);
    if (vpn.IsEmpty()) {
        box.vpns.erase(topic.vpn);
    }
}

std::string WithReason(const std::string &text, const std::string &reason)
{
    return reason.empty() ? text : text + ": " + reason;
}

// The wanted revision is not the last one that the box has handled.
Verdict JudgeUnhandled(const BoxState &box, const VpnState &vpn)
{
    if (!box.presenceProblem.empty()) {
        return {kUnreadable, ProblemOf(box)};
    }
    if (!box.IsOnline()) {
        return {kOffline, "offline"};
    }
    const std::string text =
        box.presence->agent.value_or(true) ? "not reported yet" : "not reported yet: its agent does not answer";
    return {kNotReported, vpn.report && !vpn.report->problem.empty() ? text + "; " + vpn.report->problem : text};
}

Verdict JudgeApplied(const VpnState &vpn)
{
    const Report &report = *vpn.report;
    if (report.inForce != vpn.wanted) {
        const std::string other = report.inForce ? "revision " + std::to_string(*report.inForce) : "something else";
        return {kNotInForce, "applied, but " + other + " is in force now"};
    }
    const bool isEnabled = report.enabled.value_or(true);
    if (isEnabled && !report.running) {
        return {kNotRunning, WithReason("applied; whether it runs is not known", report.reason)};
    }
    if (isEnabled && !*report.running) {
        return {kNotRunning, WithReason("applied, NOT RUNNING", report.reason)};
    }
    if (!isEnabled && report.running.value_or(false)) {
        return {kStillRunning, WithReason("applied, STILL RUNNING", report.reason)};
    }
    return {kApplied, WithReason("applied", report.reason)};
}

Verdict JudgeRaw(const BoxState &box, const VpnState &vpn)
{
    if (!vpn.wantedProblem.empty()) {
        return {kUnreadable, vpn.wantedProblem};
    }
    if (!vpn.reportProblem.empty()) {
        return {kUnreadable, "report cannot be read: " + vpn.reportProblem};
    }
    if (!vpn.wanted) {
        return {kNothingWanted, "nothing is published"};
    }
    const broker::Revision handled = vpn.report ? vpn.report->revision.value_or(0) : 0;
    if (handled < *vpn.wanted) {
        return JudgeUnhandled(box, vpn);
    }
    if (handled > *vpn.wanted) {
        return {kNewer, "revision " + std::to_string(handled) + " is reported, which is newer"};
    }
    return vpn.report->result == Result::kRefused ? Verdict{kRefused, WithReason("refused", vpn.report->reason)}
                                                  : JudgeApplied(vpn);
}

} // namespace

std::string_view NameOf(Standing standing)
{
    return kStandingNames.at(static_cast<std::size_t>(standing));
}

bool IsBehind(Standing standing)
{
    return standing != kNothingWanted && standing != kApplied;
}

bool IsFinal(Standing standing)
{
    return standing == kRefused || standing == kNewer;
}

Verdict Judge(const BoxState &box, const VpnState &vpn)
{
    Verdict verdict = JudgeRaw(box, vpn);
    verdict.text = Printable(verdict.text);
    return verdict;
}

std::string ProblemOf(const BoxState &box)
{
    if (!box.presenceProblem.empty()) {
        return Printable("presence cannot be read: " + box.presenceProblem);
    }
    return box.hasTooManyVpns ? "it has more than " + std::to_string(kVpnsMax) + " VPNs: the others are passed over"
                              : "";
}

bool IsBehind(const BoxState &box)
{
    return std::ranges::any_of(box.vpns,
                               [&box](const auto &entry) { return IsBehind(Judge(box, entry.second).standing); });
}

std::optional<std::string> FleetState::Take(const broker::Message &message)
{
    const std::optional<broker::Topic> topic = broker::ParseTopic(message.topic);
    if (!topic || (isMeant_ && !isMeant_(topic->box))) {
        return std::nullopt;
    }
    BoxState &box = boxes_[topic->box];
    topic->kind == broker::TopicKind::kOnline ? TakePresence(box, message) : TakeVpn(box, *topic, message);
    if (box.IsEmpty()) {
        boxes_.erase(topic->box);
    }
    return topic->box;
}

const BoxState *FleetState::Find(const std::string &box) const
{
    const auto found = boxes_.find(box);
    return found != boxes_.end() ? &found->second : nullptr;
}

FleetCounts CountsOf(const FleetState &state)
{
    FleetCounts counts{.boxes = state.Boxes().size()};
    for (const auto &[name, box] : state.Boxes()) {
        counts.online += box.IsOnline() ? 1 : 0;
        counts.behind += IsBehind(box) ? 1 : 0;
        for (const auto &[number, vpn] : box.vpns) {
            ++counts.vpns[Judge(box, vpn).standing];
        }
    }
    return counts;
}

} // namespace kavel::fleet
