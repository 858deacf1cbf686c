#include "services/numbered_messages.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "numeric_revision.h"
#include "services/host.h"

namespace kavel::agent {
namespace {

constexpr const char *kUnknownSender = "unknown";

std::optional<NumberedMessage> Numbered(const HistoryEntry &entry)
{
    const auto number = entry.revision ? NumericRevision(*entry.revision) : std::nullopt;
    if (!number) {
        return std::nullopt;
    }
    NumberedMessage message{*number, {}, false};
    message.entry = {entry.time, entry.peer, entry.revision, entry.result, entry.outcome, entry.messageBytes, {}};
    return message;
}

// Of two with the same number the newer one is remembered.
void Remember(std::optional<NumberedMessage> &last, NumberedMessage message)
{
    if (!last || message.number >= last->number) {
        last = std::move(message);
    }
}

} // namespace

void NumberedMessages::Note(std::uint32_t vpnId, const HistoryEntry &entry)
{
    auto message = Numbered(entry);
    if (!message) {
        return;
    }
    if (host_.config.Serves(vpnId) || configured_.contains(vpnId)) {
        Remember(configured_[vpnId].last, *std::move(message));
    } else {
        NoteUnconfigured(vpnId, *std::move(message));
    }
}

void NumberedMessages::NoteUnconfigured(std::uint32_t vpnId, NumberedMessage message)
{
    const auto found = unconfigured_.find(vpnId);
    if (found != unconfigured_.end()) {
        if (message.number >= found->second.number) {
            found->second = std::move(message);
        }
        return;
    }
    if (unconfigured_.size() >= kUnconfiguredMax) {
        unconfigured_.erase(
            std::ranges::min_element(unconfigured_, {}, [](const auto &each) { return each.second.entry.time; }));
    }
    unconfigured_.emplace(vpnId, std::move(message));
}

void NumberedMessages::NoteInForce(std::uint32_t vpnId, const std::string &revision)
{
    HistoryEntry entry;
    entry.time = std::time(nullptr);
    entry.peer = kUnknownSender;
    entry.revision = revision;
    entry.outcome = "applied";
    Note(vpnId, entry);
}

// What the history says about the same revision is more than what NoteInForce() has guessed.
void NumberedMessages::ReadHistory(std::uint32_t vpnId, Memory &memory) const
{
    std::optional<NumberedMessage> stored;
    UndoneEntries undone;
    for (const HistoryEntry &entry : host_.store.ReadHistoryWithoutMessages(vpnId)) {
        const bool isUndone = undone.Contains(entry);
        auto message = Numbered(entry);
        if (message && (!stored || message->number > stored->number)) {
            message->isUndone = isUndone;
            stored = std::move(message);
        }
    }
    if (stored) {
        Remember(memory.last, *std::move(stored));
    }
    memory.isHistoryRead = true;
}

const NumberedMessage *NumberedMessages::Last(std::uint32_t vpnId)
{
    if (host_.config.persistence && host_.config.Serves(vpnId)) {
        Memory &memory = configured_[vpnId];
        if (!memory.isHistoryRead) {
            ReadHistory(vpnId, memory);
        }
    }
    return Known(vpnId);
}

const NumberedMessage *NumberedMessages::Known(std::uint32_t vpnId) const
{
    if (const auto found = configured_.find(vpnId); found != configured_.end()) {
        return found->second.last ? &*found->second.last : nullptr;
    }
    const auto found = unconfigured_.find(vpnId);
    return found != unconfigured_.end() ? &found->second : nullptr;
}

void NumberedMessages::Undone(std::uint32_t vpnId)
{
    if (const auto found = configured_.find(vpnId); found != configured_.end()) {
        found->second.isHistoryRead = false;
    }
}

} // namespace kavel::agent
