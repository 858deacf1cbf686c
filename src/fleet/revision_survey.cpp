#include "revision_survey.h"

#include <algorithm>
#include <utility>

#include "topics.h"

namespace kavel::fleet {

namespace {

// Two for each VPN of a box. Brokers hold at least 1000 messages for a client by default.
constexpr std::size_t kTopicsMax = 500;

} // namespace

std::span<const std::string> RevisionSurvey::Part() const
{
    const std::size_t perBox = 2 * std::max<std::size_t>(vpns_.size(), 1);
    const std::size_t count = std::max<std::size_t>(kTopicsMax / perBox, 1);
    return boxes_.subspan(next_, std::min(count, boxes_.size() - next_));
}

std::vector<std::string> RevisionSurvey::TopicsOfPart() const
{
    std::vector<std::string> topics;
    for (const std::string &box : Part()) {
        for (const std::uint32_t vpn : vpns_) {
            topics.push_back(broker::TopicText({broker::TopicKind::kDesired, box, vpn}));
            topics.push_back(broker::TopicText({broker::TopicKind::kReported, box, vpn}));
        }
    }
    return topics;
}

void RevisionSurvey::Ask()
{
    state_ = FleetState();
    connection_.Subscribe(TopicsOfPart());
    connection_.SendMark();
}

void RevisionSurvey::OnArrived()
{
    connection_.Unsubscribe(TopicsOfPart());
    for (const auto &[name, box] : state_.Boxes()) {
        Count(name, box);
    }
    state_ = FleetState();
    next_ += Part().size();
    if (!IsDone()) {
        Ask();
    }
}

void RevisionSurvey::Count(const std::string &box, const BoxState &state)
{
    for (const auto &[number, vpn] : state.vpns) {
        if (!vpn.reportProblem.empty()) {
            tell_("report of " + box + " for vpn " + std::to_string(number) + " cannot be read: " + vpn.reportProblem);
        }
        const broker::Revision reported =
            vpn.report ? std::max(vpn.report->revision.value_or(0), vpn.report->inForce.value_or(0)) : 0;
        const broker::Revision revision = std::max(vpn.wanted.value_or(0), reported);
        if (revision > highest_.revision) {
            highest_ = {revision, box, number};
        }
    }
}

} // namespace kavel::fleet
