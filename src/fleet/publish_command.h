// The command that publishes messages.
#ifndef KAVEL_FLEET_PUBLISH_COMMAND_H
#define KAVEL_FLEET_PUBLISH_COMMAND_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "box_list.h"
#include "config.h"
#include "connection.h"
#include "console.h"
#include "revision.h"

namespace kavel::fleet {

struct PublishOptions {
    std::vector<std::string> files;
    BoxSelection selection;
    std::optional<broker::Revision> revision; // absent: counted
    std::uint32_t perSecond = 0;              // publications; 0: without a limit
    std::optional<std::string> journal;       // absent: beside the list, or none without a list that is a file
    Patience patience;
};

// Checks all files, the list and the journal, then the revisions at the broker, and then publishes. Returns kBadInput,
// after a line for each error, if a file is bad; kBehind if the broker has refused a message. Throws InputError,
// RefusedError if the revision is below that of a box, BrokerError and Interrupted.
int Publish(const Console &console, const BrokerOptions &broker, const PublishOptions &options);

} // namespace kavel::fleet

#endif
