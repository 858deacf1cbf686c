#include "session.h"

#include <chrono>
#include <exception>
#include <ostream>
#include <utility>

#include "json_output.h"
#include "output.h"

namespace kavel::ctl {

namespace {

int ReportError(const Session &session, const std::exception &error, ExitCode code, const std::string &file = {})
{
    session.out.flush();
    session.err << "vqctl: " << Printable(error.what()) << '\n';
    if (session.json) {
        AddError(session, code, error.what(), file);
    }
    return code;
}

int RunCommand(const Session &session, const std::function<int()> &command)
{
    try {
        return command();
    } catch (const FileError &error) {
        return ReportError(session, error, kBadInput, error.File());
    } catch (const InputError &error) {
        return ReportError(session, error, kBadInput);
    } catch (const AgentError &error) {
        return ReportError(session, error, kNoAgent);
    }
}

// The words are longer than a Progress, which stands in the line of a terminal.
void ReportSilence(const Session &session)
{
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(session.timeout).count();
    session.err << (session.errIsTerminal ? "\r" : "") << "vqctl: the agent has not replied yet; waiting up to "
                << seconds << " s" << std::endl;
}

Waiting WaitingOf(const Session &session)
{
    return {.noticeAfter = session.silence,
            .notice = [&session] { ReportSilence(session); },
            .interrupt = session.signals != nullptr ? session.signals->Fd() : -1};
}

} // namespace

Kavel__Request NewRequest(Kavel__Request__Verb verb, std::optional<std::uint32_t> vpn)
{
    Kavel__Request request{};
    kavel__request__init(&request);
    request.verb = verb;
    request.has_vpn = vpn ? 1 : 0;
    request.vpn = vpn.value_or(0);
    return request;
}

ReplyPtr Exchange(const Session &session, Client &client, std::span<const std::uint8_t> request,
                  const std::string &what)
{
    if (session.verbose) {
        session.err << "vqctl: sending " << Printable(what) << ", request of " << Counted(request.size(), "byte")
                    << '\n';
    }
    ReplyPtr reply = client.Exchange(request, WaitingOf(session));
    if (session.verbose) {
        session.err << "vqctl: received result " << reply->result << '\n';
    }
    return reply;
}

ReplyPtr ExchangeOne(const Session &session, const Kavel__Request &request, const std::string &what)
{
    Client client = Client::Connect(session.socket, session.timeout);
    return Exchange(session, client, PackRequest(request), what);
}

std::optional<std::uint32_t> VpnOf(const Kavel__Reply &reply)
{
    return reply.has_vpn != 0 ? std::optional(reply.vpn) : std::nullopt;
}

json_object *DocumentOf(const Session &session)
{
    if (!session.document) {
        session.document = NewJsonDocument();
    }
    return session.document.get();
}

ExitCode CodeOfRefusal(const Kavel__Reply &reply)
{
    return reply.unknown_vpn != 0 ? kBadInput : kRefused;
}

void AddError(const Session &session, ExitCode code, const std::string &text, const std::string &file)
{
    JsonPtr error = NewJsonObject();
    AddMember(error.get(), "exit", JsonNumber(static_cast<int>(code)));
    AddMember(error.get(), "text", JsonText(text));
    if (!file.empty()) {
        AddMember(error.get(), "file", JsonText(file));
    }
    AddMember(DocumentOf(session), "error", std::move(error));
}

int ReportRefusal(const Session &session, const std::string &subject, const Kavel__Reply &reply)
{
    const std::string text = subject + ": refused " + RefusalText(reply);
    session.err << "vqctl: " << text << '\n';
    if (session.json) {
        AddError(session, CodeOfRefusal(reply), text);
    }
    return CodeOfRefusal(reply);
}

std::uint64_t Now()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(now).count());
}

void PrintDocument(const Session &session)
{
    if (const auto document = std::exchange(session.document, nullptr)) {
        session.out << JsonDocument(document.get());
    }
}

int Run(const Session &session, const std::function<int()> &command)
{
    const int code = RunCommand(session, command);
    PrintDocument(session);
    if (!session.out.flush()) {
        session.err << "vqctl: standard output: cannot be written\n";
        return kBadInput;
    }
    return code;
}

} // namespace kavel::ctl
