// A record as a controller's message.
#ifndef KAVEL_AGENT_RECORD_MESSAGE_H
#define KAVEL_AGENT_RECORD_MESSAGE_H

#include <cstdint>
#include <vector>

#include "base/config.h"
#include "vqDnsmasqConf.h"

namespace kavel::agent {

// A packed message from which the module makes this record again, on a box with persistence. The pairs of a forward and
// a server become as few items as possible, so that the forwards of every record that came from a message fit into one.
[[nodiscard]] std::vector<std::uint8_t> MessageOfRecord(Platform platform, const VQ_DNSMASQ_CONF &record);

} // namespace kavel::agent

#endif
