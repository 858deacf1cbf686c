#include "journal.h"

#include <cerrno>
#include <fcntl.h>
#include <sstream>
#include <sys/file.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

#include "files.h"
#include "topics.h"

namespace kavel::fleet {

namespace {

constexpr std::string_view kKind = "vqfleet-journal";
constexpr mode_t kJournalMode = 0644;

std::vector<std::string> WordsOf(std::string_view line)
{
    std::istringstream stream{std::string(line)};
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(std::move(word));
    }
    return words;
}

JournalContent ParseHead(std::string_view line)
{
    const std::vector<std::string> words = WordsOf(line);
    constexpr std::size_t kWords = 8;
    if (words.size() != kWords || words[0] != kKind || words[1] != "1" || words[2] != "revision" ||
        words[4] != "content" || words[6] != "list") {
        throw InputError("is no journal of this version of vqfleet");
    }
    const auto revision = broker::ParseRevision(words[3]);
    if (!revision) {
        throw InputError("line 1: the revision is no number from 1 to 9223372036854775807");
    }
    return {.revision = *revision, .subject = {words[5], words[7]}, .done = {}};
}

std::string HeadOf(broker::Revision revision, const JournalSubject &subject)
{
    return std::string(kKind) + " 1 revision " + std::to_string(revision) + " content " + subject.content + " list " +
           subject.list;
}

[[noreturn]] void ThrowFailure(const std::string &file, const std::string &what)
{
    throw ctl::FileError(file, what + ": " + std::generic_category().message(errno));
}

} // namespace

std::optional<JournalContent> ParseJournal(std::string_view text)
{
    std::optional<JournalContent> content;
    std::size_t start = 0;
    std::size_t number = 1;
    for (std::size_t end = 0; (end = text.find('\n', start)) != std::string_view::npos; start = end + 1, ++number) {
        const std::string_view line = text.substr(start, end - start);
        if (!content) {
            content = ParseHead(line);
        } else if (!broker::IsBoxName(line)) {
            throw InputError("line " + std::to_string(number) + ": is not the name of a box");
        } else {
            content->done.emplace(line);
        }
    }
    if (content) {
        content->size = start;
    } else if (!std::string(kKind).starts_with(text.substr(0, kKind.size()))) {
        throw InputError("is no journal of this version of vqfleet");
    }
    return content;
}

Journal::Journal(std::string file, JournalSubject subject, std::optional<broker::Revision> revision)
    : file_(std::move(file)), subject_(std::move(subject)),
      fd_(::open(file_.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, kJournalMode))
{
    if (!fd_) {
        ThrowFailure(file_, "cannot be opened");
    }
    if (::flock(fd_.Get(), LOCK_EX | LOCK_NB) != 0) {
        throw ctl::FileError(file_, "is used by another vqfleet");
    }
    hasLines_ = true; // until it is known: a file of something else is never removed
    ctl::WithFileName(file_, [&] {
        earlier_ = ParseJournal(ctl::ReadInput(file_));
        CheckEarlier(revision);
    });
    hasLines_ = earlier_.has_value();
    if (::ftruncate(fd_.Get(), earlier_ ? static_cast<off_t>(earlier_->size) : 0) != 0) {
        ThrowFailure(file_, "cannot be written");
    }
}

Journal::~Journal()
{
    if (fd_ && !hasLines_) {
        ::unlink(file_.c_str());
    }
}

void Journal::CheckEarlier(std::optional<broker::Revision> revision) const
{
    if (!earlier_) {
        return;
    }
    const std::string advice =
        "; an interrupted command has written it. Repeat that command, or remove the file to forget it";
    const std::string earlier = "revision " + std::to_string(earlier_->revision);
    if (earlier_->subject.content != subject_.content) {
        throw InputError("belongs to other messages, of " + earlier + advice);
    }
    if (earlier_->subject.list != subject_.list) {
        throw InputError("belongs to another list of boxes, for " + earlier + advice);
    }
    if (revision && *revision != earlier_->revision) {
        throw InputError("belongs to " + earlier + ", not to " + std::to_string(*revision) + advice);
    }
}

void Journal::Begin(broker::Revision revision)
{
    if (!earlier_) {
        Append(HeadOf(revision, subject_));
        hasLines_ = true;
    }
}

void Journal::Add(const std::string &box)
{
    Append(box);
}

void Journal::Remove()
{
    if (::unlink(file_.c_str()) != 0) {
        ThrowFailure(file_, "cannot be removed");
    }
    fd_ = UniqueFd();
}

// In one call: a program that is killed has written all of the line or nothing.
void Journal::Append(const std::string &line)
{
    const std::string text = line + "\n";
    const ssize_t written = ::write(fd_.Get(), text.data(), text.size());
    if (written != static_cast<ssize_t>(text.size())) {
        errno = written < 0 ? errno : ENOSPC;
        ThrowFailure(file_, "cannot be written");
    }
}

} // namespace kavel::fleet
