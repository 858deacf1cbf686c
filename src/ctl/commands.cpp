#include "commands.h"

#include <ostream>
#include <span>

#include "apply_output.h"
#include "client.h"
#include "errors.h"
#include "files.h"
#include "json_message.h"
#include "json_output.h"
#include "output.h"
#include "session.h"
#include "status_output.h"
#include "store_output.h"

namespace kavel::ctl {

namespace {

struct Outgoing {
    std::string file; // its name in the output of vqctl
    std::string summary;
    std::vector<std::uint8_t> request;
};

EncodedMessage LoadMessage(const std::string &file, bool binary)
{
    const std::string content = ReadInput(file);
    return binary ? EncodedMessage{{content.begin(), content.end()}, "raw message"} : EncodeJson(content);
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
            EncodedMessage message = LoadMessage(file, messages.binary);
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

ReplyPtr ExchangeFirst(const Session &session, Client &client, std::span<const Outgoing> outgoing)
{
    const Outgoing &message = outgoing.front();
    try {
        return Exchange(session, client, message.request, message.file + ": " + message.summary);
    } catch (const AgentError &error) {
        ThrowWithFiles(error, outgoing);
    }
}

std::string CheckText(const Kavel__Reply &reply)
{
    if (reply.result < 0) {
        return "would be refused " + RefusalText(reply);
    }
    if (reply.summary == nullptr) {
        throw AgentError("the agent's reply says nothing about the message");
    }
    return "would apply: " + SummaryText(*reply.summary);
}

// "v1.json: vpn 1".
std::string MessageSubject(const Outgoing &message, const Kavel__Reply &reply)
{
    return Printable(message.file) + ": " + SubjectText(VpnOf(reply));
}

int RunVpnCommand(const Session &session, Kavel__Request__Verb verb, std::uint32_t vpn, const std::string &done)
{
    const ReplyPtr reply = ExchangeOne(session, NewRequest(verb, vpn), SubjectText(vpn) + " to be " + done);
    const bool refused = reply->result < 0;
    session.out << SubjectText(vpn) << ": " << (refused ? "refused " + RefusalText(*reply) : done) << '\n';
    return refused ? kRefused : kDone;
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

} // namespace

int Apply(const Session &session, const Messages &messages)
{
    if (messages.revision) {
        CheckRevision(*messages.revision);
    }
    CheckConfirmation(messages);
    const std::vector<Outgoing> all = LoadAll(KAVEL__REQUEST__VERB__APPLY, messages, messages.revision);
    Client client = Client::Connect(session.socket, session.timeout);
    int code = kDone;
    for (std::span<const Outgoing> left(all); !left.empty(); left = left.subspan(1)) {
        const ReplyPtr reply = ExchangeFirst(session, client, left);
        const std::string subject = MessageSubject(left.front(), *reply);
        const int outcome = ReportApplied(session, subject, *reply);
        if (outcome == kRefused) {
            const std::string rest = NotSentText(left.subspan(1));
            session.err << (rest.empty() ? "" : "vqctl: " + Printable(rest) + "\n");
            return kRefused;
        }
        ReportConfirmation(session, subject, messages, *reply);
        code = outcome != kDone ? outcome : code;
    }
    return code;
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
    int code = kDone;
    for (std::span<const Outgoing> left(all); !left.empty(); left = left.subspan(1)) {
        const ReplyPtr reply = ExchangeFirst(session, client, left);
        const std::string subject = MessageSubject(left.front(), *reply);
        session.out << subject << ": " << CheckText(*reply) << std::endl;
        PrintNotes(session, subject, *reply);
        code = reply->result < 0 ? kRefused : code;
    }
    return code;
}

int Encode(const std::string &file, const std::optional<std::string> &target)
{
    const EncodedMessage message = WithFileName(DisplayName(file), [&] { return LoadMessage(file, false); });
    WithFileName(target.value_or("standard output"),
                 [&] { target ? WriteOutput(*target, message.bytes) : WriteStandardOutput(message.bytes); });
    return kDone;
}

int Status(const Session &session, std::optional<std::uint32_t> vpn)
{
    const ReplyPtr reply = ExchangeOne(session, NewRequest(KAVEL__REQUEST__VERB__STATUS, vpn), "status");
    const bool isStarting = reply->start != nullptr;
    if (isStarting && !session.json) {
        session.out << StartText(*reply->start);
    }
    if (reply->result < 0) {
        const int refused = ReportRefusal(session, vpn ? SubjectText(vpn) : "status", *reply);
        return isStarting ? kStarting : refused;
    }
    const StatusList vpns(reply->vpns, reply->n_vpns);
    const StatusView view{.now = Now(), .withRevisions = vpn.has_value(), .colour = session.colour};
    session.out << (session.json ? StatusJson(vpns) : StatusTable(vpns, view));
    if (isStarting) {
        return kStarting;
    }
    return AnyProblem(vpns) ? kRefused : kDone;
}

int Repair(const Session &session, std::optional<std::uint32_t> vpn)
{
    const std::string subject = vpn ? SubjectText(vpn) : "repair";
    const ReplyPtr reply = ExchangeOne(session, NewRequest(KAVEL__REQUEST__VERB__REPAIR, vpn),
                                       vpn ? SubjectText(vpn) + " to be repaired" : "repair");
    if (reply->result < 0) {
        session.out << subject << ": refused " << RefusalText(*reply) << '\n';
        return kRefused;
    }
    for (const char *note : std::span(reply->notes, reply->n_notes)) {
        session.out << Printable(note) << '\n';
    }
    if (reply->text != nullptr) {
        session.out.flush();
        session.err << "vqctl: " << Printable(reply->text) << '\n';
        return kNotAsAsked;
    }
    session.out << (reply->n_notes == 0 ? "nothing to repair\n" : "");
    return kDone;
}

int Stop(const Session &session, std::optional<std::uint32_t> vpn)
{
    Client client = Client::Connect(session.socket, session.timeout);
    const auto vpns = vpn ? std::optional(std::vector{*vpn}) : VpnsToStop(session, client);
    if (!vpns) {
        return kRefused;
    }
    int code = kDone;
    for (const std::uint32_t one : *vpns) {
        const std::string subject = SubjectText(one);
        const ReplyPtr reply =
            Exchange(session, client, PackRequest(NewRequest(KAVEL__REQUEST__VERB__STOP, one)), subject + " to stop");
        if (reply->result < 0) {
            session.out << subject << ": refused " << RefusalText(*reply) << std::endl;
            return kRefused;
        }
        session.out << subject << ": " << (reply->text == nullptr ? "stopped" : "NOT STOPPED") << std::endl;
        if (reply->text != nullptr) {
            session.err << "vqctl: " << subject << ": " << Printable(reply->text) << std::endl;
            code = kNotAsAsked;
        }
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
    session.out << StoredTable(StoredList(reply->stored, reply->n_stored));
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
    const auto *text = reinterpret_cast<const char *>(reply->stored_text.data);
    session.out << StoredText({text, reply->stored_text.len});
    return kDone;
}

} // namespace kavel::ctl
