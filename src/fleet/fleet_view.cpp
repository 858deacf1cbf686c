#include "fleet_view.h"

#include <array>
#include <memory>
#include <optional>
#include <utility>

#include "topics.h"

namespace kavel::fleet {

namespace {

using broker::TopicKind;

// With more boxes, all are subscribed to at once.
constexpr std::size_t kSingleBoxesMax = 64;

constexpr std::array kKinds = {TopicKind::kDesired, TopicKind::kReported, TopicKind::kOnline};

std::vector<std::string> FiltersFor(const std::vector<std::string> &boxes)
{
    std::vector<std::string> filters;
    for (const TopicKind kind : kKinds) {
        if (boxes.empty() || boxes.size() > kSingleBoxesMax) {
            filters.push_back(broker::TopicFilter(kind));
            continue;
        }
        for (const std::string &box : boxes) {
            filters.push_back(broker::TopicFilter(kind, box));
        }
    }
    return filters;
}

std::function<bool(const std::string &box)> MembershipIn(const std::vector<std::string> &boxes)
{
    if (boxes.empty()) {
        return {};
    }
    const auto meant = std::make_shared<const std::unordered_set<std::string>>(boxes.begin(), boxes.end());
    return [meant](const std::string &box) { return meant->contains(box); };
}

} // namespace

FleetView::FleetView(Connection &connection, const std::vector<std::string> &boxes, Events events)
    : connection_(connection), filters_(FiltersFor(boxes)), isMeant_(MembershipIn(boxes)), events_(std::move(events))
{
}

void FleetView::Run(const std::function<bool()> &isDone)
{
    connection_.Run({.connected = [this] { Ask(); },
                     .received = [this](const broker::Message &message) { Take(message); },
                     .arrived =
                         [this] {
                             state_ = std::exchange(arriving_, FleetState());
                             isArriving_ = false;
                             isComplete_ = true;
                             if (events_.complete) {
                                 events_.complete();
                             }
                         }},
                    isDone);
}

// The mark follows the subscriptions at once: no acknowledgement of a message is sent before it, so a queue of the
// broker that is too short for the messages is too short for the mark, too.
void FleetView::Ask()
{
    arriving_ = FleetState(isMeant_);
    isArriving_ = true;
    connection_.Subscribe(filters_);
    connection_.SendMark();
}

void FleetView::Take(const broker::Message &message)
{
    const std::optional<std::string> box = (isArriving_ ? arriving_ : state_).Take(message);
    if (box && !isArriving_ && events_.changed) {
        events_.changed(*box);
    }
}

FleetState LookAtFleet(Connection &connection, const std::vector<std::string> &boxes)
{
    FleetView view(connection, boxes, {});
    view.Run([&view] { return view.IsComplete(); });
    return view.State();
}

} // namespace kavel::fleet
