#include "publisher.h"

#include <algorithm>
#include <utility>

namespace kavel::fleet {

namespace {

constexpr std::size_t kPublicationsMax = 256; // in flight
constexpr std::size_t kBytesMax = std::size_t{16} * 1024 * 1024;

// The library keeps what is in flight in memory.
std::size_t InFlightMax(std::span<const Outgoing> messages)
{
    std::size_t largest = 1;
    for (const Outgoing &message : messages) {
        largest = std::max(largest, message.bytes.size());
    }
    return std::clamp<std::size_t>(kBytesMax / largest, 1, kPublicationsMax);
}

} // namespace

Publisher::Publisher(Connection &connection, PublishPlan plan, BoxDone onBox)
    : connection_(connection), plan_(std::move(plan)), onBox_(std::move(onBox)),
      inFlightMax_(InFlightMax(plan_.messages)), rate_(plan_.perSecond),
      timer_(connection.Loop().AddTimer([this] { Pump(); }))
{
}

Publisher::Job Publisher::TakeJob()
{
    if (!again_.empty()) {
        const Job job = again_.front();
        again_.pop_front();
        return job;
    }
    const Job job = next_;
    next_ = job.message + 1 < plan_.messages.size() ? Job{job.box, job.message + 1} : Job{job.box + 1, 0};
    return job;
}

void Publisher::Pump()
{
    while (HasJob() && inFlight_.size() < inFlightMax_ && connection_.IsConnected()) {
        if (!rate_.Take(RateLimit::Clock::now())) {
            timer_.ArmTimer(rate_.Next());
            return;
        }
        const Job job = TakeJob();
        const auto publication =
            connection_.Publish(MessageFor(plan_.boxes[job.box], plan_.messages[job.message], plan_.revision));
        if (!publication) {
            again_.push_front(job);
            return;
        }
        inFlight_.emplace(*publication, job);
    }
}

void Publisher::OnClosed()
{
    for (const auto &[publication, job] : std::exchange(inFlight_, {})) {
        again_.push_back(job);
    }
    std::ranges::sort(again_, std::less());
}

void Publisher::OnPublished(std::uint64_t publication, const std::string &problem)
{
    const auto found = inFlight_.find(publication);
    if (found == inFlight_.end()) {
        return;
    }
    const Job job = found->second;
    inFlight_.erase(found);
    Finish(job, problem);
    Pump();
}

void Publisher::Finish(const Job &job, const std::string &problem)
{
    BoxProgress &progress = begun_[job.box];
    progress.problem = problem.empty() ? progress.problem : problem;
    if (++progress.acknowledged < plan_.messages.size()) {
        return;
    }
    const std::string worst = std::move(progress.problem);
    begun_.erase(job.box);
    ++boxesDone_;
    onBox_(plan_.boxes[job.box], worst);
}

} // namespace kavel::fleet
