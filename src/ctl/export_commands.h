// The commands that print what the agent keeps as messages that `vqctl apply` takes.
#ifndef KAVEL_CTL_EXPORT_COMMANDS_H
#define KAVEL_CTL_EXPORT_COMMANDS_H

#include <cstdint>
#include <optional>
#include <string>

#include "json_reader.h"
#include "packed_conf.h"
#include "session.h"

namespace kavel::ctl {

// The JSON of a VPN's message. It names the VPN, also if the message does not. Throws AgentError.
[[nodiscard]] JsonPtr NamedMessageJson(const PackedConf &packed, std::uint32_t vpn);

// Prints the stored record of a VPN, or writes one file for each record, vpn_7.json, into `directory`, which is created
// if it does not exist. Without a VPN it needs the directory, or prints a document with all messages (--json).
int StoreExport(const Session &session, std::optional<std::uint32_t> vpn, const std::optional<std::string> &directory);

// Prints a table of the messages that the agent keeps, of one VPN or of all.
int History(const Session &session, std::optional<std::uint32_t> vpn);

// Prints the message of this number in the VPN's history; 1 is the newest.
int ShowHistoryMessage(const Session &session, std::uint32_t vpn, std::uint32_t number);

} // namespace kavel::ctl

#endif
