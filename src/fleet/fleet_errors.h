// The exit codes of vqfleet, and the exceptions that end a command. InputError is one of them.
#ifndef KAVEL_FLEET_FLEET_ERRORS_H
#define KAVEL_FLEET_FLEET_ERRORS_H

#include <stdexcept>
#include <string>

#include "input_error.h"

namespace kavel::fleet {

enum ExitCode : int {
    kDone = 0,
    kBehind = 1,   // a box is behind, or a publication was refused
    kBadInput = 2, // wrong usage, or a file that cannot be read, written or understood
    kNoBroker = 3, // the broker cannot be reached, or did not do what it is asked for
};

// The broker cannot be reached, or does not do what a command needs. One line.
class BrokerError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// What was asked for must not be done, as things stand at the broker. One line.
class RefusedError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The user ended the command by a signal.
class Interrupted : public std::runtime_error {
  public:
    explicit Interrupted(int signal) : std::runtime_error("interrupted"), signal_(signal) {}
    [[nodiscard]] int Signal() const { return signal_; }

  private:
    int signal_;
};

} // namespace kavel::fleet

#endif
