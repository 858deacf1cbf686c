// The history of a VPN's messages, as the agent sends it.
#ifndef KAVEL_CTL_HISTORY_ENTRIES_H
#define KAVEL_CTL_HISTORY_ENTRIES_H

#include <cstdint>
#include <span>
#include <string>

#include "control.pb-c.h"
#include "json_text.h"
#include "packed_conf.h"

namespace kavel::ctl {

// The newest entry of a VPN first.
using HistoryEntries = std::span<const Kavel__HistoryEntry *const>;

// The entry of this number; 1 is the newest. Throws InputError if there is none.
[[nodiscard]] const Kavel__HistoryEntry &EntryOf(HistoryEntries entries, std::uint32_t number);

// Its message. Throws InputError if the agent has not kept it.
[[nodiscard]] PackedConf MessageOf(const Kavel__HistoryEntry &entry, std::uint32_t number);

// "2026-03-01 14:05:09", in the time zone of this process.
[[nodiscard]] std::string TimeText(std::uint64_t time);

// Adds what is told of an entry to an object: all but its VPN, its number and its message.
void AddEntryMembers(json_object *object, const Kavel__HistoryEntry &entry);

// A table of entries of one or more VPNs. Each VPN's entries are numbered from 1.
[[nodiscard]] std::string HistoryTable(HistoryEntries entries);

// The same for programs.
[[nodiscard]] std::string HistoryJson(HistoryEntries entries);

} // namespace kavel::ctl

#endif
