#include "socket/message_checks.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <functional>
#include <system_error>

#include "base/dns_name.h"
#include "services/interfaces_netlink.h"

namespace kavel::agent {
namespace {

constexpr std::size_t kConvertedNameMax = 253;
constexpr std::uint32_t kPreferenceMax = 65535;
constexpr std::string_view kSpecialInOption = "\"#@";
constexpr std::size_t kLinesMax = 8;

std::string Element(const char *list, std::size_t index)
{
    return std::string(list) + "[" + std::to_string(index) + "]";
}

std::string_view TextOf(const char *text)
{
    return text == nullptr ? std::string_view() : std::string_view(text);
}

// What the kernel refuses in an interface name, and what would begin a new line.
bool IsForbiddenInInterfaceName(unsigned char letter)
{
    return std::isspace(letter) != 0 || std::iscntrl(letter) != 0 || letter == '/' || letter == ':';
}

std::optional<std::string> LabelObjection(std::string_view name)
{
    const std::size_t longest = LongestLabel(name);
    return longest > kLabelMax
               ? std::optional("a label has " + std::to_string(longest) + " characters; dnsmasq accepts 63 at most")
               : std::nullopt;
}

// dnsmasq converts names with capital letters, and the conversion accepts one character less.
std::optional<std::string> NameObjection(std::string_view name)
{
    if (auto objection = LabelObjection(name)) {
        return objection;
    }
    const bool hasCapital = std::ranges::any_of(name, [](unsigned char letter) { return std::isupper(letter) != 0; });
    return hasCapital && name.size() > kConvertedNameMax
               ? std::optional("a name with capital letters has " + std::to_string(name.size()) +
                               " characters; dnsmasq accepts 253 at most")
               : std::nullopt;
}

std::optional<std::string> WithField(std::string field, std::optional<std::string> objection)
{
    return objection ? std::optional(std::move(field) + ": " + *objection) : std::nullopt;
}

std::optional<std::string> MxObjection(const DnsMxHostItem &item, const std::string &field)
{
    if (item.preference > kPreferenceMax) {
        return field + ".preference: it is " + std::to_string(item.preference) + "; dnsmasq accepts 65535 at most";
    }
    if (auto objection = WithField(field + ".sourcedomain", NameObjection(TextOf(item.sourcedomain)))) {
        return objection;
    }
    return WithField(field + ".targetdomain", NameObjection(TextOf(item.targetdomain)));
}

std::optional<std::string> ServerObjection(const DnsServerItem &item, const std::string &field)
{
    const std::string_view name = TextOf(item.ifname);
    const std::size_t special = name.find_first_of(kSpecialInOption);
    return special == std::string_view::npos
               ? std::nullopt
               : std::optional(field + ".ifname: dnsmasq's configuration cannot hold a name with '" + name[special] +
                               "'");
}

// The module skips forwards of names that are not valid.
bool IsWritten(const char *domain, const ModuleFunctions &module)
{
    return domain != nullptr && module.validateDomain(domain) != FALSE;
}

// Calls `visit` for every domain of every forward, until it returns true. Whether it did.
bool AnyForwardDomain(
    const DnsmasqConf &message,
    const std::function<bool(const DnsProxyItemV2 &item, const char *domain, std::string field)> &visit)
{
    for (std::size_t i = 0; i < message.n_dnsproxies; ++i) {
        const DnsProxyItemV2 &item = *message.dnsproxies[i];
        for (std::size_t k = 0; k < item.n_domains; ++k) {
            if (visit(item, item.domains[k], Element("dnsproxies", i) + Element(".domains", k))) {
                return true;
            }
        }
    }
    return false;
}

std::optional<std::string> ForwardObjection(const DnsmasqConf &message, const ModuleFunctions &module)
{
    std::optional<std::string> found;
    AnyForwardDomain(message, [&](const DnsProxyItemV2 & /*item*/, const char *domain, std::string field) {
        auto objection = NameObjection(TextOf(domain));
        if (objection && IsWritten(domain, module)) {
            found = WithField(std::move(field), std::move(objection));
        }
        return found.has_value();
    });
    return found;
}

// The servers of a forward that the module writes: it skips the address 0.0.0.0.
std::size_t ServerCount(const DnsProxyItemV2 &item)
{
    return item.n_serverips -
           static_cast<std::size_t>(std::count(item.serverips, item.serverips + item.n_serverips, 0U));
}

std::optional<std::string> ForwardOfLine(const DnsmasqConf &message, const ModuleFunctions &module, std::size_t line)
{
    std::optional<std::string> found;
    std::size_t last = 0;
    AnyForwardDomain(message, [&](const DnsProxyItemV2 &item, const char *domain, std::string field) {
        last += IsWritten(domain, module) ? ServerCount(item) : 0;
        if (last >= line) {
            found = std::move(field);
        }
        return found.has_value();
    });
    return found;
}

std::optional<std::string> ServerOfLine(const DnsmasqConf &message, std::size_t line)
{
    std::size_t last = 0;
    for (std::size_t i = 0; i < message.n_dnsservers; ++i) {
        last += TextOf(message.dnsservers[i]->ifname).empty() ? 0 : 1;
        if (last == line) {
            return Element("dnsservers", i);
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<std::string> InterfaceNameObjection(const DnsmasqConf &message)
{
    for (std::size_t i = 0; i < message.n_dnsservers; ++i) {
        if (std::ranges::any_of(TextOf(message.dnsservers[i]->ifname), IsForbiddenInInterfaceName)) {
            return Element("dnsservers", i) + ".ifname is not an interface name";
        }
    }
    return std::nullopt;
}

std::optional<std::string> StartObjection(const DnsmasqConf &message, const ModuleFunctions &module)
{
    for (std::size_t i = 0; i < message.n_dnsmxhost; ++i) {
        if (auto objection = MxObjection(*message.dnsmxhost[i], Element("dnsmxhost", i))) {
            return objection;
        }
    }
    for (std::size_t i = 0; i < message.n_dnsservers; ++i) {
        if (auto objection = ServerObjection(*message.dnsservers[i], Element("dnsservers", i))) {
            return objection;
        }
    }
    return ForwardObjection(message, module);
}

std::vector<std::string> IneffectiveFields(const DnsmasqConf &message, const ModuleFunctions &module)
{
    std::vector<std::string> lines;
    std::size_t others = 0;
    const auto add = [&](std::string line) {
        if (lines.size() < kLinesMax) {
            lines.push_back(std::move(line));
        } else {
            ++others;
        }
    };
    for (std::size_t i = 0; i < message.n_dnshosts; ++i) {
        if (auto objection = LabelObjection(TextOf(message.dnshosts[i]->domain))) {
            add(Element("dnshosts", i) + ".domain: is not served: " + *objection);
        }
    }
    AnyForwardDomain(message, [&](const DnsProxyItemV2 & /*item*/, const char *domain, const std::string &field) {
        if (!IsWritten(domain, module)) {
            add(field + ": is skipped: \"" + std::string(TextOf(domain)) + "\" is not a domain name");
        }
        return false;
    });
    if (others > 0) {
        lines.push_back("and " + std::to_string(others) + " more");
    }
    return lines;
}

std::vector<std::string> MissingInterfaces(const DnsmasqConf &message, Host &host, std::uint32_t vpnId)
{
    std::vector<std::string> lines;
    for (std::size_t i = 0; i < message.n_dnsservers; ++i) {
        const std::string name(TextOf(message.dnsservers[i]->ifname));
        if (name.empty()) {
            continue;
        }
        try {
            (void)InterfaceIndex(host, vpnId, name);
        } catch (const std::system_error &failure) {
            lines.push_back(Element("dnsservers", i) + ".ifname: interface " + name + ": " + failure.code().message());
        }
    }
    return lines;
}

std::optional<std::string> FieldOfLine(const DnsmasqConf &message, const ModuleFunctions &module, std::string_view file,
                                       std::size_t line)
{
    if (line == 0) {
        return std::nullopt;
    }
    if (file == "Mxhost.conf") {
        return line <= message.n_dnsmxhost ? std::optional(Element("dnsmxhost", line - 1)) : std::nullopt;
    }
    if (file == "ServerMap.conf") {
        return ServerOfLine(message, line);
    }
    return file == "DnsProxy.conf" ? ForwardOfLine(message, module, line) : std::nullopt;
}

std::optional<std::string> FieldOfReason(const DnsmasqConf &message, const ModuleFunctions &module,
                                         std::string_view reason)
{
    constexpr std::string_view kBeforeLine = " at line ";
    constexpr std::string_view kBeforeFile = " of ";
    const std::size_t found = reason.find(kBeforeLine);
    if (found == std::string_view::npos) {
        return std::nullopt;
    }
    reason.remove_prefix(found + kBeforeLine.size());
    std::size_t line = 0;
    const auto [end, error] = std::from_chars(reason.data(), reason.data() + reason.size(), line);
    reason.remove_prefix(static_cast<std::size_t>(end - reason.data()));
    if (error != std::errc() || !reason.starts_with(kBeforeFile)) {
        return std::nullopt;
    }
    return FieldOfLine(message, module, reason.substr(reason.rfind('/') + 1), line);
}

} // namespace kavel::agent
