#include "operator_commands.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <ostream>
#include <string_view>

#include "errors.h"
#include "json_output.h"
#include "number.h"
#include "output.h"
#include "printable.h"

namespace kavel::ctl {

namespace {

constexpr std::array<std::string_view, 4> kLogLevels = {"error", "warning", "notice", "debug"};
constexpr std::uint32_t kSecondsMax = 86400;

// "90", "90s", "10m", "2h" as seconds; nothing for every other text, and for a time that is not 1 s to 24 h.
std::optional<std::uint32_t> SecondsOf(std::string_view text)
{
    struct Unit {
        char letter;
        std::uint32_t seconds;
    };
    constexpr std::array<Unit, 3> kUnits = {{{'s', 1}, {'m', 60}, {'h', 3600}}};
    std::uint32_t unit = 1;
    if (const auto *const found = std::ranges::find(kUnits, text.empty() ? '\0' : text.back(), &Unit::letter);
        found != kUnits.end()) {
        unit = found->seconds;
        text.remove_suffix(1);
    }
    const auto number = WholeNumber<std::uint32_t>(text);
    const bool fits = number && *number > 0 && *number <= kSecondsMax / unit;
    return fits ? std::optional(*number * unit) : std::nullopt;
}

// "2026-05-01 12:30:00 UTC"
std::string TimeText(std::uint64_t time)
{
    const auto seconds = static_cast<std::time_t>(time);
    std::tm parts{};
    std::array<char, sizeof "2026-05-01 12:30:00 UTC "> text{};
    const bool isTold =
        ::gmtime_r(&seconds, &parts) != nullptr && std::strftime(text.data(), text.size(), "%F %T UTC", &parts) > 0;
    return isTold ? text.data() : std::to_string(time);
}

std::string LogText(const Kavel__LogState &log)
{
    const std::string level = Printable(log.level);
    const std::string configured = Printable(log.configured);
    if (log.has_until != 0) {
        return level + " until " + TimeText(log.until) + ", then " + configured;
    }
    return level == configured ? level : level + " until the agent reads its configuration again, then " + configured;
}

JsonPtr LogJson(const Kavel__LogState &log)
{
    JsonPtr document = NewJsonDocument();
    AddMember(document.get(), "level", JsonText(log.level));
    AddMember(document.get(), "configured", JsonText(log.configured));
    if (log.has_until != 0) {
        AddMember(document.get(), "until", JsonNumber(log.until));
    }
    return document;
}

void CheckLogLevel(const std::string &level)
{
    if (std::ranges::find(kLogLevels, level) == kLogLevels.end()) {
        throw InputError("log level: expected error, warning, notice or debug, not \"" + level + "\"");
    }
}

std::uint32_t LogSeconds(const std::string &time)
{
    const auto seconds = SecondsOf(time);
    if (!seconds) {
        throw InputError("--for: expected a time such as 90s, 10m or 2h, at most 24h, not \"" + time + "\"");
    }
    return *seconds;
}

} // namespace

int Flush(const Session &session, std::uint32_t vpn)
{
    const std::string subject = SubjectText(vpn);
    const ReplyPtr reply =
        ExchangeOne(session, NewRequest(KAVEL__REQUEST__VERB__FLUSH, vpn), subject + " to be flushed");
    if (reply->result < 0) {
        return ReportRefusal(session, subject, *reply);
    }
    if (session.json) {
        const JsonPtr document = NewJsonDocument();
        AddMember(document.get(), "vpn", JsonNumber(vpn));
        AddMember(document.get(), "flushed", JsonBool(true));
        session.out << JsonDocument(document.get());
    } else {
        session.out << subject << ": flushed\n";
    }
    return kDone;
}

int LogLevel(const Session &session, const std::optional<std::string> &level, const std::optional<std::string> &time)
{
    Kavel__Request request = NewRequest(KAVEL__REQUEST__VERB__LOG_LEVEL);
    std::string name = level.value_or("");
    if (level) {
        CheckLogLevel(name);
        request.level = name.data();
    }
    if (time) {
        if (!level) {
            throw InputError("--for: no level is named");
        }
        request.has_seconds = 1;
        request.seconds = LogSeconds(*time);
    }
    const ReplyPtr reply = ExchangeOne(session, request, "log level");
    if (reply->result < 0) {
        return ReportRefusal(session, "log level", *reply);
    }
    if (reply->log == nullptr) {
        throw AgentError("the agent's reply holds no level of the log");
    }
    if (session.json) {
        session.out << JsonDocument(LogJson(*reply->log).get());
    } else {
        session.out << "log level: " << LogText(*reply->log) << '\n';
    }
    return kDone;
}

} // namespace kavel::ctl
