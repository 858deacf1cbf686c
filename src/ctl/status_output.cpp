#include "status_output.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iomanip>
#include <iterator>
#include <optional>
#include <sstream>
#include <unistd.h>
#include <utility>
#include <vector>

#include "json_output.h"
#include "output.h"
#include "table.h"

namespace kavel::ctl {

namespace {

constexpr const char *kNothing = "-";
constexpr std::uint64_t kMinute = 60;
constexpr std::uint64_t kHour = 60 * kMinute;
constexpr std::uint64_t kDay = 24 * kHour;
constexpr std::uint64_t kKibi = 1024;

using VpnStatus = Kavel__VpnStatus;
using Vpn = const VpnStatus &;

struct State {
    const char *text;
    const char *colour;
};

State StateOf(Vpn vpn)
{
    if (vpn.n_problems != 0) {
        return {"failed", "\033[31m"};
    }
    if (vpn.starting != 0) {
        return {"starting", "\033[36m"};
    }
    return vpn.alive != 0 ? State{"running", "\033[32m"} : State{"stopped", "\033[33m"};
}

// What a cell of the table says.

std::string NamespaceText(Vpn vpn)
{
    return Printable(vpn.namespace_);
}

std::string StateText(Vpn vpn)
{
    return StateOf(vpn).text;
}

std::string PidText(Vpn vpn)
{
    return vpn.pid_file != 0 ? std::to_string(vpn.pid) : kNothing;
}

template <auto Member>
std::string CountText(Vpn vpn)
{
    return std::to_string(vpn.*Member);
}

template <auto Member, auto Text>
std::string TextIfAlive(Vpn vpn)
{
    return vpn.alive != 0 ? Text(vpn.*Member) : kNothing;
}

std::string YesOrNo(bool value)
{
    return value ? "yes" : "no";
}

std::string StoredFlagText(Vpn vpn)
{
    return vpn.has_stored != 0 ? YesOrNo(vpn.stored != 0) : kNothing;
}

// A POP has two rules for the box's instance, and each is useless without the other.
std::string RuleText(Vpn vpn)
{
    const bool isComplete = vpn.rule != 0 && (vpn.has_dnat == 0 || vpn.dnat != 0);
    return vpn.has_rule != 0 ? YesOrNo(isComplete) : kNothing;
}

// What a member of the JSON object holds. An empty JsonPtr is the JSON null.

JsonPtr NamespaceJson(Vpn vpn)
{
    return JsonText(vpn.namespace_);
}

JsonPtr StateJson(Vpn vpn)
{
    return JsonText(StateOf(vpn).text);
}

JsonPtr PidJson(Vpn vpn)
{
    return JsonNumber(vpn.pid);
}

template <auto Member>
JsonPtr CountJson(Vpn vpn)
{
    return JsonNumber(vpn.*Member);
}

template <auto Member>
JsonPtr FlagJson(Vpn vpn)
{
    return JsonBool(vpn.*Member != 0);
}

// Null when the agent does not know.
template <auto Has, auto Member>
JsonPtr OptionalFlagJson(Vpn vpn)
{
    return vpn.*Has != 0 ? FlagJson<Member>(vpn) : nullptr;
}

template <auto Has, auto Member>
JsonPtr OptionalCountJson(Vpn vpn)
{
    return vpn.*Has != 0 ? CountJson<Member>(vpn) : nullptr;
}

template <auto Member>
JsonPtr OptionalTextJson(Vpn vpn)
{
    return vpn.*Member != nullptr ? JsonText(vpn.*Member) : nullptr;
}

JsonPtr ProblemsJson(Vpn vpn)
{
    JsonPtr list = NewJsonArray();
    for (const Kavel__Finding *problem : std::span(vpn.problems, vpn.n_problems)) {
        AddElement(list.get(), FindingJson(*problem));
    }
    return list;
}

// One field of the status, in the JSON object and, when it has a column, in the table.
struct StatusField {
    const char *name = nullptr;
    JsonPtr (*json)(Vpn vpn) = nullptr;
    TableColumn<VpnStatus> column{}; // without a title: no column
};

// `uptime_seconds` and `memory_bytes` have the unit in their name; the table shows them with a unit.
constexpr std::array kFields = {
    StatusField{"vpn", CountJson<&VpnStatus::vpn>, {"VPN", true, CountText<&VpnStatus::vpn>}},
    StatusField{"namespace", NamespaceJson, {"NAMESPACE", false, NamespaceText}},
    StatusField{"state", StateJson, {"STATE", false, StateText}},
    StatusField{"meant", FlagJson<&VpnStatus::meant>},
    StatusField{"starting", FlagJson<&VpnStatus::starting>},
    StatusField{"pid_file", FlagJson<&VpnStatus::pid_file>},
    StatusField{"pid", PidJson, {"PID", true, PidText}},
    StatusField{"alive", FlagJson<&VpnStatus::alive>},
    StatusField{"is_dnsmasq", FlagJson<&VpnStatus::is_dnsmasq>},
    StatusField{"in_namespace", FlagJson<&VpnStatus::in_namespace>},
    StatusField{"uptime_seconds",
                CountJson<&VpnStatus::uptime_seconds>,
                {"UPTIME", true, TextIfAlive<&VpnStatus::uptime_seconds, UptimeText>}},
    StatusField{"memory_bytes",
                CountJson<&VpnStatus::memory_bytes>,
                {"MEMORY", true, TextIfAlive<&VpnStatus::memory_bytes, MemoryText>}},
    StatusField{"hosts", CountJson<&VpnStatus::hosts>, {"HOSTS", true, CountText<&VpnStatus::hosts>}},
    StatusField{"mx_hosts", CountJson<&VpnStatus::mx_hosts>, {"MX", true, CountText<&VpnStatus::mx_hosts>}},
    StatusField{"servers", CountJson<&VpnStatus::servers>, {"SERVERS", true, CountText<&VpnStatus::servers>}},
    StatusField{"forwards", CountJson<&VpnStatus::forwards>, {"FORWARDS", true, CountText<&VpnStatus::forwards>}},
    StatusField{"routes", CountJson<&VpnStatus::routes>, {"ROUTES", true, CountText<&VpnStatus::routes>}},
    StatusField{
        "stored", OptionalFlagJson<&VpnStatus::has_stored, &VpnStatus::stored>, {"STORED", false, StoredFlagText}},
    StatusField{"stored_enable", OptionalFlagJson<&VpnStatus::has_stored_enable, &VpnStatus::stored_enable>},
    StatusField{"rule", OptionalFlagJson<&VpnStatus::has_rule, &VpnStatus::rule>, {"RULE", false, RuleText}},
    StatusField{"dnat", OptionalFlagJson<&VpnStatus::has_dnat, &VpnStatus::dnat>},
    StatusField{
        "answers", FlagJson<&VpnStatus::answers>, {"ANSWERS", false, TextIfAlive<&VpnStatus::answers, YesOrNo>}},
    StatusField{"problems", ProblemsJson},
};

// These are members of the JSON object only if the agent sent them.
constexpr std::array kSentFields = {
    StatusField{"ends", OptionalCountJson<&VpnStatus::has_ends, &VpnStatus::ends>},
    StatusField{"last_end_time", OptionalCountJson<&VpnStatus::has_last_end_time, &VpnStatus::last_end_time>},
    StatusField{"last_end", OptionalTextJson<&VpnStatus::last_end>},
    StatusField{"next_start_time", OptionalCountJson<&VpnStatus::has_next_start_time, &VpnStatus::next_start_time>},
    StatusField{"repairs", OptionalCountJson<&VpnStatus::has_repairs, &VpnStatus::repairs>},
    StatusField{"last_repair_time", OptionalCountJson<&VpnStatus::has_last_repair_time, &VpnStatus::last_repair_time>},
    StatusField{"last_repair", OptionalTextJson<&VpnStatus::last_repair>},
    StatusField{"revision", OptionalTextJson<&VpnStatus::revision>},
    StatusField{"undone_in_seconds",
                OptionalCountJson<&VpnStatus::has_undone_in_seconds, &VpnStatus::undone_in_seconds>},
};

constexpr bool HasColumn(const StatusField &field)
{
    return field.column.title != nullptr;
}

constexpr auto kVpnColumns = [] {
    std::array<TableColumn<VpnStatus>, std::ranges::count_if(kFields, HasColumn)> columns{};
    std::size_t next = 0;
    for (const StatusField &field : kFields) {
        if (HasColumn(field)) {
            columns[next++] = field.column;
        }
    }
    return columns;
}();

JsonPtr ObjectOf(Vpn vpn)
{
    JsonPtr object = NewJsonObject();
    for (const StatusField &field : kFields) {
        AddMember(object.get(), field.name, field.json(vpn));
    }
    for (const StatusField &field : kSentFields) {
        if (JsonPtr value = field.json(vpn)) {
            AddMember(object.get(), field.name, std::move(value));
        }
    }
    return object;
}

// Two units, the smaller with two digits.
std::string TwoUnits(std::uint64_t value, std::uint64_t large, char largeSign, std::uint64_t small, char smallSign)
{
    std::ostringstream text;
    text << value / large << largeSign << std::setw(2) << std::setfill('0') << value % large / small << smallSign;
    return text.str();
}

// "10 s"; from a minute on as UptimeText().
std::string DurationText(std::uint64_t seconds)
{
    return seconds < kMinute ? std::to_string(seconds) + " s" : UptimeText(seconds);
}

// Something that happened `count` times; when last, and what happened then.
struct Event {
    const char *verb = nullptr;
    std::uint32_t count = 0;
    std::optional<std::uint64_t> lastTime;
    const char *last = nullptr; // null: not known
};

// "ended 2 times, last 10 s ago: killed by signal 9". A time in the future (the clock was set back) was 0 s ago.
std::string EventText(const Event &event, std::uint64_t now)
{
    std::string text = event.verb + (" " + Counted(event.count, "time"));
    if (event.lastTime) {
        text += ", last " + DurationText(now - std::min(now, *event.lastTime)) + " ago";
    }
    return event.last != nullptr ? text + ": " + Printable(event.last) : text;
}

std::optional<std::uint64_t> Known(protobuf_c_boolean has, std::uint64_t value)
{
    return has != 0 ? std::optional(value) : std::nullopt;
}

std::string EndsText(Vpn vpn, std::uint64_t now)
{
    const auto lastTime = Known(vpn.has_last_end_time, vpn.last_end_time);
    const std::string text = EventText({"ended", vpn.ends, lastTime, vpn.last_end}, now);
    const bool startsAgain = vpn.has_next_start_time != 0 && vpn.next_start_time > now;
    return startsAgain ? text + "; starts again in " + DurationText(vpn.next_start_time - now) : text;
}

std::string RepairsText(Vpn vpn, std::uint64_t now)
{
    const auto lastTime = Known(vpn.has_last_repair_time, vpn.last_repair_time);
    return EventText({"repaired", vpn.repairs, lastTime, vpn.last_repair}, now);
}

// What is said about a VPN below the table.
std::string LinesBelow(Vpn vpn, const StatusView &view)
{
    std::vector<std::string> texts;
    std::ranges::transform(std::span(vpn.problems, vpn.n_problems), std::back_inserter(texts),
                           [](const Kavel__Finding *problem) { return Printable(problem->text); });
    if (vpn.ends != 0) {
        texts.push_back(EndsText(vpn, view.now));
    }
    if (vpn.repairs != 0) {
        texts.push_back(RepairsText(vpn, view.now));
    }
    if (vpn.has_undone_in_seconds != 0) {
        texts.push_back("not confirmed, undone in " + std::to_string(vpn.undone_in_seconds) + " s");
    }
    if (view.withRevisions && vpn.revision != nullptr) {
        texts.push_back("revision " + Printable(vpn.revision));
    }
    std::string lines;
    for (const std::string &text : texts) {
        lines += SubjectText(vpn.vpn) + ": " + text + "\n";
    }
    return lines;
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
    // Truncated, not rounded: 1023.99K must not become 1024.0K.
    const std::uint64_t tenth = bytes % unit / (unit / 10 + 1);
    return std::to_string(bytes / unit) + "." + std::to_string(tenth) + signs.front();
}

std::string StatusTable(StatusList vpns, const StatusView &view)
{
    std::ostringstream out;
    PrintTable(out, kVpnColumns, vpns, [&](std::size_t column, Vpn vpn) {
        return view.colour && kVpnColumns[column].text == StateText ? StateOf(vpn).colour : "";
    });
    std::string below;
    for (const Kavel__VpnStatus *vpn : vpns) {
        below += LinesBelow(*vpn, view);
    }
    out << (below.empty() ? "" : "\n") << below;
    return out.str();
}

std::string StatusJson(StatusList vpns)
{
    const JsonPtr list = NewJsonArray();
    for (const Kavel__VpnStatus *vpn : vpns) {
        AddElement(list.get(), ObjectOf(*vpn));
    }
    return JsonDocument(list.get());
}

std::string StartText(const Kavel__Start &start)
{
    return "starting: " + std::to_string(start.back) + " of " + std::to_string(start.total) + " VPNs are back\n";
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
