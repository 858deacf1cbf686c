#include "output.h"

#include <algorithm>
#include <limits>
#include <system_error>

#include "json_output.h"
#include "operation.h"

namespace kavel::ctl {

std::string Counted(std::size_t count, std::string_view noun)
{
    return std::to_string(count).append(" ").append(noun).append(count == 1 ? "" : "s");
}

std::string EnabledText(bool enable)
{
    return enable ? "enabled" : "disabled";
}

std::string OperationText(std::uint32_t operation)
{
    const auto *const known = std::ranges::find(kOperations, operation, &Operation::number);
    return known != kOperations.end() ? std::string(known->name)
                                      : "operation " + std::to_string(operation) + " (unknown)";
}

std::string SubjectText(std::optional<std::uint32_t> vpn)
{
    return vpn ? "vpn " + std::to_string(*vpn) : "message";
}

std::string RefusalText(const Kavel__Reply &reply)
{
    // The smallest int32_t cannot be negated.
    const int error = -std::max(reply.result, -std::numeric_limits<std::int32_t>::max());
    const std::string errorText = std::generic_category().message(error);
    std::string text = "(" + std::to_string(reply.result) + " " + errorText + ")";
    if (reply.reason != nullptr) {
        return text + ": " + Printable(reply.reason);
    }
    if (reply.text != nullptr && reply.text != errorText) {
        return text + ": " + Printable(reply.text);
    }
    return text;
}

std::string SummaryText(const Kavel__Summary &summary)
{
    return EnabledText(summary.enable != 0) + ", " + OperationText(summary.operation) + ", " +
           Counted(summary.hosts, "host") + ", " + std::to_string(summary.mx_hosts) + " mx, " +
           Counted(summary.servers, "server") + ", " + Counted(summary.proxies, "forward") + ", " +
           (summary.persistent != 0 ? "stored" : "not stored");
}

JsonPtr SummaryJson(const Kavel__Summary &summary)
{
    JsonPtr object = NewJsonObject();
    AddMember(object.get(), "enable", JsonBool(summary.enable != 0));
    AddMember(object.get(), "operation", JsonText(OperationText(summary.operation)));
    AddMember(object.get(), "persistent", JsonBool(summary.persistent != 0));
    AddMember(object.get(), "hosts", JsonNumber(summary.hosts));
    AddMember(object.get(), "mx_hosts", JsonNumber(summary.mx_hosts));
    AddMember(object.get(), "servers", JsonNumber(summary.servers));
    AddMember(object.get(), "forwards", JsonNumber(summary.proxies));
    return object;
}

} // namespace kavel::ctl
