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

#include "commands.h"
#include "completion.h"
#include "errors.h"
#include "number.h"
#include "printable.h"
#include "status_command.h"
#include "status_output.h"

namespace {

using namespace kavel::ctl;

constexpr const char *kFooter = R"(Exit codes:
  0  done
  1  refused, or problems found
  2  bad input
  3  no agent
  4  carried out, but the service does not run
  5  the agent is starting)";

// The type name of a value that is the name of a column.
constexpr const char *kColumns = "COLUMN";

struct Arguments {
    Session session{std::cout, std::cerr};
    Messages messages;
    std::string file;
    std::optional<std::string> target;
    std::optional<std::uint32_t> vpn;
    bool all = false; // of the VPNs
    StatusOptions status;
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

CLI::Option *AddVpn(CLI::App &app, Arguments &arguments, const std::string &name, const std::string &help)
{
    return app
        .add_option_function<std::string>(
            name, [&arguments](const std::string &text) { arguments.vpn = VpnNumber(text); }, help)
        ->type_name("NUMBER");
}

void AddMessages(CLI::App &app, Arguments &arguments)
{
    app.add_option("FILE", arguments.messages.files, "JSON files with one message each; - is standard input")
        ->required()
        ->type_name("");
    app.add_flag("--binary", arguments.messages.binary, "The files hold message bytes, which are sent unchecked");
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
    apply->final_callback(
        [&arguments] { arguments.command = [&] { return Apply(arguments.session, arguments.messages); }; });

    CLI::App *check = app.add_subcommand("check", "Show what controller messages would set, without applying them");
    AddMessages(*check, arguments);
    check->final_callback(
        [&arguments] { arguments.command = [&] { return Check(arguments.session, arguments.messages); }; });

    CLI::App *encode = app.add_subcommand("encode", "Convert a JSON message to message bytes; needs no agent");
    encode->add_option("FILE", arguments.file, "JSON file with the message; - is standard input")
        ->required()
        ->type_name("");
    encode->add_option("-o,--output", arguments.target, "Write to this file instead of standard output")
        ->type_name("FILE");
    encode->final_callback(
        [&arguments] { arguments.command = [&] { return Encode(arguments.file, arguments.target); }; });
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
}

// What the names of types and arguments tell about a value.
ValueKind KindOf(const CLI::Option &option)
{
    using enum ValueKind::Type;
    const std::string type = option.get_type_name();
    if (type == kColumns) {
        ValueKind kind{kWords};
        std::ranges::transform(AllFields(), std::back_inserter(kind.words),
                               [](const StatusField *field) { return std::string(field->name); });
        return kind;
    }
    if (option.get_positional()) {
        return {option.get_single_name() == "FILE" ? kMessageFile : type == "NUMBER" ? kVpn : kNone};
    }
    return {type == "FILE" || type == "PATH" ? kFile : type == "NUMBER" ? kVpn : kNone};
}

bool IsVisible(const CLI::App *app)
{
    return !app->get_group().empty();
}

CommandUsage UsageOf(const CLI::App &app)
{
    CommandUsage usage{.path = app.get_name()};
    for (const CLI::App *parent = app.get_parent(); parent != nullptr; parent = parent->get_parent()) {
        usage.path = parent->get_name() + " " + usage.path;
    }
    for (const CLI::Option *option : app.get_options()) {
        if (option->get_positional()) {
            usage.arguments = KindOf(*option);
            usage.hasManyArguments = option->get_items_expected_max() > 1;
            continue;
        }
        OptionUsage one{{}, option->get_items_expected_min() > 0, KindOf(*option)};
        std::ranges::transform(option->get_snames(), std::back_inserter(one.names),
                               [](const std::string &name) { return "-" + name; });
        std::ranges::transform(option->get_lnames(), std::back_inserter(one.names),
                               [](const std::string &name) { return "--" + name; });
        usage.options.push_back(std::move(one));
    }
    std::ranges::transform(app.get_subcommands(IsVisible), std::back_inserter(usage.commands),
                           [](const CLI::App *below) { return below->get_name(); });
    return usage;
}

// The program, and every command behind the one that it is below.
std::vector<CommandUsage> UsagesOf(const CLI::App &program)
{
    std::vector<CommandUsage> usages;
    for (std::vector<const CLI::App *> left{&program}; !left.empty();) {
        const CLI::App *const app = left.back();
        left.pop_back();
        usages.push_back(UsageOf(*app));
        std::ranges::reverse_copy(app->get_subcommands(IsVisible), std::back_inserter(left));
    }
    return usages;
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

void AddCommands(CLI::App &app, Arguments &arguments)
{
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(kFooter);
    app.set_version_flag("--version", "vqctl " KAVEL_VERSION);
    app.add_option("-s,--socket", arguments.session.socket, "The agent's control socket")
        ->type_name("PATH")
        ->capture_default_str();
    app.add_flag("-v,--verbose", arguments.session.verbose, "Report requests and results on standard error");
    app.add_flag("--json", arguments.session.json, "Print JSON, for programs");
    AddMessageCommands(app, arguments);
    AddStatusCommand(app, arguments);
    AddRepairCommand(app, arguments);
    AddStopCommand(app, arguments);
    AddVpnCommand(app, arguments);
    AddStoreCommand(app, arguments);
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
