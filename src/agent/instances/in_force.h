// What is in force for each VPN: the last confirmed message, or the stored record that was recovered. Kept as long as
// the instances live: over a restart of the agent, not over a restart of the box.
#ifndef KAVEL_AGENT_IN_FORCE_H
#define KAVEL_AGENT_IN_FORCE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/files.h"
#include "instances/instances.h"

namespace kavel::agent {

// Facts about what is in force, without its content.
struct InForce {
    bool enables = false;                // an instance is meant to run
    bool isStored = false;               // it has a row in the store
    std::optional<std::string> revision; // the sender's name for it
    std::optional<std::uint32_t> routes; // in the VPN's route table after it was applied; nothing: not known
    std::vector<FileMark> files;         // of Instances::Files() after it was applied
};

// The content: a packed controller message, or the text of a stored record.
struct InForceContent {
    bool isMessage = false;
    std::string bytes;
};

// One file per VPN.
class InForceFiles {
  public:
    // `instances` must outlive this object.
    explicit InForceFiles(const Instances &instances) : instances_(instances) {}

    // Nothing when nothing is in force, or the file cannot be read; that is logged.
    [[nodiscard]] std::optional<InForce> Read(std::uint32_t vpnId) const;
    // Throws std::system_error, with ENOENT when nothing is in force.
    [[nodiscard]] InForceContent ReadContent(std::uint32_t vpnId) const;

    // Replaces both, or the facts alone. A revision has no line feed. Throws std::system_error.
    void Write(std::uint32_t vpnId, const InForce &facts, const InForceContent &content) const;
    void Write(std::uint32_t vpnId, const InForce &facts) const;

    // Nothing is in force from then on. Throws std::system_error.
    void Remove(std::uint32_t vpnId) const;

  private:
    const Instances &instances_;
};

} // namespace kavel::agent

#endif
