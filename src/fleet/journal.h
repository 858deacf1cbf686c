// What a command that publishes to many boxes has done, in a file, so that the same command goes on after an
// interruption.
//
//   vqfleet-journal 1 revision 18 content <SHA-256> list <SHA-256>
//   branch-1
//   branch-2
//
// Each line is written when the broker has acknowledged all messages for the box.
#ifndef KAVEL_FLEET_JOURNAL_H
#define KAVEL_FLEET_JOURNAL_H

#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

#include "revision.h"
#include "unique_fd.h"

namespace kavel::fleet {

// What a command publishes to whom: the hashes of outgoing.h.
struct JournalSubject {
    std::string content;
    std::string list;
    bool operator==(const JournalSubject &) const = default;
};

struct JournalContent {
    broker::Revision revision = 0;
    JournalSubject subject;
    std::unordered_set<std::string> done;
    std::size_t size = 0; // bytes of whole lines; what is behind them was cut off by an interruption
};

// Nothing for a text without a whole line. Throws InputError: it is no journal.
[[nodiscard]] std::optional<JournalContent> ParseJournal(std::string_view text);

// The functions throw ctl::FileError.
class Journal {
  public:
    // Opens the file, or creates it, and locks it. Refused: a file that another command uses, that is no journal, or
    // that belongs to other messages, another list or another revision than `revision`, if that is given.
    Journal(std::string file, JournalSubject subject, std::optional<broker::Revision> revision);
    Journal(const Journal &) = delete;
    Journal &operator=(const Journal &) = delete;
    // Removes the file if it says nothing.
    ~Journal();

    // What an interrupted command has done; nothing: there was none.
    [[nodiscard]] const std::optional<JournalContent> &Earlier() const { return earlier_; }
    // Before anything is published, unless an earlier command has done so.
    void Begin(broker::Revision revision);
    void Add(const std::string &box);
    // The command is complete: removes the file.
    void Remove();

  private:
    void Append(const std::string &line);
    void CheckEarlier(std::optional<broker::Revision> revision) const;

    std::string file_;
    JournalSubject subject_;
    UniqueFd fd_;
    std::optional<JournalContent> earlier_;
    bool hasLines_ = false;
};

} // namespace kavel::fleet

#endif
