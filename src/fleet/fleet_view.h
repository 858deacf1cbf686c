// The state of the fleet as the broker has it, kept up to date over interruptions of the connection.
#ifndef KAVEL_FLEET_FLEET_VIEW_H
#define KAVEL_FLEET_FLEET_VIEW_H

#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

#include "connection.h"
#include "fleet_state.h"

namespace kavel::fleet {

class FleetView {
  public:
    // Each may be empty.
    struct Events {
        std::function<void()> complete = {};                      // State() is new: all of it has arrived
        std::function<void(const std::string &box)> changed = {}; // after that: what is known about a box
    };

    // `boxes`: those that are looked at; empty: all. `connection` must outlive this object.
    FleetView(Connection &connection, const std::vector<std::string> &boxes, Events events);

    // Runs the connection until `isDone` is true. Throws what Connection::Run() does.
    void Run(const std::function<bool()> &isDone);

    // As it was when it was last complete, with the changes since then. Nothing is known before.
    [[nodiscard]] const FleetState &State() const { return state_; }
    // Whether it was complete, in this connection or in an earlier one.
    [[nodiscard]] bool IsComplete() const { return isComplete_; }

  private:
    void Ask();
    void Take(const broker::Message &message);

    Connection &connection_;
    const std::vector<std::string> filters_;
    const std::function<bool(const std::string &box)> isMeant_;
    const Events events_;
    FleetState state_;
    FleetState arriving_;    // while not everything has arrived in this connection
    bool isArriving_ = true; // which of the two messages change
    bool isComplete_ = false;
};

// The state as it is now. Throws what Connection::Run() does.
[[nodiscard]] FleetState LookAtFleet(Connection &connection, const std::vector<std::string> &boxes);

} // namespace kavel::fleet

#endif
