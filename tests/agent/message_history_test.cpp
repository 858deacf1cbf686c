#include "services/message_history.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "message_history_fixture.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::IsEmpty;
using testing::Optional;

TEST_F(MessageHistoryTest, GivesBackWhatWasAdded)
{
    Start();
    HistoryEntry entry;
    entry.time = 5'000'000'000;
    entry.peer = "pid 123, uid 0 (vqctl)";
    entry.revision = std::string("r'\"\0\xFF", 5);
    entry.result = -22;
    entry.outcome = "refused: caf\u00e9";
    entry.messageBytes = 4;
    entry.message = {0, 255, 0, 7};
    Add(kLargest, entry);
    EXPECT_THAT(TheStore().ReadHistory(kLargest), ElementsAre(entry));
    EXPECT_THAT(TheStore().ReadHistory(7), IsEmpty());
}

TEST_F(MessageHistoryTest, EmptyIsNotAbsent)
{
    Start();
    const HistoryEntry absent;
    HistoryEntry empty;
    empty.revision = "";
    empty.message.emplace();
    Add(7, absent);
    Add(7, empty);
    EXPECT_THAT(TheStore().ReadHistory(7), ElementsAre(empty, absent));
}

TEST_F(MessageHistoryTest, TheEntriesOfAllVpnsAreReadWithoutTheirMessages)
{
    Start();
    Add(kLargest, Entry("a", 10));
    Add(7, Entry("b"));
    Add(7, Entry("c", 20));
    std::vector<std::string> found;
    for (const VpnHistoryEntry &read : TheStore().ReadHistoryOfAll()) {
        EXPECT_EQ(read.entry.message, std::nullopt);
        found.push_back(std::to_string(read.vpn) + " " + read.entry.outcome + " " +
                        std::to_string(read.entry.messageBytes));
    }
    EXPECT_THAT(found, ElementsAre("7 c 20", "7 b 0", "4294967295 a 10"));
}

// The clock may be set back.
TEST_F(MessageHistoryTest, TheEntryThatWasAddedLastIsTheFirst)
{
    Start();
    for (const std::int64_t time : {200, 100, 300, 100}) {
        HistoryEntry entry = Entry(std::to_string(time));
        entry.time = time;
        Add(7, entry);
    }
    EXPECT_THAT(Outcomes(7), ElementsAre("100", "300", "100", "200"));
}

TEST_F(MessageHistoryTest, TheNextAgentReadsAndContinuesIt)
{
    Start();
    Add(7, Entry("one"));
    Start();
    Add(7, Entry("two"));
    EXPECT_THAT(Outcomes(7), ElementsAre("two", "one"));
}

TEST_F(MessageHistoryTest, TenEntriesOfAVpnAreKept)
{
    Start();
    Add(8, Entry("of another"));
    for (int i = 1; i <= 10; ++i) {
        Add(7, Entry(std::to_string(i)));
    }
    EXPECT_THAT(Outcomes(7), ElementsAre("10", "9", "8", "7", "6", "5", "4", "3", "2", "1"));
    Add(7, Entry("11"));
    EXPECT_THAT(Outcomes(7), ElementsAre("11", "10", "9", "8", "7", "6", "5", "4", "3", "2"));
    EXPECT_EQ(Number("SELECT count(*) FROM history WHERE vpn_id = 7"), 10);
    EXPECT_THAT(Outcomes(8), ElementsAre("of another"));
}

TEST_F(MessageHistoryTest, OneMebibyteOfMessagesOfAVpnIsKept)
{
    Start();
    Add(8, Entry("of another", kHalf));
    Add(7, Entry("one", kHalf));
    Add(7, Entry("two"));
    Add(7, Entry("three", kHalf));
    EXPECT_THAT(Outcomes(7), ElementsAre("three", "two", "one"));
    Add(7, Entry("four", 1));
    EXPECT_THAT(Outcomes(7), ElementsAre("four", "three", "two"));
    Add(7, Entry("five", kHalf));
    EXPECT_THAT(Outcomes(7), ElementsAre("five", "four"));
    EXPECT_EQ(Number("SELECT sum(length(message)) FROM history WHERE vpn_id = 7"), std::int64_t{kHalf + 1});
    EXPECT_THAT(Outcomes(8), ElementsAre("of another"));
}

TEST_F(MessageHistoryTest, OfAMessageThatIsTooLongTheRestIsKept)
{
    Start();
    const HistoryEntry longest = Entry("longest", kHistoryMessageMax);
    HistoryEntry tooLong = Entry("too long", kHistoryMessageMax + 1);
    Add(7, longest);
    Add(7, tooLong);
    tooLong.message.reset();
    EXPECT_EQ(tooLong.messageBytes, 524289U);
    EXPECT_THAT(TheStore().ReadHistory(7), ElementsAre(tooLong, longest));
}

TEST_F(MessageHistoryTest, LongTextsAreCut)
{
    Start();
    HistoryEntry entry = Entry(std::string(kHistoryOutcomeMax, 'o'));
    entry.peer = std::string(kHistoryPeerMax - 1, 'p') + "\xC3"; // may end inside a character
    entry.revision = std::string(kHistoryRevisionMax, 'r');
    HistoryEntry longer = entry;
    longer.peer += "\xA9";
    *longer.revision += "x";
    longer.outcome += "x";
    Add(7, longer);
    EXPECT_THAT(TheStore().ReadHistory(7), ElementsAre(entry));
    EXPECT_EQ(Number("SELECT length(CAST(peer || revision || outcome AS BLOB)) FROM history"), 128 + 64 + 512);
}

TEST_F(MessageHistoryTest, EachPlatformHasItsOwn)
{
    Start();
    Add(7, Entry("cpe", kHalf));
    StartPop();
    EXPECT_THAT(Outcomes(7), IsEmpty());
    for (int i = 0; i < 11; ++i) {
        Add(7, Entry("pop", kHalf));
    }
    EXPECT_THAT(Outcomes(7), ElementsAre("pop", "pop"));
    Start();
    EXPECT_THAT(Outcomes(7), ElementsAre("cpe"));
}

TEST_F(MessageHistoryTest, NothingIsRecoveredFromIt)
{
    Start();
    Add(7, Entry("applied", 100));
    EXPECT_THAT(TheStore().Read(), IsEmpty());
    EXPECT_FALSE(TheStore().Read(7));
    EXPECT_EQ(TheStore().ReadText(7), std::nullopt);
    EXPECT_THAT(VpnsOf(ListPtr(TheStore().List(kCpe))), IsEmpty());
    EXPECT_THAT(TheStore().Ids(), IsEmpty());
}

TEST_F(MessageHistoryTest, AnAdditionIsNoUseOfTheStoreByTheModule)
{
    Start();
    TheStore().Put(7, "7", kCpe);
    StoreChange change(TheStore());
    Add(7, Entry("one"));
    EXPECT_FALSE(change.IsBegun());
    TheStore().Remove(7, kCpe);
    Add(7, Entry("two"));
    EXPECT_TRUE(change.Finish());
    EXPECT_EQ(TheStore().ReadText(7), std::nullopt);
    EXPECT_THAT(Outcomes(7), ElementsAre("two", "one"));
}

TEST_F(MessageHistoryTest, WithoutPersistenceThereIsNone)
{
    Config config = BaseConfig();
    config.persistence = false;
    Start(config);
    const ThrownError off{EOPNOTSUPP, "persistence is switched off"};
    EXPECT_EQ(FailureToAdd(), off);
    EXPECT_EQ(FailureToRead(), off);
}

TEST_F(MessageHistoryTest, AStoreOfTheReleaseBeforeIsTakenOver)
{
    WriteOldStore();
    const std::vector<std::string> before = Rows();
    ASSERT_EQ(before.size(), 5U);
    Start();
    EXPECT_THAT(Outcomes(7), IsEmpty());
    EXPECT_EQ(Number("SELECT count(*) FROM sqlite_schema WHERE name = 'history'"), 1);
    Add(7, Entry("applied", 100));
    EXPECT_THAT(Outcomes(7), ElementsAre("applied"));
    EXPECT_THAT(TheStore().Ids(), ElementsAre(7U, kLargest));
    EXPECT_THAT(TheStore().ReadText(7), Optional(Eq("7 caf\u00e9 '\"")));
    host_.reset();
    EXPECT_EQ(Rows(), before);
    EXPECT_EQ(Number("PRAGMA user_version"), 1) << "the release before would refuse the file";
}

TEST_F(MessageHistoryTest, AReadOnlyStoreOfTheReleaseBeforeHasNone)
{
    WriteOldStore();
    SetModeOfFiles(0444);
    const std::string before = ContentOf(Path());
    Start();
    const OrdinaryUser user;
    EXPECT_THAT(TheStore().ReadHistory(7), IsEmpty());
    EXPECT_EQ(FailureToAdd(), (ThrownError{EROFS, "attempt to write a readonly database"}));
    EXPECT_THAT(TheStore().Ids(), ElementsAre(7U, kLargest));
    EXPECT_EQ(ContentOf(Path()), before);
}

TEST_F(MessageHistoryTest, AReadOnlyStoreIsReadAndWrittenOnceItCanBe)
{
    Start();
    Add(7, Entry("one"));
    Start();
    SetModeOfFiles(0444);
    {
        const OrdinaryUser user;
        EXPECT_EQ(FailureToAdd(), (ThrownError{EROFS, "attempt to write a readonly database"}));
        EXPECT_THAT(Outcomes(7), ElementsAre("one"));
    }
    SetModeOfFiles(0600);
    Add(7, Entry("two"));
    EXPECT_THAT(Outcomes(7), ElementsAre("two", "one"));
}

TEST_F(MessageHistoryTest, AReplacedFileIsOpenedAgain)
{
    Start();
    Add(7, Entry("one"));
    std::filesystem::remove(Path());
    const CapturedStderr captured;
    Add(7, Entry("two"));
    EXPECT_EQ(captured.Text(), "WARNING store " + Path() + " was removed or replaced: it is opened again\n");
    EXPECT_THAT(Outcomes(7), ElementsAre("two"));
    std::filesystem::remove(Path());
    EXPECT_THAT(Outcomes(7), IsEmpty());
    EXPECT_THAT(Texts("SELECT outcome FROM history"), IsEmpty());
}

} // namespace
} // namespace kavel::agent
