// The way of an APPLY to its turn, and what is remembered of it.
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "log.h"
#include "numeric_revision.h"
#include "services/message_history.h"
#include "services/numbered_messages.h"
#include "socket/apply_form.h"
#include "socket/request_answers.h"
#include "socket/requests.h"

namespace kavel::agent {
namespace {

// For the history: what a client was told.
std::string OutcomeText(const Answer &answer, std::optional<std::uint32_t> confirmSeconds)
{
    if (answer.result < 0) {
        return "refused: " + answer.reason.value_or(answer.text.value_or(std::strerror(-answer.result)));
    }
    const bool isRunning = answer.running.value_or(false);
    const bool isAsWanted = answer.enabled.value_or(isRunning) == isRunning;
    const std::string applied =
        confirmSeconds ? kToBeConfirmed + std::to_string(*confirmSeconds) + " s" : std::string("applied");
    return isAsWanted ? applied
                      : applied + (isRunning ? ", STILL RUNNING: " : ", NOT RUNNING: ") + answer.text.value_or("");
}

// Without its message, and without what is known when it is answered.
HistoryEntry EntryOf(const Kavel__Request &request, std::string sender)
{
    HistoryEntry entry;
    entry.peer = std::move(sender);
    entry.revision = RevisionOf(request);
    entry.messageBytes = MessageOf(request).size();
    return entry;
}

void Complete(HistoryEntry &entry, const Answer &answer, std::optional<std::uint32_t> confirmSeconds)
{
    entry.time = std::time(nullptr);
    entry.result = answer.result;
    entry.outcome = OutcomeText(answer, confirmSeconds);
}

} // namespace

void Requests::HandleApply(const Kavel__Request &request, ReceivedRequest received, bool wasQueued)
{
    const Platform platform = host_.config.platform;
    if (!wasQueued) {
        received.respond = messages_.Counting(received.respond);
    }
    if (auto objection = PlatformObjection(request, platform)) {
        received.respond(Refusal(-EINVAL, std::move(objection)));
        return;
    }
    auto unpacked = UnpackControllerMessage(platform, MessageOf(request));
    if (!unpacked) {
        received.respond(MalformedMessage(platform));
        return;
    }
    const auto message = std::make_shared<const ControllerMessage>(*std::move(unpacked));
    if (auto objection = FormObjection(request, message->vpn)) {
        received.respond(RefusalOf(message->vpn, -EINVAL, std::move(objection)));
        return;
    }
    if (!host_.config.Serves(message->vpn)) {
        received.respond(RefuseUnconfigured(message->vpn, request, received.frame.sender));
        return;
    }
    if (!wasQueued && !IsOnlyNewer(request)) {
        messages_.AskedFor(message->vpn, RevisionOf(request));
    }
    const std::string sender = received.frame.sender;
    RunInOrder(message->vpn, std::move(received), wasQueued, [&](const Respond &respond) {
        if (const auto refusal = NewerObjection(message->vpn, request)) {
            respond(*refusal);
        } else {
            Apply(message, request, Recorded(*message, request, sender, respond));
        }
    });
}

// Why a message that is to be applied only if it is newer is not applied. What is known about those before must be
// complete: it is better to be asked again than to apply a message twice.
std::optional<Answer> Requests::NewerObjection(std::uint32_t vpnId, const Kavel__Request &request)
{
    if (!IsOnlyNewer(request)) {
        return std::nullopt;
    }
    try {
        const NumberedMessage *last = host_.numbered.Last(vpnId);
        if (last != nullptr && NumericRevision(request.revision) <= last->number) {
            return NotNewer(vpnId, request, *last);
        }
        messages_.AskedFor(vpnId, RevisionOf(request));
        return std::nullopt;
    } catch (const std::system_error &failure) {
        Answer answer = RefusalForNow(-EAGAIN, "the revisions that were applied before cannot be read: " +
                                                   std::string(failure.what()));
        answer.vpn = vpnId;
        LogOutcome(answer, "");
        return answer;
    }
}

Answer Requests::NotNewer(std::uint32_t vpnId, const Kavel__Request &request, const NumberedMessage &last) const
{
    Answer answer =
        RefusalOf(vpnId, -EALREADY,
                  "revision " + std::string(request.revision) + " is not newer than " + std::to_string(last.number) +
                      ", which was " + (last.entry.result >= 0 ? "applied" : "refused"));
    answer.isNotNewer = true;
    answer.history.push_back({vpnId, last.entry, host_.config.platform, last.isUndone});
    const InForce *inForce = supervisor_.InForceOf(vpnId);
    answer.enabled = inForce != nullptr && inForce->enables;
    answer.running = instances_.IsRunning(vpnId);
    answer.inForceRevision = inForce != nullptr ? inForce->revision : std::nullopt;
    return answer;
}

Answer Requests::RefuseUnconfigured(std::uint32_t vpnId, const Kavel__Request &request, const std::string &sender)
{
    if (auto objection = NewerObjection(vpnId, request)) {
        return *std::move(objection);
    }
    Answer answer = NotConfigured(vpnId);
    HistoryEntry entry = EntryOf(request, sender);
    Complete(entry, answer, std::nullopt);
    host_.numbered.Note(vpnId, entry);
    return answer;
}

// An answer that is kept in the history when it is sent.
Respond Requests::Recorded(const ControllerMessage &message, const Kavel__Request &request, std::string sender,
                           const Respond &respond)
{
    HistoryEntry entry = EntryOf(request, std::move(sender));
    const auto bytes = MessageOf(request);
    if (host_.config.persistence && bytes.size() <= kHistoryMessageMax) {
        entry.message.emplace(bytes.begin(), bytes.end());
    }
    return
        [this, vpnId = message.vpn, seconds = ConfirmSecondsOf(request), entry, respond](const Answer &answer) mutable {
            Complete(entry, answer, seconds);
            AddToHistory(vpnId, entry);
            Answer full = answer;
            const InForce *inForce = supervisor_.InForceOf(vpnId);
            full.inForceRevision = inForce != nullptr ? inForce->revision : std::nullopt;
            respond(full);
        };
}

void Requests::AddToHistory(std::uint32_t vpnId, const HistoryEntry &entry)
{
    host_.numbered.Note(vpnId, entry);
    if (!host_.config.persistence) {
        return;
    }
    try {
        host_.store.AddToHistory(vpnId, entry);
    } catch (const std::system_error &failure) {
        Log(LogLevel::kDebug, "vpn %u: the message is not in the history: %s", vpnId, failure.what());
    }
}

} // namespace kavel::agent
