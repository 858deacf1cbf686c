// The command that shows what the broker has about the boxes now.
#ifndef KAVEL_FLEET_FLEET_STATUS_COMMAND_H
#define KAVEL_FLEET_FLEET_STATUS_COMMAND_H

#include "box_list.h"
#include "config.h"
#include "connection.h"
#include "console.h"

namespace kavel::fleet {

struct FleetStatusOptions {
    BoxSelection selection; // empty: all boxes
    bool all = false;       // or else only what is behind; boxes that are named one by one are shown in any case
    Patience patience;
};

// Prints a table and a summary, or with `console.json` a document. Returns kBehind if a VPN of the selected boxes is
// behind, or if nothing is known about a box that is named. Throws InputError, BrokerError and Interrupted.
int FleetStatus(const Console &console, const BrokerOptions &broker, const FleetStatusOptions &options);

} // namespace kavel::fleet

#endif
