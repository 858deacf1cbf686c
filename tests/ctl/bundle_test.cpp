// The parts of a bundle: its content, the programs that are run for it, and its archive.
#include "bundle.h"

#include <algorithm>
#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "bundle_archive.h"
#include "bundle_collector.h"
#include "bundle_content.h"
#include "bundle_programs.h"
#include "commands_fixture.h"
#include "errors.h"
#include "fake_agent.h"
#include "files.h"

namespace kavel::ctl {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr std::size_t kMost = 100'000;

TEST(BundleContentTest, AFileIsCutAtItsLimit)
{
    BundleContent content;
    content.Add({"large", std::string(BundleContent::kFileMax + 1, 'x')});
    EXPECT_THAT(content.Notes(), ElementsAre("large: cut after 4194304 bytes"));
    const auto files = content.Take();
    ASSERT_EQ(files.size(), 2U);
    EXPECT_EQ(files[0].content.size(), BundleContent::kFileMax);
    EXPECT_EQ(files[1].name, "notes.txt");
    EXPECT_EQ(files[1].content, "large: cut after 4194304 bytes\n");
}

TEST(BundleContentTest, AllFilesTogetherHaveALimit)
{
    BundleContent content;
    for (int i = 0; i < 17; ++i) {
        content.Add({std::to_string(i), std::string(BundleContent::kFileMax, 'x')});
    }
    EXPECT_THAT(content.Notes(), ElementsAre("16: left out: the bundle is full"));
    EXPECT_EQ(content.Take().size(), 17U);
}

TEST(RunProgramTest, TellsWhatTheProgramPrints)
{
    const ProgramResult result = RunProgram({"echo", "a b", "c"}, 3s, kMost);
    EXPECT_EQ(result.output, "a b c\n");
    EXPECT_EQ(result.problem, "");
}

TEST(RunProgramTest, TellsWhyItFailed)
{
    const ProgramResult result = RunProgram({"sh", "-c", "echo out; echo why >&2; echo more >&2; exit 3"}, 3s, kMost);
    EXPECT_EQ(result.output, "out\n");
    EXPECT_EQ(result.problem, "exit status 3: why");
    EXPECT_EQ(RunProgram({"sh", "-c", "kill -9 $$"}, 3s, kMost).problem, "exit status 137: ");
}

TEST(RunProgramTest, AProgramThatIsNotInstalledIsTold)
{
    EXPECT_EQ(RunProgram({"no-such-program"}, 3s, kMost).problem, "is not installed");
}

TEST(RunProgramTest, KillsAProgramThatTakesTooLong)
{
    const ProgramResult result = RunProgram({"sh", "-c", "echo first; sleep 100"}, 2s, kMost);
    EXPECT_EQ(result.output, "first\n");
    EXPECT_EQ(result.problem, "takes too long");
    EXPECT_EQ(RunProgram({"sh", "-c", "exec >&- 2>&-; sleep 100"}, 300ms, kMost).problem, "takes too long");
}

TEST(RunProgramTest, DoesNotWaitForWhatTheProgramLeavesBehind)
{
    const auto start = std::chrono::steady_clock::now();
    const ProgramResult result = RunProgram({"sh", "-c", "echo done; sleep 100 &"}, 200s, kMost);
    EXPECT_EQ(result.output, "done\n");
    EXPECT_EQ(result.problem, "");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 100s);
}

TEST(RunProgramTest, KillsAProgramThatWritesTooMuch)
{
    const ProgramResult result = RunProgram({"yes"}, 10s, kMost);
    EXPECT_EQ(result.output.size(), kMost);
    EXPECT_EQ(result.problem, "writes more than 100000 bytes");
}

class BundleArchiveTest : public testing::Test {
  protected:
    std::string Listed(const std::vector<std::string> &words) const
    {
        std::vector<std::string> all{"tar"};
        all.insert(all.end(), words.begin(), words.end());
        const ProgramResult result = RunProgram(all, 10s, kMost);
        EXPECT_EQ(result.problem, "");
        return result.output;
    }

    TempDir dir_;
    std::string path_ = dir_.File("x.tar.gz");
};

TEST_F(BundleArchiveTest, TarReadsIt)
{
    const std::string deep = "etc/kavel/dnsmasq/vpn_4294967295/dnsmasq.d/" + std::string(80, 'n') + ".conf";
    const std::vector<BundleFile> files = {{"a.txt", "one\n"}, {"empty", ""}, {deep, std::string(1024, 'x')}};
    const std::uint64_t size = WriteArchive(path_, "vqbundle", files, 1'777'638'600);
    struct stat info {};
    ASSERT_EQ(::stat(path_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & ALLPERMS, 0600U);
    EXPECT_EQ(static_cast<std::uint64_t>(info.st_size), size);
    EXPECT_EQ(Listed({"-tzf", path_}), "vqbundle/a.txt\nvqbundle/empty\nvqbundle/" + deep + "\n");
    EXPECT_EQ(Listed({"-xzOf", path_, "vqbundle/a.txt"}), "one\n");
    EXPECT_EQ(Listed({"-xzOf", path_, "vqbundle/" + deep}), std::string(1024, 'x'));
    EXPECT_THAT(Listed({"-tvzf", path_, "--utc"}), HasSubstr("2026-05-01 12:30"));
}

TEST_F(BundleArchiveTest, ReplacesNoFile)
{
    (void)dir_.Write("x.tar.gz", "mine");
    EXPECT_THROW(CheckNewFile(path_), InputError);
    EXPECT_THROW(WriteArchive(path_, "d", {}, 0), InputError);
    EXPECT_EQ(ReadInput(path_), "mine");
}

TEST_F(BundleArchiveTest, ADirectoryThatCannotBeWrittenIsToldBefore)
{
    EXPECT_THROW(CheckNewFile("/nonexistent/x.tar.gz"), InputError);
    CheckNewFile(path_);
}

class BundleAgentTest : public CommandsTest {};

TEST_F(BundleAgentTest, WithoutAnAgentNothingMoreIsAskedFor)
{
    BundleContent content;
    EXPECT_FALSE(CollectFromAgent(session_, content));
    const std::vector<std::string> notes = content.Notes();
    EXPECT_THAT(notes.front(), StartsWith("agent/status.txt: cannot reach the agent at /nonexistent/agent.sock"));
    EXPECT_THAT(notes.back(), HasSubstr("not asked for: the agent does not answer"));
    EXPECT_EQ(content.Take().size(), 1U) << "the notes alone";
}

TEST_F(BundleAgentTest, AHangingAgentCostsOneTimeout)
{
    const std::string path = dir_.File("silent.sock");
    const UniqueFd silent(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(silent.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(silent.Get(), 5), 0);
    session_.socket = path;
    session_.timeout = 300ms;
    BundleContent content;
    EXPECT_FALSE(CollectFromAgent(session_, content));
    const std::vector<std::string> notes = content.Notes();
    EXPECT_THAT(notes.front(), HasSubstr("the agent did not reply within 0.3 s"));
    EXPECT_EQ(std::ranges::count_if(notes, [](const std::string &note) { return note.find("within") != note.npos; }),
              1);
}

class BundleBoxTest : public testing::Test {
  protected:
    std::vector<BundleFile> Collect(const BundlePaths &paths, bool withStore)
    {
        BundleContent content;
        CollectFromBox(paths, withStore, content);
        notes_ = content.Notes();
        return content.Take();
    }

    static std::vector<std::string> NamesOf(const std::vector<BundleFile> &files)
    {
        std::vector<std::string> names;
        for (const BundleFile &file : files) {
            names.push_back(file.name);
        }
        return names;
    }

    TempDir dir_;
    std::vector<std::string> notes_;
};

TEST_F(BundleBoxTest, WhatIsMissingIsNoted)
{
    const auto files =
        Collect({"/nonexistent/a", "/nonexistent/b", "/nonexistent/c", "/nonexistent/d", "/nonexistent/e"}, false);
    EXPECT_THAT(notes_, Contains("/nonexistent/a: No such file or directory"));
    EXPECT_THAT(notes_, Contains("/nonexistent/b: No such file or directory"));
    EXPECT_THAT(NamesOf(files), AllOf(Contains("processes.txt"), Contains("limits.txt"), Contains("notes.txt")));
}

// They could block, or lead anywhere.
TEST_F(BundleBoxTest, OnlyRegularFilesAreRead)
{
    (void)dir_.Write("plain", "text");
    ASSERT_EQ(::mkfifo(dir_.File("fifo").c_str(), 0600), 0);
    ASSERT_EQ(::symlink("/etc/passwd", dir_.File("link").c_str()), 0);
    const std::string config =
        dir_.Write("agent.json", R"({"vpns": [{"id": 4294967200}, {"namespace": 7}, 8], "store": null})");
    const auto files = Collect({config, dir_.File(""), "/nonexistent", "/nonexistent", "/nonexistent"}, true);
    const std::string inside = dir_.File("").substr(1);
    EXPECT_THAT(NamesOf(files), Contains(inside + "plain"));
    EXPECT_THAT(NamesOf(files), testing::Not(Contains(inside + "fifo")));
    EXPECT_THAT(NamesOf(files), testing::Not(Contains(inside + "link")));
    EXPECT_THAT(notes_, Contains("namespaces/vpn_4294967200: there is no such namespace"));
}

} // namespace
} // namespace kavel::ctl
