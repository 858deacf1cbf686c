#include "fleet_status_command.h"

#include <algorithm>
#include <iterator>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "fleet_errors.h"
#include "fleet_view.h"
#include "json_writer.h"
#include "rows.h"

namespace kavel::fleet {

namespace {

std::vector<std::string> UnknownBoxes(const FleetState &state, const std::vector<std::string> &boxes)
{
    std::vector<std::string> unknown;
    std::ranges::copy_if(boxes, std::back_inserter(unknown),
                         [&state](const std::string &box) { return state.Find(box) == nullptr; });
    return unknown;
}

void PrintText(const Console &console, const FleetState &state, const FleetCounts &counts,
               const std::vector<std::string> &unknown, bool all)
{
    const std::vector<Row> rows = RowsOf(state, all);
    PrintTable(console.out, rows, 0);
    console.out << (rows.empty() ? "" : "\n") << SummaryOf(counts) << '\n';
    for (const std::string &box : unknown) {
        console.out << box << ": nothing is known about it\n";
    }
}

void PrintJson(const Console &console, const FleetState &state, const FleetCounts &counts,
               const std::vector<std::string> &unknown, bool all)
{
    const JsonPtr document = NewJsonDocument();
    AddMember(document.get(), "known", JsonNumber(counts.boxes));
    AddMember(document.get(), "online", JsonNumber(counts.online));
    AddMember(document.get(), "behind", JsonNumber(counts.behind));
    JsonPtr boxes = NewJsonArray();
    for (const auto &[name, box] : state.Boxes()) {
        if (all || IsBehind(box) || !ProblemOf(box).empty()) {
            AddElement(boxes.get(), BoxJson(name, box, all));
        }
    }
    AddMember(document.get(), "boxes", std::move(boxes));
    JsonPtr names = NewJsonArray();
    for (const std::string &box : unknown) {
        AddElement(names.get(), JsonText(box));
    }
    AddMember(document.get(), "unknown", std::move(names));
    console.out << JsonDocument(document.get());
}

} // namespace

int FleetStatus(const Console &console, const BrokerOptions &broker, const FleetStatusOptions &options)
{
    const std::vector<std::string> boxes = SelectedBoxes(options.selection);
    Connection connection(console, LoadSettings(broker), options.patience);
    const FleetState state = LookAtFleet(connection, boxes);
    const FleetCounts counts = CountsOf(state);
    const std::vector<std::string> unknown = UnknownBoxes(state, boxes);
    const bool all = options.all || !options.selection.boxes.empty();
    (console.json ? PrintJson : PrintText)(console, state, counts, unknown, all);
    return counts.behind > 0 || !unknown.empty() ? kBehind : kDone;
}

} // namespace kavel::fleet
