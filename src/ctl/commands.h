// The commands of vqctl. Each returns its exit code, and throws InputError or AgentError when it cannot be carried out.
// With session.json it prints nothing, but adds what it would print to the JSON document of the session.
#ifndef KAVEL_CTL_COMMANDS_H
#define KAVEL_CTL_COMMANDS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "json_message.h"
#include "session.h"

namespace kavel::ctl {

struct Messages {
    std::vector<std::string> files; // `-`: standard input
    bool binary = false;            // the files hold message bytes, which are sent unchanged; otherwise JSON
    // The sender's name for the messages; apply sends it with each. Printable UTF-8 of 1 to kRevisionMax bytes.
    std::optional<std::string> revision = std::nullopt;
    MessageFor target = MessageFor::kVpn; // of JSON files
    // apply: the message is undone after so many seconds, 1 to kConfirmSecondsMax, unless it is confirmed.
    std::optional<std::uint32_t> confirmSeconds = std::nullopt;
};

inline constexpr std::size_t kRevisionMax = 64;
inline constexpr std::uint32_t kConfirmSecondsMax = 3600;

// Applies the messages in order and stops at the first one that is refused. A message whose service does not run is
// reported, and does not stop the others. If the revision or any file is bad, nothing is sent. SIGINT and SIGTERM end
// it: then it prints which messages were applied, which one is in flight and which were not sent, and returns 128 and
// the number of the signal.
int Apply(const Session &session, const Messages &messages);

// Confirms the message of a VPN that was applied with `confirmSeconds`.
int Confirm(const Session &session, std::uint32_t vpn);

// Prints for each message what it would set, or why it would be refused. If any file is bad, nothing is sent.
int Check(const Session &session, const Messages &messages);

// Writes the bytes of a JSON message to the file `output`, or to standard output.
int Encode(const std::string &file, const std::optional<std::string> &output, MessageFor target);

// Has the agent repair what differs from what is in force, for one VPN or for all. Prints what was repaired; what could
// not be repaired is printed on `err`.
int Repair(const Session &session, std::optional<std::uint32_t> vpn);

// Has the agent end the instance of one VPN, or of all that have something to end, with its rules and routes. What
// could not be removed is printed on `err`.
int Stop(const Session &session, std::optional<std::uint32_t> vpn);

// Create and remove the instance directory of a VPN.
int VpnInit(const Session &session, std::uint32_t vpn);
int VpnRelease(const Session &session, std::uint32_t vpn);

// Print a table of the stored records, and the text of one VPN's record.
int StoreList(const Session &session);
int StoreShow(const Session &session, std::uint32_t vpn);

} // namespace kavel::ctl

#endif
