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

} // namespace

std::string StoredTable(StoredList records)
{
    std::ostringstream out;
    PrintTable(out, kRowColumns, records, [](std::size_t, Stored) { return ""; });
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
