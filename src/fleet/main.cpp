// The command line of vqfleet.
#include <CLI/CLI.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iostream>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "completion.h"
#include "console.h"
#include "fleet_errors.h"
#include "fleet_metrics_command.h"
#include "fleet_status_command.h"
#include "number.h"
#include "printable.h"
#include "publish_command.h"
#include "revision.h"
#include "usage.h"
#include "wait_command.h"
#include "watch_command.h"

namespace {

using namespace kavel::fleet;
using kavel::broker::Revision;

constexpr const char *kExitCodes = R"(Exit codes:
  0  done
  1  a box is behind, or something was refused
  2  bad input
  3  the broker cannot be reached)";

constexpr std::uint32_t kSecondsMax = 604800; // a week

struct Arguments {
    Console console{std::cout, std::cerr};
    BrokerOptions broker;
    BoxSelection selection;
    Patience patience;
    PublishOptions publish;
    FleetStatusOptions status;
    WatchOptions watch;
    WaitOptions wait;
    FleetMetricsOptions metrics;
    std::function<int()> command;
};

// Only decimal numbers: CLI11 would read 010 as 8.
std::uint32_t NumberFrom(const std::string &text, std::uint32_t highest, const std::string &what)
{
    const auto number = kavel::WholeNumber<std::uint32_t>(text);
    if (!number || *number == 0 || *number > highest) {
        throw CLI::ValidationError("\"" + text + "\" is not " + what + " from 1 to " + std::to_string(highest));
    }
    return *number;
}

std::chrono::seconds SecondsFrom(const std::string &text)
{
    return std::chrono::seconds(NumberFrom(text, kSecondsMax, "a number of seconds"));
}

Revision RevisionFrom(const std::string &text)
{
    const auto revision = kavel::broker::ParseRevision(text);
    if (!revision) {
        throw CLI::ValidationError("\"" + text + "\" is not a number from 1 to 9223372036854775807");
    }
    return *revision;
}

std::uint32_t RateFrom(const std::string &text)
{
    constexpr std::uint32_t kRateMax = 1'000'000;
    constexpr std::string_view kUnit = "/s";
    return NumberFrom(text.ends_with(kUnit) ? text.substr(0, text.size() - kUnit.size()) : text, kRateMax,
                      "a rate in 1/s");
}

// `set` is given the text of the option's value, also if it is empty: CLI11 would drop it.
template <typename Set>
void AddValue(CLI::App &app, const std::string &name, const std::string &type, const std::string &help, Set set)
{
    app.add_option_function<std::string>(name, set, help)->type_name(type);
}

void AddBrokerOptions(CLI::App &app, Arguments &arguments)
{
    BrokerOptions &broker = arguments.broker;
    const auto setter = [](std::optional<std::string> &target) {
        return [&target](const std::string &text) {
            if (text.empty()) {
                throw CLI::ValidationError("the value is empty");
            }
            target = text;
        };
    };
    AddValue(app, "--config", "FILE", "Where the broker and the certificate stand; default /etc/kavel/fleet.json",
             setter(broker.config));
    AddValue(app, "--host", "HOST", "The broker, instead of the one in the file", setter(broker.host));
    AddValue(app, "--port", "PORT", "Its port; default 8883", [&broker](const std::string &text) {
        constexpr std::uint32_t kPortMax = 65535;
        broker.port = static_cast<std::uint16_t>(NumberFrom(text, kPortMax, "a port"));
    });
    AddValue(app, "--ca", "FILE", "The authority that the broker's certificate must come from", setter(broker.ca));
    AddValue(app, "--certificate", "FILE", "The controller's certificate", setter(broker.certificate));
    AddValue(app, "--key", "FILE", "Its key", setter(broker.key));
    AddValue(app, "--name", "NAME", "The controller's name in topics; default: the common name of its certificate",
             [&broker](const std::string &text) {
                 if (!IsClientName(text)) {
                     throw CLI::ValidationError("\"" + text + "\" cannot be a level of a topic");
                 }
                 broker.name = text;
             });
}

void AddBoxes(CLI::App &app, Arguments &arguments)
{
    // Each value is one box: CLI11 would take the words behind the first, too.
    app.add_option("--box", arguments.selection.boxes, "A box; may be given several times")
        ->type_name("BOX")
        ->allow_extra_args(false);
    AddValue(app, "--boxes", "FILE", "A list of boxes, one in each line, # for comments; - is standard input",
             [&arguments](const std::string &text) {
                 if (text.empty()) {
                     throw CLI::ValidationError("the value is empty");
                 }
                 arguments.selection.list = text;
             });
}

void AddTimeout(CLI::App &app, Arguments &arguments)
{
    AddValue(app, "--timeout", "SECONDS",
             "How long to wait for a broker that is away; default 30, but at the start one attempt",
             [&arguments](const std::string &text) {
                 arguments.patience = {SecondsFrom(text), true};
             });
}

CLI::App *AddCommand(CLI::App &app, const std::string &name, const std::string &help)
{
    CLI::App *command = app.add_subcommand(name, help);
    command->footer(kExitCodes);
    return command;
}

void AddPublishCommand(CLI::App &app, Arguments &arguments)
{
    PublishOptions &options = arguments.publish;
    CLI::App *publish = AddCommand(app, "publish", "Publish messages as what boxes shall have, under a new revision");
    publish->add_option("FILE", options.files, "JSON files with one message each; - is standard input")
        ->required()
        ->type_name("");
    AddBoxes(*publish, arguments);
    AddValue(*publish, "--revision", "N", "The revision; default: one above the highest of these boxes",
             [&options](const std::string &text) { options.revision = RevisionFrom(text); });
    AddValue(*publish, "--rate", "N", R"(At most so many messages per second, "50" or "50/s"; default: no limit)",
             [&options](const std::string &text) { options.perSecond = RateFrom(text); });
    AddValue(*publish, "--journal", "FILE",
             "Where is noted which boxes are done, for a repetition after an interruption; default: LIST.journal",
             [&options](const std::string &text) { options.journal = text; });
    AddTimeout(*publish, arguments);
    publish->final_callback([&arguments, &options] {
        arguments.command = [&] {
            options.selection = arguments.selection;
            options.patience = arguments.patience;
            return Publish(arguments.console, arguments.broker, options);
        };
    });
}

void AddStatusCommand(CLI::App &app, Arguments &arguments)
{
    FleetStatusOptions &options = arguments.status;
    CLI::App *status = AddCommand(app, "status", "Show the boxes that are behind; exit code 1 if there are any");
    AddBoxes(*status, arguments);
    status->add_flag("--all", options.all, "Show all boxes");
    status->add_flag("--json", arguments.console.json, "Print JSON, for programs");
    AddTimeout(*status, arguments);
    status->final_callback([&arguments, &options] {
        arguments.command = [&] {
            options.selection = arguments.selection;
            options.patience = arguments.patience;
            return FleetStatus(arguments.console, arguments.broker, options);
        };
    });
}

void AddWatchCommand(CLI::App &app, Arguments &arguments)
{
    WatchOptions &options = arguments.watch;
    CLI::App *watch = AddCommand(app, "watch", "Show the boxes that are behind, and each change, until Ctrl-C");
    AddBoxes(*watch, arguments);
    watch->add_flag("--all", options.all, "Show all boxes");
    AddValue(*watch, "--count", "N", "End after so many lines, or tables on a terminal",
             [&options](const std::string &text) { options.count = NumberFrom(text, UINT32_MAX, "a number"); });
    AddValue(*watch, "--for", "SECONDS", "End after so long",
             [&options](const std::string &text) { options.duration = SecondsFrom(text); });
    AddTimeout(*watch, arguments);
    watch->final_callback([&arguments, &options] {
        arguments.command = [&] {
            options.selection = arguments.selection;
            options.patience = arguments.patience;
            return Watch(arguments.console, arguments.broker, options);
        };
    });
}

void AddWaitCommand(CLI::App &app, Arguments &arguments)
{
    WaitOptions &options = arguments.wait;
    CLI::App *wait =
        AddCommand(app, "wait", "Wait until all boxes have what is wanted; or else name those that have not");
    AddBoxes(*wait, arguments);
    AddValue(*wait, "--revision", "N", "Wait for what has this revision or a later one; each box must have it",
             [&options](const std::string &text) { options.revision = RevisionFrom(text); });
    AddValue(*wait, "--timeout", "SECONDS", "How long to wait, for the boxes and for the broker; default 300",
             [&options](const std::string &text) { options.timeout = SecondsFrom(text); });
    wait->final_callback([&arguments, &options] {
        arguments.command = [&] {
            options.selection = arguments.selection;
            return Wait(arguments.console, arguments.broker, options);
        };
    });
}

void AddMetricsCommand(CLI::App &app, Arguments &arguments)
{
    FleetMetricsOptions &options = arguments.metrics;
    CLI::App *metrics = AddCommand(app, "metrics", "Print counts of all boxes, in the text format of Prometheus");
    metrics->add_flag("--per-box", options.perBox, "Also name each VPN that is behind");
    AddValue(*metrics, "--output", "FILE",
             "Replace this file in one step instead; without a broker it says so (kavel_fleet_up 0)",
             [&options](const std::string &text) { options.target = text; });
    AddTimeout(*metrics, arguments);
    metrics->final_callback([&arguments, &options] {
        arguments.command = [&] {
            options.patience = arguments.patience;
            return FleetMetrics(arguments.console, arguments.broker, options);
        };
    });
}

void AddCompletionCommand(CLI::App &app, Arguments &arguments)
{
    CLI::App *completion = app.add_subcommand("completion", "Print the completion of the command line")->group("");
    completion->require_subcommand(1);
    CLI::App *bash = completion->add_subcommand("bash", "Print it for bash");
    bash->final_callback([&app, &arguments] {
        arguments.command = [&] {
            arguments.console.out << kavel::ctl::BashCompletion(kavel::ctl::UsagesOf(app));
            return kDone;
        };
    });
}

void AddCommands(CLI::App &app, Arguments &arguments)
{
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(kExitCodes);
    app.set_version_flag("--version", "vqfleet " KAVEL_VERSION);
    AddBrokerOptions(app, arguments);
    AddPublishCommand(app, arguments);
    AddWatchCommand(app, arguments);
    AddStatusCommand(app, arguments);
    AddWaitCommand(app, arguments);
    AddMetricsCommand(app, arguments);
    AddCompletionCommand(app, arguments);
}

// One line. An argument that no command knows is reported first, because CLI11 may report a missing argument instead.
std::string UsageText(const CLI::App &app, const CLI::Error &error)
{
    const std::vector<std::string> unknown = app.remaining(true);
    const std::string why = unknown.empty() ? error.what() : "\"" + unknown.front() + "\" is not a known argument";
    return why + " (see vqfleet --help)";
}

// CLI11 would take the argument after "--revision=" for its value: the first file would not be published.
void RefuseEmptyValues(std::span<char *const> words)
{
    for (const std::string_view word : words) {
        if (word == "--") {
            return;
        }
        if (word.starts_with("--") && word.ends_with("=")) {
            throw CLI::ValidationError(std::string(word.substr(0, word.size() - 1)), "the value is missing");
        }
    }
}

int Main(std::span<char *const> words)
{
    Arguments arguments;
    arguments.console.outIsTerminal = ::isatty(STDOUT_FILENO) == 1;
    arguments.console.errIsTerminal = ::isatty(STDERR_FILENO) == 1;
    CLI::App app("Publishes what boxes shall have through a message broker, and shows what became of it.", "vqfleet");
    AddCommands(app, arguments);
    try {
        RefuseEmptyValues(words);
        app.parse(static_cast<int>(words.size()), words.data());
    } catch (const CLI::Success &request) { // --help, --version
        return app.exit(request);
    } catch (const CLI::ParseError &error) {
        return Run(arguments.console, [&]() -> int { throw kavel::InputError(UsageText(app, error)); });
    }
    return Run(arguments.console, arguments.command);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return Main({argv, static_cast<std::size_t>(argc)});
    } catch (const std::exception &error) {
        std::cerr << "vqfleet: " << kavel::Printable(error.what()) << '\n';
        return kBadInput;
    }
}
