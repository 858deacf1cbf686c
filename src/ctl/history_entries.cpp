#include "history_entries.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <ctime>
#include <map>
#include <sstream>
#include <vector>

#include "errors.h"
#include "json_output.h"
#include "output.h"
#include "table.h"

namespace kavel::ctl {

namespace {

struct Numbered {
    std::uint32_t number = 0;
    const Kavel__HistoryEntry *entry = nullptr;
};

std::vector<Numbered> NumberedEntries(HistoryEntries entries)
{
    std::map<std::uint32_t, std::uint32_t> counts;
    std::vector<Numbered> numbered;
    for (const Kavel__HistoryEntry *entry : entries) {
        numbered.push_back({++counts[entry->vpn], entry});
    }
    return numbered;
}

std::string OutcomeCell(const Numbered &item)
{
    return Printable(item.entry->outcome) + (item.entry->undone != 0 ? "; undone" : "");
}

constexpr std::array<TableColumn<Numbered>, 8> kHistoryColumns = {{
    {"VPN", true, [](const Numbered &item) { return std::to_string(item.entry->vpn); }},
    {"NUMBER", true, [](const Numbered &item) { return std::to_string(item.number); }},
    {"TIME", false, [](const Numbered &item) { return TimeText(item.entry->time); }},
    {"SENDER", false, [](const Numbered &item) { return Printable(item.entry->sender); }},
    {"REVISION", false,
     [](const Numbered &item) {
         return item.entry->revision != nullptr ? Printable(item.entry->revision) : std::string("-");
     }},
    {"BYTES", true, [](const Numbered &item) { return std::to_string(item.entry->bytes); }},
    {"RESULT", true, [](const Numbered &item) { return std::to_string(item.entry->result); }},
    {"OUTCOME", false, OutcomeCell},
}};

JsonPtr EntryJson(const Numbered &item)
{
    JsonPtr object = NewJsonObject();
    AddMember(object.get(), "vpn", JsonNumber(item.entry->vpn));
    AddMember(object.get(), "number", JsonNumber(item.number));
    AddEntryMembers(object.get(), *item.entry);
    return object;
}

} // namespace

void AddEntryMembers(json_object *object, const Kavel__HistoryEntry &entry)
{
    AddMember(object, "time", JsonNumber(entry.time));
    AddMember(object, "sender", JsonText(entry.sender));
    AddMember(object, "revision", entry.revision != nullptr ? JsonText(entry.revision) : JsonPtr());
    AddMember(object, "result", JsonNumber(entry.result));
    AddMember(object, "outcome", JsonText(entry.outcome));
    AddMember(object, "undone", JsonBool(entry.undone != 0));
    AddMember(object, "bytes", JsonNumber(entry.bytes));
}

const Kavel__HistoryEntry &EntryOf(HistoryEntries entries, std::uint32_t number)
{
    if (number == 0 || number > entries.size()) {
        throw InputError("there is no message " + std::to_string(number) + ": the agent keeps " +
                         Counted(entries.size(), "message") + " of this VPN");
    }
    return *entries[number - 1];
}

PackedConf MessageOf(const Kavel__HistoryEntry &entry, std::uint32_t number)
{
    if (entry.has_message == 0) {
        throw InputError("message " + std::to_string(number) +
                         (entry.bytes == 0 ? " has no content: " + Printable(entry.outcome)
                                           : " was not kept: it has " + Counted(entry.bytes, "byte")));
    }
    return {{entry.message.data, entry.message.len}, entry.pop != 0};
}

std::string TimeText(std::uint64_t time)
{
    const auto seconds = static_cast<std::time_t>(time);
    std::tm local{};
    std::array<char, sizeof "2026-03-01 14:05:09 and a longer year"> text{};
    if (::localtime_r(&seconds, &local) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local) == 0) {
        return std::to_string(time);
    }
    return text.data();
}

std::string HistoryTable(HistoryEntries entries)
{
    const std::vector<Numbered> numbered = NumberedEntries(entries);
    std::vector<const Numbered *> items(numbered.size());
    std::ranges::transform(numbered, items.begin(), [](const Numbered &item) { return &item; });
    std::ostringstream out;
    Table<Numbered>(kHistoryColumns, items, 0).Print(out, [](std::size_t, const Numbered &) { return ""; });
    return out.str();
}

std::string HistoryJson(HistoryEntries entries)
{
    JsonPtr list = NewJsonArray();
    for (const Numbered &item : NumberedEntries(entries)) {
        AddElement(list.get(), EntryJson(item));
    }
    const JsonPtr document = NewJsonDocument();
    AddMember(document.get(), "messages", std::move(list));
    return JsonDocument(document.get());
}

} // namespace kavel::ctl
