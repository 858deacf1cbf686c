#include "rows.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <ostream>

#include "json_writer.h"
#include "printable.h"
#include "table.h"

namespace kavel::fleet {

namespace {

std::string RevisionText(std::optional<broker::Revision> revision)
{
    return revision ? std::to_string(*revision) : "-";
}

std::string OnlineText(const BoxState &box)
{
    if (!box.presenceProblem.empty()) {
        return "?";
    }
    if (!box.IsOnline()) {
        return "no";
    }
    return box.presence->agent.value_or(true) ? "yes" : "no agent";
}

Row RowOf(const std::string &name, const BoxState &box, std::uint32_t number, const VpnState &vpn)
{
    const Verdict verdict = Judge(box, vpn);
    return {.box = name,
            .vpn = number,
            .online = OnlineText(box),
            .wanted = RevisionText(vpn.wanted),
            .inForce = RevisionText(vpn.report ? vpn.report->inForce : std::nullopt),
            .result = verdict.text,
            .isBehind = IsBehind(verdict.standing)};
}

// Of a box without VPNs, or with a problem of its own.
Row BoxRow(const std::string &name, const BoxState &box)
{
    const std::string problem = ProblemOf(box);
    return {.box = name,
            .vpn = std::nullopt,
            .online = OnlineText(box),
            .wanted = "-",
            .inForce = "-",
            .result = problem.empty() ? "nothing is published" : problem};
}

constexpr std::array kColumns = {
    ctl::TableColumn<Row>{"BOX", false, [](const Row &row) { return row.box; }},
    ctl::TableColumn<Row>{"VPN", true, [](const Row &row) { return row.vpn ? std::to_string(*row.vpn) : "-"; }},
    ctl::TableColumn<Row>{"ONLINE", false, [](const Row &row) { return row.online; }},
    ctl::TableColumn<Row>{"WANTED", true, [](const Row &row) { return row.wanted; }},
    ctl::TableColumn<Row>{"IN FORCE", true, [](const Row &row) { return row.inForce; }},
    ctl::TableColumn<Row>{"RESULT", false, [](const Row &row) { return row.result; }, true},
};

template <typename Value, typename Make>
void AddOptional(json_object *object, const char *name, const std::optional<Value> &value, Make make)
{
    if (value) {
        AddMember(object, name, make(*value));
    }
}

void AddText(json_object *object, const char *name, std::string_view text)
{
    if (!text.empty()) {
        AddMember(object, name, JsonText(std::string(text)));
    }
}

void AddReport(json_object *object, const broker::Report &report)
{
    AddOptional(object, "reported", report.revision, JsonUnsigned);
    if (report.result) {
        AddText(object, "result", broker::NameOf(*report.result));
    }
    AddText(object, "reason", report.reason);
    AddOptional(object, "in_force", report.inForce, JsonUnsigned);
    AddOptional(object, "enabled", report.enabled, JsonBool);
    AddOptional(object, "running", report.running, JsonBool);
    AddOptional(object, "time", report.time, JsonSigned);
    AddText(object, "problem", report.problem);
}

JsonPtr VpnJson(const BoxState &box, std::uint32_t number, const VpnState &vpn)
{
    const Verdict verdict = Judge(box, vpn);
    JsonPtr object = NewJsonObject();
    AddMember(object.get(), "vpn", JsonNumber(number));
    AddMember(object.get(), "behind", JsonBool(IsBehind(verdict.standing)));
    AddText(object.get(), "standing", NameOf(verdict.standing));
    AddText(object.get(), "text", verdict.text);
    AddOptional(object.get(), "wanted", vpn.wanted, JsonUnsigned);
    if (vpn.report) {
        AddReport(object.get(), *vpn.report);
    }
    return object;
}

} // namespace

std::vector<Row> RowsOf(const std::string &name, const BoxState &box, bool all)
{
    std::vector<Row> rows;
    std::ranges::transform(box.vpns, std::back_inserter(rows),
                           [&](const auto &entry) { return RowOf(name, box, entry.first, entry.second); });
    if (!all) {
        std::erase_if(rows, [](const Row &row) { return !row.isBehind; });
    }
    if (!ProblemOf(box).empty() || (all && box.vpns.empty())) {
        rows.push_back(BoxRow(name, box));
    }
    return rows;
}

std::vector<Row> RowsOf(const FleetState &state, bool all)
{
    std::vector<Row> rows;
    for (const auto &[name, box] : state.Boxes()) {
        std::ranges::move(RowsOf(name, box, all), std::back_inserter(rows));
    }
    return rows;
}

std::string LineOf(const Row &row)
{
    const std::string subject = row.vpn ? row.box + " vpn " + std::to_string(*row.vpn) : row.box;
    return subject + ": " + row.result + " (online: " + row.online + ", wanted: " + row.wanted +
           ", in force: " + row.inForce + ")";
}

void PrintTable(std::ostream &out, std::span<const Row> rows, std::size_t widest)
{
    if (rows.empty()) {
        return;
    }
    std::vector<const Row *> items;
    std::ranges::transform(rows, std::back_inserter(items), [](const Row &row) { return &row; });
    const ctl::Table<Row> table(kColumns, items, widest);
    table.Print(out, [](std::size_t /*column*/, const Row & /*row*/) { return ""; });
}

std::string SummaryOf(const FleetCounts &counts)
{
    const auto boxes = [](std::size_t count) { return std::to_string(count) + (count == 1 ? " box" : " boxes"); };
    return boxes(counts.boxes) + ": " + std::to_string(counts.online) + " online, " + std::to_string(counts.behind) +
           " behind";
}

JsonPtr BoxJson(const std::string &name, const BoxState &box, bool all)
{
    JsonPtr object = NewJsonObject();
    AddText(object.get(), "box", name);
    AddMember(object.get(), "online", JsonBool(box.IsOnline()));
    if (box.presence) {
        AddOptional(object.get(), "agent", box.presence->agent, JsonBool);
        AddText(object.get(), "version", box.presence->version);
        AddOptional(object.get(), "since", box.presence->time, JsonSigned);
    }
    AddText(object.get(), "problem", ProblemOf(box));
    JsonPtr vpns = NewJsonArray();
    for (const auto &[number, vpn] : box.vpns) {
        if (all || IsBehind(Judge(box, vpn).standing)) {
            AddElement(vpns.get(), VpnJson(box, number, vpn));
        }
    }
    AddMember(object.get(), "vpns", std::move(vpns));
    return object;
}

} // namespace kavel::fleet
