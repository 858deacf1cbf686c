#include "commands.h"

#include <exception>
#include <ostream>
#include <span>

#include "client.h"
#include "errors.h"
#include "files.h"
#include "json_message.h"
#include "output.h"
#include "status_output.h"
#include "store_output.h"

namespace kavel::ctl {

namespace {

struct Outgoing {
    std::string file; // as it is named in what vqctl prints
    std::string summary;
    std::vector<std::uint8_t> request;
};

std::string NameOf(const std::string &file)
{
    return file == "-" ? "standard input" : file;
}

// Puts the file's name before whatever is wrong with it.
template <typename Work>
auto ForFile(const std::string &name, Work work)
{
    try {
        return work();
    } catch (const InputError &error) {
        throw InputError(name + ": " + error.what());
    }
}

EncodedMessage LoadMessage(const std::string &file, bool binary)
{
    const std::string content = ReadInput(file);
    return binary ? EncodedMessage{{content.begin(), content.end()}, "raw message"} : EncodeJson(content);
}

Kavel__Request NewRequest(Kavel__Request__Verb verb)
{
    Kavel__Request request{};
    kavel__request__init(&request);
    request.verb = verb;
    return request;
}

std::vector<Outgoing> LoadAll(Kavel__Request__Verb verb, const Messages &messages)
{
    std::vector<Outgoing> all;
    for (const std::string &file : messages.files) {
        all.push_back(ForFile(NameOf(file), [&] {
            EncodedMessage message = LoadMessage(file, messages.binary);
            Kavel__Request request = NewRequest(verb);
            request.has_message = 1;
            request.message = {message.bytes.size(), message.bytes.data()};
            return Outgoing{NameOf(file), message.summary + " (" + Counted(message.bytes.size(), "byte") + ")",
                            PackRequest(request)};
        }));
    }
    return all;
}

ReplyPtr Exchange(const Session &session, Client &client, std::span<const std::uint8_t> request,
                  const std::string &what)
{
    if (session.verbose) {
        session.err << "vqctl: sending " << Printable(what) << ", request of " << Counted(request.size(), "byte")
                    << '\n';
    }
    ReplyPtr reply = client.Exchange(request);
    if (session.verbose) {
        session.err << "vqctl: received result " << reply->result << '\n';
    }
    return reply;
}

ReplyPtr ExchangeOne(const Session &session, const Kavel__Request &request, const std::string &what)
{
    Client client = Client::Connect(session.socket, session.patience);
    return Exchange(session, client, PackRequest(request), what);
}

std::optional<std::uint32_t> VpnOf(const Kavel__Reply &reply)
{
    return reply.has_vpn != 0 ? std::optional(reply.vpn) : std::nullopt;
}

// "a.json, b.json"
std::string Names(std::span<const Outgoing> outgoing)
{
    std::string names;
    for (const Outgoing &one : outgoing) {
        names += (names.empty() ? "" : ", ") + one.file;
    }
    return names;
}

std::string NotSentText(std::span<const Outgoing> rest)
{
    return rest.empty() ? "" : "not sent: " + Names(rest);
}

// Why an exchange failed, with the message that it was about: that one may have been carried out or not.
[[noreturn]] void ThrowWithFiles(const AgentError &error, std::span<const Outgoing> from_here)
{
    const std::string rest = NotSentText(from_here.subspan(1));
    throw AgentError(from_here.front().file + ": " + error.what() + (rest.empty() ? "" : "; " + rest));
}

ReplyPtr ExchangeFirst(const Session &session, Client &client, std::span<const Outgoing> from_here)
{
    const Outgoing &message = from_here.front();
    try {
        return Exchange(session, client, message.request, message.file + ": " + message.summary);
    } catch (const AgentError &error) {
        ThrowWithFiles(error, from_here);
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

int SetUpVpn(const Session &session, Kavel__Request__Verb verb, std::uint32_t vpn, const std::string &done)
{
    Kavel__Request request = NewRequest(verb);
    request.has_vpn = 1;
    request.vpn = vpn;
    const ReplyPtr reply = ExchangeOne(session, request, SubjectText(vpn) + " to be " + done);
    const bool refused = reply->result < 0;
    session.out << SubjectText(vpn) << ": " << (refused ? "refused " + RefusalText(*reply) : done) << '\n';
    return refused ? kRefused : kDone;
}

// Says on standard error that a question was not answered.
int TellRefusal(const Session &session, const std::string &subject, const Kavel__Reply &reply)
{
    session.err << "vqctl: " << subject << ": refused " << RefusalText(reply) << '\n';
    return kRefused;
}

int Complain(const Session &session, const std::exception &error, ExitCode code)
{
    session.out.flush();
    session.err << "vqctl: " << Printable(error.what()) << '\n';
    return code;
}

} // namespace

int Apply(const Session &session, const Messages &messages)
{
    const std::vector<Outgoing> all = LoadAll(KAVEL__REQUEST__VERB__APPLY, messages);
    Client client = Client::Connect(session.socket, session.patience);
    for (std::span<const Outgoing> left(all); !left.empty(); left = left.subspan(1)) {
        const ReplyPtr reply = ExchangeFirst(session, client, left);
        const std::string subject = SubjectText(VpnOf(*reply));
        if (reply->result < 0) {
            session.out << subject << ": refused " << RefusalText(*reply) << std::endl;
            const std::string rest = NotSentText(left.subspan(1));
            session.err << (rest.empty() ? "" : "vqctl: " + Printable(rest) + "\n");
            return kRefused;
        }
        session.out << subject << ": applied" << std::endl;
        if (reply->text != nullptr) {
            session.err << "vqctl: " << subject << ": " << Printable(reply->text) << std::endl;
        }
    }
    return kDone;
}

int Check(const Session &session, const Messages &messages)
{
    const std::vector<Outgoing> all = LoadAll(KAVEL__REQUEST__VERB__CHECK, messages);
    Client client = Client::Connect(session.socket, session.patience);
    int code = kDone;
    for (std::span<const Outgoing> left(all); !left.empty(); left = left.subspan(1)) {
        const ReplyPtr reply = ExchangeFirst(session, client, left);
        session.out << SubjectText(VpnOf(*reply)) << ": " << CheckText(*reply) << '\n';
        code = reply->result < 0 ? kRefused : code;
    }
    return code;
}

int Encode(const std::string &file, const std::optional<std::string> &target)
{
    const EncodedMessage message = ForFile(NameOf(file), [&] { return LoadMessage(file, false); });
    ForFile(target.value_or("standard output"),
            [&] { target ? WriteOutput(*target, message.bytes) : WriteStandardOutput(message.bytes); });
    return kDone;
}

int Status(const Session &session, std::optional<std::uint32_t> vpn, bool json)
{
    Kavel__Request request = NewRequest(KAVEL__REQUEST__VERB__STATUS);
    request.has_vpn = vpn ? 1 : 0;
    request.vpn = vpn.value_or(0);
    const ReplyPtr reply = ExchangeOne(session, request, "status");
    if (reply->result < 0) {
        return TellRefusal(session, vpn ? SubjectText(vpn) : "status", *reply);
    }
    const StatusList vpns(reply->vpns, reply->n_vpns);
    session.out << (json ? StatusJson(vpns) : StatusTable(vpns, session.colour));
    return AnyProblem(vpns) ? kRefused : kDone;
}

int VpnInit(const Session &session, std::uint32_t vpn)
{
    return SetUpVpn(session, KAVEL__REQUEST__VERB__VPN_INIT, vpn, "initialised");
}

int VpnRelease(const Session &session, std::uint32_t vpn)
{
    return SetUpVpn(session, KAVEL__REQUEST__VERB__VPN_RELEASE, vpn, "released");
}

int StoreList(const Session &session)
{
    const ReplyPtr reply = ExchangeOne(session, NewRequest(KAVEL__REQUEST__VERB__STORE_LIST), "store list");
    if (reply->result < 0) {
        return TellRefusal(session, "store", *reply);
    }
    session.out << StoredTable(StoredList(reply->stored, reply->n_stored));
    return kDone;
}

int StoreShow(const Session &session, std::uint32_t vpn)
{
    Kavel__Request request = NewRequest(KAVEL__REQUEST__VERB__STORE_SHOW);
    request.has_vpn = 1;
    request.vpn = vpn;
    const ReplyPtr reply = ExchangeOne(session, request, "store show of " + SubjectText(vpn));
    if (reply->result < 0) {
        return TellRefusal(session, SubjectText(vpn), *reply);
    }
    if (reply->has_stored_text == 0) {
        throw AgentError("the agent's reply holds no stored text");
    }
    const auto *text = reinterpret_cast<const char *>(reply->stored_text.data);
    session.out << StoredText({text, reply->stored_text.len});
    return kDone;
}

int Run(const Session &session, const std::function<int()> &command)
{
    try {
        const int code = command();
        if (!session.out.flush()) {
            throw InputError("standard output: cannot be written");
        }
        return code;
    } catch (const InputError &error) {
        return Complain(session, error, kBadInput);
    } catch (const AgentError &error) {
        return Complain(session, error, kNoAgent);
    }
}

} // namespace kavel::ctl
