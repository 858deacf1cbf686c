// Completion of the command line of vqctl, or of another program, made from what its parser knows.
#ifndef KAVEL_CTL_COMPLETION_H
#define KAVEL_CTL_COMPLETION_H

#include <span>
#include <string>
#include <vector>

namespace kavel::ctl {

// What is offered for a value.
struct ValueKind {
    enum class Type { kNone, kFile, kMessageFile, kVpn, kWords };
    Type type = Type::kNone;
    std::vector<std::string> words = {}; // for kWords: one of them, or more with commas between them
};

struct OptionUsage {
    std::vector<std::string> names; // "-s", "--socket"
    bool hasValue = false;          // the word after it belongs to it
    ValueKind value = {};
};

struct CommandUsage {
    std::string path; // the words that lead to it: "vqctl vpn init"
    std::vector<OptionUsage> options = {};
    ValueKind arguments = {};
    bool hasManyArguments = false;          // or else one, if `arguments` says what
    std::vector<std::string> commands = {}; // the names of those below it
};

// A script for bash that defines the completion of the program, which is the first of the commands and whose name is a
// word of letters. Its options may follow the others; an option that a command has under the same name is not listed
// twice.
[[nodiscard]] std::string BashCompletion(std::span<const CommandUsage> commands);

} // namespace kavel::ctl

#endif
