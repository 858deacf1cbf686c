// tests/packaging has bash run the script.
#include "completion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vector>

namespace kavel::ctl {
namespace {

using testing::HasSubstr;
using enum ValueKind::Type;

TEST(BashCompletion, HasATableOfEachKind)
{
    const OptionUsage help{.names = {"-h", "--help"}};
    const std::vector<CommandUsage> commands = {
        {.path = "vqctl",
         .options = {help, {.names = {"-s", "--socket"}, .hasValue = true, .value = {kFile}}, {.names = {"-v"}}},
         .commands = {"apply", "vpn"}},
        {.path = "vqctl apply",
         .options = {help, {.names = {"--rev"}, .hasValue = true}},
         .arguments = {kMessageFile},
         .hasManyArguments = true},
        {.path = "vqctl vpn", .options = {help}, .commands = {"init", "list"}},
        {.path = "vqctl vpn init", .options = {help}, .arguments = {kVpn}},
        {.path = "vqctl vpn list", .options = {{.names = {"--sort"}, .hasValue = true, .value = {kWords, {"a", "b"}}}}},
    };
    EXPECT_THAT(BashCompletion(commands), HasSubstr(R"(
declare -gA _vqctl_options=(
    ["vqctl"]="-h --help -s --socket -v"
    ["vqctl apply"]="--rev"
    ["vqctl vpn"]=""
    ["vqctl vpn init"]=""
    ["vqctl vpn list"]="--sort"
)
# The commands of vqctl, and of the commands that have some.
declare -gA _vqctl_commands=(
    ["vqctl"]="apply vpn"
    ["vqctl vpn"]="init list"
)
# What the argument of a command is; "...": it may have several.
declare -gA _vqctl_arguments=(
    ["vqctl apply"]="message..."
    ["vqctl vpn init"]="vpn"
)
# What the value of an option is.
declare -gA _vqctl_values=(
    ["vqctl -s"]="file"
    ["vqctl --socket"]="file"
    ["vqctl apply --rev"]="none"
    ["vqctl vpn list --sort"]="words a b"
)
)"));
}

} // namespace
} // namespace kavel::ctl
