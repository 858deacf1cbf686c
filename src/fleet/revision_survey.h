// Which revisions some VPNs of some boxes have: what is published for them, and what they have reported.
#ifndef KAVEL_FLEET_REVISION_SURVEY_H
#define KAVEL_FLEET_REVISION_SURVEY_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "connection.h"
#include "fleet_state.h"
#include "revision.h"

namespace kavel::fleet {

struct HighestRevision {
    broker::Revision revision = 0; // 0: there is none
    std::string box;               // one that has it
    std::uint32_t vpn = 0;
};

// Asks for a part of the boxes at a time, so that the answer fits into the queue that a broker has for a client. After
// a new connection it asks for the current part again.
class RevisionSurvey {
  public:
    // `boxes` and `connection` must outlive this object. `tell` is given a line for each report that cannot be read; it
    // does not count.
    RevisionSurvey(Connection &connection, std::span<const std::string> boxes, std::vector<std::uint32_t> vpns,
                   std::function<void(const std::string &line)> tell)
        : connection_(connection), boxes_(boxes), vpns_(std::move(vpns)), tell_(std::move(tell))
    {
    }

    // From the events of the connection.
    void OnConnected() { Ask(); }
    void OnReceived(const broker::Message &message) { state_.Take(message); }
    void OnArrived();

    [[nodiscard]] bool IsDone() const { return next_ == boxes_.size(); }
    [[nodiscard]] const HighestRevision &Highest() const { return highest_; }

  private:
    [[nodiscard]] std::span<const std::string> Part() const;
    void Ask();
    [[nodiscard]] std::vector<std::string> TopicsOfPart() const;
    void Count(const std::string &box, const BoxState &state);

    Connection &connection_;
    std::span<const std::string> boxes_;
    const std::vector<std::uint32_t> vpns_;
    const std::function<void(const std::string &line)> tell_;
    std::size_t next_ = 0; // the first box of the current part
    FleetState state_;     // of the current part
    HighestRevision highest_;
};

} // namespace kavel::fleet

#endif
