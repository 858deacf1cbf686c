#include "json_message.h"

#include <algorithm>
#include <array>
#include <type_traits>
#include <utility>

#include "advanced_dns.pb-c.h"
#include "errors.h"
#include "message_fields.h"
#include "output.h"

namespace kavel::ctl {

namespace {

using enum Presence;

constexpr std::array kHostFields = {
    Plain<&DnsHostItem::domain, TextCodec>("domain", kRequired),
    Plain<&DnsHostItem::ip, Ipv4Codec>("ip", kRequired),
    Optional<&DnsHostItem::has_ipv6, &DnsHostItem::ipv6, Ipv6Codec>("ipv6"),
};
using HostCodec = ItemCodec<DnsHostItem, kHostFields, dns_host_item__init>;

constexpr std::array kServerFields = {
    Plain<&DnsServerItem::dnsserver, Ipv4Codec>("dnsserver", kRequired),
    Plain<&DnsServerItem::ifname, TextCodec>("ifname", kOptional),
};
using ServerCodec = ItemCodec<DnsServerItem, kServerFields, dns_server_item__init>;

constexpr std::array kMxHostFields = {
    Plain<&DnsMxHostItem::targetdomain, TextCodec>("targetdomain", kRequired),
    Plain<&DnsMxHostItem::sourcedomain, TextCodec>("sourcedomain", kRequired),
    Plain<&DnsMxHostItem::preference, NumberCodec>("preference", kRequired),
};
using MxHostCodec = ItemCodec<DnsMxHostItem, kMxHostFields, dns_mx_host_item__init>;

constexpr std::array kProxyFields = {
    List<&DnsProxyItemV2::n_domains, &DnsProxyItemV2::domains, TextCodec>("domains", kRequired),
    List<&DnsProxyItemV2::n_serverips, &DnsProxyItemV2::serverips, Ipv4Codec>("serverips", kRequired),
    List<&DnsProxyItemV2::n_serveripv6s, &DnsProxyItemV2::serveripv6s, Ipv6Codec>("serveripv6s", kOptional),
};
using ProxyCodec = ItemCodec<DnsProxyItemV2, kProxyFields, dns_proxy_item_v2__init>;

constexpr std::array kCpeFields = {
    Plain<&DnsmasqConf::enable, BoolCodec>("enable", kRequired),
    Plain<&DnsmasqConf::operation, OperationCodec>("operation", kRequired),
    List<&DnsmasqConf::n_dnshosts, &DnsmasqConf::dnshosts, HostCodec>("dnshosts", kOptional),
    List<&DnsmasqConf::n_dnsservers, &DnsmasqConf::dnsservers, ServerCodec>("dnsservers", kOptional),
    List<&DnsmasqConf::n_dnsmxhost, &DnsmasqConf::dnsmxhost, MxHostCodec>("dnsmxhost", kOptional),
    List<&DnsmasqConf::n_dnsproxies, &DnsmasqConf::dnsproxies, ProxyCodec>("dnsproxies", kOptional),
    Optional<&DnsmasqConf::has_persistentflag, &DnsmasqConf::persistentflag, BoolCodec>("persistentflag"),
    Optional<&DnsmasqConf::has_historypersistent, &DnsmasqConf::historypersistent, BoolCodec>("historypersistent"),
    Optional<&DnsmasqConf::has_vpnid, &DnsmasqConf::vpnid, NumberCodec>("vpnid"),
};

constexpr std::array kPopFields = {
    Plain<&PopDnsmasqConf::enable, BoolCodec>("enable", kRequired),
    List<&PopDnsmasqConf::n_dns, &PopDnsmasqConf::dns, Ipv4Codec>("dns", kOptional),
    Plain<&PopDnsmasqConf::localip, Ipv4Codec>("localip", kRequired),
    Optional<&PopDnsmasqConf::has_persistentflag, &PopDnsmasqConf::persistentflag, BoolCodec>("persistentflag"),
    Optional<&PopDnsmasqConf::has_historypersistent, &PopDnsmasqConf::historypersistent, BoolCodec>(
        "historypersistent"),
    List<&PopDnsmasqConf::n_dnsipv6, &PopDnsmasqConf::dnsipv6, Ipv6Codec>("dnsipv6", kOptional),
    Optional<&PopDnsmasqConf::has_localipv6, &PopDnsmasqConf::localipv6, Ipv6Codec>("localipv6"),
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
    if (target != MessageFor::kBox && !HasKey(json.json, "vpnid")) {
        Refuse(path, target == MessageFor::kVpn ? "is missing; give --box if the message is for the box itself"
                                                : "is missing; 0 is the box itself");
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
    EncodedMessage encoded{std::vector<std::uint8_t>(PackedSize(&message)), SummaryOf(message),
                           std::is_same_v<Message, PopDnsmasqConf>};
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

JsonPtr MessageJson(const PackedConf &packed)
{
    if (packed.isForPop) {
        return WriteMembers(*UnpackPop(packed), kPopFields);
    }
    return WriteMembers(*UnpackCpe(packed), kCpeFields);
}

} // namespace kavel::ctl
