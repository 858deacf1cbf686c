// Publishes messages to boxes, some at a time, over interruptions of the connection.
#ifndef KAVEL_FLEET_PUBLISHER_H
#define KAVEL_FLEET_PUBLISHER_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "connection.h"
#include "outgoing.h"
#include "rate_limit.h"
#include "revision.h"

namespace kavel::fleet {

struct PublishPlan {
    std::vector<std::string> boxes;
    std::span<const Outgoing> messages; // each box gets all of them
    broker::Revision revision = 0;
    std::uint32_t perSecond = 0; // publications; 0: without a limit
};

class Publisher {
  public:
    // The broker has acknowledged all messages for a box; `problem`: it has refused one of them, or else empty.
    using BoxDone = std::function<void(const std::string &box, const std::string &problem)>;

    // `connection` and the messages must outlive this object.
    Publisher(Connection &connection, PublishPlan plan, BoxDone onBox);

    // Begins, or goes on after a new connection. Sends what may be sent now.
    void Pump();
    // From the events of the connection. What was not acknowledged is sent again.
    void OnClosed();
    void OnPublished(std::uint64_t publication, const std::string &problem);

    [[nodiscard]] bool IsDone() const { return boxesDone_ == plan_.boxes.size(); }

  private:
    // One message for one box.
    struct Job {
        std::size_t box = 0;
        std::size_t message = 0;
        bool operator<(const Job &other) const { return std::pair(box, message) < std::pair(other.box, other.message); }
    };
    struct BoxProgress {
        std::size_t acknowledged = 0;
        std::string problem;
    };

    [[nodiscard]] bool HasJob() const { return !again_.empty() || next_.box < plan_.boxes.size(); }
    [[nodiscard]] Job TakeJob();
    void Finish(const Job &job, const std::string &problem);

    Connection &connection_;
    const PublishPlan plan_;
    const BoxDone onBox_;
    const std::size_t inFlightMax_;
    RateLimit rate_;
    EventSource timer_; // when the rate allows more
    Job next_;          // all before it were sent at least once
    std::deque<Job> again_;
    std::unordered_map<std::uint64_t, Job> inFlight_; // by the number of the publication
    std::unordered_map<std::size_t, BoxProgress> begun_;
    std::size_t boxesDone_ = 0;
};

} // namespace kavel::fleet

#endif
