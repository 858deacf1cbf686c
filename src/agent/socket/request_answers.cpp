#include "socket/request_answers.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "log.h"

namespace kavel::agent {

Answer RefusalOf(std::uint32_t vpnId, std::int32_t result, std::optional<std::string> why)
{
    Answer answer = Refusal(result, std::move(why));
    answer.vpn = vpnId;
    return answer;
}

Answer NotConfigured(std::uint32_t vpnId)
{
    Answer answer = RefusalOf(vpnId, -ENOENT, "vpn " + std::to_string(vpnId) + " is not configured");
    answer.isUnknownVpn = true;
    return answer;
}

Answer MalformedMessage(Platform platform)
{
    return Refusal(-EINVAL, platform == Platform::kCpe ? "not a CPE message" : "not a POP message");
}

std::span<const std::uint8_t> MessageOf(const Kavel__Request &request)
{
    return {request.message.data, request.has_message != 0 ? request.message.len : 0};
}

Answer OutcomeOf(const Host &host, std::int32_t result, std::uint32_t vpnId)
{
    Answer answer;
    answer.result = result;
    answer.vpn = vpnId;
    if (result < 0) {
        answer.reason = host.moduleErrors.Cause(result);
    }
    return answer;
}

void LogOutcome(const Answer &answer, const char *done)
{
    const std::uint32_t vpnId = answer.vpn.value_or(0);
    if (answer.result >= 0) {
        Log(LogLevel::kNotice, "vpn %u: %s", vpnId, done);
        return;
    }
    const std::optional<std::string> &why = answer.reason ? answer.reason : answer.text;
    Log(LogLevel::kWarning, "vpn %u: refused (%d %s)%s%s", vpnId, answer.result, std::strerror(-answer.result),
        why ? ": " : "", why ? why->c_str() : "");
}

} // namespace kavel::agent
