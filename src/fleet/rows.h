// How the state of boxes is shown: a row for each VPN, as a table or as lines.
#ifndef KAVEL_FLEET_ROWS_H
#define KAVEL_FLEET_ROWS_H

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "fleet_state.h"
#include "json_reader.h"

namespace kavel::fleet {

// Printable texts.
struct Row {
    std::string box;
    std::optional<std::uint32_t> vpn; // absent: nothing is known about a VPN of the box
    std::string online;               // "yes", "no", "no agent", "?"
    std::string wanted;               // a revision, or "-"
    std::string inForce;              // the same
    std::string result;
    bool isBehind = false;
    bool operator==(const Row &) const = default;
};

// The rows of a box in the order of its VPNs: those that are behind, or all.
[[nodiscard]] std::vector<Row> RowsOf(const std::string &name, const BoxState &box, bool all);

// The rows of all boxes, by name.
[[nodiscard]] std::vector<Row> RowsOf(const FleetState &state, bool all);

// "box-1 vpn 7: refused: ...; wanted 18, in force 17, online". One line.
[[nodiscard]] std::string LineOf(const Row &row);

// Titles and rows; nothing without rows. `widest`: the results are cut so that no line is longer; 0: they are not.
void PrintTable(std::ostream &out, std::span<const Row> rows, std::size_t widest);

// "1000 boxes, 990 online, 3 behind"
[[nodiscard]] std::string SummaryOf(const FleetCounts &counts);

// {"box": "branch-1", "online": true, ..., "vpns": [{"vpn": 7, "wanted": 18, "standing": "applied", ...}]}. The VPNs
// are those of RowsOf(). A member that is not known is left out.
[[nodiscard]] JsonPtr BoxJson(const std::string &name, const BoxState &box, bool all);

} // namespace kavel::fleet

#endif
