// Translates a controller message into a record. The first error ends the translation, except for a conditional forward
// with an invalid domain, which is skipped. Addresses, the operation and the VPN id are copied without a check. IPv6
// fields are ignored, because the record has no place for them.
#include "vqCtrlAdvancedDns.h"

#include <cstring>

#include "advanced_dns.pb-c.h"

#include "vqCtrlAdvancedDnsLog.h"
#include "vqErrno.h"
#include "vqSafeStr.h"

// A CPE message may have fewer MX entries than the record can hold.
static constexpr size_t kMxHostMax = 128;
// One more than 16 bits can hold. Controllers send it; dnsmasq refuses it.
static constexpr uint32_t kMxPreferenceMax = 65536;
static constexpr size_t kProxyItemMax = 1024;
// Per item. Together with the limit above, they limit the pairs to the capacity of the table in the record.
static constexpr size_t kProxyDomainMax = 8;
static constexpr size_t kProxyServerMax = 8;
static_assert(kProxyItemMax * kProxyDomainMax * kProxyServerMax == VQ_DNS_PROXY_MAX);

template <size_t Size>
static void _VQCtrl_CopyText(char (&Target)[Size], const char *Source)
{
    // The caller has checked the length, so nothing is cut.
    static_cast<void>(VQ_SafeStrCopy(Target, Size, Source));
}

template <size_t Size>
static bool _VQCtrl_Fits(const char (&/*Target*/)[Size], const char *Source)
{
    return strlen(Source) < Size;
}

// The checks of a repeated field, made before the checks of its items.
struct ListLimit {
    size_t Max;
    advanceddns::PlainText IsNull;
    advanceddns::CountText IsOverLimit;
};

static VQ_ERR_T _VQCtrl_CheckList(const char *Function, const ListLimit &Limit, const void *Items, size_t Count)
{
    if (Items == nullptr) {
        VQ_CTRL_LOG_ERROR_TEXT(Function, Limit.IsNull);
        return VQ_ERR_INVALID;
    }
    if (Count > Limit.Max) {
        VQ_CTRL_LOG_ERROR_TEXT(Function, Limit.IsOverLimit, static_cast<uint32_t>(Limit.Max));
        return VQ_ERR_OVERFLOW;
    }
    return VQ_ERR_OK;
}

// ---- Hosts ----

static VQ_ERR_T _VQCtrl_PbToDnsHost(const char *Function, size_t Loop, const DnsHostItem *Item,
                                    VQ_CTRL_DNS_HOST_CONF *Host)
{
    if (Item == nullptr) {
        VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns host[%zu] is null\n", Loop);
        return VQ_ERR_INVALID;
    }
    if (Item->domain == nullptr) {
        VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns host[%zu].domain is null\n", Loop);
        return VQ_ERR_INVALID;
    }
    if (!_VQCtrl_Fits(Host->Domain, Item->domain)) {
        VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns host[%zu] domain is overflow\n", Loop);
        return VQ_ERR_INVALID;
    }
    if (VQCtrl_ValidateDomain(Item->domain) == FALSE) {
        VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns host[%zu].domain is invalid\n", Loop);
        return VQ_ERR_INVALID;
    }
    Host->Ip = Item->ip;
    _VQCtrl_CopyText(Host->Domain, Item->domain);
    return VQ_ERR_OK;
}

static VQ_ERR_T _VQCtrl_PbToDnsHosts(const char *Function, const DnsmasqConf *Pb, VQ_CTRL_DNSMASQ_CONF *Conf)
{
    static constexpr ListLimit kLimit = {VQ_DNS_HOST_MAX, VQ_CTRL_LOG_TEXT("dnsmasq dns host is null\n"),
                                         VQ_CTRL_LOG_TEXT("dnsmasq dns host number is more than %u\n")};

    VQ_ERR_T Result = _VQCtrl_CheckList(Function, kLimit, Pb->dnshosts, Pb->n_dnshosts);
    for (size_t Loop = 0; Result >= 0 && Loop < Pb->n_dnshosts; ++Loop) {
        Result = _VQCtrl_PbToDnsHost(Function, Loop, Pb->dnshosts[Loop], &Conf->DnsHost[Loop]);
    }
    if (Result >= 0) {
        Conf->DnsHostNum = static_cast<uint16_t>(Pb->n_dnshosts);
    }
    return Result;
}

// ---- MX hosts ----

static VQ_ERR_T _VQCtrl_CheckDnsMxHost(const char *Function, size_t Loop, const DnsMxHostItem *Item,
                                       const VQ_CTRL_DNS_MX_HOST_CONF *MxHost)
{
    if (Item == nullptr) {
        VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns mx host[%zu] is null\n", Loop);
        return VQ_ERR_INVALID;
    }
    if (Item->targetdomain == nullptr) {
        VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns mx host[%zu].targetdomain is null\n", Loop);
        return VQ_ERR_INVALID;
    }
    if (Item->sourcedomain == nullptr) {
        VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns mx host[%zu].sourcedomain is null\n", Loop);
        return VQ_ERR_INVALID;
    }
    if (!_VQCtrl_Fits(MxHost->TargetDomain, Item->targetdomain)) {
        VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns mx host[%zu] target domain is overflow\n", Loop);
        return VQ_ERR_INVALID;
    }
    if (!_VQCtrl_Fits(MxHost->SourceDomain, Item->sourcedomain)) {
        VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns mx host[%zu] source domain is overflow\n", Loop);
        return VQ_ERR_INVALID;
    }
    if (Item->preference > kMxPreferenceMax) {
        VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns mx host[%zu].preference is invalid\n", Loop);
        return VQ_ERR_INVALID;
    }
    if (VQCtrl_ValidateDomain(Item->targetdomain) == FALSE) {
        VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns mx host[%zu].targetdomain is invalid\n", Loop);
        return VQ_ERR_INVALID;
    }
    if (VQCtrl_ValidateDomain(Item->sourcedomain) == FALSE) {
        VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns mx host[%zu].sourcedomain is invalid\n", Loop);
        return VQ_ERR_INVALID;
    }
    return VQ_ERR_OK;
}

static VQ_ERR_T _VQCtrl_PbToDnsMxHosts(const char *Function, const DnsmasqConf *Pb, VQ_CTRL_DNSMASQ_CONF *Conf)
{
    static constexpr ListLimit kLimit = {kMxHostMax, VQ_CTRL_LOG_TEXT("dnsmasq dns mx host is null\n"),
                                         VQ_CTRL_LOG_TEXT("dnsmasq dns mx host number is more than %u\n")};

    VQ_ERR_T Result = _VQCtrl_CheckList(Function, kLimit, Pb->dnsmxhost, Pb->n_dnsmxhost);
    for (size_t Loop = 0; Result >= 0 && Loop < Pb->n_dnsmxhost; ++Loop) {
        const DnsMxHostItem *Item = Pb->dnsmxhost[Loop];
        VQ_CTRL_DNS_MX_HOST_CONF *MxHost = &Conf->DnsMxHost[Loop];
        Result = _VQCtrl_CheckDnsMxHost(Function, Loop, Item, MxHost);
        if (Result >= 0) {
            _VQCtrl_CopyText(MxHost->TargetDomain, Item->targetdomain);
            _VQCtrl_CopyText(MxHost->SourceDomain, Item->sourcedomain);
            MxHost->Preference = Item->preference;
        }
    }
    if (Result >= 0) {
        Conf->DnsMxHostNum = static_cast<uint16_t>(Pb->n_dnsmxhost);
    }
    return Result;
}

// ---- Upstream servers ----

// A missing interface name is treated as an empty one.
static bool _VQCtrl_IsSameServer(const DnsServerItem *One, const DnsServerItem *Other)
{
    const char *OneName = One->ifname != nullptr ? One->ifname : "";
    const char *OtherName = Other->ifname != nullptr ? Other->ifname : "";
    return One->dnsserver == Other->dnsserver && strcmp(OneName, OtherName) == 0;
}

static VQ_ERR_T _VQCtrl_PbToDnsServer(const char *Function, size_t Loop, DnsServerItem *const *Items,
                                      VQ_CTRL_DNS_SERVER_CONF *Server)
{
    const DnsServerItem *Item = Items[Loop];
    if (Item == nullptr) {
        VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns server[%zu] is null\n", Loop);
        return VQ_ERR_INVALID;
    }
    for (size_t ServerLoop = 0; ServerLoop < Loop; ++ServerLoop) {
        if (_VQCtrl_IsSameServer(Items[ServerLoop], Item)) {
            VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns server[%zu] is repeat\n", Loop);
            return VQ_ERR_INVALID;
        }
    }
    if (Item->ifname != nullptr) {
        if (!_VQCtrl_Fits(Server->Ifname, Item->ifname)) {
            VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns server[%zu] ifname is overflow\n", Loop);
            return VQ_ERR_INVALID;
        }
        _VQCtrl_CopyText(Server->Ifname, Item->ifname);
    }
    Server->DnsServerIp = Item->dnsserver;
    return VQ_ERR_OK;
}

static VQ_ERR_T _VQCtrl_PbToDnsServers(const char *Function, const DnsmasqConf *Pb, VQ_CTRL_DNSMASQ_CONF *Conf)
{
    static constexpr ListLimit kLimit = {VQ_DNS_SERVER_MAX, VQ_CTRL_LOG_TEXT("dnsmasq dns server is null\n"),
                                         VQ_CTRL_LOG_TEXT("dnsmasq dns server number is more than %u\n")};

    VQ_ERR_T Result = _VQCtrl_CheckList(Function, kLimit, Pb->dnsservers, Pb->n_dnsservers);
    for (size_t Loop = 0; Result >= 0 && Loop < Pb->n_dnsservers; ++Loop) {
        Result = _VQCtrl_PbToDnsServer(Function, Loop, Pb->dnsservers, &Conf->DnsServer[Loop]);
    }
    if (Result >= 0) {
        Conf->DnsServerNum = static_cast<uint8_t>(Pb->n_dnsservers);
    }
    return Result;
}

// ---- Conditional forwards ----

// Appends the pairs of one domain of an item to the table, which has `*Num` pairs so far.
static void _VQCtrl_AddProxyPairs(const DnsProxyItemV2 *Item, const char *Domain, VQ_CTRL_DNSMASQ_CONF *Conf,
                                  size_t *Num)
{
    for (size_t IpLoop = 0; IpLoop < Item->n_serverips; ++IpLoop) {
        if (Item->serverips[IpLoop] == 0) {
            continue;
        }
        VQ_CTRL_DNS_PROXY_CONF *Proxy = &Conf->DnsProxy[*Num];
        _VQCtrl_CopyText(Proxy->Domain, Domain);
        Proxy->ServerIp = Item->serverips[IpLoop];
        ++*Num;
    }
}

static VQ_ERR_T _VQCtrl_PbToDnsProxy(const char *Function, size_t Loop, const DnsProxyItemV2 *Item,
                                     VQ_CTRL_DNSMASQ_CONF *Conf, size_t *Num)
{
    if (Item == nullptr) {
        VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns proxy item[%zu] is null\n", Loop);
        return VQ_ERR_INVALID;
    }
    if (Item->n_domains > kProxyDomainMax || Item->n_serverips > kProxyServerMax) {
        VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns proxy item ip or domain number is overflow\n");
        return VQ_ERR_OVERFLOW;
    }
    for (size_t DomainLoop = 0; DomainLoop < Item->n_domains; ++DomainLoop) {
        if (Item->domains == nullptr) {
            VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns proxy[%zu].domain is null\n", Loop);
            return VQ_ERR_INVALID;
        }
        // Unlike the domain of a host, a bad domain only loses its own pairs.
        const char *Domain = Item->domains[DomainLoop];
        if (Domain == nullptr) {
            VQ_CTRL_LOG_WARNING_AS(Function, "dnsproxy item domain is null\n");
            continue;
        }
        if (VQCtrl_ValidateDomain(Domain) == FALSE) {
            VQ_CTRL_LOG_WARNING_AS(Function, "dnsproxy item domain(%s) is invalid\n", Domain);
            continue;
        }
        if (Item->n_serverips != 0 && Item->serverips == nullptr) {
            VQ_CTRL_LOG_ERROR_AS(Function, "dnsmasq dns proxy[%zu].serverip is null\n", Loop);
            return VQ_ERR_INVALID;
        }
        _VQCtrl_AddProxyPairs(Item, Domain, Conf, Num);
    }
    return VQ_ERR_OK;
}

// Makes a pair of every valid domain of an item with every server of that item, in message order. Duplicates are kept.
static VQ_ERR_T _VQCtrl_PbToAdvancedDnsProxyConf(const DnsmasqConf *Pb, VQ_CTRL_DNSMASQ_CONF *Conf)
{
    static constexpr ListLimit kLimit = {kProxyItemMax, VQ_CTRL_LOG_TEXT("dnsmasq dns proxy is null\n"),
                                         VQ_CTRL_LOG_TEXT("dnsmasq dns proxy item number is more than %u\n")};

    VQ_ERR_T Result = _VQCtrl_CheckList(__func__, kLimit, Pb->dnsproxies, Pb->n_dnsproxies);
    size_t Num = 0;
    for (size_t Loop = 0; Result >= 0 && Loop < Pb->n_dnsproxies; ++Loop) {
        Result = _VQCtrl_PbToDnsProxy(__func__, Loop, Pb->dnsproxies[Loop], Conf, &Num);
    }
    if (Result >= 0) {
        // The count of a full table wraps to 0, and the table is read as empty.
        Conf->DnsProxyNum = static_cast<uint16_t>(Num);
    }
    return Result;
}

// ---- Messages ----

static void _VQCtrl_PbToPersistentFlag(protobuf_c_boolean Present, protobuf_c_boolean Flag, VQ_CTRL_DNSMASQ_CONF *Conf)
{
    if (Present != 0 && VQ_IsPersistentConfEnable() != FALSE) {
        Conf->PersistentFlag = static_cast<BOOL>(Flag);
    }
}

VQ_ERR_T VQCtrl_PbToAdvancedDnsConfPlatformCPE(const VQ_CTRL_DNSMASQ_CONFIG_PB *DnsmasqPb, VQ_CTRL_DNSMASQ_CONF *Conf)
{
    const DnsmasqConf *Pb = DnsmasqPb->DnsmasqPbCPE;

    Conf->Enable = static_cast<BOOL>(Pb->enable);
    Conf->Op = static_cast<VQ_CTRL_DNSMASQ_OPERATION>(Pb->operation);
    Conf->VpnId = Pb->has_vpnid != 0 ? Pb->vpnid : 0;
    _VQCtrl_PbToPersistentFlag(Pb->has_persistentflag, Pb->persistentflag, Conf);

    VQ_ERR_T Result = VQ_ERR_OK;
    if (Pb->n_dnshosts != 0) {
        Result = _VQCtrl_PbToDnsHosts(__func__, Pb, Conf);
    }
    if (Result >= 0 && Pb->n_dnsmxhost != 0) {
        Result = _VQCtrl_PbToDnsMxHosts(__func__, Pb, Conf);
    }
    if (Result >= 0 && Pb->n_dnsservers != 0) {
        Result = _VQCtrl_PbToDnsServers(__func__, Pb, Conf);
    }
    if (Result < 0 || Pb->n_dnsproxies == 0) {
        return Result;
    }
    Result = _VQCtrl_PbToAdvancedDnsProxyConf(Pb, Conf);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR("Pb To dnsmasq for dns proxy failed(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
    }
    return Result;
}

VQ_ERR_T VQCtrl_PbToAdvancedDnsConfPlatformPOP(const VQ_CTRL_DNSMASQ_CONFIG_PB *DnsmasqPb, VQ_CTRL_DNSMASQ_CONF *Conf)
{
    const PopDnsmasqConf *Pb = DnsmasqPb->DnsmasqPbPOP;

    Conf->Enable = static_cast<BOOL>(Pb->enable);
    // The message has no operation. Its changes need a restart.
    Conf->Op = VQ_CTRL_DNSMASQ_OP_REBOOT;
    _VQCtrl_PbToPersistentFlag(Pb->has_persistentflag, Pb->persistentflag, Conf);
    if (Pb->n_dns > UINT8_MAX) {
        VQ_CTRL_LOG_ERROR("pop dnsmasq dns is overflow\n");
        return VQ_ERR_OVERFLOW;
    }
    Conf->DnsServerNum = static_cast<uint8_t>(Pb->n_dns < VQ_DNS_SERVER_MAX ? Pb->n_dns : VQ_DNS_SERVER_MAX);
    Conf->LocalIp = Pb->localip;
    if (Conf->DnsServerNum != 0 && Pb->dns == nullptr) {
        VQ_CTRL_LOG_ERROR("pop dnsmasq dns is null\n");
        return VQ_ERR_INVALID;
    }
    if (Pb->n_dns > VQ_DNS_SERVER_MAX) {
        VQ_CTRL_LOG_WARNING("pop dnsmasq dns number(%zu) is more than %u, use the first ones\n", Pb->n_dns,
                            VQ_DNS_SERVER_MAX);
    }
    for (size_t Loop = 0; Loop < Conf->DnsServerNum; ++Loop) {
        Conf->DnsServer[Loop].DnsServerIp = Pb->dns[Loop];
    }
    return VQ_ERR_OK;
}
