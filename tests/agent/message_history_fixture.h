// A store with a history of messages, seen through the store and as another program sees it.
#ifndef KAVEL_TESTS_AGENT_MESSAGE_HISTORY_FIXTURE_H
#define KAVEL_TESTS_AGENT_MESSAGE_HISTORY_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/sqlite.h"
#include "services/message_history.h"
#include "store_fixture.h"

namespace kavel::agent {

inline constexpr std::size_t kHalf = kHistoryMessageMax; // two such messages are as much as is kept

inline HistoryEntry Entry(const std::string &outcome, std::optional<std::size_t> messageBytes = std::nullopt)
{
    HistoryEntry entry;
    entry.time = 1'700'000'000;
    entry.peer = "pid 123, uid 0 (vqctl)";
    entry.outcome = outcome;
    entry.messageBytes = messageBytes.value_or(0);
    if (messageBytes) {
        entry.message.emplace(*messageBytes, std::uint8_t{0xA5});
    }
    return entry;
}

inline std::vector<std::string> OutcomesOf(const std::vector<HistoryEntry> &entries)
{
    std::vector<std::string> outcomes;
    for (const HistoryEntry &entry : entries) {
        outcomes.push_back(entry.outcome);
    }
    return outcomes;
}

class MessageHistoryTest : public StoreTest {
  protected:
    void StartPop()
    {
        Config config = BaseConfig();
        config.platform = Platform::kPop;
        Start(config);
    }
    void Add(std::uint32_t vpnId, const HistoryEntry &entry) { TheStore().AddToHistory(vpnId, entry); }
    ThrownError FailureToAdd()
    {
        return FailureOf([&] { Add(7, Entry("x")); });
    }
    ThrownError FailureToRead()
    {
        return FailureOf([&] { (void)TheStore().ReadHistory(7); });
    }
    std::vector<std::string> Outcomes(std::uint32_t vpnId) { return OutcomesOf(TheStore().ReadHistory(vpnId)); }

    // As another program.
    void Execute(const std::string &text) const { Database(Path(), 0).Execute(text); }
    [[nodiscard]] std::int64_t Number(const std::string &query) const { return Database(Path(), 0).Number(query); }
    [[nodiscard]] std::vector<std::string> Texts(const std::string &query) const
    {
        const Database database(Path(), 0);
        const Statement statement(database.Get(), query);
        Statement::Run run(statement);
        std::vector<std::string> texts;
        while (run.Step()) {
            texts.emplace_back(run.Text(0));
        }
        return texts;
    }

    void SetModeOfFiles(mode_t mode) const
    {
        for (const std::string &name : directory_.Names()) {
            ASSERT_EQ(::chmod(directory_.File(name).c_str(), mode), 0);
        }
    }

    // A store as the release before this table wrote it.
    void WriteOldStore()
    {
        const Database database(directory_.Write("agent.db", ""), 0);
        int keep = 1;
        (void)sqlite3_file_control(database.Get(), "main", SQLITE_FCNTL_PERSIST_WAL, &keep);
        database.Execute("PRAGMA journal_mode = WAL; PRAGMA journal_size_limit = 0; BEGIN IMMEDIATE;"
                         "CREATE TABLE cpe_dnsmasq (vpn_id INTEGER PRIMARY KEY CHECK (vpn_id BETWEEN 0 AND 4294967295),"
                         " conf TEXT NOT NULL) STRICT;"
                         "CREATE TABLE pop_dnsmasq (vpn_id INTEGER PRIMARY KEY CHECK (vpn_id BETWEEN 0 AND 4294967295),"
                         " conf TEXT NOT NULL) STRICT;"
                         "PRAGMA user_version = 1;"
                         "INSERT INTO cpe_dnsmasq VALUES (7, '7 caf\u00e9 ''\"'), (4294967295, '4294967295');"
                         "INSERT INTO pop_dnsmasq VALUES (8, CAST(x'3820FF000A38' AS TEXT));"
                         "COMMIT");
    }
    // Everything in the tables of the records, as bytes, and their definitions.
    [[nodiscard]] std::vector<std::string> Rows() const
    {
        return Texts("SELECT vpn_id || ' ' || hex(conf) FROM cpe_dnsmasq UNION ALL"
                     " SELECT vpn_id || ' ' || hex(conf) FROM pop_dnsmasq UNION ALL"
                     " SELECT sql FROM sqlite_schema WHERE name LIKE '%_dnsmasq'");
    }
    // What concerns the rows works as if there were no history.
    void ExpectRowsWork()
    {
        TheStore().Put(7, "7", kCpe);
        EXPECT_THAT(TheStore().ReadText(7), testing::Optional(testing::Eq("7")));
        EXPECT_THAT(VpnsOf(TheStore().Read()), testing::ElementsAre(7U));
        EXPECT_THAT(VpnsOf(ListPtr(TheStore().List(kCpe))), testing::ElementsAre(7U));
        EXPECT_THAT(TheStore().Ids(), testing::ElementsAre(7U));
        TheStore().Remove(7, kCpe);
        EXPECT_THAT(TheStore().Read(), testing::IsEmpty());
    }
};

} // namespace kavel::agent

#endif
