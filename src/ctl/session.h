// What every command of vqctl works with: where it writes, how it reaches the agent, and how it ends.
#ifndef KAVEL_CTL_SESSION_H
#define KAVEL_CTL_SESSION_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <json-c/json.h>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "client.h"
#include "control.pb-c.h"
#include "errors.h"
#include "frame.h"
#include "signals.h"

namespace kavel::ctl {

// For one request. It is long because a large message restarts an instance and installs many routes.
inline constexpr std::chrono::seconds kTimeout{60};
inline constexpr std::chrono::seconds kSilence{3};

struct Session {
    std::ostream &out;
    std::ostream &err;
    std::string socket = control::kDefaultSocket;
    bool verbose = false; // report requests and results on `err`
    bool colour = false;
    bool json = false; // print a JSON document instead of text
    std::chrono::milliseconds timeout = kTimeout;
    // With `json`: what Run() prints when the command has ended. Commands add to it with DocumentOf().
    mutable std::shared_ptr<json_object> document = nullptr;
    std::chrono::milliseconds silence = kSilence; // after that a line says that the agent has not replied
    bool errIsTerminal = false;                   // progress may be shown on `err`
    const SignalWatch *signals = nullptr;         // if set, these signals end an exchange: Interrupted is thrown
};

// The JSON document of the command, begun with the member `schema`.
[[nodiscard]] json_object *DocumentOf(const Session &session);

// Prints it, if the command has begun one.
void PrintDocument(const Session &session);

// A request of this verb. Without `vpn` it names none.
[[nodiscard]] Kavel__Request NewRequest(Kavel__Request__Verb verb, std::optional<std::uint32_t> vpn = std::nullopt);

// Sends a packed request and waits for the reply. `what` names it in the lines of --verbose. A line on `err` says that
// the agent has not replied for `session.silence`, once for each request. Throws AgentError.
[[nodiscard]] ReplyPtr Exchange(const Session &session, Client &client, std::span<const std::uint8_t> request,
                                const std::string &what);
// The same over a connection of its own. Throws InputError for a request that is too long, too.
[[nodiscard]] ReplyPtr ExchangeOne(const Session &session, const Kavel__Request &request, const std::string &what);

// The VPN that the reply is about, if it names one.
[[nodiscard]] std::optional<std::uint32_t> VpnOf(const Kavel__Reply &reply);

// Of a request that the agent has refused: a VPN that is not configured is bad input.
[[nodiscard]] ExitCode CodeOfRefusal(const Kavel__Reply &reply);

// Adds to the JSON document why the command has failed: {"error": {"exit": 2, "text": ..., "file": ...}}. An empty file
// is left out.
void AddError(const Session &session, ExitCode code, const std::string &text, const std::string &file = {});

// Reports on standard error, and in the JSON document, that the agent refused a query. Returns the exit code.
int ReportRefusal(const Session &session, const std::string &subject, const Kavel__Reply &reply);

// The Unix time in seconds.
[[nodiscard]] std::uint64_t Now();

// Runs a command, prints its JSON document if it has one, and returns its exit code. An InputError or AgentError
// becomes one line on `session.err`, a member of the JSON document, and an exit code; standard output that cannot be
// written becomes a line and an exit code.
int Run(const Session &session, const std::function<int()> &command);

} // namespace kavel::ctl

#endif
