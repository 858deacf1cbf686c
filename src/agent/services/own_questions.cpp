#include "services/own_questions.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "log.h"

namespace kavel::agent {
namespace {

// An entry in the file. Each has a place of its own, and is written in one piece.
struct StoredCount {
    std::uint32_t vpnId;
    std::int32_t pid;
    std::uint64_t startTime;
    std::uint64_t count;
};
static_assert(sizeof(StoredCount) == 24);

} // namespace

OwnQuestions::OwnQuestions(std::string path) : path_(std::move(path))
{
    Load();
}

void OwnQuestions::Load()
{
    const UniqueFd file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    StoredCount stored{};
    std::size_t slot = 0;
    while (file && ::pread(file.Get(), &stored, sizeof stored, static_cast<off_t>(slot * sizeof stored)) ==
                       static_cast<ssize_t>(sizeof stored)) {
        entries_[stored.vpnId] = {
            .slot = slot, .pid = stored.pid, .startTime = stored.startTime, .count = stored.count};
        ++slot;
    }
}

OwnQuestions::Entry &OwnQuestions::Of(std::uint32_t vpnId)
{
    const std::size_t slot = entries_.size();
    return entries_.try_emplace(vpnId, Entry{.slot = slot}).first->second;
}

void OwnQuestions::Save(std::uint32_t vpnId, const Entry &entry)
{
    if (!file_) {
        file_ = UniqueFd(::open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
    }
    const StoredCount stored{vpnId, entry.pid, entry.startTime, entry.count};
    if (!file_ || ::pwrite(file_.Get(), &stored, sizeof stored, static_cast<off_t>(entry.slot * sizeof stored)) !=
                      static_cast<ssize_t>(sizeof stored)) {
        Log(LogLevel::kDebug, "%s: the agent's own questions are not kept: %s", path_.c_str(), std::strerror(errno));
    }
}

OwnQuestions::Ticket OwnQuestions::Add(std::uint32_t vpnId)
{
    Entry &entry = Of(vpnId);
    ++entry.count;
    Save(vpnId, entry);
    return {vpnId, entry.launch};
}

void OwnQuestions::Withdraw(const Ticket &ticket)
{
    Entry &entry = Of(ticket.vpnId);
    if (entry.launch == ticket.launch && entry.count > 0) {
        --entry.count;
        Save(ticket.vpnId, entry);
    }
}

std::uint64_t OwnQuestions::CountOf(std::uint32_t vpnId) const
{
    const auto found = entries_.find(vpnId);
    return found == entries_.end() ? 0 : found->second.count;
}

void OwnQuestions::BeginLaunch(std::uint32_t vpnId)
{
    Entry &entry = Of(vpnId);
    entry = {.slot = entry.slot, .launch = entry.launch + 1};
    Save(vpnId, entry);
}

// Of a process that the agent has launched, what it got before this call counts, too.
void OwnQuestions::SetProcess(std::uint32_t vpnId, pid_t pid, std::uint64_t startTime)
{
    const Entry before = Of(vpnId);
    if (before.pid == pid && before.startTime == startTime) {
        return;
    }
    if (before.pid != 0) {
        BeginLaunch(vpnId);
    }
    Entry &entry = Of(vpnId);
    entry.pid = pid;
    entry.startTime = startTime;
    Save(vpnId, entry);
}

} // namespace kavel::agent
