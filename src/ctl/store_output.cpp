#include "store_output.h"

#include <array>
#include <sstream>
#include <utility>

#include "errors.h"
#include "json_output.h"
#include "json_reader.h"
#include "output.h"
#include "table.h"

namespace kavel::ctl {

namespace {

using Stored = const Kavel__StoredRecord &;

std::string EnabledCell(Stored stored)
{
    if (stored.problem != nullptr) {
        return "unreadable";
    }
    return stored.enable != 0 ? "yes" : "no";
}

std::string Count(Stored stored, std::uint32_t count)
{
    return stored.problem != nullptr ? "-" : std::to_string(count);
}

constexpr std::array<TableColumn<Kavel__StoredRecord>, 7> kRowColumns = {{
    {"VPN", true, [](Stored stored) { return std::to_string(stored.vpn); }},
    {"ENABLED", false, EnabledCell},
    {"HOSTS", true, [](Stored stored) { return Count(stored, stored.hosts); }},
    {"MX", true, [](Stored stored) { return Count(stored, stored.mx_hosts); }},
    {"SERVERS", true, [](Stored stored) { return Count(stored, stored.servers); }},
    {"FORWARDS", true, [](Stored stored) { return Count(stored, stored.forwards); }},
    {"BYTES", true, [](Stored stored) { return std::to_string(stored.bytes); }},
}};

JsonPtr RecordJson(Stored stored)
{
    JsonPtr object = NewJsonObject();
    AddMember(object.get(), "vpn", JsonNumber(stored.vpn));
    AddMember(object.get(), "bytes", JsonNumber(stored.bytes));
    if (stored.problem != nullptr) {
        AddMember(object.get(), "problem", JsonText(stored.problem));
        return object;
    }
    AddMember(object.get(), "enable", JsonBool(stored.enable != 0));
    AddMember(object.get(), "hosts", JsonNumber(stored.hosts));
    AddMember(object.get(), "mx_hosts", JsonNumber(stored.mx_hosts));
    AddMember(object.get(), "servers", JsonNumber(stored.servers));
    AddMember(object.get(), "forwards", JsonNumber(stored.forwards));
    return object;
}

} // namespace

JsonPtr StoredJson(StoredList records)
{
    JsonPtr list = NewJsonArray();
    for (const Kavel__StoredRecord *record : records) {
        AddElement(list.get(), RecordJson(*record));
    }
    return list;
}

void AddStoredText(json_object *document, std::string_view text)
{
    try {
        AddMember(document, "record", ParseJson(std::string(text)));
    } catch (const InputError &) {
        AddMember(document, "text", JsonText(std::string(text)));
    }
}

std::string StoredTable(StoredList records)
{
    std::ostringstream out;
    const Table<Kavel__StoredRecord> table(kRowColumns, records, 0);
    table.Print(out, [](std::size_t, Stored) { return ""; });
    const char *gap = "\n";
    for (const Kavel__StoredRecord *record : records) {
        if (record->problem != nullptr) {
            out << std::exchange(gap, "") << SubjectText(record->vpn) << ": " << Printable(record->problem) << '\n';
        }
    }
    return out.str();
}

std::string StoredText(std::string_view text)
{
    try {
        return JsonDocument(ParseJson(std::string(text)).get());
    } catch (const InputError &) {
        return Printable(text) + "\n";
    }
}

} // namespace kavel::ctl
