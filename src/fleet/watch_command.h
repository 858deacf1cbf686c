// The command that shows the boxes as they change.
#ifndef KAVEL_FLEET_WATCH_COMMAND_H
#define KAVEL_FLEET_WATCH_COMMAND_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "box_list.h"
#include "config.h"
#include "connection.h"
#include "console.h"
#include "fleet_state.h"
#include "rows.h"

namespace kavel::fleet {

struct WatchOptions {
    BoxSelection selection;                       // empty: all boxes
    bool all = false;                             // or else only what is behind
    std::optional<std::uint32_t> count;           // ends after so many lines, or tables
    std::optional<std::chrono::seconds> duration; // ends after so long
    Patience patience;
};

// On a terminal: a table, again after each change, once a second at most. Otherwise: a line for each VPN that is
// behind, and then one for each change. Returns kDone. Throws InputError, BrokerError and Interrupted.
int Watch(const Console &console, const BrokerOptions &broker, const WatchOptions &options);

// What was shown of the boxes, and what is new.
class ShownRows {
  public:
    explicit ShownRows(bool all) : all_(all) {}

    // The lines for a box that differ from those before; a VPN that is no more behind gets one, too. A box that is not
    // known any more is "gone".
    [[nodiscard]] std::vector<std::string> Update(const std::string &box, const BoxState *state);
    // The lines for all boxes.
    [[nodiscard]] std::vector<std::string> UpdateAll(const FleetState &state);

  private:
    bool all_;
    std::map<std::string, std::vector<Row>> shown_;
};

} // namespace kavel::fleet

#endif
