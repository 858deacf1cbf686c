// What the supervisor knows about one VPN.
#ifndef KAVEL_AGENT_WATCHED_VPN_H
#define KAVEL_AGENT_WATCHED_VPN_H

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/netns.h"
#include "event_loop.h"
#include "instances/dns_probe.h"
#include "instances/in_force.h"
#include "services/process_end.h"
#include "supervision/look.h"
#include "supervision/namespace_events.h"

namespace kavel::agent {

// As many queries in a row without an answer count as a failure.
inline constexpr unsigned kUnansweredMax = 3;

struct WatchedVpn {
    using Clock = EventLoop::Clock;

    // How often something has happened, and when and why last.
    struct Tally {
        std::uint32_t count = 0;
        std::int64_t time = 0; // Unix time, seconds
        std::string text;
    };

    // The source is destroyed before the descriptor that it watches.
    struct Instance {
        ProcessHandle process;
        Clock::time_point since;
        EventSource source;
    };

    std::optional<InForce> wanted; // nothing: nothing is in force
    bool isStopped = false;        // it was meant to run until a client stopped it
    bool isBack = false;           // its state was restored; requests need not wait
    Missing missing;
    std::optional<NamespaceId> netns;
    std::unique_ptr<NamespaceEvents> events;
    bool haveInterfacesChanged = false; // of its configuration: its routes are others
    bool isRuleOutdated = false;        // its configuration was changed: the rule may name other interfaces
    std::optional<Instance> instance;

    Tally ends;
    std::uint32_t failedLaunches = 0;
    unsigned failures = 0; // in a row: starts that have failed, and instances that did not run for long
    std::optional<Clock::time_point> startAt;
    std::optional<std::int64_t> startTime; // the same as Unix time

    Tally repairs;
    std::string repairing;       // what the launch that is pending repairs
    std::string problem;         // what could not be repaired
    unsigned repairFailures = 0; // in a row
    Clock::time_point repairAt;  // no repair is tried before
    Clock::time_point lookAt;    // the next look
    Clock::time_point lookedAt;
    bool areRulesRight = false; // in the last look that read them

    Clock::time_point udpAt;
    Clock::time_point tcpAt;
    Clock::time_point upstreamAt;
    unsigned udpUnanswered = 0; // in a row
    unsigned tcpUnanswered = 0;
    std::map<std::string, unsigned> upstreamUnanswered; // by address

    // The process that is known to be the running instance; 0: none.
    [[nodiscard]] pid_t InstancePid() const { return instance ? instance->process.Pid() : 0; }
};

} // namespace kavel::agent

#endif
