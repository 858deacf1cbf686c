// `vqctl rollback`: a message of the history is applied again.
#include <algorithm>
#include <ostream>
#include <span>
#include <utility>

#include "apply_output.h"
#include "change_commands.h"
#include "errors.h"
#include "history_entries.h"
#include "json_output.h"
#include "message_changes.h"
#include "operation.h"
#include "output.h"

namespace kavel::ctl {

namespace {

// What the agent says about a VPN. The replies own what the other members point at.
struct Situation {
    ReplyPtr historyReply;
    ReplyPtr inForceReply;
    HistoryEntries history;
    std::optional<PackedConf> inForce;
    bool isRunning = false;
};

struct OldMessage {
    std::uint32_t number = 0;
    const Kavel__HistoryEntry *entry = nullptr;
    PackedConf message;
};

// Nothing when the agent refuses; its exit code is in `code` then.
ReplyPtr AskOrReport(const Session &session, Client &client, Kavel__Request__Verb verb, std::uint32_t vpn, int &code)
{
    ReplyPtr reply = Exchange(session, client, PackRequest(NewRequest(verb, vpn)), "what " + SubjectText(vpn) + " has");
    if (reply->result >= 0) {
        return reply;
    }
    const int refused = ReportRefusal(session, SubjectText(vpn), *reply);
    code = reply->start != nullptr ? kStarting : refused;
    return nullptr;
}

std::optional<Situation> SituationOf(const Session &session, Client &client, std::uint32_t vpn, int &code)
{
    Situation situation;
    situation.historyReply = AskOrReport(session, client, KAVEL__REQUEST__VERB__HISTORY, vpn, code);
    if (situation.historyReply) {
        situation.inForceReply = AskOrReport(session, client, KAVEL__REQUEST__VERB__IN_FORCE, vpn, code);
    }
    const ReplyPtr status =
        situation.inForceReply ? AskOrReport(session, client, KAVEL__REQUEST__VERB__STATUS, vpn, code) : nullptr;
    if (!status) {
        return std::nullopt;
    }
    situation.history = {situation.historyReply->history, situation.historyReply->n_history};
    situation.inForce = InForceIn(*situation.inForceReply);
    situation.isRunning = std::ranges::any_of(std::span(status->vpns, status->n_vpns), [](const Kavel__VpnStatus *one) {
        return one->alive != 0 && one->is_dnsmasq != 0 && one->in_namespace != 0;
    });
    return situation;
}

// Whether the message is the one in force, as far as that can be known of one that was not kept.
bool IsInForce(const Kavel__HistoryEntry &entry, const Situation &situation, std::uint32_t number)
{
    if (entry.has_message == 0) {
        return situation.inForce && entry.bytes == situation.inForce->bytes.size();
    }
    return situation.inForce && Compare(situation.inForce, MessageOf(entry, number)).changes.empty();
}

// The newest message that was applied and differs from what is in force. Throws InputError if it was not kept.
std::optional<OldMessage> NewestOther(const Situation &situation)
{
    for (std::uint32_t number = 1; number <= situation.history.size(); ++number) {
        const Kavel__HistoryEntry &entry = EntryOf(situation.history, number);
        const bool wasApplied = entry.result >= 0 && entry.undone == 0 && entry.bytes != 0;
        if (wasApplied && !IsInForce(entry, situation, number)) {
            return OldMessage{number, &entry, MessageOf(entry, number)};
        }
    }
    return std::nullopt;
}

// The message with the operation that it needs now.
std::vector<std::uint8_t> BytesToApply(const PackedConf &message, const Situation &situation)
{
    if (message.isForPop) {
        return {message.bytes.begin(), message.bytes.end()};
    }
    const bool enables = UnpackCpe(message)->enable != 0;
    const bool needsStart = Compare(situation.inForce, message).needsStart;
    return WithOperation(message, enables && (needsStart || !situation.isRunning) ? kReboot : kReload);
}

// "message 2 of 2026-03-01 14:05:09 (r1)"
std::string NameOf(const OldMessage &old)
{
    return "message " + std::to_string(old.number) + " of " + TimeText(old.entry->time) +
           (old.entry->revision != nullptr ? " (" + Printable(old.entry->revision) + ")" : "");
}

int PrintOutcome(const Session &session, std::uint32_t vpn, const OldMessage &old, const Comparison &comparison,
                 const Kavel__Reply &reply)
{
    if (!session.json) {
        return ReportApplied(session, SubjectText(vpn), reply);
    }
    const JsonPtr document = NewJsonDocument();
    AddMember(document.get(), "vpn", JsonNumber(vpn));
    AddMember(document.get(), "number", JsonNumber(old.number));
    AddMember(document.get(), "difference", ComparisonJson(comparison));
    AddMember(document.get(), "result", JsonNumber(reply.result));
    AddMember(document.get(), "outcome",
              JsonText(reply.result < 0 ? "refused " + RefusalText(reply) : AppliedText(reply)));
    session.out << JsonDocument(document.get());
    return OutcomeOf(reply);
}

int ApplyAgain(const Session &session, Client &client, std::uint32_t vpn, const OldMessage &old,
               const Situation &situation)
{
    std::vector<std::uint8_t> bytes = BytesToApply(old.message, situation);
    Comparison comparison = Compare(situation.inForce, {bytes, old.message.isForPop});
    comparison.needsStart = comparison.asksForStart; // it is not asked for in vain
    if (!session.json) {
        session.out << SubjectText(vpn) << ": back to " << NameOf(old) << ": " << SummaryText(comparison) << '\n'
                    << ChangeLines(comparison);
        session.out.flush();
    }
    Kavel__Request request = NewRequest(KAVEL__REQUEST__VERB__APPLY);
    request.has_message = 1;
    request.message = {bytes.size(), bytes.data()};
    request.revision = old.entry->revision;
    const ReplyPtr reply = Exchange(session, client, PackRequest(request), NameOf(old));
    return PrintOutcome(session, vpn, old, comparison, *reply);
}

} // namespace

int Rollback(const Session &session, std::uint32_t vpn, std::optional<std::uint32_t> number)
{
    Client client = Client::Connect(session.socket, session.timeout);
    int code = kDone;
    const auto situation = SituationOf(session, client, vpn, code);
    if (!situation) {
        return code;
    }
    if (number) {
        const Kavel__HistoryEntry &entry = EntryOf(situation->history, *number);
        return ApplyAgain(session, client, vpn, {*number, &entry, MessageOf(entry, *number)}, *situation);
    }
    const auto old = NewestOther(*situation);
    if (!old) {
        session.err << "vqctl: " << SubjectText(vpn)
                    << ": the history has no message that was applied and differs from what is in force\n";
        return kRefused;
    }
    return ApplyAgain(session, client, vpn, *old, *situation);
}

} // namespace kavel::ctl
