// What `vqctl status` knows about a VPN, field by field. A field is a member of the JSON and can be a column of the
// table.
#ifndef KAVEL_CTL_STATUS_FIELDS_H
#define KAVEL_CTL_STATUS_FIELDS_H

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "control.pb-c.h"
#include "json_reader.h"

namespace kavel::ctl {

using VpnStatus = Kavel__VpnStatus;
using StatusList = std::span<const VpnStatus *const>;

// The state of a VPN, in one word. The worst comes first.
enum class VpnState : std::uint8_t {
    kFailed,   // it has problems, and is not degraded
    kDegraded, // it has problems, but its instance is meant to run, runs and answers
    kStarting, // no problem; its instance was launched and has not written its pid file yet
    kStopped,  // no problem; it was meant to run until `vqctl stop`, and nothing runs
    kRunning,  // no problem; its instance runs
    kOff,      // no problem; nothing is meant to run, and nothing runs
};
inline constexpr std::size_t kVpnStates = 6;

[[nodiscard]] VpnState StateOf(const VpnStatus &vpn);

// "failed"
[[nodiscard]] std::string_view StateWord(VpnState state);

// The escape sequence of its colour.
[[nodiscard]] std::string_view StateColour(VpnState state);

// "45s", "3m12s", "2h05m", "4d03h".
[[nodiscard]] std::string UptimeText(std::uint64_t seconds);

// "512B", "1.8M"; the units are powers of 1024.
[[nodiscard]] std::string MemoryText(std::uint64_t bytes);

struct StatusField {
    std::string_view name;                               // of the JSON member
    std::string_view title;                              // of the column
    bool numeric = false;                                // the column is aligned to the right
    JsonPtr (*json)(const VpnStatus &vpn) = nullptr;     // an empty JsonPtr is the JSON null
    std::string (*text)(const VpnStatus &vpn) = nullptr; // a cell of the column
    bool isAlways = true;                                // false: it is a member only if the agent sent it
    bool isDefault = false;                              // it is a column if no columns are asked for
};

using FieldList = std::vector<const StatusField *>;

// The fields that `names` lists, "vpn,state,memory": each is the name of a JSON member, or the title of a column in
// small letters. Throws InputError, which begins with `option` and lists the names, for an unknown one.
[[nodiscard]] FieldList FieldsNamed(std::string_view names, const std::string &option);

// The fields that are columns if no columns are asked for, and all fields.
[[nodiscard]] FieldList DefaultFields();
[[nodiscard]] FieldList AllFields();

struct StatusOrder {
    const StatusField *field = nullptr;
    bool isDescending = false;
};

// "memory"; "-memory": in descending order. Throws InputError as FieldsNamed().
[[nodiscard]] StatusOrder OrderNamed(std::string_view name, const std::string &option);

// Equal ones keep their order. States are sorted by how bad they are, the worst first; what is absent counts as 0 or as
// an empty text.
void SortBy(std::vector<const VpnStatus *> &vpns, StatusOrder order);

// The members of a VPN's object that are `fields`.
[[nodiscard]] JsonPtr VpnJson(const VpnStatus &vpn, const FieldList &fields);

} // namespace kavel::ctl

#endif
