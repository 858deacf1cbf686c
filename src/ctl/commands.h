// What vqctl does. Each command returns its exit code; InputError and AgentError tell of what kept it from its work.
#ifndef KAVEL_CTL_COMMANDS_H
#define KAVEL_CTL_COMMANDS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "frame.h"

namespace kavel::ctl {

// Applying a large message restarts an instance and installs many routes.
inline constexpr std::chrono::seconds kPatience{60};

struct Session {
    std::ostream &out;
    std::ostream &err;
    std::string socket = control::kDefaultSocket;
    bool verbose = false; // tell on `err` what is sent
    bool colour = false;
    std::chrono::milliseconds patience = kPatience;
};

struct Messages {
    std::vector<std::string> files; // `-`: standard input
    bool binary = false;            // message bytes, sent as they are, rather than JSON
};

// Applies the messages in order and stops at the first that is refused. Nothing is sent when any file is bad.
int Apply(const Session &session, const Messages &messages);

// Says of each message what it would set, or why it would be refused.
int Check(const Session &session, const Messages &messages);

// Writes the bytes of a JSON message to the file `target`, or to standard output.
int Encode(const std::string &file, const std::optional<std::string> &target);

// Tells the state of one VPN or of all.
int Status(const Session &session, std::optional<std::uint32_t> vpn, bool json);

// Create and remove the instance directory of a VPN.
int VpnInit(const Session &session, std::uint32_t vpn);
int VpnRelease(const Session &session, std::uint32_t vpn);

// Tell what is stored, and the text of one VPN's record.
int StoreList(const Session &session);
int StoreShow(const Session &session, std::uint32_t vpn);

// Runs a command and turns what ends it early into one line on `session.err` and an exit code.
int Run(const Session &session, const std::function<int()> &command);

} // namespace kavel::ctl

#endif
