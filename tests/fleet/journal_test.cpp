#include "journal.h"

#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>

#include "files.h"
#include "fleet_samples.h"

namespace kavel::fleet {
namespace {

using testing::HasSubstr;
using testing::UnorderedElementsAre;

const JournalSubject kSubject{"c0ffee", "115f"};
constexpr const char *kHead = "vqfleet-journal 1 revision 18 content c0ffee list 115f\n";

std::string JournalErrorOf(const std::string &file, const JournalSubject &subject,
                           std::optional<broker::Revision> revision = std::nullopt)
{
    try {
        const Journal journal(file, subject, revision);
    } catch (const InputError &error) {
        return error.what();
    }
    return "";
}

TEST(Journal, ACommandThatWasInterruptedIsKnown)
{
    const ScratchDir scratch;
    const std::string file = scratch.Path("journal");
    {
        Journal journal(file, kSubject, std::nullopt);
        EXPECT_FALSE(journal.Earlier());
        journal.Begin(18);
        journal.Add("b1");
        journal.Add("b2");
    }
    EXPECT_EQ(ContentOf(file), std::string(kHead) + "b1\nb2\n");
    {
        Journal journal(file, kSubject, 18);
        ASSERT_TRUE(journal.Earlier());
        EXPECT_EQ(journal.Earlier()->revision, 18U);
        EXPECT_THAT(journal.Earlier()->done, UnorderedElementsAre("b1", "b2"));
        journal.Begin(18);
        journal.Add("b3");
    }
    EXPECT_EQ(ContentOf(file), std::string(kHead) + "b1\nb2\nb3\n");
}

TEST(Journal, IsRemovedWhenTheCommandIsComplete)
{
    const ScratchDir scratch;
    const std::string file = scratch.Path("journal");
    Journal journal(file, kSubject, std::nullopt);
    journal.Begin(1);
    journal.Remove();
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST(Journal, LeavesNothingIfNothingWasPublished)
{
    const ScratchDir scratch;
    const std::string file = scratch.Path("journal");
    {
        const Journal journal(file, kSubject, std::nullopt);
        EXPECT_TRUE(std::filesystem::exists(file));
    }
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST(Journal, ALineThatWasCutOffIsForgotten)
{
    const ScratchDir scratch;
    const std::string file = scratch.Write("journal", std::string(kHead) + "b1\nb");
    {
        Journal journal(file, kSubject, std::nullopt);
        ASSERT_TRUE(journal.Earlier());
        EXPECT_THAT(journal.Earlier()->done, UnorderedElementsAre("b1"));
        journal.Add("b22");
    }
    EXPECT_EQ(ContentOf(file), std::string(kHead) + "b1\nb22\n");
    scratch.Write("journal", "vqfleet-jour");
    EXPECT_EQ(JournalErrorOf(file, kSubject), "");
    scratch.Write("journal", "vqfleet-journal 1 revision 18 cont");
    EXPECT_EQ(JournalErrorOf(file, kSubject), "");
}

TEST(Journal, OfSomethingElseIsRefusedAndKept)
{
    const ScratchDir scratch;
    const std::string file = scratch.Write("journal", std::string(kHead) + "b1\n");
    EXPECT_THAT(JournalErrorOf(file, {"other", "115f"}),
                HasSubstr(file + ": belongs to other messages, of revision 18"));
    EXPECT_THAT(JournalErrorOf(file, {"c0ffee", "other"}),
                HasSubstr("belongs to another list of boxes, for revision 18"));
    EXPECT_THAT(JournalErrorOf(file, kSubject, 19), HasSubstr("belongs to revision 18, not to 19"));
    EXPECT_EQ(ContentOf(file), std::string(kHead) + "b1\n");
}

TEST(Journal, AFileThatIsNoJournalIsRefusedAndKept)
{
    const ScratchDir scratch;
    for (const char *content :
         {"b1\nb2\n", "hello", "\n", "vqfleet-journal 2 revision 18 content c list l\n",
          "vqfleet-journal 1 revision 0 content c list l\n", "vqfleet-journal 1 revision 18 content c list l\n???\n"}) {
        const std::string file = scratch.Write("journal", content);
        EXPECT_THAT(JournalErrorOf(file, kSubject), testing::StartsWith(file + ": ")) << content;
        EXPECT_EQ(ContentOf(file), content);
    }
}

TEST(Journal, IsUsedByOneCommandAtATime)
{
    const ScratchDir scratch;
    const std::string file = scratch.Path("journal");
    Journal journal(file, kSubject, std::nullopt);
    journal.Begin(18);
    EXPECT_EQ(JournalErrorOf(file, kSubject), file + ": is used by another vqfleet");
}

TEST(Journal, ADirectoryThatDoesNotExist)
{
    const ScratchDir scratch;
    EXPECT_EQ(JournalErrorOf(scratch.Path("none/journal"), kSubject),
              scratch.Path("none/journal") + ": cannot be opened: No such file or directory");
}

// While it exists, a file cannot grow beyond a size.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t size) : handler_(std::signal(SIGXFSZ, SIG_IGN))
    {
        ::getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit{size, before_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit()
    {
        ::setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_);
    }
    FileSizeLimit(const FileSizeLimit &) = delete;
    FileSizeLimit &operator=(const FileSizeLimit &) = delete;

  private:
    void (*handler_)(int);
    rlimit before_{};
};

TEST(Journal, ALineThatCannotBeWrittenIsTold)
{
    const ScratchDir scratch;
    const std::string file = scratch.Path("journal");
    Journal journal(file, kSubject, std::nullopt);
    journal.Begin(18);
    std::string error;
    {
        const FileSizeLimit limit(std::filesystem::file_size(file) + 2);
        try {
            journal.Add("branch-1"); // a part of it fits
        } catch (const InputError &thrown) {
            error = thrown.what();
        }
    }
    EXPECT_THAT(error, testing::StartsWith(file + ": cannot be written: "));
}

} // namespace
} // namespace kavel::fleet
