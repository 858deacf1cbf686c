// What a box publishes, as the controller reads it: a report or a presence that is accepted is one line, is within its
// limits when it is written, and is read as the same again. Every refusal is one line.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz.h"
#include "input_error.h"
#include "presence.h"
#include "report.h"

namespace {

using kavel::broker::ParsePresence;
using kavel::broker::ParseReport;

void CheckWritten(const std::string &Written, size_t Limit)
{
    fuzz::Require(Written.size() <= Limit, "what is written is over the limit for what is read");
    fuzz::Require(fuzz::IsOneLine(Written), "what is written is not one line");
}

void CheckReport(const kavel::broker::Report &Report)
{
    fuzz::Require(fuzz::IsOneLine(Report.reason) && fuzz::IsOneLine(Report.problem), "a text is not one line");
    fuzz::Require(Report.reason.size() <= kavel::broker::kReportTextMax &&
                      Report.problem.size() <= kavel::broker::kReportTextMax,
                  "a text is over its limit");
    fuzz::Require(Report.revision.has_value() == Report.result.has_value() &&
                      Report.revision.has_value() == Report.time.has_value(),
                  "revision, result and time are not together");
    const std::string Written = ReportText(Report);
    CheckWritten(Written, kavel::broker::kReportMax);
    fuzz::Require(ParseReport(Written) == Report, "a report is another one after it is written and read");
}

void CheckPresence(const kavel::broker::Presence &Presence)
{
    fuzz::Require(fuzz::IsOneLine(Presence.version), "the version is not one line");
    const std::string Written = PresenceText(Presence);
    CheckWritten(Written, kavel::broker::kPresenceMax);
    fuzz::Require(ParsePresence(Written) == Presence, "a presence is another one after it is written and read");
}

template <typename Check>
void OrRefused(Check DoCheck)
{
    try {
        DoCheck();
    } catch (const kavel::InputError &Refused) {
        if (!fuzz::IsOneLine(Refused.what())) {
            fuzz::Fail(std::string("a refusal is not one line: ") + Refused.what());
        }
    }
}

// What is accepted, so that a refusal of what was written is not taken for one of the input.
template <typename Parse>
auto Accepted(Parse DoParse, std::string_view Text) -> std::optional<decltype(DoParse(Text))>
{
    std::optional<decltype(DoParse(Text))> Read;
    OrRefused([&] { Read = DoParse(Text); });
    return Read;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    const std::string Text(Data, Data + Size);
    if (const auto Report = Accepted(ParseReport, Text)) {
        CheckReport(*Report);
    }
    if (const auto Presence = Accepted(ParsePresence, Text)) {
        CheckPresence(*Presence);
    }
    return 0;
}
