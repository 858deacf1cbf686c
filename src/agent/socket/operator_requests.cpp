// Requests of an operator that change no configuration: an empty cache, and the level of the log.
#include <cerrno>
#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "log.h"
#include "socket/request_answers.h"
#include "socket/requests.h"

namespace kavel::agent {
namespace {

constexpr std::uint32_t kLogSecondsMax = 86400;

} // namespace

void Requests::HandleFlush(const Kavel__Request &request, ReceivedRequest received, bool wasQueued)
{
    if (request.has_vpn == 0 || !host_.config.Serves(request.vpn)) {
        received.respond(request.has_vpn == 0 ? Refusal(-EINVAL, "no vpn is named") : NotConfigured(request.vpn));
        return;
    }
    const std::string sender = received.frame.sender;
    RunInOrder(request.vpn, std::move(received), wasQueued, [&](const Respond &respond) {
        if (!supervisor_.FlushCache(request.vpn)) {
            respond(RefusalOf(request.vpn, -ESRCH, "no instance runs"));
            return;
        }
        Log(LogLevel::kNotice, "vpn %u: cache flushed, by %s", request.vpn, sender.c_str());
        Answer answer;
        answer.vpn = request.vpn;
        respond(answer);
    });
}

Answer Requests::HandleLogLevel(const Kavel__Request &request, const std::string &sender)
{
    if (request.level != nullptr) {
        const auto level = LogLevelByName(request.level);
        if (!level) {
            return Refusal(-EINVAL, "no such level of the log");
        }
        if (request.has_seconds != 0 && (request.seconds == 0 || request.seconds > kLogSecondsMax)) {
            return Refusal(-EINVAL, "a level holds for 1 to " + std::to_string(kLogSecondsMax) + " seconds");
        }
        const auto time =
            request.has_seconds != 0 ? std::optional(std::chrono::seconds(request.seconds)) : std::nullopt;
        logOverride_.Set(*level, time, sender);
    }
    Answer answer;
    answer.log = LogState{logOverride_.Level(), logOverride_.Configured(), logOverride_.Until()};
    return answer;
}

} // namespace kavel::agent
