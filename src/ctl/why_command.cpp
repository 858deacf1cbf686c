#include "why_command.h"

#include <ostream>
#include <span>
#include <string>

#include "json_output.h"
#include "output.h"
#include "printable.h"
#include "status_output.h"

namespace kavel::ctl {

namespace {

using FindingList = std::span<const Kavel__Finding *const>;

std::string FindingText(const Kavel__Finding &finding)
{
    const std::string subject = finding.has_vpn != 0 ? SubjectText(finding.vpn) : "box";
    const std::string text = subject + ": " + Printable(finding.code) + ": " + Printable(finding.text) + "\n";
    return finding.remedy != nullptr ? text + "    do: " + Printable(finding.remedy) + "\n" : text;
}

std::string FindingsJson(FindingList findings)
{
    const JsonPtr document = NewJsonDocument();
    JsonPtr list = NewJsonArray();
    for (const Kavel__Finding *finding : findings) {
        JsonPtr object = FindingJson(*finding);
        if (finding->has_vpn != 0) {
            AddMember(object.get(), "vpn", JsonNumber(finding->vpn));
        }
        AddElement(list.get(), std::move(object));
    }
    AddMember(document.get(), "findings", std::move(list));
    return JsonDocument(document.get());
}

} // namespace

int Why(const Session &session, std::optional<std::uint32_t> vpn)
{
    const ReplyPtr reply = ExchangeOne(session, NewRequest(KAVEL__REQUEST__VERB__WHY, vpn), "why");
    if (reply->result < 0) {
        return ReportRefusal(session, vpn ? SubjectText(vpn) : "why", *reply);
    }
    const FindingList findings(reply->findings, reply->n_findings);
    if (session.json) {
        session.out << FindingsJson(findings);
    } else {
        session.out << (reply->start != nullptr ? StartText(*reply->start) : "");
        for (const Kavel__Finding *finding : findings) {
            session.out << FindingText(*finding);
        }
    }
    if (reply->start != nullptr) {
        return kStarting;
    }
    return findings.empty() ? kDone : kRefused;
}

} // namespace kavel::ctl
