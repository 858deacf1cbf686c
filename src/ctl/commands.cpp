#include "commands.h"

#include <csignal>
#include <ostream>
#include <span>
#include <string_view>
#include <utility>

#include "apply_output.h"
#include "client.h"
#include "errors.h"
#include "files.h"
#include "json_message.h"
#include "json_output.h"
#include "output.h"
#include "progress.h"
#include "result_json.h"
#include "session.h"
#include "signals.h"
#include "store_output.h"

namespace kavel::ctl {

namespace {

struct Outgoing {
    std::string file; // its name in the output of vqctl
    std::string summary;
    std::vector<std::uint8_t> request;
};

EncodedMessage LoadMessage(const std::string &file, bool binary, MessageFor target)
{
    const std::string content = ReadInput(file);
    return binary ? EncodedMessage{{content.begin(), content.end()}, "raw message"} : EncodeJson(content, target);
}

void CheckRevision(const std::string &revision)
{
    const std::string expected = "--revision: expected 1 to " + Counted(kRevisionMax, "byte") + " of printable text";
    if (revision.empty() || revision.size() > kRevisionMax) {
        throw InputError(expected + ", not " + Counted(revision.size(), "byte"));
    }
    if (const std::string printable = Printable(revision); printable != revision) {
        throw InputError(expected + ", not \"" + printable + "\"");
    }
}

// `revision` is sent with each message.
std::vector<Outgoing> LoadAll(Kavel__Request__Verb verb, const Messages &messages,
                              std::optional<std::string> revision = std::nullopt)
{
    std::vector<Outgoing> all;
    for (const std::string &file : messages.files) {
        all.push_back(WithFileName(DisplayName(file), [&] {
            EncodedMessage message = LoadMessage(file, messages.binary, messages.target);
            Kavel__Request request = NewRequest(verb);
            request.has_message = 1;
            request.message = {message.bytes.size(), message.bytes.data()};
            request.revision = revision ? revision->data() : nullptr;
            request.has_confirm_seconds = messages.confirmSeconds ? 1 : 0;
            request.confirm_seconds = messages.confirmSeconds.value_or(0);
            return Outgoing{DisplayName(file), message.summary + " (" + Counted(message.bytes.size(), "byte") + ")",
                            PackRequest(request)};
        }));
    }
    return all;
}

void CheckConfirmation(const Messages &messages)
{
    if (messages.confirmSeconds && messages.files.size() != 1) {
        throw InputError("--confirm: it takes one file, not " + std::to_string(messages.files.size()));
    }
}

// What has to be done next about a message that was applied.
void ReportConfirmation(const Session &session, const std::string &subject, const Messages &messages,
                        const Kavel__Reply &reply)
{
    if (messages.confirmSeconds && reply.has_vpn != 0) {
        session.err << "vqctl: " << subject << ": undone in " << *messages.confirmSeconds
                    << " s unless it is confirmed: vqctl confirm " << reply.vpn << std::endl;
    }
}

// "a.json, b.json"
std::string FileNames(std::span<const Outgoing> outgoing)
{
    std::string names;
    for (const Outgoing &one : outgoing) {
        names += (names.empty() ? "" : ", ") + one.file;
    }
    return names;
}

std::string NotSentText(std::span<const Outgoing> rest)
{
    return rest.empty() ? "" : "not sent: " + FileNames(rest);
}

// Adds to an error the file of the message whose exchange failed, and the files of the messages that were not sent. The
// agent may or may not have applied the message whose exchange failed. `outgoing` begins with that message.
[[noreturn]] void ThrowWithFiles(const AgentError &error, std::span<const Outgoing> outgoing)
{
    const std::string rest = NotSentText(outgoing.subspan(1));
    throw AgentError(outgoing.front().file + ": " + error.what() + (rest.empty() ? "" : "; " + rest));
}

void AddNotSent(const Session &session, std::span<const Outgoing> rest)
{
    for (const Outgoing &one : rest) {
        AddElement(ArrayOf(DocumentOf(session), "not_sent"), JsonText(one.file));
    }
}

// Tells which messages were not sent, after one that was refused.
void ReportNotSent(const Session &session, std::span<const Outgoing> rest)
{
    if (session.json) {
        AddNotSent(session, rest);
    } else if (!rest.empty()) {
        session.err << "vqctl: " << Printable(NotSentText(rest)) << '\n';
    }
}

ReplyPtr ExchangeFirst(const Session &session, Client &client, std::span<const Outgoing> outgoing)
{
    const Outgoing &message = outgoing.front();
    try {
        return Exchange(session, client, message.request, message.file + ": " + message.summary);
    } catch (const AgentError &error) {
        if (session.json) {
            AddNotSent(session, outgoing.subspan(1));
        }
        ThrowWithFiles(error, outgoing);
    }
}

std::string CheckText(const std::string &file, const Kavel__Reply &reply)
{
    if (reply.result < 0) {
        return "would be refused " + RefusalText(reply);
    }
    if (reply.summary == nullptr) {
        throw AgentError(file + ": the agent's reply says nothing about the message");
    }
    return "would apply: " + SummaryText(*reply.summary);
}

// "v1.json: vpn 1".
std::string MessageSubject(const Outgoing &message, const Kavel__Reply &reply)
{
    return Printable(message.file) + ": " + SubjectText(VpnOf(reply));
}

// What became of a message: `text` begins with the outcome, "applied, NOT RUNNING: ...".
void PrintResult(const Session &session, const Outgoing &message, const Kavel__Reply &reply, const std::string &text)
{
    if (session.json) {
        const std::string outcome = text.substr(0, text.find_first_of(",:("));
        AddElement(ArrayOf(DocumentOf(session), "results"),
                   MessageJson(message.file, reply, outcome.substr(0, outcome.find_last_not_of(' ') + 1)));
        return;
    }
    const std::string subject = MessageSubject(message, reply);
    session.out << subject << ": " << text << std::endl;
    if (OutcomeOf(reply) == kDone && reply.text != nullptr) {
        session.err << "vqctl: " << subject << ": " << Printable(reply.text) << std::endl;
    }
    PrintNotes(session, subject, reply);
}

// Reports on standard output, or in the JSON document, that the agent refused. Returns the exit code.
int PrintRefusal(const Session &session, const std::string &subject, const Kavel__Reply &reply)
{
    const std::string text = subject + ": refused " + RefusalText(reply);
    if (session.json) {
        AddError(session, CodeOfRefusal(reply), text);
    } else {
        session.out << text << std::endl;
    }
    return CodeOfRefusal(reply);
}

// Prints the outcome of an applied message. Returns its exit code.
int ReportResult(const Session &session, const Outgoing &message, const Kavel__Reply &reply)
{
    const bool isRefused = reply.result < 0;
    PrintResult(session, message, reply, isRefused ? "refused " + RefusalText(reply) : AppliedText(reply));
    return OutcomeOf(reply);
}

void ReportFiles(const Session &session, const std::string &what, std::span<const Outgoing> files)
{
    if (!files.empty()) {
        session.err << "vqctl: " << what << ": " << Printable(FileNames(files)) << std::endl;
    }
}

// Of `all`, the first `applied` are applied. Returns the exit code.
int ReportInterruption(const Session &session, std::span<const Outgoing> all, std::size_t applied, bool isInFlight)
{
    constexpr int kEndedBySignal = 128; // as a shell reports it
    const std::span<const Outgoing> left = all.subspan(applied);
    session.err << "vqctl: interrupted" << std::endl;
    const int code = kEndedBySignal + session.signals->Take().value_or(SIGINT);
    if (session.json) {
        AddError(session, static_cast<ExitCode>(code), "interrupted");
    }
    ReportFiles(session, "applied", all.first(applied));
    ReportFiles(session, "in flight, may still be applied", left.first(isInFlight ? 1 : 0));
    ReportFiles(session, "not sent", left.subspan(isInFlight ? 1 : 0));
    return code;
}

int ApplyAll(const Session &session, const Messages &messages, std::span<const Outgoing> all)
{
    Client client = Client::Connect(session.socket, session.timeout);
    Progress progress(session.err, session.errIsTerminal && !session.verbose, all.size());
    int code = kDone;
    for (std::size_t applied = 0; applied < all.size(); ++applied) {
        const std::span<const Outgoing> left = all.subspan(applied);
        if (session.signals->IsPending()) {
            return ReportInterruption(session, all, applied, false);
        }
        progress.Show(applied + 1);
        try {
            const ReplyPtr reply = ExchangeFirst(session, client, left);
            progress.Clear();
            const int one = ReportResult(session, left.front(), *reply);
            if (one != kRefused) {
                ReportConfirmation(session, MessageSubject(left.front(), *reply), messages, *reply);
            }
            code = one == kDone ? code : one;
        } catch (const Interrupted &) {
            progress.Clear();
            return ReportInterruption(session, all, applied, true);
        }
        if (code == kRefused) {
            ReportNotSent(session, left.subspan(1));
            return code;
        }
    }
    return code;
}

int RunVpnCommand(const Session &session, Kavel__Request__Verb verb, std::uint32_t vpn, const std::string &done)
{
    const ReplyPtr reply = ExchangeOne(session, NewRequest(verb, vpn), SubjectText(vpn) + " to be " + done);
    if (reply->result < 0) {
        return PrintRefusal(session, SubjectText(vpn), *reply);
    }
    if (session.json) {
        AddMember(DocumentOf(session), "vpn", JsonNumber(vpn));
        AddMember(DocumentOf(session), "outcome", JsonText(done));
    } else {
        session.out << SubjectText(vpn) << ": " << done << '\n';
    }
    return kDone;
}

bool HasSomethingToStop(const Kavel__VpnStatus &vpn)
{
    return vpn.meant != 0 || vpn.pid_file != 0 || vpn.starting != 0 || vpn.routes != 0 || vpn.rule != 0 ||
           vpn.dnat != 0;
}

// Nothing if the agent refuses to tell.
std::optional<std::vector<std::uint32_t>> VpnsToStop(const Session &session, Client &client)
{
    const ReplyPtr reply =
        Exchange(session, client, PackRequest(NewRequest(KAVEL__REQUEST__VERB__STATUS, std::nullopt)), "status");
    if (reply->result < 0) {
        ReportRefusal(session, "status", *reply);
        return std::nullopt;
    }
    std::vector<std::uint32_t> vpns;
    for (const Kavel__VpnStatus *vpn : std::span(reply->vpns, reply->n_vpns)) {
        if (HasSomethingToStop(*vpn)) {
            vpns.push_back(vpn->vpn);
        }
    }
    return vpns;
}

void PrintStopped(const Session &session, std::uint32_t vpn, const Kavel__Reply &reply)
{
    if (session.json) {
        JsonPtr result = NewJsonObject();
        AddMember(result.get(), "vpn", JsonNumber(vpn));
        AddMember(result.get(), "stopped", JsonBool(reply.text == nullptr));
        AddMember(result.get(), "problem", WhyJson(reply));
        AddElement(ArrayOf(DocumentOf(session), "results"), std::move(result));
        return;
    }
    const std::string subject = SubjectText(vpn);
    session.out << subject << ": " << (reply.text == nullptr ? "stopped" : "NOT STOPPED") << std::endl;
    if (reply.text != nullptr) {
        session.err << "vqctl: " << subject << ": " << Printable(reply.text) << std::endl;
    }
}

} // namespace

int Apply(const Session &session, const Messages &messages)
{
    if (messages.revision) {
        CheckRevision(*messages.revision);
    }
    CheckConfirmation(messages);
    const std::vector<Outgoing> all = LoadAll(KAVEL__REQUEST__VERB__APPLY, messages, messages.revision);
    const SignalWatch signals;
    if (session.json) {
        (void)DocumentOf(session); // the copy adds to the same document
    }
    Session interruptible = session;
    interruptible.signals = &signals;
    return ApplyAll(interruptible, messages, all);
}

int Confirm(const Session &session, std::uint32_t vpn)
{
    const std::string subject = SubjectText(vpn);
    const ReplyPtr reply =
        ExchangeOne(session, NewRequest(KAVEL__REQUEST__VERB__CONFIRM, vpn), subject + " to be confirmed");
    if (session.json) {
        const JsonPtr document = NewJsonDocument();
        AddMember(document.get(), "vpn", JsonNumber(vpn));
        AddMember(document.get(), "result", JsonNumber(reply->result));
        AddMember(document.get(), "outcome",
                  JsonText(reply->result < 0 ? "refused " + RefusalText(*reply) : "confirmed"));
        session.out << JsonDocument(document.get());
    } else {
        session.out << subject << ": " << (reply->result < 0 ? "refused " + RefusalText(*reply) : "confirmed") << '\n';
    }
    session.out.flush();
    PrintNotes(session, subject, *reply);
    return reply->result < 0 ? kRefused : kDone;
}

int Check(const Session &session, const Messages &messages)
{
    const std::vector<Outgoing> all = LoadAll(KAVEL__REQUEST__VERB__CHECK, messages);
    Client client = Client::Connect(session.socket, session.timeout);
    Progress progress(session.err, session.errIsTerminal && !session.verbose, all.size());
    int code = kDone;
    for (std::span<const Outgoing> left(all); !left.empty(); left = left.subspan(1)) {
        progress.Show(all.size() - left.size() + 1);
        const ReplyPtr reply = ExchangeFirst(session, client, left);
        progress.Clear();
        PrintResult(session, left.front(), *reply, CheckText(left.front().file, *reply));
        code = reply->result < 0 ? kRefused : code;
    }
    return code;
}

int Encode(const std::string &file, const std::optional<std::string> &output, MessageFor target)
{
    const EncodedMessage message = WithFileName(DisplayName(file), [&] { return LoadMessage(file, false, target); });
    WithFileName(output.value_or("standard output"),
                 [&] { output ? WriteOutput(*output, message.bytes) : WriteStandardOutput(message.bytes); });
    return kDone;
}

int Repair(const Session &session, std::optional<std::uint32_t> vpn)
{
    const std::string subject = vpn ? SubjectText(vpn) : "repair";
    const ReplyPtr reply = ExchangeOne(session, NewRequest(KAVEL__REQUEST__VERB__REPAIR, vpn),
                                       vpn ? SubjectText(vpn) + " to be repaired" : "repair");
    if (reply->result < 0) {
        return PrintRefusal(session, subject, *reply);
    }
    const int code = reply->text == nullptr ? kDone : kNotAsAsked;
    if (session.json) {
        AddMember(DocumentOf(session), "repaired", NotesJson(*reply));
        AddMember(DocumentOf(session), "problem", WhyJson(*reply));
        return code;
    }
    for (const char *note : std::span(reply->notes, reply->n_notes)) {
        session.out << Printable(note) << '\n';
    }
    if (reply->text != nullptr) {
        session.out.flush();
        session.err << "vqctl: " << Printable(reply->text) << '\n';
    } else if (reply->n_notes == 0) {
        session.out << "nothing to repair\n";
    }
    return code;
}

int Stop(const Session &session, std::optional<std::uint32_t> vpn)
{
    Client client = Client::Connect(session.socket, session.timeout);
    const auto vpns = vpn ? std::optional(std::vector{*vpn}) : VpnsToStop(session, client);
    if (!vpns) {
        return kRefused;
    }
    if (session.json) {
        (void)ArrayOf(DocumentOf(session), "results"); // also if there is nothing to stop
    }
    int code = kDone;
    for (const std::uint32_t one : *vpns) {
        const std::string subject = SubjectText(one);
        const ReplyPtr reply =
            Exchange(session, client, PackRequest(NewRequest(KAVEL__REQUEST__VERB__STOP, one)), subject + " to stop");
        if (reply->result < 0) {
            return PrintRefusal(session, subject, *reply);
        }
        PrintStopped(session, one, *reply);
        code = reply->text == nullptr ? code : kNotAsAsked;
    }
    return code;
}

int VpnInit(const Session &session, std::uint32_t vpn)
{
    return RunVpnCommand(session, KAVEL__REQUEST__VERB__VPN_INIT, vpn, "initialised");
}

int VpnRelease(const Session &session, std::uint32_t vpn)
{
    return RunVpnCommand(session, KAVEL__REQUEST__VERB__VPN_RELEASE, vpn, "released");
}

int StoreList(const Session &session)
{
    const ReplyPtr reply = ExchangeOne(session, NewRequest(KAVEL__REQUEST__VERB__STORE_LIST), "store list");
    if (reply->result < 0) {
        return ReportRefusal(session, "store", *reply);
    }
    const StoredList records(reply->stored, reply->n_stored);
    if (session.json) {
        AddMember(DocumentOf(session), "records", StoredJson(records));
    } else {
        session.out << StoredTable(records);
    }
    return kDone;
}

int StoreShow(const Session &session, std::uint32_t vpn)
{
    const Kavel__Request request = NewRequest(KAVEL__REQUEST__VERB__STORE_SHOW, vpn);
    const ReplyPtr reply = ExchangeOne(session, request, "store show of " + SubjectText(vpn));
    if (reply->result < 0) {
        return ReportRefusal(session, SubjectText(vpn), *reply);
    }
    if (reply->has_stored_text == 0) {
        throw AgentError("the agent's reply holds no stored text");
    }
    const std::string_view text(reinterpret_cast<const char *>(reply->stored_text.data), reply->stored_text.len);
    if (session.json) {
        AddMember(DocumentOf(session), "vpn", JsonNumber(vpn));
        AddStoredText(DocumentOf(session), text);
    } else {
        session.out << StoredText(text);
    }
    return kDone;
}

} // namespace kavel::ctl
