#include "report_queue.h"

#include <utility>

#include "log.h"

namespace kavel::link {

void ReportQueue::Put(const std::string &topic, const std::string &text)
{
    const auto [position, isNew] = entries_.try_emplace(topic);
    Entry &entry = position->second;
    if (!isNew && entry.text == text) {
        return;
    }
    entry.text = text;
    entry.isDue = true;
    Publish(position);
}

void ReportQueue::Connected()
{
    for (auto position = entries_.begin(); position != entries_.end(); ++position) {
        Publish(position);
    }
}

// What was acknowledged may be lost by the next connection: the broker may be another one then.
void ReportQueue::Closed()
{
    underWay_.clear();
    for (auto &[topic, entry] : entries_) {
        entry.isUnderWay = false;
        entry.isDue = true;
    }
}

void ReportQueue::Published(std::uint64_t publication, const std::string &problem)
{
    const auto found = underWay_.extract(publication);
    if (found.empty()) {
        return;
    }
    const Entries::iterator position = found.mapped();
    position->second.isUnderWay = false;
    if (!problem.empty() && !position->second.isRefused) {
        Log(LogLevel::kWarning, "%s: the broker refuses it: %s", position->first.c_str(), problem.c_str());
    }
    position->second.isRefused = !problem.empty();
    Publish(position);
}

void ReportQueue::TryRefusedAgain()
{
    for (auto position = entries_.begin(); position != entries_.end(); ++position) {
        if (position->second.isRefused && !position->second.isUnderWay) {
            position->second.isDue = true;
            Publish(position);
        }
    }
}

bool ReportQueue::IsPublished(const std::string &topic) const
{
    const auto position = entries_.find(topic);
    return position != entries_.end() && !position->second.isDue && !position->second.isUnderWay &&
           !position->second.isRefused;
}

void ReportQueue::Publish(Entries::iterator position)
{
    Entry &entry = position->second;
    if (!entry.isDue || entry.isUnderWay) {
        return;
    }
    const auto publication = broker_.Publish({position->first, {entry.text.begin(), entry.text.end()}});
    if (publication) {
        entry.isDue = false;
        entry.isUnderWay = true;
        underWay_.emplace(*publication, position);
    }
}

} // namespace kavel::link
