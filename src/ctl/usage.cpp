#include "usage.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>

#include "status_fields.h"

namespace kavel::ctl {

namespace {

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

} // namespace

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

} // namespace kavel::ctl
