#include "json_message.h"

#include <algorithm>
#include <array>
#include <utility>

#include "advanced_dns.pb-c.h"
#include "errors.h"
#include "message_fields.h"
#include "output.h"

namespace kavel::ctl {

namespace {

using enum Presence;

constexpr std::array kHostFields = {
    Field<DnsHostItem>{"domain", kRequired, Set<&DnsHostItem::domain, ReadText>},
    Field<DnsHostItem>{"ip", kRequired, Set<&DnsHostItem::ip, ReadIpv4>},
    Field<DnsHostItem>{"ipv6", kOptional, SetOptional<&DnsHostItem::has_ipv6, &DnsHostItem::ipv6, ReadIpv6>},
};
constexpr auto kReadHost = ReadItem<DnsHostItem, kHostFields, dns_host_item__init>;

constexpr std::array kServerFields = {
    Field<DnsServerItem>{"dnsserver", kRequired, Set<&DnsServerItem::dnsserver, ReadIpv4>},
    Field<DnsServerItem>{"ifname", kOptional, Set<&DnsServerItem::ifname, ReadText>},
};
constexpr auto kReadServer = ReadItem<DnsServerItem, kServerFields, dns_server_item__init>;

constexpr std::array kMxHostFields = {
    Field<DnsMxHostItem>{"targetdomain", kRequired, Set<&DnsMxHostItem::targetdomain, ReadText>},
    Field<DnsMxHostItem>{"sourcedomain", kRequired, Set<&DnsMxHostItem::sourcedomain, ReadText>},
    Field<DnsMxHostItem>{"preference", kRequired, Set<&DnsMxHostItem::preference, ReadNumber>},
};
constexpr auto kReadMxHost = ReadItem<DnsMxHostItem, kMxHostFields, dns_mx_host_item__init>;

constexpr std::array kProxyFields = {
    Field<DnsProxyItemV2>{"domains", kRequired,
                          SetList<&DnsProxyItemV2::n_domains, &DnsProxyItemV2::domains, ReadText>},
    Field<DnsProxyItemV2>{"serverips", kRequired,
                          SetList<&DnsProxyItemV2::n_serverips, &DnsProxyItemV2::serverips, ReadIpv4>},
    Field<DnsProxyItemV2>{"serveripv6s", kOptional,
                          SetList<&DnsProxyItemV2::n_serveripv6s, &DnsProxyItemV2::serveripv6s, ReadIpv6>},
};
constexpr auto kReadProxy = ReadItem<DnsProxyItemV2, kProxyFields, dns_proxy_item_v2__init>;

constexpr std::array kCpeFields = {
    Field<DnsmasqConf>{"enable", kRequired, Set<&DnsmasqConf::enable, ReadBool>},
    Field<DnsmasqConf>{"operation", kRequired, Set<&DnsmasqConf::operation, ReadOperation>},
    Field<DnsmasqConf>{"dnshosts", kOptional, SetList<&DnsmasqConf::n_dnshosts, &DnsmasqConf::dnshosts, kReadHost>},
    Field<DnsmasqConf>{"dnsservers", kOptional,
                       SetList<&DnsmasqConf::n_dnsservers, &DnsmasqConf::dnsservers, kReadServer>},
    Field<DnsmasqConf>{"dnsmxhost", kOptional,
                       SetList<&DnsmasqConf::n_dnsmxhost, &DnsmasqConf::dnsmxhost, kReadMxHost>},
    Field<DnsmasqConf>{"dnsproxies", kOptional,
                       SetList<&DnsmasqConf::n_dnsproxies, &DnsmasqConf::dnsproxies, kReadProxy>},
    Field<DnsmasqConf>{"persistentflag", kOptional,
                       SetOptional<&DnsmasqConf::has_persistentflag, &DnsmasqConf::persistentflag, ReadBool>},
    Field<DnsmasqConf>{"historypersistent", kOptional,
                       SetOptional<&DnsmasqConf::has_historypersistent, &DnsmasqConf::historypersistent, ReadBool>},
    Field<DnsmasqConf>{"vpnid", kOptional, SetOptional<&DnsmasqConf::has_vpnid, &DnsmasqConf::vpnid, ReadNumber>},
};

constexpr std::array kPopFields = {
    Field<PopDnsmasqConf>{"enable", kRequired, Set<&PopDnsmasqConf::enable, ReadBool>},
    Field<PopDnsmasqConf>{"dns", kOptional, SetList<&PopDnsmasqConf::n_dns, &PopDnsmasqConf::dns, ReadIpv4>},
    Field<PopDnsmasqConf>{"localip", kRequired, Set<&PopDnsmasqConf::localip, ReadIpv4>},
    Field<PopDnsmasqConf>{"persistentflag", kOptional,
                          SetOptional<&PopDnsmasqConf::has_persistentflag, &PopDnsmasqConf::persistentflag, ReadBool>},
    Field<PopDnsmasqConf>{
        "historypersistent", kOptional,
        SetOptional<&PopDnsmasqConf::has_historypersistent, &PopDnsmasqConf::historypersistent, ReadBool>},
    Field<PopDnsmasqConf>{"dnsipv6", kOptional,
                          SetList<&PopDnsmasqConf::n_dnsipv6, &PopDnsmasqConf::dnsipv6, ReadIpv6>},
    Field<PopDnsmasqConf>{"localipv6", kOptional,
                          SetOptional<&PopDnsmasqConf::has_localipv6, &PopDnsmasqConf::localipv6, ReadIpv6>},
};

// Whether `object` has a key that is in the table `these` and not in the table `others`.
template <typename These, typename Others>
bool HasKeyOnlyOf(json_object *object, const These &these, const Others &others)
{
    return std::ranges::any_of(these, [&](const auto &field) {
        return FindByName(others, field.name) == others.end() && HasKey(object, field.name);
    });
}

bool IsForPop(json_object *message)
{
    return IsType(message, json_type_object) && HasKeyOnlyOf(message, kPopFields, kCpeFields) &&
           !HasKeyOnlyOf(message, kCpeFields, kPopFields);
}

std::string SummaryOf(const DnsmasqConf &conf)
{
    return "CPE message for vpn " + std::to_string(conf.vpnid) + ": " + EnabledText(conf.enable != 0) + ", " +
           OperationText(conf.operation) + ", " + Counted(conf.n_dnshosts, "host") + ", " +
           std::to_string(conf.n_dnsmxhost) + " mx, " + Counted(conf.n_dnsservers, "server") + ", " +
           Counted(conf.n_dnsproxies, "proxy item");
}

std::string SummaryOf(const PopDnsmasqConf &conf)
{
    return "POP message: " + EnabledText(conf.enable != 0) + ", " + Counted(conf.n_dns, "server");
}

// A message that names no VPN would change the box's own service: an easy slip, so it has to be asked for.
void CheckTarget(const JsonValue & /*json*/, const PopDnsmasqConf & /*conf*/, MessageFor /*target*/) {}

void CheckTarget(const JsonValue &json, const DnsmasqConf &conf, MessageFor target)
{
    const JsonPath path = json.path.Key("vpnid");
    if (target == MessageFor::kVpn && !HasKey(json.json, "vpnid")) {
        Refuse(path, "is missing; give --box if the message is for the box itself");
    }
    if (target == MessageFor::kBox && conf.vpnid != 0) {
        Refuse(path, "is " + std::to_string(conf.vpnid) + ", but --box is given: the box itself is 0");
    }
}

// Empty if there were errors: the message is not complete then.
template <typename Message, auto Init, auto PackedSize, auto Pack, typename Fields>
EncodedMessage Encode(const JsonValue &json, const Fields &fields, MessageFor target, const bool &hasErrors)
{
    Arena arena;
    Message message{};
    Init(&message);
    ReadMembers(json, fields, message, arena);
    CheckTarget(json, message, target);
    if (hasErrors) {
        return {};
    }
    EncodedMessage encoded{std::vector<std::uint8_t>(PackedSize(&message)), SummaryOf(message)};
    Pack(&message, encoded.bytes.data());
    return encoded;
}

// `hasErrors` becomes true with the first text that `errors` is given.
EncodedMessage EncodeText(const std::string &text, MessageFor target, const ErrorSink *errors, const bool &hasErrors)
{
    const JsonPtr json = ParseJson(text, {"message", errors});
    const JsonValue value{json.get(), {}, errors};
    if (IsForPop(json.get())) {
        return Encode<PopDnsmasqConf, pop_dnsmasq_conf__init, pop_dnsmasq_conf__get_packed_size,
                      pop_dnsmasq_conf__pack>(value, kPopFields, target, hasErrors);
    }
    return Encode<DnsmasqConf, dnsmasq_conf__init, dnsmasq_conf__get_packed_size, dnsmasq_conf__pack>(
        value, kCpeFields, target, hasErrors);
}

} // namespace

EncodedMessage EncodeJson(const std::string &text, MessageFor target)
{
    return EncodeText(text, target, nullptr, false);
}

std::optional<EncodedMessage> EncodeJson(const std::string &text, MessageFor target, const ErrorSink &errors)
{
    bool hasErrors = false;
    const ErrorSink note = [&](const std::string &error) {
        hasErrors = true;
        errors(error);
    };
    try {
        EncodedMessage encoded = EncodeText(text, target, &note, hasErrors);
        return hasErrors ? std::nullopt : std::optional(std::move(encoded));
    } catch (const InputError &error) {
        errors(error.what());
        return std::nullopt;
    }
}

} // namespace kavel::ctl
