// The requests that resolve a name as a client of a VPN does.
#include <cerrno>
#include <iterator>
#include <limits>
#include <optional>
#include <string>
#include <utility>

#include "base/dns_message.h"
#include "dns_types.h"
#include "printable.h"
#include "socket/request_answers.h"
#include "socket/requests.h"

namespace kavel::agent {
namespace {

// Each takes a process of its own.
constexpr std::size_t kClientQueriesMax = 16;

std::uint32_t TypeOf(const Kavel__Request &request)
{
    return request.has_type != 0 ? request.type : static_cast<std::uint32_t>(DnsType::kA);
}

std::optional<Answer> QueryObjection(const Host &host, const Kavel__Request &request)
{
    if (request.has_vpn == 0) {
        return Refusal(-EINVAL, "no vpn is named");
    }
    if (!host.config.Serves(request.vpn)) {
        return NotConfigured(request.vpn);
    }
    const std::string name = request.name != nullptr ? request.name : "";
    if (!EncodeDnsQuestion(name, 0, 0)) {
        return RefusalOf(request.vpn, -EINVAL, "\"" + Printable(name) + "\" is not a domain name");
    }
    if (const std::uint32_t type = TypeOf(request); type == 0 || type > std::numeric_limits<std::uint16_t>::max()) {
        return RefusalOf(request.vpn, -EINVAL, std::to_string(type) + " is not a type of records");
    }
    if (!host.namespaces.IdOf(request.vpn)) {
        return RefusalOf(request.vpn, -ENOENT,
                         "namespace " + NamespacePath(*host.config.Find(request.vpn)) + " does not exist");
    }
    return std::nullopt;
}

} // namespace

void Requests::BeginClientQuery(const Kavel__Request &request, const Respond &respond)
{
    if (const auto objection = QueryObjection(host_, request)) {
        respond(*objection);
        return;
    }
    if (clientQueries_.size() >= kClientQueriesMax) {
        respond(RefusalForNow(-EBUSY, "the agent handles " + std::to_string(kClientQueriesMax) + " queries already"));
        return;
    }
    const DnsQuestion question{request.vpn, request.name, static_cast<std::uint16_t>(TypeOf(request))};
    clientQueries_.emplace_back().respond = respond;
    const auto query = std::prev(clientQueries_.end());
    try {
        query->query.emplace(loop_, host_.namespaces, instances_, question,
                             [this, query, vpnId = request.vpn](const QueryOutcome &outcome) {
                                 Answer answer;
                                 answer.vpn = vpnId;
                                 answer.query = outcome;
                                 const Respond reply = query->respond;
                                 clientQueries_.erase(query);
                                 reply(answer);
                             });
    } catch (...) {
        clientQueries_.erase(query);
        throw;
    }
}

} // namespace kavel::agent
