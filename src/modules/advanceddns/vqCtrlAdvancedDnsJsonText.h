// The keys of the JSON document, and the log texts for parts of it that cannot be created or read.
#ifndef VQ_CTRL_ADVANCED_DNS_JSON_TEXT_H
#define VQ_CTRL_ADVANCED_DNS_JSON_TEXT_H

#include "vqCtrlAdvancedDnsLog.h"

// The key of a member, and the log text for a value that cannot be allocated.
struct JsonMember {
    const char *Key;
    advanceddns::PlainText CantNew;
};

inline constexpr JsonMember kEnable = {"Enable", VQ_CTRL_LOG_TEXT("Can't new dnsmasq enable json object\n")};
inline constexpr JsonMember kVpnId = {"VpnId", VQ_CTRL_LOG_TEXT("Can't new dnsmasq vpnId json object\n")};
inline constexpr JsonMember kOp = {"Op", VQ_CTRL_LOG_TEXT("Can't new dnsmasq Op json object\n")};
inline constexpr JsonMember kDnsHostNum = {"DnsHostNum",
                                           VQ_CTRL_LOG_TEXT("Can't new dnsmasq DnsHostNum json object\n")};
inline constexpr JsonMember kDnsMxHostNum = {"DnsMxHostNum",
                                             VQ_CTRL_LOG_TEXT("Can't new dnsmasq DnsMxHostNum json object\n")};
inline constexpr JsonMember kDnsServerNum = {"DnsServerNum",
                                             VQ_CTRL_LOG_TEXT("Can't new dnsmasq DnsServerNum json object\n")};
inline constexpr JsonMember kDnsProxyNum = {"DnsProxyNum",
                                            VQ_CTRL_LOG_TEXT("Can't new dnsmasq DnsProxyNum json object\n")};
inline constexpr JsonMember kDnsHost = {"DnsHost", VQ_CTRL_LOG_TEXT("Can't new dnsmasq DnsHost json object\n")};
inline constexpr JsonMember kIp = {"Ip", VQ_CTRL_LOG_TEXT("Can't new dnsmasq Ip json object\n")};
inline constexpr JsonMember kDomain = {"Domain", VQ_CTRL_LOG_TEXT("Can't new dnsmasq Domain json object\n")};
inline constexpr JsonMember kDnsMxHost = {"DnsMxHost", VQ_CTRL_LOG_TEXT("Can't new dnsmasq DnsMxHost json object\n")};
inline constexpr JsonMember kTargetDomain = {"TargetDomain",
                                             VQ_CTRL_LOG_TEXT("Can't new dnsmasq TargetDomain json object\n")};
inline constexpr JsonMember kSourceDomain = {"SourceDomain",
                                             VQ_CTRL_LOG_TEXT("Can't new dnsmasq SourceDomain json object\n")};
inline constexpr JsonMember kPreference = {"Preference",
                                           VQ_CTRL_LOG_TEXT("Can't new dnsmasq Preference json object\n")};
inline constexpr JsonMember kDnsServer = {"DnsServer", VQ_CTRL_LOG_TEXT("Can't new dnsmasq DnsServer json object\n")};
inline constexpr JsonMember kDnsServerIp = {"DnsServerIp",
                                            VQ_CTRL_LOG_TEXT("Can't new dnsmasq DnsServerIp json object\n")};
inline constexpr JsonMember kIfname = {"Ifname", VQ_CTRL_LOG_TEXT("Can't new dnsmasq Ifname json object\n")};
inline constexpr JsonMember kDnsProxy = {"DnsProxy", VQ_CTRL_LOG_TEXT("Can't new dnsmasq DnsProxy json object\n")};
inline constexpr JsonMember kServerIp = {"ServerIp", VQ_CTRL_LOG_TEXT("Can't new dnsmasq ServerIp json object\n")};
inline constexpr JsonMember kLocalIp = {"LocalIp", VQ_CTRL_LOG_TEXT("Can't new dnsmasq LocalIp json object\n")};

// The elements of the lists have no key.
inline constexpr advanceddns::PlainText kCantNewHostItem =
    VQ_CTRL_LOG_TEXT("Can't new dnsmasq dnsHostItem json object\n");
inline constexpr advanceddns::PlainText kCantNewMxHostItem =
    VQ_CTRL_LOG_TEXT("Can't new dnsmasq dnsMxHostItem json object\n");
inline constexpr advanceddns::PlainText kCantNewServerItem =
    VQ_CTRL_LOG_TEXT("Can't new dnsmasq dnsServerItem json object\n");
inline constexpr advanceddns::PlainText kCantNewProxyItem =
    VQ_CTRL_LOG_TEXT("Can't new dnsmasq dnsProxyItem json object\n");

// The log texts for a list that does not match its count. Two texts of the servers name the hosts; log filters in the
// field depend on that.
struct ListTexts {
    advanceddns::PlainText IsMissing;
    advanceddns::PlainText IsNotArray;
    advanceddns::PlainText NumDiffers;
    advanceddns::TableFormat<'s', 's', 's', 's', 'd', 'z'> ItemIsEmpty;
    advanceddns::CountText IsOverCapacity;
};

inline constexpr ListTexts kHostTexts = {
    VQ_CTRL_LOG_TEXT("DnsHost array is empty\n"),
    VQ_CTRL_LOG_TEXT("Invalid format, DnsHost is not array!\n"),
    VQ_CTRL_LOG_TEXT("DnsHost array num is not equal to DnsHostNum, use array num\n"),
    VQ_CTRL_LOG_TEXT("empty [%zu] item for DnsHost\n"),
    VQ_CTRL_LOG_TEXT("DnsHost array num is more than %u\n"),
};
inline constexpr ListTexts kMxHostTexts = {
    VQ_CTRL_LOG_TEXT("DnsMxHost array is empty\n"),
    VQ_CTRL_LOG_TEXT("Invalid format, DnsMxHost is not array!\n"),
    VQ_CTRL_LOG_TEXT("DnsMxHost array num is not equal to DnsMxHostNum, use array num\n"),
    VQ_CTRL_LOG_TEXT("empty [%zu] item for DnsMxHost\n"),
    VQ_CTRL_LOG_TEXT("DnsMxHost array num is more than %u\n"),
};
inline constexpr ListTexts kServerTexts = {
    VQ_CTRL_LOG_TEXT("DnsServer array is empty\n"),
    VQ_CTRL_LOG_TEXT("Invalid format, DnsServer is not array!\n"),
    VQ_CTRL_LOG_TEXT("DnsHost array num is not equal to DnsServerNum, use array num\n"),
    VQ_CTRL_LOG_TEXT("empty [%zu] item for DnsHost\n"),
    VQ_CTRL_LOG_TEXT("DnsServer array num is more than %u\n"),
};
inline constexpr ListTexts kProxyTexts = {
    VQ_CTRL_LOG_TEXT("DnsProxy array is empty\n"),
    VQ_CTRL_LOG_TEXT("Invalid format, DnsProxy is not array!\n"),
    VQ_CTRL_LOG_TEXT("DnsProxy array num is not equal to DnsProxyNum, use array num\n"),
    VQ_CTRL_LOG_TEXT("empty [%zu] item for DnsProxy\n"),
    VQ_CTRL_LOG_TEXT("DnsProxy array num is more than %u\n"),
};

#endif
