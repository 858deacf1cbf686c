// Messages as a broker gives them, and what is made of them.
#ifndef KAVEL_TESTS_FLEET_FLEET_SAMPLES_H
#define KAVEL_TESTS_FLEET_FLEET_SAMPLES_H

#include <cstdint>
#include <filesystem>
#include <string>

#include "fleet_state.h"
#include "session.h"

namespace kavel::fleet {

// The published message for a VPN of a box. `revision` is the text of the property.
[[nodiscard]] broker::Message Wanted(const std::string &box, std::uint32_t vpn, const std::string &revision);

// A report with this JSON text.
[[nodiscard]] broker::Message ReportText(const std::string &box, std::uint32_t vpn, const std::string &text);

// The report of a revision that was applied and runs.
[[nodiscard]] broker::Message Applied(const std::string &box, std::uint32_t vpn, broker::Revision revision);

[[nodiscard]] broker::Message Refused(const std::string &box, std::uint32_t vpn, broker::Revision revision,
                                      const std::string &reason);

[[nodiscard]] broker::Message Online(const std::string &box);
[[nodiscard]] broker::Message Offline(const std::string &box);
[[nodiscard]] broker::Message PresenceText(const std::string &box, const std::string &text);

// What is said about a VPN that is known.
[[nodiscard]] Verdict VerdictOf(const FleetState &state, const std::string &box, std::uint32_t vpn);

// A directory that is removed with its content.
class ScratchDir {
  public:
    ScratchDir();
    ~ScratchDir();
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;

    [[nodiscard]] std::string Path(const std::string &name) const { return path_ / name; }
    // Writes a file and returns its path.
    std::string Write(const std::string &name, const std::string &content) const;

  private:
    std::filesystem::path path_;
};

[[nodiscard]] std::string ContentOf(const std::string &file);

} // namespace kavel::fleet

#endif
