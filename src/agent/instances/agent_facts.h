// What the agent tells about itself.
#ifndef KAVEL_AGENT_AGENT_FACTS_H
#define KAVEL_AGENT_AGENT_FACTS_H

#include <chrono>
#include <cstdint>
#include <string>

namespace kavel::agent {

// What does not change while it runs.
struct AgentFacts {
    std::string version;
    std::uint32_t restarts = 0; // starts of an agent since the box has started, less one
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
};

struct AgentStatus {
    std::string version;
    std::uint64_t uptimeSeconds = 0;
    std::uint64_t memoryBytes = 0; // resident
    std::uint32_t restarts = 0;
};

[[nodiscard]] AgentStatus StatusOfAgent(const AgentFacts &facts);

// Counts a start of the agent in the file at `path`, which must not outlive a start of the box. Returns how many were
// counted before. A file that cannot be written is logged; one that does not hold a number counts as none.
[[nodiscard]] std::uint32_t CountStart(const std::string &path);

} // namespace kavel::agent

#endif
