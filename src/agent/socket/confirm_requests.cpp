// A message that has to be confirmed: its confirmation, and the way back without one.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>
#include <iterator>
#include <string>
#include <system_error>
#include <utility>

#include "frame.h"
#include "log.h"
#include "services/message_history.h"
#include "socket/request_answers.h"
#include "socket/requests.h"
#include "supervision/content.h"

namespace kavel::agent {
namespace {

// A request of the agent to itself.
ReceivedFrame FrameOfRequest(const Kavel__Request &request)
{
    const std::size_t size = kavel__request__get_packed_size(&request);
    std::vector<std::uint8_t> frame(control::kFrameHeaderSize + size);
    std::ranges::copy(control::EncodeFrameLength(size), frame.begin());
    kavel__request__pack(&request, frame.data() + control::kFrameHeaderSize);
    return {std::move(frame), kSentByAgent};
}

std::string WhyOf(const Answer &answer)
{
    return answer.reason.value_or(answer.text.value_or(std::strerror(-answer.result)));
}

} // namespace

void Requests::HandleConfirm(const Kavel__Request &request, ReceivedRequest received, bool wasQueued)
{
    if (request.has_vpn == 0 || !host_.config.Serves(request.vpn)) {
        received.respond(request.has_vpn == 0 ? Refusal(-EINVAL, "no vpn is named") : NotConfigured(request.vpn));
        return;
    }
    const std::string sender = received.frame.sender;
    RunInOrder(request.vpn, std::move(received), wasQueued,
               [&](const Respond &respond) { respond(Confirm(request.vpn, sender)); });
}

Answer Requests::Confirm(std::uint32_t vpnId, const std::string &sender)
{
    if (!supervisor_.Confirmation(vpnId)) {
        return RefusalOf(vpnId, -ENOENT, "no message waits for its confirmation");
    }
    Answer answer;
    answer.vpn = vpnId;
    try {
        if (auto problem = supervisor_.Confirm(vpnId)) {
            Log(LogLevel::kWarning, "vpn %u: %s", vpnId, problem->c_str());
            answer.notes.push_back(*std::move(problem));
        }
    } catch (const std::system_error &failure) {
        return RefusalOf(vpnId, -failure.code().value(), failure.what());
    }
    HistoryEntry entry;
    entry.time = std::time(nullptr);
    entry.peer = sender;
    entry.outcome = kConfirmedOutcome;
    AddToHistory(vpnId, entry);
    return answer;
}

// Called again until it has succeeded: what is in force is not confirmed then any more.
bool Requests::BeginUndo(std::uint32_t vpnId)
{
    const auto awaited = supervisor_.Confirmation(vpnId);
    if (!awaited || !queues_.IsEmpty(vpnId)) {
        return false;
    }
    try {
        const auto before = supervisor_.Before(vpnId);
        if (before) {
            ApplyBefore(vpnId, *before, awaited->seconds);
        } else {
            StopUnconfirmed(vpnId, awaited->seconds);
        }
    } catch (const std::exception &failure) {
        Log(LogLevel::kError, "vpn %u: not confirmed within %u s, but what was in force before cannot be read: %s",
            vpnId, awaited->seconds, failure.what());
    }
    return true;
}

// An instance may not run, or run with what it has read at its start: it is started again.
void Requests::ApplyBefore(std::uint32_t vpnId, const BeforeUnconfirmed &before, std::uint32_t seconds)
{
    std::vector<std::uint8_t> bytes =
        WithStart(host_.config.platform, MessageOfContent(host_, module_, vpnId, before.content));
    std::optional<std::string> revision = before.facts.revision;
    Kavel__Request request = KAVEL__REQUEST__INIT;
    request.verb = KAVEL__REQUEST__VERB__APPLY;
    request.has_message = 1;
    request.message = {bytes.size(), bytes.data()};
    request.revision = revision ? revision->data() : nullptr;
    Handle(FrameOfRequest(request), [this, vpnId, seconds](const Answer &answer) {
        host_.numbered.Undone(vpnId);
        if (answer.result < 0) {
            Log(LogLevel::kError, "vpn %u: not confirmed within %u s, but the message before it is refused: %s", vpnId,
                seconds, WhyOf(answer).c_str());
        } else {
            Log(LogLevel::kWarning, "vpn %u: not confirmed within %u s; the message before it is in force again", vpnId,
                seconds);
        }
    });
}

void Requests::StopUnconfirmed(std::uint32_t vpnId, std::uint32_t seconds)
{
    Kavel__Request request = KAVEL__REQUEST__INIT;
    request.verb = KAVEL__REQUEST__VERB__STOP;
    request.has_vpn = 1;
    request.vpn = vpnId;
    Handle(FrameOfRequest(request), [this, vpnId, seconds](const Answer &answer) {
        HistoryEntry entry;
        entry.time = std::time(nullptr);
        entry.peer = kSentByAgent;
        entry.result = answer.result;
        entry.outcome = answer.text ? "not confirmed, NOT STOPPED: " + *answer.text : "not confirmed, stopped";
        AddToHistory(vpnId, entry);
        host_.numbered.Undone(vpnId);
        Log(LogLevel::kWarning, "vpn %u: not confirmed within %u s; nothing was in force before it: stopped%s%s", vpnId,
            seconds, answer.text ? "; " : "", answer.text.value_or("").c_str());
    });
}

} // namespace kavel::agent
