#include "report.h"

#include <algorithm>
#include <array>

#include "json_reader.h"
#include "json_writer.h"
#include "text_members.h"

namespace kavel::broker {

namespace {

struct ResultName {
    Result result;
    std::string_view name;
};

constexpr std::array<ResultName, 2> kResults{{{Result::kApplied, "applied"}, {Result::kRefused, "refused"}}};

Result ReadResult(const JsonValue &value)
{
    constexpr std::string_view kExpected = R"("applied" or "refused")";
    const auto *const known = FindByName(kResults, value.String(kExpected));
    if (known == kResults.end()) {
        value.RefuseKind(kExpected);
    }
    return known->result;
}

Revision ReadRevision(const JsonValue &value)
{
    return static_cast<Revision>(value.LargeNumber(1));
}

constexpr auto kOptional = kavel::Presence::kOptional;

constexpr std::array<JsonMember<Report>, 9> kReportMembers{{
    {"schema", kavel::Presence::kRequired, [](const JsonValue &value, Report &) { ExpectSchema(value); }},
    {"revision", kOptional, [](const JsonValue &value, Report &report) { report.revision = ReadRevision(value); }},
    {"result", kOptional, [](const JsonValue &value, Report &report) { report.result = ReadResult(value); }},
    {"reason", kOptional,
     [](const JsonValue &value, Report &report) { report.reason = OneLine(value.String(), kReportTextMax); }},
    {"time", kOptional, [](const JsonValue &value, Report &report) { report.time = value.LargeNumber(); }},
    {"inForce", kOptional, [](const JsonValue &value, Report &report) { report.inForce = ReadRevision(value); }},
    {"enabled", kOptional, [](const JsonValue &value, Report &report) { report.enabled = value.Bool(); }},
    {"running", kOptional, [](const JsonValue &value, Report &report) { report.running = value.Bool(); }},
    {"problem", kOptional,
     [](const JsonValue &value, Report &report) { report.problem = OneLine(value.String(), kReportTextMax); }},
}};

void ExpectTogether(const Report &report)
{
    if (!report.revision && !report.result && !report.time) {
        return;
    }
    const JsonPath outermost;
    const std::array<std::pair<bool, std::string_view>, 3> members{{{report.revision.has_value(), "revision"},
                                                                    {report.result.has_value(), "result"},
                                                                    {report.time.has_value(), "time"}}};
    for (const auto &[isThere, name] : members) {
        if (!isThere) {
            Refuse(outermost.Key(name), "is missing");
        }
    }
}

template <typename Number>
void AddNumber(json_object *object, const char *name, const std::optional<Number> &number)
{
    if (number) {
        AddMember(object, name, JsonNumber(*number));
    }
}

void AddFlag(json_object *object, const char *name, const std::optional<bool> &flag)
{
    if (flag) {
        AddMember(object, name, JsonBool(*flag));
    }
}

void AddLine(json_object *object, const char *name, const std::string &line)
{
    if (!line.empty()) {
        AddMember(object, name, JsonText(OneLine(line, kReportTextMax)));
    }
}

} // namespace

std::string_view NameOf(Result result)
{
    return std::ranges::find(kResults, result, &ResultName::result)->name;
}

std::string ReportText(const Report &report)
{
    const JsonPtr object = NewJsonDocument();
    AddNumber(object.get(), "revision", report.revision);
    if (report.result) {
        AddMember(object.get(), "result", JsonText(std::string(NameOf(*report.result))));
    }
    AddLine(object.get(), "reason", report.reason);
    AddNumber(object.get(), "inForce", report.inForce);
    AddFlag(object.get(), "enabled", report.enabled);
    AddFlag(object.get(), "running", report.running);
    AddNumber(object.get(), "time", report.time);
    AddLine(object.get(), "problem", report.problem);
    return JsonLine(object.get());
}

Report ParseReport(std::string_view text)
{
    const JsonPtr json = ParseBounded(text, kReportMax);
    Report report;
    ReadKnownMembers(JsonValue{json.get(), {}}, kReportMembers, report);
    ExpectTogether(report);
    return report;
}

} // namespace kavel::broker
