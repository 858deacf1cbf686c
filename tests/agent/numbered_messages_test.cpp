#include "services/numbered_messages.h"

#include <gtest/gtest.h>

#include "message_history_fixture.h"
#include "numeric_revision.h"

namespace kavel::agent {
namespace {

// The history of VPN 7, which is configured.
class NumberedMessagesTest : public MessageHistoryTest {
  protected:
    NumberedMessagesTest()
    {
        Config config = BaseConfig();
        config.vpns.resize(1);
        config.vpns.front().id = 7;
        Start(config);
    }

    static HistoryEntry Of(const std::string &revision, const std::string &outcome = "applied")
    {
        HistoryEntry entry = Entry(outcome);
        entry.revision = revision;
        return entry;
    }

    // As the next agent sees it.
    std::optional<NumberedMessage> Last()
    {
        NumberedMessages numbered(*host_);
        const NumberedMessage *last = numbered.Last(7);
        return last != nullptr ? std::optional(*last) : std::nullopt;
    }
};

TEST_F(NumberedMessagesTest, NumbersAreDecimalFromOneTo63Bits)
{
    EXPECT_EQ(NumericRevision("1"), 1U);
    EXPECT_EQ(NumericRevision("9223372036854775807"), 9223372036854775807U);
    for (const char *text :
         {"", "0", "01", "+1", "-1", " 1", "1 ", "1a", "0x1", "9223372036854775808", "18446744073709551616", "1e3"}) {
        EXPECT_EQ(NumericRevision(text), std::nullopt) << text;
    }
}

TEST_F(NumberedMessagesTest, ThereIsNoneInAnEmptyHistory)
{
    EXPECT_FALSE(Last());
    Add(7, Entry("applied"));
    Add(7, Of("v1"));
    EXPECT_FALSE(Last());
}

TEST_F(NumberedMessagesTest, TheHighestNumberCountsAndOfItsEntriesTheNewest)
{
    Add(7, Of("9", "one"));
    Add(7, Of("10", "two"));
    Add(7, Of("10", "three"));
    Add(7, Of("2", "four"));
    const auto last = Last();
    ASSERT_TRUE(last);
    EXPECT_EQ(last->number, 10U);
    EXPECT_EQ(last->entry.outcome, "three");
}

TEST_F(NumberedMessagesTest, ItIsReadWithoutItsMessage)
{
    HistoryEntry entry = Of("3");
    entry.messageBytes = 4;
    entry.message = {1, 2, 3, 4};
    Add(7, entry);
    EXPECT_EQ(Last()->entry.messageBytes, 4U);
    EXPECT_EQ(Last()->entry.message, std::nullopt);
}

TEST_F(NumberedMessagesTest, WhatIsInForceCountsWhereTheHistoryDoesNotHaveIt)
{
    Add(7, Of("3", "applied, NOT RUNNING: why"));
    NumberedMessages numbered(*host_);
    numbered.NoteInForce(7, "3");
    EXPECT_EQ(numbered.Last(7)->entry.outcome, "applied, NOT RUNNING: why") << "the history knows more";
    NumberedMessages next(*host_);
    next.NoteInForce(7, "4");
    EXPECT_EQ(next.Last(7)->number, 4U);
    EXPECT_EQ(next.Last(7)->entry.outcome, "applied");
    EXPECT_EQ(next.Last(7)->entry.peer, "unknown");
    NumberedMessages unnamed(*host_);
    unnamed.NoteInForce(7, "a name");
    EXPECT_EQ(unnamed.Last(7)->number, 3U);
}

TEST_F(NumberedMessagesTest, AnUndoIsSeen)
{
    NumberedMessages numbered(*host_);
    HistoryEntry entry = Of("3", std::string(kToBeConfirmed) + "9 s");
    Add(7, entry);
    numbered.Note(7, entry);
    EXPECT_FALSE(numbered.Last(7)->isUndone);
    HistoryEntry undo = Entry("not confirmed, stopped");
    undo.peer = kSentByAgent;
    Add(7, undo);
    EXPECT_FALSE(numbered.Last(7)->isUndone);
    numbered.Undone(7);
    EXPECT_TRUE(numbered.Last(7)->isUndone);
}

// ---- The history keeps it ----

TEST_F(NumberedMessagesTest, OtherEntriesDoNotReplaceItInTheHistory)
{
    Add(7, Of("9", "old nine"));
    Add(7, Of("12", "old"));
    Add(7, Of("12", "kept"));
    for (int i = 1; i <= 30; ++i) {
        Add(7, i % 3 == 0   ? Of("11", std::to_string(i))
               : i % 3 == 1 ? Of("zzz", std::to_string(i))
                            : Entry(std::to_string(i)));
    }
    EXPECT_THAT(Outcomes(7), testing::ElementsAre("30", "29", "28", "27", "26", "25", "24", "23", "22", "kept"));
    EXPECT_EQ(Number("SELECT count(*) FROM history WHERE vpn_id = 7"), 10);
}

TEST_F(NumberedMessagesTest, AHigherOneTakesItsPlace)
{
    Add(7, Of("9", "nine"));
    for (int i = 1; i <= 9; ++i) {
        Add(7, Entry(std::to_string(i)));
    }
    Add(7, Of("10", "ten"));
    EXPECT_THAT(Outcomes(7), testing::ElementsAre("ten", "9", "8", "7", "6", "5", "4", "3", "2", "1"));
}

TEST_F(NumberedMessagesTest, OnlyNumbersAreKept)
{
    for (const char *revision : {"9223372036854775808", "10000000000000000000", "012", "12x", "-3", ""}) {
        Add(7, Of(revision, "gone"));
    }
    Add(7, Of("9223372036854775807", "kept"));
    for (int i = 1; i <= 10; ++i) {
        Add(7, Entry(std::to_string(i)));
    }
    EXPECT_THAT(Outcomes(7), testing::ElementsAre("10", "9", "8", "7", "6", "5", "4", "3", "2", "kept"));
}

TEST_F(NumberedMessagesTest, ItsMessageCountsAmongTheBytes)
{
    HistoryEntry kept = Entry("kept", kHalf);
    kept.revision = "5";
    Add(7, kept);
    Add(7, Entry("one", kHalf));
    Add(7, Entry("two", kHalf));
    EXPECT_THAT(Outcomes(7), testing::ElementsAre("two", "kept"));
    EXPECT_EQ(Number("SELECT sum(length(message)) FROM history"), kHistoryBytesMax);
}

TEST_F(NumberedMessagesTest, EachVpnKeepsItsOwn)
{
    Add(8, Of("99", "of another"));
    Add(7, Of("5", "kept"));
    for (int i = 1; i <= 10; ++i) {
        Add(7, Entry(std::to_string(i)));
    }
    EXPECT_EQ(Outcomes(7).back(), "kept");
    EXPECT_THAT(Outcomes(8), testing::ElementsAre("of another"));
}

} // namespace
} // namespace kavel::agent
