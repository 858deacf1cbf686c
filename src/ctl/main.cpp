// The command line of vqctl.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iostream>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>

#include "bundle.h"
#include "change_commands.h"
#include "commands.h"
#include "completion.h"
#include "errors.h"
#include "export_commands.h"
#include "metrics_commands.h"
#include "number.h"
#include "offline_check.h"
#include "operator_commands.h"
#include "printable.h"
#include "query_commands.h"
#include "status_command.h"
#include "status_output.h"
#include "usage.h"
#include "why_command.h"

namespace {

using namespace kavel::ctl;

constexpr const char *kFooter = R"(Exit codes:
  0  done
  1  refused, or problems found
  2  bad input
  3  no agent
  4  carried out, but the service does not run
  5  the agent is starting)";

struct Arguments {
    Session session{std::cout, std::cerr};
    Messages messages;
    std::string file;
    std::optional<std::string> target;
    std::optional<std::uint32_t> vpn;
    StatusOptions status;
    std::optional<std::string> level;
    std::optional<std::string> time;
    BundleOptions bundle{.version = KAVEL_VERSION};
    bool offline = false;
    QueriedName queried;
    std::optional<std::uint32_t> number; // of a message in the history
    bool all = false;                    // of the VPNs
    std::function<int()> command;
};

// Only decimal numbers: CLI11 would read 010 as 8.
std::uint32_t VpnNumber(const std::string &text)
{
    const auto vpn = kavel::WholeNumber<std::uint32_t>(text);
    if (!vpn) {
        throw CLI::ValidationError("\"" + text + "\" is not a VPN number");
    }
    return *vpn;
}

std::uint32_t Seconds(const std::string &text)
{
    const auto seconds = kavel::WholeNumber<std::uint32_t>(text);
    if (!seconds || *seconds == 0 || *seconds > kConfirmSecondsMax) {
        throw CLI::ValidationError("\"" + text + "\" is not a number from 1 to " + std::to_string(kConfirmSecondsMax));
    }
    return *seconds;
}

CLI::Option *AddVpn(CLI::App &app, Arguments &arguments, const std::string &name, const std::string &help)
{
    return app
        .add_option_function<std::string>(
            name, [&arguments](const std::string &text) { arguments.vpn = VpnNumber(text); }, help)
        ->type_name("NUMBER");
}

constexpr int kTimeoutMax = 3600; // seconds

std::chrono::seconds TimeoutOf(const std::string &text)
{
    const auto seconds = kavel::WholeNumber<std::uint32_t>(text);
    if (!seconds || *seconds == 0 || *seconds > kTimeoutMax) {
        throw CLI::ValidationError("\"" + text + "\" is not a number of seconds from 1 to " +
                                   std::to_string(kTimeoutMax));
    }
    return std::chrono::seconds(*seconds);
}

CLI::Option *AddBox(CLI::App &app, Arguments &arguments)
{
    const auto setBox = [&arguments](std::int64_t /*count*/) { arguments.messages.target = MessageFor::kBox; };
    return app.add_flag_function("--box", setBox, "The message is for the box itself and has no vpnid");
}

void AddMessages(CLI::App &app, Arguments &arguments)
{
    app.add_option("FILE", arguments.messages.files, "JSON files with one message each; - is standard input")
        ->required()
        ->type_name("");
    app.add_flag("--binary", arguments.messages.binary, "The files hold message bytes, which are sent unchecked")
        ->excludes(AddBox(app, arguments));
}

void AddMessageCommands(CLI::App &app, Arguments &arguments)
{
    CLI::App *apply =
        app.add_subcommand("apply", "Apply controller messages in order; stop at the first that is refused");
    AddMessages(*apply, arguments);
    // Not bound to the member: CLI11 would drop an empty revision instead of letting it be refused.
    apply
        ->add_option_function<std::string>(
            "--revision", [&arguments](const std::string &text) { arguments.messages.revision = text; },
            "The sender's name for the messages, 1 to 64 bytes; the status shows it")
        ->type_name("REV");
    apply
        ->add_option_function<std::string>(
            "--confirm", [&arguments](const std::string &text) { arguments.messages.confirmSeconds = Seconds(text); },
            "Undo the message after so many seconds, 1 to 3600, unless it is confirmed")
        ->type_name("SECONDS");
    apply->final_callback(
        [&arguments] { arguments.command = [&] { return Apply(arguments.session, arguments.messages); }; });

    CLI::App *check = app.add_subcommand("check", "Show what controller messages would set, without applying them");
    AddMessages(*check, arguments);
    check->add_flag("--offline", arguments.offline, "Only read the files, without an agent; list all errors of each")
        ->excludes("--binary");
    check->final_callback([&arguments] {
        arguments.command = [&] {
            return arguments.offline
                       ? CheckOffline(arguments.session, arguments.messages.files, arguments.messages.target)
                       : Check(arguments.session, arguments.messages);
        };
    });

    CLI::App *encode = app.add_subcommand("encode", "Convert a JSON message to message bytes; needs no agent");
    encode->add_option("FILE", arguments.file, "JSON file with the message; - is standard input")
        ->required()
        ->type_name("");
    encode->add_option("-o,--output", arguments.target, "Write to this file instead of standard output")
        ->type_name("FILE");
    AddBox(*encode, arguments);
    encode->final_callback([&arguments] {
        arguments.command = [&] { return Encode(arguments.file, arguments.target, arguments.messages.target); };
    });
}

// CLI11 gives no value for --watch alone.
void SetWatch(Arguments &arguments, const std::string &text)
{
    constexpr std::uint32_t kDefault = 2;
    constexpr std::uint32_t kLongest = 86400;
    const auto seconds = text.empty() ? kDefault : kavel::WholeNumber<std::uint32_t>(text);
    if (!seconds || *seconds == 0 || *seconds > kLongest) {
        throw CLI::ValidationError("--watch: expected 1 to 86400 seconds, not \"" + text + "\"");
    }
    arguments.status.watch = std::chrono::seconds(*seconds);
}

void AddStatusCommand(CLI::App &app, Arguments &arguments)
{
    StatusOptions &options = arguments.status;
    CLI::App *status = app.add_subcommand(
        "status", "Show the state of every VPN; exit code 1 if any has problems, 5 while the agent is starting");
    AddVpn(*status, arguments, "--vpn", "Show only this VPN");
    status->add_flag("--problems", options.problemsOnly, "Show only VPNs with problems");
    status->add_option("--columns", options.columns, "Show these columns, with commas between them; help lists them")
        ->type_name(kColumns);
    status->add_option("--sort", options.sort, "Sort by this column; -COLUMN in descending order")->type_name(kColumns);
    status
        ->add_option_function<std::string>(
            "--watch", [&arguments](const std::string &text) { SetWatch(arguments, text); },
            "Print again after so many seconds, by default 2, until Ctrl-C")
        ->type_name("SECONDS")
        ->expected(0, 1);
    status->final_callback([&arguments] {
        arguments.command = [&] {
            arguments.status.vpn = arguments.vpn;
            return Status(arguments.session, arguments.status);
        };
    });
}

void AddWhyCommand(CLI::App &app, Arguments &arguments)
{
    CLI::App *why =
        app.add_subcommand("why", "Tell what keeps names from resolving, and what mends it; nothing if all is well");
    AddVpn(*why, arguments, "--vpn", "Look at this VPN only");
    why->final_callback([&arguments] { arguments.command = [&] { return Why(arguments.session, arguments.vpn); }; });
}

void AddRepairCommand(CLI::App &app, Arguments &arguments)
{
    CLI::App *repair = app.add_subcommand("repair", "Repair what differs from the configuration in force");
    AddVpn(*repair, arguments, "--vpn", "Repair only this VPN");
    repair->final_callback(
        [&arguments] { arguments.command = [&] { return Repair(arguments.session, arguments.vpn); }; });
}

void AddStopCommand(CLI::App &app, Arguments &arguments)
{
    CLI::App *stop = app.add_subcommand("stop", "End instances with their rules and routes; what is stored stays");
    CLI::Option *all = stop->add_flag("--all", arguments.all, "Stop every VPN");
    CLI::Option *one = AddVpn(*stop, arguments, "--vpn", "Stop only this VPN");
    all->excludes(one);
    stop->require_option(1);
    stop->final_callback([&arguments] { arguments.command = [&] { return Stop(arguments.session, arguments.vpn); }; });
}

void AddVpnCommand(CLI::App &app, Arguments &arguments)
{
    CLI::App *vpn = app.add_subcommand("vpn", "Create or remove the instance directory of a VPN");
    vpn->require_subcommand(1);

    CLI::App *init = vpn->add_subcommand("init", "Create the directory, or the files that it lacks");
    AddVpn(*init, arguments, "ID", "The VPN")->required();
    init->final_callback(
        [&arguments] { arguments.command = [&] { return VpnInit(arguments.session, arguments.vpn.value()); }; });

    CLI::App *release = vpn->add_subcommand("release", "Remove the directory; the VPN's instance must be stopped");
    AddVpn(*release, arguments, "ID", "The VPN")->required();
    release->final_callback(
        [&arguments] { arguments.command = [&] { return VpnRelease(arguments.session, arguments.vpn.value()); }; });
}

// A number of a message in a VPN's history.
CLI::Option *AddNumber(CLI::App &app, Arguments &arguments, const std::string &name, const std::string &help)
{
    const auto set = [&arguments](const std::string &text) {
        arguments.number = kavel::WholeNumber<std::uint32_t>(text);
        if (arguments.number.value_or(0) == 0) {
            throw CLI::ValidationError("\"" + text + "\" is not a number from 1");
        }
    };
    return app.add_option_function<std::string>(name, set, help)->type_name("NUMBER");
}

void AddExportCommand(CLI::App &store, Arguments &arguments)
{
    CLI::App *records = store.add_subcommand("export", "Print stored records as messages that apply takes");
    AddVpn(*records, arguments, "ID", "Only the record of this VPN");
    records->add_option("-o,--output", arguments.target, "Write each message to a file vpn_N.json in this directory")
        ->type_name("DIR");
    records->final_callback([&arguments] {
        arguments.command = [&] { return StoreExport(arguments.session, arguments.vpn, arguments.target); };
    });
}

void AddStoreCommand(CLI::App &app, Arguments &arguments)
{
    CLI::App *store = app.add_subcommand("store", "Show the records that the agent applies when it starts");
    store->require_subcommand(1);

    CLI::App *list = store->add_subcommand("list", "List the stored records with their counts");
    list->final_callback([&arguments] { arguments.command = [&] { return StoreList(arguments.session); }; });

    CLI::App *show = store->add_subcommand("show", "Print the record of one VPN, as JSON");
    AddVpn(*show, arguments, "ID", "The VPN; 0 is the box itself")->required();
    show->final_callback(
        [&arguments] { arguments.command = [&] { return StoreShow(arguments.session, arguments.vpn.value()); }; });
    AddExportCommand(*store, arguments);
}

void AddChangeCommands(CLI::App &app, Arguments &arguments)
{
    CLI::App *diff = app.add_subcommand("diff", "Show what messages would change, and whether this needs a restart");
    diff->add_option("FILE", arguments.messages.files, "JSON files with one message each; - is standard input")
        ->required()
        ->type_name("");
    AddBox(*diff, arguments);
    diff->final_callback(
        [&arguments] { arguments.command = [&] { return Diff(arguments.session, arguments.messages); }; });

    CLI::App *history = app.add_subcommand("history", "List the messages that the agent keeps, the newest first");
    CLI::Option *vpn = AddVpn(*history, arguments, "ID", "Only the messages of this VPN");
    AddNumber(*history, arguments, "--show", "Print the message of this number, as JSON that apply takes")->needs(vpn);
    history->final_callback([&arguments] {
        arguments.command = [&] {
            return arguments.number ? ShowHistoryMessage(arguments.session, arguments.vpn.value(), *arguments.number)
                                    : History(arguments.session, arguments.vpn);
        };
    });

    CLI::App *confirm = app.add_subcommand("confirm", "Confirm a message that was applied with --confirm");
    AddVpn(*confirm, arguments, "ID", "The VPN; 0 is the box itself")->required();
    confirm->final_callback(
        [&arguments] { arguments.command = [&] { return Confirm(arguments.session, arguments.vpn.value()); }; });

    CLI::App *rollback = app.add_subcommand("rollback", "Apply the message before the one in force again");
    AddVpn(*rollback, arguments, "ID", "The VPN; 0 is the box itself")->required();
    AddNumber(*rollback, arguments, "--to", "Apply the message of this number in the history");
    rollback->final_callback([&arguments] {
        arguments.command = [&] { return Rollback(arguments.session, arguments.vpn.value(), arguments.number); };
    });
}

void AddMetricsCommand(CLI::App &app, Arguments &arguments)
{
    CLI::App *metrics = app.add_subcommand(
        "metrics", "Print counters and gauges of the agent and of all VPNs, in the text format of Prometheus");
    metrics
        ->add_option("--output", arguments.target,
                     "Replace this file in one step instead; without an agent it says so (kavel_agent_up 0)")
        ->type_name("FILE");
    metrics->final_callback(
        [&arguments] { arguments.command = [&] { return Metrics(arguments.session, arguments.target); }; });
}

void AddCompletionCommand(CLI::App &app, Arguments &arguments)
{
    CLI::App *completion = app.add_subcommand("completion", "Print the completion of the command line")->group("");
    completion->require_subcommand(1);
    CLI::App *bash = completion->add_subcommand("bash", "Print it for bash");
    bash->final_callback([&app, &arguments] {
        arguments.command = [&] {
            arguments.session.out << BashCompletion(UsagesOf(app));
            return kDone;
        };
    });
}

void AddOperatorCommands(CLI::App &app, Arguments &arguments)
{
    CLI::App *flush = app.add_subcommand("flush", "Empty the cache of an instance");
    AddVpn(*flush, arguments, "--vpn", "The VPN")->required();
    flush->final_callback(
        [&arguments] { arguments.command = [&] { return Flush(arguments.session, arguments.vpn.value()); }; });

    CLI::App *log = app.add_subcommand("log", "Change what the agent logs");
    log->require_subcommand(1);
    CLI::App *level = log->add_subcommand("level", "Set the level of the log; without LEVEL: show it");
    level->add_option("LEVEL", arguments.level, "error, warning, notice or debug")->type_name("");
    level->add_option("--for", arguments.time, "For so long, such as 90s, 10m or 2h; at most 24h")->type_name("TIME");
    level->final_callback([&arguments] {
        arguments.command = [&] { return LogLevel(arguments.session, arguments.level, arguments.time); };
    });
}

void AddBundleCommand(CLI::App &app, Arguments &arguments)
{
    CLI::App *bundle = app.add_subcommand("bundle", "Write an archive for a ticket, also without an agent");
    bundle->add_option("-o,--output", arguments.bundle.output, "Write to this new file")->type_name("FILE");
    bundle->add_flag("--redact", arguments.bundle.redact, "Replace names and addresses by tokens");
    bundle->final_callback(
        [&arguments] { arguments.command = [&] { return Bundle(arguments.session, arguments.bundle); }; });
}

void AddQueryCommand(CLI::App &app, Arguments &arguments)
{
    CLI::App *query = app.add_subcommand(
        "query", "Resolve a name as a client of a VPN does, and show the way; exit code 1 if there is no answer");
    AddVpn(*query, arguments, "--vpn", "The VPN; 0 is the box itself")->required();
    query->add_option("NAME", arguments.queried.name, "The domain name; with the type PTR also an IP address")
        ->required()
        ->type_name("");
    query->add_option("TYPE", arguments.queried.type, "A (if none is given), AAAA, MX, PTR, ... or TYPE and a number")
        ->type_name("");
    query->final_callback([&arguments] {
        arguments.queried.vpn = arguments.vpn.value();
        arguments.command = [&] { return Query(arguments.session, arguments.queried); };
    });
}

void AddCommands(CLI::App &app, Arguments &arguments)
{
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(kFooter);
    app.set_version_flag("--version", "vqctl " KAVEL_VERSION);
    app.add_option("-s,--socket", arguments.session.socket, "The agent's control socket")
        ->type_name("PATH")
        ->capture_default_str();
    app.add_option_function<std::string>(
           "--timeout", [&arguments](const std::string &text) { arguments.session.timeout = TimeoutOf(text); },
           "How long to wait for each reply of the agent, 1 to 3600; default 60")
        ->type_name("SECONDS");
    app.add_flag("-v,--verbose", arguments.session.verbose, "Report requests and results on standard error");
    app.add_flag("--json", arguments.session.json, "Print JSON, for programs");
    AddMessageCommands(app, arguments);
    AddChangeCommands(app, arguments);
    AddStatusCommand(app, arguments);
    AddWhyCommand(app, arguments);
    AddQueryCommand(app, arguments);
    AddRepairCommand(app, arguments);
    AddStopCommand(app, arguments);
    AddOperatorCommands(app, arguments);
    AddVpnCommand(app, arguments);
    AddStoreCommand(app, arguments);
    AddMetricsCommand(app, arguments);
    AddBundleCommand(app, arguments);
    AddCompletionCommand(app, arguments);
}

// One line. An argument that no command knows is reported first, because CLI11 may report a missing argument instead.
std::string UsageText(const CLI::App *app, const CLI::Error &error)
{
    const std::vector<std::string> unknown = app->remaining(true);
    const std::string why = unknown.empty() ? error.what() : "\"" + unknown.front() + "\" is not a known argument";
    return why + " (see vqctl --help)";
}

// CLI11 would take the argument after "--revision=" for its value: the first file would not be applied.
void RefuseEmptyValues(std::span<char *const> arguments)
{
    for (const std::string_view argument : arguments) {
        if (argument == "--") {
            return;
        }
        if (argument.starts_with("--") && argument.ends_with("=")) {
            throw CLI::ValidationError(std::string(argument.substr(0, argument.size() - 1)), "the value is missing");
        }
    }
}

bool AsksForJson(std::span<char *const> arguments)
{
    const auto end = std::ranges::find(arguments, std::string_view("--"), [](const char *text) { return text; });
    return std::find(arguments.begin(), end, std::string_view("--json")) != end;
}

int Main(std::span<char *const> words)
{
    Arguments arguments;
    arguments.session.colour = WantsColour(STDOUT_FILENO);
    arguments.status.isTerminal = ::isatty(STDOUT_FILENO) == 1;
    arguments.session.errIsTerminal = ::isatty(STDERR_FILENO) == 1;
    CLI::App app("Controls the DNS agent of this box.", "vqctl");
    AddCommands(app, arguments);
    try {
        RefuseEmptyValues(words);
        app.parse(static_cast<int>(words.size()), words.data());
    } catch (const CLI::Success &request) { // --help, --version
        return app.exit(request);
    } catch (const CLI::ParseError &error) {
        arguments.session.json = AsksForJson(words);
        arguments.command = [&]() -> int { throw kavel::InputError(UsageText(&app, error)); };
        return Run(arguments.session, arguments.command);
    }
    return Run(arguments.session, arguments.command);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return Main({argv, static_cast<std::size_t>(argc)});
    } catch (const std::exception &error) {
        std::cerr << "vqctl: " << kavel::Printable(error.what()) << '\n';
        return kBadInput;
    }
}
