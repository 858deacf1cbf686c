// Per VPN the message with the highest numeric revision (NumericRevision()) that was applied or refused: a message that
// is asked to be applied only if it is newer is compared with it.
#ifndef KAVEL_AGENT_NUMBERED_MESSAGES_H
#define KAVEL_AGENT_NUMBERED_MESSAGES_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "services/message_history.h"

namespace kavel::agent {

class Host;

struct NumberedMessage {
    std::uint64_t number = 0; // its revision
    HistoryEntry entry;       // without its message
    bool isUndone = false;
};

// The memory is filled from the history when a VPN is asked about for the first time. Without persistence there is the
// memory alone.
class NumberedMessages {
  public:
    // Of VPNs that are not configured, this many are remembered; then the one that was refused longest ago is
    // forgotten.
    static constexpr std::size_t kUnconfiguredMax = 256;

    // `host` must outlive this object.
    explicit NumberedMessages(Host &host) : host_(host) {}

    // A message for the VPN was applied or refused. It counts if its revision is numeric.
    void Note(std::uint32_t vpnId, const HistoryEntry &entry);
    // A message with this revision is in force. An agent that is killed before the answer does not add it to the
    // history.
    void NoteInForce(std::uint32_t vpnId, const std::string &revision);

    // Nothing if there was none. The result is valid until the next call of another function. Throws std::system_error
    // if the history has to be read for it and cannot be.
    [[nodiscard]] const NumberedMessage *Last(std::uint32_t vpnId);
    // The same, as far as it is known without the history.
    [[nodiscard]] const NumberedMessage *Known(std::uint32_t vpnId) const;

    // The agent has undone what is in force: the next Last() looks at the history again.
    void Undone(std::uint32_t vpnId);

    // VPNs may be configured now that were not. What was refused for that reason does not count any more.
    void ConfigurationRead() { unconfigured_.clear(); }

  private:
    struct Memory {
        std::optional<NumberedMessage> last;
        bool isHistoryRead = false;
    };

    void NoteUnconfigured(std::uint32_t vpnId, NumberedMessage message);
    void ReadHistory(std::uint32_t vpnId, Memory &memory) const;

    Host &host_;
    std::map<std::uint32_t, Memory> configured_; // or were so once
    std::map<std::uint32_t, NumberedMessage> unconfigured_;
};

} // namespace kavel::agent

#endif
