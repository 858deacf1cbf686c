// The exit codes of vqctl, and the exceptions that end a command. InputError is one of them.
#ifndef KAVEL_CTL_ERRORS_H
#define KAVEL_CTL_ERRORS_H

#include <stdexcept>
#include <string>

#include "input_error.h"

namespace kavel::ctl {

enum ExitCode : int {
    kDone = 0,
    kRefused = 1,    // the agent refused, or a VPN has problems
    kBadInput = 2,   // wrong usage, a file that cannot be read, written or understood, a VPN that is not configured
    kNoAgent = 3,    // the agent cannot be reached or violates the protocol
    kNotAsAsked = 4, // carried out, but a service is not in the state that is asked for, or a repair failed
    kStarting = 5,   // the agent is starting; also if a VPN has problems
};

// A file cannot be used, or written.
class FileError : public InputError {
  public:
    FileError(const std::string &file, const std::string &why) : InputError(file + ": " + why), file_(file) {}
    [[nodiscard]] const std::string &File() const { return file_; }

  private:
    std::string file_;
};

// The agent cannot be reached, or the connection to it failed.
class AgentError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The user ended the command by a signal while it waited for the agent.
class Interrupted : public std::runtime_error {
  public:
    Interrupted() : std::runtime_error("interrupted") {}
};

} // namespace kavel::ctl

#endif
