#include "completion.h"

#include <algorithm>
#include <cstddef>
#include <sstream>
#include <string_view>

namespace kavel::ctl {

namespace {

// The script is written for this program, and its name is replaced.
constexpr std::string_view kTemplateProgram = "vqctl";

constexpr const char *kHead =
    R"bash(# Completion of vqctl's command line for bash: the output of "vqctl completion bash". It runs nothing but bash's builtins
# and vqctl.

)bash";

constexpr const char *kEngine = R"bash(
# Prints the numbers of the VPNs, one per line, if the agent answers at once: whoever presses the key waits no longer than
# half a second for it. Arguments: the program, and its options for the socket.
_vqctl_vpns() {
    local line replies pid
    exec {replies}< <(exec "$@" status --json --columns vpn 2>/dev/null)
    pid=$!
    while IFS= read -r -t 0.5 -u "$replies" line; do
        [[ $line =~ \"vpn\":\ *([0-9]+) ]] && printf '%s\n' "${BASH_REMATCH[1]}"
    done
    exec {replies}<&-
    kill "$pid" 2>/dev/null
}

# _vqctl_files WORD [PATTERN]: the directories, and the files whose name matches the pattern.
_vqctl_files() {
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -X "!${2:-*}" -- "$1"; compgen -d -X "${2:-*}" -- "$1")
}

# _vqctl_words WORD WORDS: those that begin like what follows the last comma.
_vqctl_words() {
    local last=${1##*,}
    mapfile -t COMPREPLY < <(compgen -P "${1%"$last"}" -W "$2" -- "$last")
}

_vqctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} program=${COMP_WORDS[0]/#\~\//$HOME/}
    local command=vqctl option='' binary='' argument='' kind word i
    local -a socket=()
    COMPREPLY=()

    # The words before the current one: the command, whether it has an argument, and the option whose value the current
    # word is. bash makes "=" a word of its own.
    for ((i = 1; i < COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i]}
        if [[ -n $option ]]; then
            [[ $word == = ]] && continue
            [[ $option == -s || $option == --socket ]] && socket=(--socket "$word")
            option=''
        elif [[ $word == -* ]]; then
            [[ $word == --binary ]] && binary=yes
            kind=${_vqctl_values["$command $word"]:-${_vqctl_values["vqctl $word"]:-}}
            [[ -n $kind ]] && option=$word
        elif [[ " ${_vqctl_commands[$command]:-} " == *" $word "* ]]; then
            command+=" $word"
        else
            argument=yes
        fi
    done
    [[ $cur == = ]] && cur=''

    if [[ -z $option && $cur == -* ]]; then
        local options=${_vqctl_options[vqctl]}
        [[ $command == vqctl ]] || options+=" ${_vqctl_options[$command]}"
        _vqctl_words "$cur" "$options"
        return
    elif [[ -z $option && -n ${_vqctl_commands[$command]:-} ]]; then
        _vqctl_words "$cur" "${_vqctl_commands[$command]}"
        return
    elif [[ -z $option ]]; then
        kind=${_vqctl_arguments[$command]:-none}
        [[ -n $argument && $kind != *... ]] && return
    fi
    case ${kind%...} in
        file) _vqctl_files "$cur" ;;
        message) if [[ -n $binary ]]; then _vqctl_files "$cur"; else _vqctl_files "$cur" '*.json'; fi ;;
        vpn) _vqctl_words "$cur" "$(_vqctl_vpns "$program" "${socket[@]}")" ;;
        words*) _vqctl_words "$cur" "${kind#words}" ;;
    esac
}

complete -F _vqctl vqctl
)bash";

std::string Joined(const std::vector<std::string> &words)
{
    std::string text;
    for (const std::string &word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

std::string KindText(const ValueKind &kind)
{
    using enum ValueKind::Type;
    switch (kind.type) {
    case kFile:
        return "file";
    case kMessageFile:
        return "message";
    case kVpn:
        return "vpn";
    case kWords:
        return "words " + Joined(kind.words);
    default:
        return "none";
    }
}

std::string Entry(const std::string &key, const std::string &value)
{
    return "    [\"" + key + "\"]=\"" + value + "\"\n";
}

bool HasOption(const CommandUsage &command, const OptionUsage &option)
{
    return std::ranges::any_of(
        command.options, [&option](const OptionUsage &other) { return other.names.back() == option.names.back(); });
}

// The options of a command that the program does not have.
std::vector<OptionUsage> OwnOptions(const CommandUsage &program, const CommandUsage &command)
{
    std::vector<OptionUsage> options = command.options;
    if (&program != &command) {
        std::erase_if(options, [&program](const OptionUsage &option) { return HasOption(program, option); });
    }
    return options;
}

// Also if there is none: `set -u` forbids to look up what is not there.
std::string OptionsEntry(const CommandUsage &program, const CommandUsage &command)
{
    std::vector<std::string> names;
    for (const OptionUsage &option : OwnOptions(program, command)) {
        names.insert(names.end(), option.names.begin(), option.names.end());
    }
    return Entry(command.path, Joined(names));
}

std::string CommandsEntry(const CommandUsage &, const CommandUsage &command)
{
    return command.commands.empty() ? "" : Entry(command.path, Joined(command.commands));
}

std::string ArgumentsEntry(const CommandUsage &, const CommandUsage &command)
{
    const std::string kind = KindText(command.arguments);
    return kind == "none" ? "" : Entry(command.path, kind + (command.hasManyArguments ? "..." : ""));
}

std::string ValuesEntries(const CommandUsage &program, const CommandUsage &command)
{
    std::string entries;
    for (const OptionUsage &option : OwnOptions(program, command)) {
        for (const std::string &name : option.names) {
            entries += option.hasValue ? Entry(command.path + " " + name, KindText(option.value)) : "";
        }
    }
    return entries;
}

std::string Replaced(std::string text, std::string_view from, std::string_view to)
{
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
    return text;
}

} // namespace

std::string BashCompletion(std::span<const CommandUsage> commands)
{
    const std::string &program = commands.front().path;
    const auto named = [&program](const char *text) { return Replaced(text, kTemplateProgram, program); };
    std::ostringstream script;
    const auto table = [&](const char *comment, const char *name, auto entry) {
        script << named(comment) << "declare -gA _" << program << "_" << name << "=(\n";
        for (const CommandUsage &command : commands) {
            script << entry(commands.front(), command);
        }
        script << ")\n";
    };
    script << named(kHead);
    table("# The options of vqctl, and those of each command.\n", "options", OptionsEntry);
    table("# The commands of vqctl, and of the commands that have some.\n", "commands", CommandsEntry);
    table("# What the argument of a command is; \"...\": it may have several.\n", "arguments", ArgumentsEntry);
    table("# What the value of an option is.\n", "values", ValuesEntries);
    script << named(kEngine);
    return script.str();
}

} // namespace kavel::ctl
