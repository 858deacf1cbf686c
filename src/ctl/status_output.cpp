#include "status_output.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iomanip>
#include <memory>
#include <new>
#include <sstream>
#include <unistd.h>
#include <vector>

#include "json_reader.h"
#include "output.h"

namespace kavel::ctl {

namespace {

constexpr const char *kNothing = "-";
constexpr std::uint64_t kMinute = 60;
constexpr std::uint64_t kHour = 60 * kMinute;
constexpr std::uint64_t kDay = 24 * kHour;
constexpr std::uint64_t kKibi = 1024;

std::string StateText(const Kavel__VpnStatus &vpn)
{
    if (vpn.n_problems != 0) {
        return "failed";
    }
    return vpn.alive != 0 ? "running" : "stopped";
}

const char *StateColour(const Kavel__VpnStatus &vpn)
{
    if (vpn.n_problems != 0) {
        return "\033[31m";
    }
    return vpn.alive != 0 ? "\033[32m" : "\033[33m";
}

std::string IfAlive(const Kavel__VpnStatus &vpn, const std::string &text)
{
    return vpn.alive != 0 ? text : kNothing;
}

struct Column {
    const char *title;
    bool numeric; // aligned to the right
    std::string (*text)(const Kavel__VpnStatus &vpn);
};

using Vpn = const Kavel__VpnStatus &;
constexpr std::size_t kStateColumn = 2;
constexpr std::array<Column, 12> kColumns = {{
    {"VPN", true, [](Vpn vpn) { return std::to_string(vpn.vpn); }},
    {"NAMESPACE", false, [](Vpn vpn) { return Printable(vpn.namespace_); }},
    {"STATE", false, StateText},
    {"PID", true, [](Vpn vpn) { return vpn.pid_file != 0 ? std::to_string(vpn.pid) : kNothing; }},
    {"UPTIME", true, [](Vpn vpn) { return IfAlive(vpn, UptimeText(vpn.uptime_seconds)); }},
    {"MEMORY", true, [](Vpn vpn) { return IfAlive(vpn, MemoryText(vpn.memory_bytes)); }},
    {"HOSTS", true, [](Vpn vpn) { return std::to_string(vpn.hosts); }},
    {"MX", true, [](Vpn vpn) { return std::to_string(vpn.mx_hosts); }},
    {"SERVERS", true, [](Vpn vpn) { return std::to_string(vpn.servers); }},
    {"FORWARDS", true, [](Vpn vpn) { return std::to_string(vpn.forwards); }},
    {"ROUTES", true, [](Vpn vpn) { return std::to_string(vpn.routes); }},
    {"ANSWERS", false, [](Vpn vpn) { return IfAlive(vpn, vpn.answers != 0 ? "yes" : "no"); }},
}};

using Row = std::array<std::string, kColumns.size()>;
using Widths = std::array<std::size_t, kColumns.size()>;

Row RowOf(Vpn vpn)
{
    Row row;
    std::ranges::transform(kColumns, row.begin(), [&](const Column &column) { return column.text(vpn); });
    return row;
}

Row TitleRow()
{
    Row row;
    std::ranges::transform(kColumns, row.begin(), [](const Column &column) { return column.title; });
    return row;
}

Widths WidthsOf(const std::vector<Row> &rows)
{
    Widths widths{};
    for (const Row &row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    return widths;
}

// The last column carries no padding, so that no line ends in blanks. `colour` goes around the state.
void PrintRow(std::ostream &out, const Row &row, const Widths &widths, const char *colour)
{
    for (std::size_t i = 0; i < row.size(); ++i) {
        const std::string padding(widths[i] - row[i].size(), ' ');
        const bool coloured = i == kStateColumn && *colour != '\0';
        const bool last = i + 1 == row.size();
        out << (i == 0 ? "" : "  ") << (kColumns[i].numeric ? padding : "") << (coloured ? colour : "") << row[i]
            << (coloured ? "\033[0m" : "") << (kColumns[i].numeric || last ? "" : padding);
    }
    out << '\n';
}

void Add(json_object *object, const char *key, json_object *value)
{
    JsonPtr owned(value);
    if (!owned || json_object_object_add(object, key, owned.get()) != 0) {
        throw std::bad_alloc();
    }
    static_cast<void>(owned.release());
}

json_object *ProblemList(Vpn vpn)
{
    JsonPtr list(json_object_new_array());
    for (const char *problem : std::span(vpn.problems, vpn.n_problems)) {
        json_object_array_add(list.get(), json_object_new_string(problem));
    }
    return list.release();
}

JsonPtr ObjectOf(Vpn vpn)
{
    JsonPtr object(json_object_new_object());
    json_object *const o = object.get();
    Add(o, "vpn", json_object_new_uint64(vpn.vpn));
    Add(o, "namespace", json_object_new_string(vpn.namespace_));
    Add(o, "meant", json_object_new_boolean(vpn.meant));
    Add(o, "pid_file", json_object_new_boolean(vpn.pid_file));
    Add(o, "pid", json_object_new_int(vpn.pid));
    Add(o, "alive", json_object_new_boolean(vpn.alive));
    Add(o, "is_dnsmasq", json_object_new_boolean(vpn.is_dnsmasq));
    Add(o, "in_namespace", json_object_new_boolean(vpn.in_namespace));
    Add(o, "answers", json_object_new_boolean(vpn.answers));
    Add(o, "uptime_seconds", json_object_new_uint64(vpn.uptime_seconds));
    Add(o, "memory_bytes", json_object_new_uint64(vpn.memory_bytes));
    Add(o, "hosts", json_object_new_uint64(vpn.hosts));
    Add(o, "mx_hosts", json_object_new_uint64(vpn.mx_hosts));
    Add(o, "servers", json_object_new_uint64(vpn.servers));
    Add(o, "forwards", json_object_new_uint64(vpn.forwards));
    Add(o, "routes", json_object_new_uint64(vpn.routes));
    Add(o, "problems", ProblemList(vpn));
    return object;
}

// Two units, the smaller with two digits.
std::string TwoUnits(std::uint64_t value, std::uint64_t large, char large_sign, std::uint64_t small, char small_sign)
{
    std::ostringstream text;
    text << value / large << large_sign << std::setw(2) << std::setfill('0') << value % large / small << small_sign;
    return text.str();
}

} // namespace

std::string UptimeText(std::uint64_t seconds)
{
    if (seconds < kMinute) {
        return std::to_string(seconds) + "s";
    }
    if (seconds < kHour) {
        return TwoUnits(seconds, kMinute, 'm', 1, 's');
    }
    if (seconds < kDay) {
        return TwoUnits(seconds, kHour, 'h', kMinute, 'm');
    }
    return TwoUnits(seconds, kDay, 'd', kHour, 'h');
}

std::string MemoryText(std::uint64_t bytes)
{
    if (bytes < kKibi) {
        return std::to_string(bytes) + "B";
    }
    std::uint64_t unit = kKibi;
    std::string_view signs = "KMGTPE";
    for (; signs.size() > 1 && bytes / unit >= kKibi; unit *= kKibi) {
        signs.remove_prefix(1);
    }
    // Cut rather than rounded: 1023.99K stays below 1.0M.
    const std::uint64_t tenth = bytes % unit / (unit / 10 + 1);
    return std::to_string(bytes / unit) + "." + std::to_string(tenth) + signs.front();
}

std::string StatusTable(StatusList vpns, bool colour)
{
    std::vector<Row> rows{TitleRow()};
    std::ranges::transform(vpns, std::back_inserter(rows), [](const Kavel__VpnStatus *vpn) { return RowOf(*vpn); });
    const Widths widths = WidthsOf(rows);

    std::ostringstream out;
    PrintRow(out, rows.front(), widths, "");
    for (std::size_t i = 0; i < vpns.size(); ++i) {
        PrintRow(out, rows[i + 1], widths, colour ? StateColour(*vpns[i]) : "");
    }
    out << (AnyProblem(vpns) ? "\n" : "");
    for (const Kavel__VpnStatus *vpn : vpns) {
        for (const char *problem : std::span(vpn->problems, vpn->n_problems)) {
            out << SubjectText(vpn->vpn) << ": " << Printable(problem) << '\n';
        }
    }
    return out.str();
}

std::string StatusJson(StatusList vpns)
{
    const JsonPtr list(json_object_new_array());
    for (const Kavel__VpnStatus *vpn : vpns) {
        json_object_array_add(list.get(), ObjectOf(*vpn).release());
    }
    const int format = JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_NOSLASHESCAPE;
    return std::string(json_object_to_json_string_ext(list.get(), format)) + "\n";
}

bool AnyProblem(StatusList vpns)
{
    return std::ranges::any_of(vpns, [](const Kavel__VpnStatus *vpn) { return vpn->n_problems != 0; });
}

bool WantsColour(int fd)
{
    const char *refused = std::getenv("NO_COLOR");
    return (refused == nullptr || *refused == '\0') && ::isatty(fd) == 1;
}

} // namespace kavel::ctl
