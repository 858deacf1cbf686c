#include "query_commands.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <ostream>
#include <span>
#include <string_view>

#include "dns_types.h"
#include "json_output.h"
#include "output.h"

namespace kavel::ctl {

namespace {

constexpr std::chrono::seconds kAgentTakes{5}; // if a server is silent

struct Rcode {
    std::uint32_t number;
    std::string_view name;
    std::string_view meaning;
};

constexpr std::array<Rcode, 6> kRcodes = {{
    {0, "NOERROR", "no such record (NOERROR)"},
    {1, "FORMERR", "a server does not understand the question (FORMERR)"},
    {2, "SERVFAIL", "a server failed (SERVFAIL)"},
    {3, "NXDOMAIN", "no such name (NXDOMAIN)"},
    {4, "NOTIMP", "a server does not know this kind of question (NOTIMP)"},
    {5, "REFUSED", "a server refused (REFUSED)"},
}};

// The entry of a known code; null for another.
const Rcode *FindRcode(std::uint32_t number)
{
    const auto *const found = std::ranges::find(kRcodes, number, &Rcode::number);
    return found == kRcodes.end() ? nullptr : found;
}

std::string RcodeName(std::uint32_t number)
{
    const Rcode *const rcode = FindRcode(number);
    return rcode != nullptr ? std::string(rcode->name) : "RCODE" + std::to_string(number);
}

// "10.7.168.192.in-addr.arpa" for an IP address; nothing for other texts.
std::optional<std::string> ReverseName(const std::string &address)
{
    constexpr std::ptrdiff_t kIpv4Size = 4;
    constexpr std::size_t kIpv6Size = 16;
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::array<std::uint8_t, kIpv6Size> bytes{};
    std::string name;
    if (::inet_pton(AF_INET, address.c_str(), bytes.data()) == 1) {
        std::for_each(bytes.rend() - kIpv4Size, bytes.rend(),
                      [&](std::uint8_t byte) { name += std::to_string(byte) + "."; });
        return name + "in-addr.arpa";
    }
    if (::inet_pton(AF_INET6, address.c_str(), bytes.data()) != 1) {
        return std::nullopt;
    }
    std::for_each(bytes.rbegin(), bytes.rend(), [&](std::uint8_t byte) {
        name += {kDigits[byte & 0xFU], '.', kDigits[byte >> 4U], '.'};
    });
    return name + "ip6.arpa";
}

bool HasAnswer(const Kavel__QueryAnswer &query)
{
    return query.problem == nullptr && query.rcode == 0 && query.n_answers != 0;
}

std::string WhyNone(const Kavel__QueryAnswer &query)
{
    if (query.problem != nullptr) {
        return query.problem;
    }
    const Rcode *const rcode = FindRcode(query.rcode);
    return rcode != nullptr ? std::string(rcode->meaning) : "no answer (" + RcodeName(query.rcode) + ")";
}

void PrintQuery(const Session &session, const Kavel__QueryAnswer &query, const std::string &question)
{
    for (const char *record : std::span(query.answers, query.n_answers)) {
        session.out << Printable(record) << '\n';
    }
    if (!HasAnswer(query)) {
        session.out << Printable(question + ": " + WhyNone(query)) << '\n';
    }
    for (const char *step : std::span(query.way, query.n_way)) {
        session.out << "way: " << Printable(step) << '\n';
    }
    session.out << "time: " << query.milliseconds << " ms\n";
    if (query.differs != nullptr) {
        session.out << "differs: " << Printable(query.differs) << '\n';
    }
}

JsonPtr TextsJson(std::span<char *const> texts)
{
    JsonPtr array = NewJsonArray();
    std::ranges::for_each(texts, [&](const char *text) { AddElement(array.get(), JsonText(text)); });
    return array;
}

void PrintQueryJson(const Session &session, const Kavel__QueryAnswer &query, const QueriedName &queried)
{
    JsonPtr document = NewJsonDocument();
    AddMember(document.get(), "vpn", JsonNumber(queried.vpn));
    AddMember(document.get(), "name", JsonText(queried.name));
    AddMember(document.get(), "type", JsonText(queried.type));
    AddMember(document.get(), "answers", TextsJson({query.answers, query.n_answers}));
    if (query.problem == nullptr) {
        AddMember(document.get(), "rcode", JsonText(RcodeName(query.rcode)));
    }
    if (!HasAnswer(query)) {
        AddMember(document.get(), "problem", JsonText(WhyNone(query)));
    }
    AddMember(document.get(), "way", TextsJson({query.way, query.n_way}));
    AddMember(document.get(), "milliseconds", JsonNumber(query.milliseconds));
    if (query.differs != nullptr) {
        AddMember(document.get(), "differs", JsonText(query.differs));
    }
    session.out << JsonDocument(document.get());
}

// The name and type that are asked for.
QueriedName Normalised(const QueriedName &queried, std::uint16_t type)
{
    QueriedName asked = queried;
    asked.type = DnsTypeName(type);
    if (type == static_cast<std::uint16_t>(DnsType::kPtr)) {
        asked.name = ReverseName(queried.name).value_or(queried.name);
    }
    return asked;
}

} // namespace

int Query(const Session &session, const QueriedName &queried)
{
    const std::optional<std::uint16_t> type = DnsTypeNumber(queried.type);
    if (!type || *type == 0) {
        throw InputError("\"" + queried.type + "\" is not a type of records, such as A, AAAA, MX or TYPE65");
    }
    QueriedName asked = Normalised(queried, *type);
    const std::string question = asked.name + " " + asked.type;
    Kavel__Request request = NewRequest(KAVEL__REQUEST__VERB__QUERY, asked.vpn);
    request.name = asked.name.data();
    request.has_type = 1;
    request.type = *type;
    Session patient = session;
    patient.silence += kAgentTakes;
    const ReplyPtr reply = ExchangeOne(patient, request, "query of " + SubjectText(asked.vpn) + " for " + question);
    if (reply->result < 0) {
        return ReportRefusal(session, SubjectText(asked.vpn), *reply);
    }
    if (reply->query == nullptr) {
        throw AgentError("the agent's reply says nothing about the query");
    }
    if (session.json) {
        PrintQueryJson(session, *reply->query, asked);
    } else {
        PrintQuery(session, *reply->query, question);
    }
    return HasAnswer(*reply->query) ? kDone : kRefused;
}

} // namespace kavel::ctl
