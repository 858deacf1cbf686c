// The five input files of an instance, the routes toward its servers, and the check of domain names.
#include "vqCtrlAdvancedDns.h"

#include <cstring>

#include <regex.h>

#include "vqCtrlAdvancedDnsGuard.h"
#include "vqCtrlAdvancedDnsLog.h"
#include "vqCtrlAdvancedDnsSizes.h"
#include "vqErrno.h"
#include "vqFile.h"
#include "vqRoute.h"
#include "vqSafeStr.h"

// ---- Files ----

// The differences between the files: paths, sizes and log texts.
struct DnsFile {
    const char *BoxPath;
    advanceddns::TableFormat<'u'> VpnPath;
    size_t EntryBudget; // bytes allocated per entry; 0: the fixed buffer for server lists
    advanceddns::PlainText PathOverflow;
    advanceddns::FailureText EmptyingFailed;
    advanceddns::PlainText IsEmpty;
    advanceddns::PlainText NoMemory;
    advanceddns::PlainText ContentOverflow;
    advanceddns::FailureText WriteFailed;
};

// For a text that is never logged: the fixed buffer cannot run out of memory.
static constexpr const char *kNoText = VQ_CTRL_LOG_TEXT("");

static constexpr DnsFile kHostsFile = {
    .BoxPath = "/etc/kavel/dnsmasq/hosts",
    .VpnPath = "/etc/kavel/dnsmasq/vpn_%u/hosts",
    .EntryBudget = 1024,
    .PathOverflow = VQ_CTRL_LOG_TEXT("hosts conf path is overflow\n"),
    .EmptyingFailed = VQ_CTRL_LOG_TEXT("Write to dnsmasq host failed(%d:%s)\n"),
    .IsEmpty = VQ_CTRL_LOG_TEXT("DnsHostNum is zero, clean dns host conf\n"),
    .NoMemory = VQ_CTRL_LOG_TEXT("Can't apply memory for dns host\n"),
    .ContentOverflow = VQ_CTRL_LOG_TEXT("buffer is small for dns host\n"),
    .WriteFailed = VQ_CTRL_LOG_TEXT("Write to dnsmasq host failed(%d:%s)\n"),
};

static constexpr DnsFile kMxHostFile = {
    .BoxPath = "/etc/kavel/dnsmasq/dnsmasq.d/Mxhost.conf",
    .VpnPath = "/etc/kavel/dnsmasq/vpn_%u/dnsmasq.d/Mxhost.conf",
    .EntryBudget = 1024,
    .PathOverflow = VQ_CTRL_LOG_TEXT("Mxhost conf path is overflow\n"),
    .EmptyingFailed = VQ_CTRL_LOG_TEXT("Write to dnsmasq mx host failed(%d:%s)\n"),
    .IsEmpty = VQ_CTRL_LOG_TEXT("DnsMxHostNum is zero, clean dns mx host conf\n"),
    .NoMemory = VQ_CTRL_LOG_TEXT("Can't apply memory for dns mx host\n"),
    .ContentOverflow = VQ_CTRL_LOG_TEXT("buffer is small for dns mx host\n"),
    .WriteFailed = VQ_CTRL_LOG_TEXT("Write to dnsmasq mx host failed(%d:%s)\n"),
};

// Logs a path overflow with the text of the MX file. Log filters in the field depend on that.
static constexpr DnsFile kServerMapFile = {
    .BoxPath = "/etc/kavel/dnsmasq/dnsmasq.d/ServerMap.conf",
    .VpnPath = "/etc/kavel/dnsmasq/vpn_%u/dnsmasq.d/ServerMap.conf",
    .EntryBudget = 0,
    .PathOverflow = VQ_CTRL_LOG_TEXT("Mxhost conf path is overflow\n"),
    .EmptyingFailed = VQ_CTRL_LOG_TEXT("Write to dnsmasq server map failed(%d:%s)\n"),
    .IsEmpty = VQ_CTRL_LOG_TEXT("DnsServerNum is zero, clean dns server conf\n"),
    .NoMemory = kNoText,
    .ContentOverflow = VQ_CTRL_LOG_TEXT("buffer is small for dns server map\n"),
    .WriteFailed = VQ_CTRL_LOG_TEXT("Write to dnsmasq server map failed(%d:%s)\n"),
};

static constexpr DnsFile kResolvFile = {
    .BoxPath = "/etc/kavel/dnsmasq/resolv.conf",
    .VpnPath = "/etc/kavel/dnsmasq/vpn_%u/resolv.conf",
    .EntryBudget = 0,
    .PathOverflow = VQ_CTRL_LOG_TEXT("resolv conf path is overflow\n"),
    .EmptyingFailed = VQ_CTRL_LOG_TEXT("Write to dnsmasq server resolv failed(%d:%s)\n"),
    .IsEmpty = VQ_CTRL_LOG_TEXT("DnsServerNum is zero, clean dns server resolve conf\n"),
    .NoMemory = kNoText,
    .ContentOverflow = VQ_CTRL_LOG_TEXT("buffer is small for dns server resolv\n"),
    .WriteFailed = VQ_CTRL_LOG_TEXT("Write to dnsmasq server resolv failed(%d:%s)\n"),
};

// Shares two log texts with the hosts file: for content that does not fit, and for a failed write.
static constexpr DnsFile kProxyFile = {
    .BoxPath = "/etc/kavel/dnsmasq/dnsmasq.d/DnsProxy.conf",
    .VpnPath = "/etc/kavel/dnsmasq/vpn_%u/dnsmasq.d/DnsProxy.conf",
    .EntryBudget = 288,
    .PathOverflow = VQ_CTRL_LOG_TEXT("dnsproxy conf path is overflow\n"),
    .EmptyingFailed = VQ_CTRL_LOG_TEXT("Write to dnsmasq dns proxy failed(%d:%s)\n"),
    .IsEmpty = VQ_CTRL_LOG_TEXT("DnsProxyNum is zero, clean dns proxy conf\n"),
    .NoMemory = VQ_CTRL_LOG_TEXT("Can't apply memory for dns proxy\n"),
    .ContentOverflow = VQ_CTRL_LOG_TEXT("buffer is small for dns host\n"),
    .WriteFailed = VQ_CTRL_LOG_TEXT("Write to dnsmasq host failed(%d:%s)\n"),
};

static VQ_ERR_T _VQCtrl_DnsFilePath(const char *Function, const DnsFile &File, uint32_t VpnId, char (&Path)[kPathSize])
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // checked where the table is compiled
    const size_t Length = VpnId != 0 ? VQ_SNPrintf(Path, sizeof(Path), File.VpnPath.Get(), VpnId)
                                     : VQ_SafeStrCopy(Path, sizeof(Path), File.BoxPath);
#pragma GCC diagnostic pop
    if (Length >= sizeof(Path)) {
        VQ_CTRL_LOG_ERROR_TEXT(Function, File.PathOverflow);
        return VQ_ERR_OVERFLOW;
    }
    return VQ_ERR_OK;
}

static VQ_ERR_T _VQCtrl_EmptyDnsFile(const char *Function, const DnsFile &File, const char *Path)
{
    const VQ_ERR_T Result = VQ_WriteSyncWithFilePath(Path, nullptr, 0);
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR_TEXT(Function, File.EmptyingFailed, VQ_CTRL_LOG_REASON(Result));
    }
    VQ_CTRL_LOG_NOTICE_TEXT(Function, File.IsEmpty);
    return Result;
}

// Builds the whole text in `Content`, which is zeroed and has `MaxLength` bytes, and writes it with one call.
template <typename FormatLine>
static VQ_ERR_T _VQCtrl_WriteDnsLines(const char *Function, const DnsFile &File, const char *Path, size_t Count,
                                      char *Content, size_t MaxLength, FormatLine Format)
{
    size_t Length = 0;
    for (size_t Loop = 0; Loop < Count; ++Loop) {
        size_t LineLength = 0;
        const VQ_ERR_T Result = Format(Loop, Content + Length, MaxLength - Length, &LineLength);
        if (Result < 0) {
            return Result;
        }
        if (LineLength >= MaxLength - Length) {
            VQ_CTRL_LOG_ERROR_TEXT(Function, File.ContentOverflow);
            return VQ_ERR_OVERFLOW;
        }
        Length += LineLength;
    }
    const VQ_ERR_T Result = VQ_WriteSyncWithFilePath(Path, Content, strlen(Content));
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR_TEXT(Function, File.WriteFailed, VQ_CTRL_LOG_REASON(Result));
    }
    return Result;
}

// Replaces the file of `VpnId`. `Format(Loop, Target, Size, &Length)` writes the line of entry `Loop` into the `Size`
// bytes at `Target` and stores the length that the line needs, 0 for no line. If its result is negative, the call ends
// and the old file stays.
template <typename FormatLine>
static VQ_ERR_T _VQCtrl_WriteDnsFile(const char *Function, const DnsFile &File, uint32_t VpnId, size_t Count,
                                     FormatLine Format)
{
    char Path[kPathSize] = {};
    const VQ_ERR_T Result = _VQCtrl_DnsFilePath(Function, File, VpnId, Path);
    if (Result < 0) {
        return Result;
    }
    if (Count == 0) {
        return _VQCtrl_EmptyDnsFile(Function, File, Path);
    }
    if (File.EntryBudget == 0) {
        char Content[kServerFileSize] = {};
        return _VQCtrl_WriteDnsLines(Function, File, Path, Count, Content, sizeof(Content), Format);
    }
    const size_t MaxLength = Count * File.EntryBudget;
    const auto Content = advanceddns::ZeroAllocHostMemory<char>(MaxLength);
    if (Content == nullptr) {
        VQ_CTRL_LOG_ERROR_TEXT(Function, File.NoMemory);
        return VQ_ERR_NO_MEMORY;
    }
    return _VQCtrl_WriteDnsLines(Function, File, Path, Count, Content.Get(), MaxLength, Format);
}

static VQ_ERR_T _VQCtrl_WriteHostsFile(const char *Function, const VQ_CTRL_DNS_HOST_CONF *Hosts, uint16_t Count,
                                       uint32_t VpnId)
{
    const auto Format = [=](size_t Loop, char *Target, size_t Size, size_t *Length) {
        char IpText[kIpTextSize] = {};
        const VQ_ERR_T Result = VQ_IPNum2IPStr(Hosts[Loop].Ip, 0, IpText, sizeof(IpText));
        if (Result < 0) {
            VQ_CTRL_LOG_ERROR_AS(Function, "Trans ipnum to ipstr failed for dns host(%d:%s)\n",
                                 VQ_CTRL_LOG_REASON(Result));
            return Result;
        }
        *Length = VQ_SNPrintf(Target, Size, "%s %s\n", IpText, Hosts[Loop].Domain);
        return VQ_ERR_T{VQ_ERR_OK};
    };
    return _VQCtrl_WriteDnsFile(Function, kHostsFile, VpnId, Count, Format);
}

VQ_ERR_T VQCtrl_SetDnsHostConf(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    return _VQCtrl_WriteHostsFile(__func__, Conf->DnsHost, Conf->DnsHostNum, Conf->VpnId);
}

VQ_ERR_T VQCtrl_SetDnsHostByDnsHostConf(const VQ_CTRL_DNS_HOST_CONF *DnsHostConf, const uint16_t DnsHostNum,
                                        const uint32_t VpnId)
{
    return _VQCtrl_WriteHostsFile(__func__, DnsHostConf, DnsHostNum, VpnId);
}

VQ_ERR_T VQCtrl_SetDnsMxHostConf(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    const auto Format = [=](size_t Loop, char *Target, size_t Size, size_t *Length) {
        const VQ_CTRL_DNS_MX_HOST_CONF &MxHost = Conf->DnsMxHost[Loop];
        *Length = VQ_SNPrintf(Target, Size, "mx-host=%s,%s,%u\n", MxHost.SourceDomain, MxHost.TargetDomain,
                              MxHost.Preference);
        return VQ_ERR_T{VQ_ERR_OK};
    };
    return _VQCtrl_WriteDnsFile(__func__, kMxHostFile, Conf->VpnId, Conf->DnsMxHostNum, Format);
}

static VQ_ERR_T _VQCtrl_ServerIpText(const char *Function, const VQ_CTRL_DNS_SERVER_CONF &Server,
                                     char (&IpText)[kIpTextSize])
{
    const VQ_ERR_T Result = VQ_IPNum2IPStr(Server.DnsServerIp, 0, IpText, sizeof(IpText));
    if (Result < 0) {
        VQ_CTRL_LOG_ERROR_AS(Function, "Trans ipnum to ipstr failed for dns server(%d:%s)\n",
                             VQ_CTRL_LOG_REASON(Result));
    }
    return Result;
}

VQ_ERR_T VQCtrl_SetDnsServerConf(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    const char *Function = __func__;
    const auto Format = [=](size_t Loop, char *Target, size_t Size, size_t *Length) {
        const VQ_CTRL_DNS_SERVER_CONF &Server = Conf->DnsServer[Loop];
        char IpText[kIpTextSize] = {};
        // Converted before the interface is checked: an entry without a line can make the file fail, too.
        const VQ_ERR_T Result = _VQCtrl_ServerIpText(Function, Server, IpText);
        if (Result >= 0 && Server.Ifname[0] != '\0') {
            *Length = VQ_SNPrintf(Target, Size, "server=%s@%s\n", IpText, Server.Ifname);
        }
        return Result;
    };
    return _VQCtrl_WriteDnsFile(Function, kServerMapFile, Conf->VpnId, Conf->DnsServerNum, Format);
}

VQ_ERR_T VQCtrl_SetDnsResolveConf(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    const char *Function = __func__;
    const auto Format = [=](size_t Loop, char *Target, size_t Size, size_t *Length) {
        char IpText[kIpTextSize] = {};
        const VQ_ERR_T Result = _VQCtrl_ServerIpText(Function, Conf->DnsServer[Loop], IpText);
        if (Result >= 0) {
            *Length = VQ_SNPrintf(Target, Size, "nameserver %s\n", IpText);
        }
        return Result;
    };
    return _VQCtrl_WriteDnsFile(Function, kResolvFile, Conf->VpnId, Conf->DnsServerNum, Format);
}

VQ_ERR_T VQCtrl_SetDnsProxyConf(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    const auto Format = [=](size_t Loop, char *Target, size_t Size, size_t *Length) {
        const VQ_CTRL_DNS_PROXY_CONF &Proxy = Conf->DnsProxy[Loop];
        *Length = VQ_SNPrintf(Target, Size, "server=/%s/%u.%u.%u.%u\n", Proxy.Domain, Proxy.ServerIp >> 24U & 0xFFU,
                              Proxy.ServerIp >> 16U & 0xFFU, Proxy.ServerIp >> 8U & 0xFFU, Proxy.ServerIp & 0xFFU);
        return VQ_ERR_T{VQ_ERR_OK};
    };
    return _VQCtrl_WriteDnsFile(__func__, kProxyFile, Conf->VpnId, Conf->DnsProxyNum, Format);
}

// ---- Routes ----

// The route table for the DNS servers, in every VPN.
static constexpr uint32_t kDnsmasqRouteTable = 199;

static bool _VQCtrl_HasNodes(const VQ_LIST_HEAD *List, uint32_t Count)
{
    return List != nullptr && Count != 0 && List->next != List;
}

static BOOL _VQCtrl_IsSysRouteWanExistInVpn(uint32_t VpnId)
{
    uint32_t Count = 0;
    const advanceddns::InterfaceList List(VQ_RtcNetioWanGetAllByVpnId(&Count, VpnId));
    if (List == nullptr || Count == 0) {
        VQ_CTRL_LOG_WARNING("No wan in vpn %u\n", VpnId);
        return FALSE;
    }
    for (const VQ_LIST_HEAD *Link = List->next; Link != List.Get(); Link = Link->next) {
        if (cds_list_entry(Link, VQ_RTCWanListNode, list)->WanConf.CommConf.SysRoute != 0) {
            return TRUE;
        }
    }
    return FALSE;
}

static VQ_ERR_T _VQCtrl_AddServerRoute(const char *Function, uint32_t VpnId, uint32_t ServerIp, const char *IfName,
                                       VQ_RTC_ROUTE_CONF *Route)
{
    std::memset(Route, 0, sizeof(*Route));
    Route->TableId = kDnsmasqRouteTable;
    Route->TargetIp.Ip = ServerIp;
    Route->TargetIp.IpType = VQ_IN_ADDR_TYPE_IPV4;
    Route->TargetIp.Mask = 32;
    Route->NexthopNum = 1;
    static_cast<void>(VQ_SafeStrCopy(Route->IfName[0], sizeof(Route->IfName[0]), IfName));

    const VQ_ERR_T Result = VQ_RTCRouteAdd(VpnId, Route);
    // A server that is listed twice already has its route.
    if (Result < 0 && Result != VQ_ERR_ALREADY_EXISTS) {
        VQ_CTRL_LOG_ERROR_AS(Function, "Dnsmasq route add failed(%d:%s)!\n", VQ_CTRL_LOG_REASON(Result));
        return Result;
    }
    return VQ_ERR_OK;
}

static VQ_ERR_T _VQCtrl_AddServerRoutes(const char *Function, const VQ_CTRL_DNSMASQ_CONF *Conf, const char *IfName,
                                        VQ_RTC_ROUTE_CONF *Route)
{
    VQ_ERR_T Result = VQ_ERR_OK;
    for (size_t Loop = 0; Result >= 0 && Loop < Conf->DnsServerNum; ++Loop) {
        Result = _VQCtrl_AddServerRoute(Function, Conf->VpnId, Conf->DnsServer[Loop].DnsServerIp, IfName, Route);
    }
    for (size_t Loop = 0; Result >= 0 && Loop < Conf->DnsProxyNum; ++Loop) {
        Result = _VQCtrl_AddServerRoute(Function, Conf->VpnId, Conf->DnsProxy[Loop].ServerIp, IfName, Route);
    }
    return Result;
}

VQ_ERR_T VQCtrl_AddDnsmasqRouteForVpn(const VQ_CTRL_DNSMASQ_CONF *Conf)
{
    if (Conf->VpnId == 0) {
        return VQ_ERR_OK;
    }
    if (_VQCtrl_IsSysRouteWanExistInVpn(Conf->VpnId) != FALSE) {
        VQ_CTRL_LOG_NOTICE("Wan which sys route is enable exist in vpn %u\n", Conf->VpnId);
        return VQ_ERR_OK;
    }
    // Declared before the list, so that the list is released first. Hosts see that order.
    advanceddns::HostMemory<VQ_RTC_ROUTE_CONF> Route;
    char IfName[VQ_IF_NAME_SIZE] = {};
    uint32_t Count = 0;
    const advanceddns::InterfaceList List(VQ_RtcNetioLanGetAllByVpnId(&Count, Conf->VpnId));
    if (_VQCtrl_HasNodes(List.Get(), Count)) {
        const auto *First = cds_list_entry(List->next, VQ_RTCLanListNode, list);
        static_cast<void>(VQ_SafeStrCopy(IfName, sizeof(IfName), First->LanConf.PhyIfName));
    }
    // The table must have the routes of this record only.
    VQCtrl_DelDnsmasqRouteForVpn(Conf->VpnId);
    Route = advanceddns::ZeroAllocHostMemory<VQ_RTC_ROUTE_CONF>();
    if (Route == nullptr) {
        VQ_CTRL_LOG_ERROR("Apply memory failed\n");
        return VQ_ERR_NO_MEMORY;
    }
    return _VQCtrl_AddServerRoutes(__func__, Conf, IfName, Route.Get());
}

void VQCtrl_DelDnsmasqRouteForVpn(uint32_t VpnId)
{
    if (VpnId == 0) {
        return;
    }
    const auto Route = advanceddns::ZeroAllocHostMemory<VQ_RTC_ROUTE_CONF>();
    if (Route == nullptr) {
        VQ_CTRL_LOG_ERROR("Apply memory failed\n");
        return;
    }
    Route->TableId = kDnsmasqRouteTable;
    Route->TargetIp.IpType = VQ_IN_ADDR_TYPE_IPV4;
    const VQ_ERR_T Result = VQ_RTCRouteDel(VpnId, Route.Get());
    if (Result < 0 && Result != VQ_ERR_NOT_FOUND) {
        VQ_CTRL_LOG_ERROR("Delete route failed(%d:%s)\n", VQ_CTRL_LOG_REASON(Result));
    }
}

// ---- Domain names ----

BOOL VQCtrl_ValidateDomain(const char *Domain)
{
    constexpr size_t kDomainLengthMax = 254;

    if (Domain == nullptr) {
        return FALSE;
    }
    regex_t Pattern = {};
    const int Compiled =
        regcomp(&Pattern, R"(^[a-zA-Z0-9]{1,63}([\.\-][a-zA-Z0-9]{1,63})*\.[a-zA-Z]{2,63}$)", REG_EXTENDED);
    if (strchr(Domain, ' ') != nullptr) {
        // The pattern is not released here. That is a known leak and is kept.
        return FALSE;
    }
    // If there is no memory to compile the pattern, nothing matches.
    const bool Matches = Compiled == 0 && regexec(&Pattern, Domain, 0, nullptr, 0) == 0;
    regfree(&Pattern);
    return Matches && strlen(Domain) <= kDomainLengthMax ? TRUE : FALSE;
}
