#include "status_output.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iomanip>
#include <new>
#include <sstream>
#include <unistd.h>

#include "json_reader.h"
#include "output.h"
#include "table.h"

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

using Vpn = const Kavel__VpnStatus &;

std::string IfKnown(protobuf_c_boolean known, bool value)
{
    return known == 0 ? kNothing : value ? "yes" : "no";
}

// On a POP two rules lead to the box's instance, and one is of no use without the other.
std::string RuleText(Vpn vpn)
{
    return IfKnown(vpn.has_rule, vpn.rule != 0 && (vpn.has_dnat == 0 || vpn.dnat != 0));
}

constexpr std::size_t kStateColumn = 2;
constexpr std::array<TableColumn<Kavel__VpnStatus>, 14> kColumns = {{
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
    {"STORED", false, [](Vpn vpn) { return IfKnown(vpn.has_stored, vpn.stored != 0); }},
    {"RULE", false, RuleText},
    {"ANSWERS", false, [](Vpn vpn) { return IfAlive(vpn, vpn.answers != 0 ? "yes" : "no"); }},
}};

void Add(json_object *object, const char *key, json_object *value)
{
    JsonPtr owned(value);
    if (!owned || json_object_object_add(object, key, owned.get()) != 0) {
        throw std::bad_alloc();
    }
    static_cast<void>(owned.release());
}

void AddIfKnown(json_object *object, const char *key, protobuf_c_boolean known, protobuf_c_boolean value)
{
    if (known != 0) {
        Add(object, key, json_object_new_boolean(value));
    } else if (json_object_object_add(object, key, nullptr) != 0) {
        throw std::bad_alloc();
    }
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
    AddIfKnown(o, "stored", vpn.has_stored, vpn.stored);
    AddIfKnown(o, "stored_enable", vpn.has_stored_enable, vpn.stored_enable);
    AddIfKnown(o, "rule", vpn.has_rule, vpn.rule);
    AddIfKnown(o, "dnat", vpn.has_dnat, vpn.dnat);
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
    std::ostringstream out;
    PrintTable(out, kColumns, vpns,
               [&](std::size_t column, Vpn vpn) { return colour && column == kStateColumn ? StateColour(vpn) : ""; });
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
