#include "session.h"

#include <chrono>
#include <exception>
#include <ostream>

#include "output.h"

namespace kavel::ctl {

namespace {

int ReportError(const Session &session, const std::exception &error, ExitCode code)
{
    session.out.flush();
    session.err << "vqctl: " << Printable(error.what()) << '\n';
    return code;
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

int ReportRefusal(const Session &session, const std::string &subject, const Kavel__Reply &reply)
{
    session.err << "vqctl: " << subject << ": refused " << RefusalText(reply) << '\n';
    return kRefused;
}

std::uint64_t Now()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(now).count());
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
        return ReportError(session, error, kBadInput);
    } catch (const AgentError &error) {
        return ReportError(session, error, kNoAgent);
    }
}

} // namespace kavel::ctl
