// The command that prints the metrics of the fleet.
#ifndef KAVEL_FLEET_FLEET_METRICS_COMMAND_H
#define KAVEL_FLEET_FLEET_METRICS_COMMAND_H

#include <optional>
#include <string>

#include "config.h"
#include "connection.h"
#include "console.h"
#include "fleet_state.h"

namespace kavel::fleet {

struct FleetMetricsOptions {
    bool perBox = false;               // also a sample for each VPN that is behind
    std::optional<std::string> target; // a file that is replaced in one step; absent: standard output
    Patience patience;
};

// Prints the metrics of all boxes. If the broker cannot be reached, the file says so (kavel_fleet_up 0), and the
// BrokerError is thrown all the same. Returns kDone. Throws InputError and Interrupted, too.
int FleetMetrics(const Console &console, const BrokerOptions &broker, const FleetMetricsOptions &options);

[[nodiscard]] std::string FleetMetricsText(const FleetState &state, bool perBox);

} // namespace kavel::fleet

#endif
