// What a controller message changes.
#ifndef KAVEL_CTL_MESSAGE_CHANGES_H
#define KAVEL_CTL_MESSAGE_CHANGES_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "json_reader.h"
#include "packed_conf.h"

namespace kavel::ctl {

// Something that one of two messages says and the other one does not.
struct Change {
    bool isAdded = false;
    std::string field; // "host"
    std::string value; // "nas.example 192.168.7.10"
    bool isReadAtStart = false;
};

struct Comparison {
    std::vector<Change> changes; // by field; what is removed before what is added
    bool isFirst = false;        // nothing is in force
    bool endsInstance = false;   // the service is on, and is switched off
    bool needsStart = false;     // the changes have an effect once an instance is started
    bool asksForStart = false;   // the new message starts one
    bool hasOperation = false;   // the new message could ask for another operation
};

// Compares what is in force, if anything is, with a message. The order of hosts, mail exchangers, servers and forwards
// does not count, and neither does what has no effect: IPv6 addresses and servers 0.0.0.0 of forwards. Throws
// AgentError if the bytes are not messages.
[[nodiscard]] Comparison Compare(const std::optional<PackedConf> &inForce, const PackedConf &message);

// "2 changes; needs "operation": "reboot"".
[[nodiscard]] std::string SummaryText(const Comparison &comparison);

// A line for each change: "+ host nas.example 192.168.7.10".
[[nodiscard]] std::string ChangeLines(const Comparison &comparison);

// The comparison for programs, without `schema`.
[[nodiscard]] JsonPtr ComparisonJson(const Comparison &comparison);

} // namespace kavel::ctl

#endif
