#include "status_fields.h"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <functional>
#include <iomanip>
#include <iterator>
#include <sstream>
#include <utility>

#include "history_entries.h"
#include "input_error.h"
#include "json_output.h"
#include "printable.h"

namespace kavel::ctl {

namespace {

constexpr const char *kNothing = "-";
constexpr std::uint64_t kMinute = 60;
constexpr std::uint64_t kHour = 60 * kMinute;
constexpr std::uint64_t kDay = 24 * kHour;
constexpr std::uint64_t kKibi = 1024;

using Vpn = const VpnStatus &;

struct StateStyle {
    std::string_view word;
    std::string_view colour;
};

// In the order of VpnState.
constexpr std::array<StateStyle, kVpnStates> kStateStyles = {{
    {"failed", "\033[31m"},
    {"degraded", "\033[35m"},
    {"starting", "\033[36m"},
    {"stopped", "\033[33m"},
    {"running", "\033[32m"},
    {"off", "\033[2m"},
}};

// What a member of the JSON object holds.

template <auto Member>
JsonPtr TextJson(Vpn vpn)
{
    return JsonText(vpn.*Member);
}

JsonPtr StateJson(Vpn vpn)
{
    return JsonText(std::string(StateWord(StateOf(vpn))));
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

JsonPtr LastNumberedJson(Vpn vpn)
{
    if (vpn.last_numbered == nullptr) {
        return nullptr;
    }
    JsonPtr object = NewJsonObject();
    AddEntryMembers(object.get(), *vpn.last_numbered);
    return object;
}

// What a cell of the table says.

std::string YesOrNo(bool value)
{
    return value ? "yes" : "no";
}

std::string TextOfJson(json_object *value)
{
    switch (json_object_get_type(value)) {
    case json_type_null:
        return kNothing;
    case json_type_boolean:
        return YesOrNo(json_object_get_boolean(value) != 0);
    default:
        return Printable(json_object_get_string(value));
    }
}

// The value of the JSON member.
template <auto Json>
std::string JsonCell(Vpn vpn)
{
    return TextOfJson(Json(vpn).get());
}

template <auto Member, auto Text>
std::string CellIfAlive(Vpn vpn)
{
    return vpn.alive != 0 ? Text(vpn.*Member) : kNothing;
}

std::string PidCell(Vpn vpn)
{
    return vpn.pid_file != 0 ? std::to_string(vpn.pid) : kNothing;
}

// A POP has two rules for the box's instance, and each is useless without the other.
std::string RuleCell(Vpn vpn)
{
    const bool isComplete = vpn.rule != 0 && (vpn.has_dnat == 0 || vpn.dnat != 0);
    return vpn.has_rule != 0 ? YesOrNo(isComplete) : kNothing;
}

// "12: applied"
std::string LastNumberedCell(Vpn vpn)
{
    const Kavel__HistoryEntry *last = vpn.last_numbered;
    return last != nullptr && last->revision != nullptr ? Printable(last->revision) + ": " + Printable(last->outcome)
                                                        : kNothing;
}

// "upstream-silent,rule-missing"
std::string ProblemsCell(Vpn vpn)
{
    std::string codes;
    for (const Kavel__Finding *problem : std::span(vpn.problems, vpn.n_problems)) {
        codes += (codes.empty() ? "" : ",") + Printable(problem->code);
    }
    return codes.empty() ? kNothing : codes;
}

// "2026-03-01T04:05:06", in the time zone of the box.
template <auto Has, auto Member>
std::string TimeCell(Vpn vpn)
{
    const auto seconds = static_cast<std::time_t>(vpn.*Member);
    std::tm local{};
    if (vpn.*Has == 0 || ::localtime_r(&seconds, &local) == nullptr) {
        return kNothing;
    }
    std::ostringstream text;
    text << std::put_time(&local, "%Y-%m-%dT%H:%M:%S");
    return text.str();
}

// Two units, the smaller with two digits.
std::string TwoUnits(std::uint64_t value, std::uint64_t large, char largeSign, std::uint64_t small, char smallSign)
{
    std::ostringstream text;
    text << value / large << largeSign << std::setw(2) << std::setfill('0') << value % large / small << smallSign;
    return text.str();
}

using V = VpnStatus;

template <auto Json>
constexpr StatusField Field(std::string_view name, std::string_view title, bool numeric = false,
                            std::string (*text)(Vpn) = JsonCell<Json>)
{
    return {.name = name, .title = title, .numeric = numeric, .json = Json, .text = text};
}

constexpr StatusField Default(StatusField field)
{
    field.isDefault = true;
    return field;
}

constexpr StatusField IfSent(StatusField field)
{
    field.isAlways = false;
    return field;
}

// `uptime_seconds` and `memory_bytes` have the unit in their name; the table shows them with a unit.
constexpr std::array kFields = {
    Default(Field<CountJson<&V::vpn>>("vpn", "VPN", true)),
    Default(Field<TextJson<&V::namespace_>>("namespace", "NAMESPACE")),
    Default(Field<StateJson>("state", "STATE")),
    Field<FlagJson<&V::meant>>("meant", "MEANT"),
    Field<FlagJson<&V::stopped>>("stopped", "STOPPED"),
    Field<FlagJson<&V::starting>>("starting", "STARTING"),
    Field<FlagJson<&V::pid_file>>("pid_file", "PID_FILE"),
    Field<CountJson<&V::pid>>("pid", "PID", true, PidCell),
    Field<FlagJson<&V::alive>>("alive", "ALIVE"),
    Field<FlagJson<&V::is_dnsmasq>>("is_dnsmasq", "IS_DNSMASQ"),
    Field<FlagJson<&V::in_namespace>>("in_namespace", "IN_NAMESPACE"),
    Default(Field<CountJson<&V::uptime_seconds>>("uptime_seconds", "UPTIME", true,
                                                 CellIfAlive<&V::uptime_seconds, UptimeText>)),
    Default(
        Field<CountJson<&V::memory_bytes>>("memory_bytes", "MEMORY", true, CellIfAlive<&V::memory_bytes, MemoryText>)),
    Default(Field<CountJson<&V::hosts>>("hosts", "HOSTS", true)),
    Field<CountJson<&V::mx_hosts>>("mx_hosts", "MX", true),
    Field<CountJson<&V::servers>>("servers", "SERVERS", true),
    Field<CountJson<&V::forwards>>("forwards", "FORWARDS", true),
    Field<CountJson<&V::routes>>("routes", "ROUTES", true),
    Default(Field<OptionalFlagJson<&V::has_stored, &V::stored>>("stored", "STORED")),
    Field<OptionalFlagJson<&V::has_stored_enable, &V::stored_enable>>("stored_enable", "STORED_ENABLE"),
    Default(Field<OptionalFlagJson<&V::has_rule, &V::rule>>("rule", "RULE", false, RuleCell)),
    Field<OptionalFlagJson<&V::has_dnat, &V::dnat>>("dnat", "DNAT"),
    Default(Field<FlagJson<&V::answers>>("answers", "ANSWERS", false, CellIfAlive<&V::answers, YesOrNo>)),
    Field<ProblemsJson>("problems", "PROBLEMS", false, ProblemsCell),
    IfSent(Field<OptionalCountJson<&V::has_ends, &V::ends>>("ends", "ENDS", true)),
    IfSent(Field<OptionalCountJson<&V::has_last_end_time, &V::last_end_time>>(
        "last_end_time", "LAST_END_TIME", false, TimeCell<&V::has_last_end_time, &V::last_end_time>)),
    IfSent(Field<OptionalTextJson<&V::last_end>>("last_end", "LAST_END")),
    IfSent(Field<OptionalCountJson<&V::has_next_start_time, &V::next_start_time>>(
        "next_start_time", "NEXT_START_TIME", false, TimeCell<&V::has_next_start_time, &V::next_start_time>)),
    IfSent(Field<OptionalCountJson<&V::has_repairs, &V::repairs>>("repairs", "REPAIRS", true)),
    IfSent(Field<OptionalCountJson<&V::has_last_repair_time, &V::last_repair_time>>(
        "last_repair_time", "LAST_REPAIR_TIME", false, TimeCell<&V::has_last_repair_time, &V::last_repair_time>)),
    IfSent(Field<OptionalTextJson<&V::last_repair>>("last_repair", "LAST_REPAIR")),
    IfSent(Field<OptionalTextJson<&V::revision>>("revision", "REVISION")),
    IfSent(Field<LastNumberedJson>("last_numbered", "LAST_NUMBERED", false, LastNumberedCell)),
    IfSent(Field<OptionalCountJson<&V::has_redirected, &V::redirected>>("redirected", "REDIRECTED", true)),
    IfSent(Field<OptionalCountJson<&V::has_undone_in_seconds, &V::undone_in_seconds>>("undone_in_seconds",
                                                                                      "UNDONE_IN_SECONDS")),
};

// "vpn, namespace, state"
std::string FieldNames()
{
    std::string names;
    for (const StatusField &field : kFields) {
        names.append(names.empty() ? "" : ", ").append(field.name);
    }
    return names;
}

bool IsTitle(std::string_view title, std::string_view name)
{
    return std::ranges::equal(title, name, std::equal_to{},
                              [](unsigned char sign) { return static_cast<char>(std::tolower(sign)); });
}

const StatusField *FieldNamed(std::string_view name, const std::string &option)
{
    const auto *const found = std::ranges::find_if(
        kFields, [name](const StatusField &field) { return field.name == name || IsTitle(field.title, name); });
    if (found == kFields.end()) {
        throw InputError(option + ": \"" + std::string(name) + "\" is not a column; the columns are " + FieldNames());
    }
    return found;
}

// A number, or else a text.
using SortKey = std::pair<std::uint64_t, std::string>;

SortKey KeyOf(const StatusField &field, Vpn vpn)
{
    if (field.json == StateJson) {
        return {static_cast<std::uint64_t>(StateOf(vpn)), ""};
    }
    const JsonPtr value = field.json(vpn);
    switch (json_object_get_type(value.get())) {
    case json_type_null:
        return {};
    case json_type_array:
        return {json_object_array_length(value.get()), ""};
    case json_type_object: // the last numbered message
        return {json_object_get_uint64(json_object_object_get(value.get(), "revision")), ""};
    case json_type_string:
        return {0, json_object_get_string(value.get())};
    default:
        return {json_object_get_uint64(value.get()), ""};
    }
}

} // namespace

VpnState StateOf(const VpnStatus &vpn)
{
    if (vpn.n_problems != 0) {
        const bool serves = vpn.meant != 0 && vpn.alive != 0 && vpn.answers != 0;
        return serves ? VpnState::kDegraded : VpnState::kFailed;
    }
    if (vpn.starting != 0) {
        return VpnState::kStarting;
    }
    if (vpn.alive != 0) {
        return VpnState::kRunning;
    }
    return vpn.meant != 0 || vpn.stopped != 0 ? VpnState::kStopped : VpnState::kOff;
}

std::string_view StateWord(VpnState state)
{
    return kStateStyles.at(static_cast<std::size_t>(state)).word;
}

std::string_view StateColour(VpnState state)
{
    return kStateStyles.at(static_cast<std::size_t>(state)).colour;
}

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

FieldList FieldsNamed(std::string_view names, const std::string &option)
{
    FieldList fields;
    while (true) {
        const std::size_t comma = names.find(',');
        fields.push_back(FieldNamed(names.substr(0, comma), option));
        if (comma == std::string_view::npos) {
            return fields;
        }
        names.remove_prefix(comma + 1);
    }
}

FieldList DefaultFields()
{
    FieldList fields = AllFields();
    std::erase_if(fields, [](const StatusField *field) { return !field->isDefault; });
    return fields;
}

FieldList AllFields()
{
    FieldList fields;
    std::ranges::transform(kFields, std::back_inserter(fields), [](const StatusField &field) { return &field; });
    return fields;
}

StatusOrder OrderNamed(std::string_view name, const std::string &option)
{
    const bool isDescending = name.starts_with('-');
    return {FieldNamed(name.substr(isDescending ? 1 : 0), option), isDescending};
}

void SortBy(std::vector<const VpnStatus *> &vpns, StatusOrder order)
{
    const auto key = [&order](const VpnStatus *vpn) { return KeyOf(*order.field, *vpn); };
    if (order.isDescending) {
        std::ranges::stable_sort(vpns, std::ranges::greater{}, key);
    } else {
        std::ranges::stable_sort(vpns, std::ranges::less{}, key);
    }
}

JsonPtr VpnJson(const VpnStatus &vpn, const FieldList &fields)
{
    JsonPtr object = NewJsonObject();
    for (const StatusField *field : fields) {
        JsonPtr value = field->json(vpn);
        if (field->isAlways || value) {
            AddMember(object.get(), std::string(field->name).c_str(), std::move(value));
        }
    }
    return object;
}

} // namespace kavel::ctl
