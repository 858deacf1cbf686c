// vqctl bundle: one archive with what is known about the box, for a ticket.
#ifndef KAVEL_CTL_BUNDLE_H
#define KAVEL_CTL_BUNDLE_H

#include <optional>
#include <string>

#include "session.h"

namespace kavel::ctl {

struct BundleOptions {
    std::optional<std::string> output = std::nullopt; // of the archive; nothing: a name in the current directory
    bool redact = false;                              // replace names and addresses
    std::string version = {};                         // of vqctl
};

// Writes the archive, a file of mode 0600 that must not exist yet, and prints its name. What cannot be collected, also
// from an agent that does not answer, is noted in the archive. Throws InputError when the file cannot be written.
int Bundle(const Session &session, const BundleOptions &options);

} // namespace kavel::ctl

#endif
