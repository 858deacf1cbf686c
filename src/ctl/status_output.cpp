#include "status_output.h"

#include <algorithm>
#include <cstdlib>
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

using Vpn = const VpnStatus &;

constexpr std::uint64_t kTwoUnitsFrom = 60; // seconds

// "10 s"; from a minute on as UptimeText().
std::string DurationText(std::uint64_t seconds)
{
    return seconds < kTwoUnitsFrom ? std::to_string(seconds) + " s" : UptimeText(seconds);
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

// "vpn 7: upstream-silent: upstream 10.7.0.53 does not answer", and what mends it on the next line.
std::string ProblemText(Vpn vpn, const Kavel__Finding &problem)
{
    std::string text = SubjectText(vpn.vpn) + ": " + Printable(problem.code) + ": " + Printable(problem.text) + "\n";
    return problem.remedy != nullptr ? text + "    do: " + Printable(problem.remedy) + "\n" : text;
}

// What is said about a VPN below the table.
std::string LinesBelow(Vpn vpn, const StatusView &view)
{
    std::string lines;
    for (const Kavel__Finding *problem : std::span(vpn.problems, vpn.n_problems)) {
        lines += ProblemText(vpn, *problem);
    }
    const std::string subject = SubjectText(vpn.vpn) + ": ";
    if (vpn.ends != 0) {
        lines += subject + EndsText(vpn, view.now) + "\n";
    }
    if (vpn.repairs != 0) {
        lines += subject + RepairsText(vpn, view.now) + "\n";
    }
    if (vpn.has_undone_in_seconds != 0) {
        lines += subject + "not confirmed, undone in " + std::to_string(vpn.undone_in_seconds) + " s\n";
    }
    if (view.withRevisions && vpn.revision != nullptr) {
        lines += subject + "revision " + Printable(vpn.revision) + "\n";
    }
    return lines;
}

JsonPtr AgentJson(const Kavel__AgentStatus &agent)
{
    JsonPtr object = NewJsonObject();
    AddMember(object.get(), "version", JsonText(agent.version));
    AddMember(object.get(), "uptime_seconds", JsonNumber(agent.uptime_seconds));
    AddMember(object.get(), "memory_bytes", JsonNumber(agent.memory_bytes));
    AddMember(object.get(), "restarts", JsonNumber(agent.restarts));
    return object;
}

JsonPtr StartJson(const Kavel__Start &start)
{
    JsonPtr object = NewJsonObject();
    AddMember(object.get(), "back", JsonNumber(start.back));
    AddMember(object.get(), "total", JsonNumber(start.total));
    return object;
}

} // namespace

std::string StatusTable(StatusList vpns, const StatusView &view)
{
    std::vector<TableColumn<VpnStatus>> columns;
    std::ranges::transform(view.fields, std::back_inserter(columns), [](const StatusField *field) {
        return TableColumn<VpnStatus>{field->title, field->numeric, field->text, field->title == "NAMESPACE"};
    });
    std::ostringstream out;
    const Table<VpnStatus> table(columns, vpns, view.widest);
    table.Print(out, [&](std::size_t column, Vpn vpn) {
        const bool isColoured = view.colour && view.fields[column]->title == "STATE";
        return std::string(isColoured ? StateColour(StateOf(vpn)) : "");
    });
    return out.str();
}

std::string StatusLines(StatusList vpns, const StatusView &view)
{
    std::string lines;
    for (const VpnStatus *vpn : vpns) {
        lines += LinesBelow(*vpn, view);
    }
    return lines;
}

std::string SummaryLine(StatusList vpns)
{
    using enum VpnState;
    std::string counts;
    for (const VpnState state : {kRunning, kDegraded, kFailed, kStarting, kStopped, kOff}) {
        const auto count = std::ranges::count(vpns, state, [](const VpnStatus *vpn) { return StateOf(*vpn); });
        if (count != 0) {
            counts += (counts.empty() ? ": " : ", ") + std::to_string(count) + " " + std::string(StateWord(state));
        }
    }
    return Counted(vpns.size(), "VPN") + counts + "\n";
}

void AddStatus(json_object *document, const Kavel__Reply &reply, StatusList vpns, const FieldList &fields)
{
    if (reply.agent != nullptr) {
        AddMember(document, "agent", AgentJson(*reply.agent));
    }
    if (reply.start != nullptr) {
        AddMember(document, "start", StartJson(*reply.start));
    }
    JsonPtr list = NewJsonArray();
    for (const VpnStatus *vpn : vpns) {
        AddElement(list.get(), VpnJson(*vpn, fields));
    }
    AddMember(document, "vpns", std::move(list));
}

std::string StartText(const Kavel__Start &start)
{
    return "starting: " + std::to_string(start.back) + " of " + std::to_string(start.total) + " VPNs are back\n";
}

bool AnyProblem(StatusList vpns)
{
    return std::ranges::any_of(vpns, [](const VpnStatus *vpn) { return vpn->n_problems != 0; });
}

bool WantsColour(int fd)
{
    const char *refused = std::getenv("NO_COLOR");
    return (refused == nullptr || *refused == '\0') && ::isatty(fd) == 1;
}

} // namespace kavel::ctl
