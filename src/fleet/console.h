// Where a command writes, and how it ends.
#ifndef KAVEL_FLEET_CONSOLE_H
#define KAVEL_FLEET_CONSOLE_H

#include <functional>
#include <iosfwd>
#include <string>

namespace kavel::fleet {

struct Console {
    std::ostream &out;
    std::ostream &err;
    bool outIsTerminal = false;
    bool errIsTerminal = false;
    bool json = false; // the command prints a JSON document: also when it fails
};

// Writes "vqfleet: " and the text, as Printable() gives it, as a line of `err`. On a terminal it replaces the progress
// that stands in the last line.
void Tell(const Console &console, const std::string &text);

// Runs a command and returns its exit code: 128 and the number of the signal, if one has ended it. What the command
// throws becomes a line on `err`, and with `json` a document with the member `error`; so does standard output that
// cannot be written.
int Run(const Console &console, const std::function<int()> &command);

} // namespace kavel::fleet

#endif
