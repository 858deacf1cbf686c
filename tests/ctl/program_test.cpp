// Runs the vqctl program with command lines, as a user does.
#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <pty.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "emulator.h"
#include "errors.h"
#include "fake_agent.h"
#include "files.h"
#include "unique_fd.h"

namespace kavel::ctl {
namespace {

using testing::HasSubstr;

struct Outcome {
    int code;
    std::string out;
    std::string err;
};

class ProgramTest : public testing::Test {
  protected:
    // Runs vqctl with `input` as standard input, and `output` (by default a file) as standard output.
    Outcome Vqctl(std::vector<std::string> arguments, const std::string &input = {}, int output = -1)
    {
        arguments.insert(arguments.begin(), KAVEL_VQCTL);
        if (const char *emulator = Emulator()) {
            arguments.insert(arguments.begin(), emulator);
        }
        std::vector<char *> argv;
        argv.reserve(arguments.size() + 1);
        for (std::string &argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);

        const std::string in = dir_.Write("in", input);
        const std::string out = dir_.Write("out", "");
        const std::string err = dir_.Write("err", "");
        posix_spawn_file_actions_t actions{};
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, in.c_str(), O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), O_WRONLY, 0);
        if (output < 0) {
            posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY, 0);
        } else {
            posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
        }
        pid_t pid = -1;
        EXPECT_EQ(::posix_spawn(&pid, argv.front(), &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        int status = 0;
        EXPECT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status));
        return {WEXITSTATUS(status), ReadInput(out), ReadInput(err)};
    }

    TempDir dir_;
};

TEST_F(ProgramTest, Version)
{
    const Outcome outcome = Vqctl({"--version"});
    EXPECT_EQ(outcome.code, kDone);
    EXPECT_EQ(outcome.out, "vqctl " KAVEL_VERSION "\n");
}

TEST_F(ProgramTest, HelpListsTheExitCodes)
{
    const std::vector<std::vector<std::string>> commands = {
        {},      {"apply"},       {"check"},          {"encode"}, {"status"},        {"repair"},       {"stop"},
        {"vpn"}, {"vpn", "init"}, {"vpn", "release"}, {"store"},  {"store", "list"}, {"store", "show"}};
    for (std::vector<std::string> arguments : commands) {
        const std::string command = arguments.empty() ? "" : arguments.back();
        arguments.emplace_back("--help");
        const Outcome outcome = Vqctl(arguments);
        EXPECT_EQ(outcome.code, kDone) << command;
        EXPECT_THAT(outcome.out, testing::EndsWith("\n\nExit codes:\n"
                                                   "  0  done\n"
                                                   "  1  refused, or problems found\n"
                                                   "  2  bad input\n"
                                                   "  3  no agent\n"
                                                   "  4  carried out, but the service does not run\n"
                                                   "  5  the agent is starting\n"))
            << command;
        EXPECT_EQ(outcome.err, "") << command;
    }
}

TEST_F(ProgramTest, WrongUsageIsReportedInOneLine)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "A subcommand is required"},
        {{"bogus"}, "\"bogus\" is not a known argument"},
        {{"bo\u202Eg\033\xFFus"}, "\"bo?g??us\" is not a known argument"},
        {{"status", "--vpn", "\u009B7"}, "\"?7\" is not a VPN number"},
        {{"apply"}, "FILE is required"},
        {{"apply", "--revision=", "a", "b"}, "--revision: the value is missing"},
        {{"apply", "--revision"}, "--revision: 1 required REV missing"},
        {{"apply", "--bogus"}, "\"--bogus\" is not a known argument"},
        {{"encode", "a", "b"}, "\"b\" is not a known argument"},
        {{"status", "--vpn", "x"}, "\"x\" is not a VPN number"},
        {{"status", "--watch", "0"}, "--watch: expected 1 to 86400 seconds, not \"0\""},
        {{"status", "--watch", "86401"}, "--watch: expected 1 to 86400 seconds, not \"86401\""},
        {{"status", "--sort"}, "--sort: 1 required COLUMN missing"},
        {{"completion"}, "A subcommand is required"},
        {{"query", "a.example"}, "--vpn is required"},
        {{"query", "--vpn", "7"}, "NAME is required"},
        {{"repair", "7"}, "\"7\" is not a known argument"},
        {{"repair", "--vpn", "x"}, "\"x\" is not a VPN number"},
        {{"check", "--revision", "r", "a"}, "\"--revision\" is not a known argument"},
        {{"vpn"}, "A subcommand is required"},
        {{"vpn", "init"}, "ID is required"},
        {{"vpn", "init", "0x7"}, "\"0x7\" is not a VPN number"},
        {{"vpn", "release", "4294967296"}, "\"4294967296\" is not a VPN number"},
        {{"store"}, "A subcommand is required"},
        {{"store", "list", "7"}, "\"7\" is not a known argument"},
        {{"store", "show"}, "ID is required"},
        {{"status", "--timeout", "0"}, "\"0\" is not a number of seconds from 1 to 3600"},
        {{"status", "--timeout", "3601"}, "\"3601\" is not a number of seconds from 1 to 3600"},
        {{"status", "--timeout", "1.5"}, "\"1.5\" is not a number of seconds from 1 to 3600"},
        {{"apply", "--binary", "--box", "a"}, "--binary excludes --box"},
        {{"check", "--offline", "--binary", "a"}, "--binary excludes --offline"},
        {{"vpn", "release", "-1"}, "\"-1\" is not a VPN number"},
    };
    for (const auto &[arguments, text] : cases) {
        const Outcome outcome = Vqctl(arguments);
        EXPECT_EQ(outcome.code, kBadInput) << text;
        EXPECT_EQ(outcome.err, "vqctl: " + text + " (see vqctl --help)\n");
        EXPECT_EQ(outcome.out, "") << text;
    }
}

TEST_F(ProgramTest, WrongUsageIsAnErrorInTheJson)
{
    const Outcome outcome = Vqctl({"status", "--bo\u202Egus", "--json"});
    EXPECT_EQ(outcome.code, kBadInput);
    EXPECT_EQ(outcome.out, R"json({
  "schema": 1,
  "error": {
    "exit": 2,
    "text": "\"--bo\u202egus\" is not a known argument (see vqctl --help)"
  }
}
)json");
    EXPECT_EQ(outcome.err, "vqctl: \"--bo?gus\" is not a known argument (see vqctl --help)\n");
}

TEST_F(ProgramTest, AnUnreachableAgentIsAnErrorInTheJson)
{
    for (const std::vector<std::string> &command : std::vector<std::vector<std::string>>{
             {"status"},
             {"repair"},
             {"stop", "--all"},
             {"vpn", "init", "7"},
             {"vpn", "release", "7"},
             {"store", "list"},
             {"store", "show", "7"},
             {"apply", KAVEL_EXAMPLES "/pop.json"},
             {"check", KAVEL_EXAMPLES "/pop.json"},
         }) {
        std::vector<std::string> arguments = command;
        arguments.insert(arguments.end(), {"--json", "-s", "/nonexistent/agent.sock"});
        const Outcome outcome = Vqctl(arguments);
        EXPECT_EQ(outcome.code, kNoAgent) << command.front();
        EXPECT_EQ(outcome.out, R"({
  "schema": 1,
  "error": {
    "exit": 3,
    "text": "cannot reach the agent at /nonexistent/agent.sock: No such file or directory"
  }
}
)") << command.front();
    }
}

TEST_F(ProgramTest, ABadFileIsAnErrorInTheJson)
{
    const Outcome outcome = Vqctl({"--json", "encode", "/nonexistent.json"});
    EXPECT_EQ(outcome.code, kBadInput);
    EXPECT_EQ(outcome.out, R"({
  "schema": 1,
  "error": {
    "exit": 2,
    "text": "/nonexistent.json: cannot be opened: No such file or directory",
    "file": "/nonexistent.json"
  }
}
)");
}

TEST_F(ProgramTest, AWatchEndsAtASignalWithTheCodeOfTheLastState)
{
    const std::string err = dir_.Write("watch", "");
    posix_spawn_file_actions_t actions{};
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), O_WRONLY, 0);
    std::vector<std::string> words{KAVEL_VQCTL, "status", "--watch", "1", "-s", "/nonexistent/agent.sock"};
    if (const char *emulator = Emulator()) {
        words.insert(words.begin(), emulator);
    }
    std::vector<char *> argv;
    std::ranges::transform(words, std::back_inserter(argv), [](std::string &word) { return word.data(); });
    argv.push_back(nullptr);
    pid_t pid = -1;
    ASSERT_EQ(::posix_spawn(&pid, argv.front(), &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    const std::string line = "vqctl: cannot reach the agent at /nonexistent/agent.sock: No such file or directory\n";
    while (ReadInput(err) != line + line) { // an agent that is restarted comes back: it is asked again
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(::kill(pid, SIGINT), 0);
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), kNoAgent);
}

TEST_F(ProgramTest, FailsWithoutAnAgent)
{
    const Outcome outcome = Vqctl({"-s", "/nonexistent/agent.sock", "status"});
    EXPECT_EQ(outcome.code, kNoAgent);
    EXPECT_EQ(outcome.err, "vqctl: cannot reach the agent at /nonexistent/agent.sock: No such file or directory\n");
}

TEST_F(ProgramTest, GlobalOptionsMayFollowTheCommand)
{
    FakeAgent agent({PackReply(0)});
    const Outcome outcome = Vqctl({"vpn", "init", "010", "-v", "--socket", agent.Socket()});
    EXPECT_EQ(outcome.code, kDone);
    EXPECT_EQ(outcome.out, "vpn 10: initialised\n");
    EXPECT_THAT(outcome.err, HasSubstr("vqctl: sending vpn 10 to be initialised"));
}

TEST_F(ProgramTest, AppliesStandardInput)
{
    FakeAgent agent({PackReply(0)});
    const Outcome outcome =
        Vqctl({"--socket", agent.Socket(), "apply", "-"}, ReadInput(KAVEL_EXAMPLES "/branch-office.json"));
    EXPECT_EQ(outcome.code, kDone);
    EXPECT_EQ(outcome.out, "standard input: message: applied\n");
    ASSERT_EQ(agent.Requests().size(), 1U);
}

TEST_F(ProgramTest, RefusesBadStandardInput)
{
    const Outcome outcome = Vqctl({"check", "-"}, "{\n  oops\n}");
    EXPECT_EQ(outcome.code, kBadInput);
    EXPECT_EQ(outcome.err, "vqctl: standard input: line 2, column 3: quoted object property name expected\n");
}

TEST_F(ProgramTest, EveryCommandReachesTheAgent)
{
    const std::string file = KAVEL_EXAMPLES "/pop.json";
    const std::vector<std::pair<std::vector<std::string>, Kavel__Request__Verb>> cases = {
        {{"apply", file}, KAVEL__REQUEST__VERB__APPLY},
        {{"apply", "--binary", file}, KAVEL__REQUEST__VERB__APPLY},
        {{"apply", "--revision", "r1", file}, KAVEL__REQUEST__VERB__APPLY},
        {{"check", file}, KAVEL__REQUEST__VERB__CHECK},
        {{"status"}, KAVEL__REQUEST__VERB__STATUS},
        {{"status", "--json", "--vpn", "7"}, KAVEL__REQUEST__VERB__STATUS},
        {{"status", "--problems", "--sort", "-memory", "--columns", "vpn,pid"}, KAVEL__REQUEST__VERB__STATUS},
        {{"query", "--vpn", "7", "a.example"}, KAVEL__REQUEST__VERB__QUERY},
        {{"query", "--vpn", "7", "a.example", "MX"}, KAVEL__REQUEST__VERB__QUERY},
        {{"repair"}, KAVEL__REQUEST__VERB__REPAIR},
        {{"repair", "--vpn", "7"}, KAVEL__REQUEST__VERB__REPAIR},
        {{"vpn", "init", "7"}, KAVEL__REQUEST__VERB__VPN_INIT},
        {{"vpn", "release", "7"}, KAVEL__REQUEST__VERB__VPN_RELEASE},
        {{"store", "list"}, KAVEL__REQUEST__VERB__STORE_LIST},
        {{"store", "show", "0"}, KAVEL__REQUEST__VERB__STORE_SHOW},
        {{"flush", "--vpn", "7"}, KAVEL__REQUEST__VERB__FLUSH},
        {{"log", "level", "debug", "--for", "10m"}, KAVEL__REQUEST__VERB__LOG_LEVEL},
    };
    for (auto [arguments, verb] : cases) {
        FakeAgent agent({PackReply(-22)});
        arguments.insert(arguments.end(), {"-s", agent.Socket()});
        EXPECT_EQ(Vqctl(arguments).code, kRefused) << arguments.front();
        ASSERT_EQ(agent.Requests().size(), 1U) << arguments.front();
        const RequestPtr request = DecodeRequest(agent.Requests().front());
        ASSERT_NE(request, nullptr);
        EXPECT_EQ(request->verb, verb);
    }
}

TEST_F(ProgramTest, WaitsNoLongerThanTheTimeout)
{
    std::promise<void> end;
    FakeAgent agent({PackReply(0)}, [&](std::size_t /*number*/) { end.get_future().wait(); });
    const Outcome outcome = Vqctl({"status", "--timeout", "1", "-s", agent.Socket()});
    end.set_value();
    EXPECT_EQ(outcome.code, kNoAgent);
    EXPECT_EQ(outcome.err, "vqctl: the agent did not reply within 1 s\n");
}

TEST_F(ProgramTest, MessagesForTheBoxNeedTheirOption)
{
    const std::string text = R"({"enable": false, "operation": "reload"})";
    for (const std::vector<std::string> &command :
         {std::vector<std::string>{"apply"}, {"check"}, {"check", "--offline"}, {"encode"}}) {
        FakeAgent agent({PackReply(-22)});
        std::vector<std::string> arguments = command;
        arguments.insert(arguments.end(), {"-", "-s", agent.Socket()});
        const Outcome outcome = Vqctl(arguments, text);
        EXPECT_EQ(outcome.code, kBadInput) << command.front();
        EXPECT_EQ(outcome.err, "vqctl: standard input: vpnid: is missing; give --box if the message is for the box "
                               "itself\n");
        arguments.emplace_back("--box");
        EXPECT_NE(Vqctl(arguments, text).code, kBadInput) << command.front();
    }
}

TEST_F(ProgramTest, ChecksFilesWithoutAnAgent)
{
    const Outcome outcome = Vqctl({"check", "--offline", KAVEL_EXAMPLES "/pop.json", "-"}, "{},{}");
    EXPECT_EQ(outcome.code, kBadInput);
    EXPECT_EQ(outcome.out, KAVEL_EXAMPLES "/pop.json: POP message: enabled, 1 server\n");
    EXPECT_EQ(outcome.err,
              "vqctl: standard input: line 1, column 3: a second message begins here; put each into a file "
              "of its own\n");
}

TEST_F(ProgramTest, ApplySendsTheRevision)
{
    FakeAgent agent({PackReply(0)});
    EXPECT_EQ(Vqctl({"apply", "-s", agent.Socket(), "--revision", "r 1", KAVEL_EXAMPLES "/pop.json"}).code, kDone);
    ASSERT_EQ(agent.Requests().size(), 1U);
    EXPECT_STREQ(DecodeRequest(agent.Requests().front())->revision, "r 1");
}

TEST_F(ProgramTest, RefusesABadRevision)
{
    for (const auto &[revision, text] : {std::pair{"", "0 bytes"}, std::pair{"a\tb", "\"a?b\""}}) {
        const Outcome outcome = Vqctl({"apply", "--revision", revision, KAVEL_EXAMPLES "/pop.json"});
        EXPECT_EQ(outcome.code, kBadInput) << text;
        EXPECT_EQ(outcome.err,
                  std::string("vqctl: --revision: expected 1 to 64 bytes of printable text, not ") + text + "\n");
        EXPECT_EQ(outcome.out, "") << text;
    }
}

TEST_F(ProgramTest, AFileMayBeNamedLikeAnOption)
{
    const Outcome outcome = Vqctl({"encode", "--", "--absent="});
    EXPECT_EQ(outcome.code, kBadInput);
    EXPECT_EQ(outcome.err, "vqctl: --absent=: cannot be opened: No such file or directory\n");
}

TEST_F(ProgramTest, EncodeWritesBytes)
{
    const Outcome outcome = Vqctl({"encode", KAVEL_EXAMPLES "/branch-office-off.json"});
    EXPECT_EQ(outcome.code, kDone);
    EXPECT_EQ(outcome.out, std::string("\x08\x00\x10\x00\x38\x01\x48\x07", 8));

    const std::string target = dir_.File("message.bin");
    EXPECT_EQ(Vqctl({"encode", KAVEL_EXAMPLES "/branch-office-off.json", "-o", target}).code, kDone);
    EXPECT_EQ(ReadInput(target), outcome.out);
}

TEST_F(ProgramTest, EncodeRefusesToWriteToATerminal)
{
    int leader = -1;
    int terminal = -1;
    ASSERT_EQ(::openpty(&leader, &terminal, nullptr, nullptr, nullptr), 0);
    const UniqueFd ownLeader(leader);
    const UniqueFd ownTerminal(terminal);
    const Outcome outcome = Vqctl({"encode", KAVEL_EXAMPLES "/pop.json"}, {}, terminal);
    EXPECT_EQ(outcome.code, kBadInput);
    EXPECT_EQ(outcome.err, "vqctl: standard output: is a terminal: name a file with -o, or redirect the output\n");
}

TEST_F(ProgramTest, FailsWhenStandardOutputCannotBeWritten)
{
    const UniqueFd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    FakeAgent agent({PackReply(0)});
    const Outcome outcome = Vqctl({"status", "-s", agent.Socket()}, {}, full.Get());
    EXPECT_EQ(outcome.code, kBadInput);
    EXPECT_EQ(outcome.err, "vqctl: standard output: cannot be written\n");
}

} // namespace
} // namespace kavel::ctl
