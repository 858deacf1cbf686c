#include "record.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>

#include "fuzz.h"

namespace fuzz {

namespace {

template <typename Entry, size_t Capacity>
void ClearList(Entry (&List)[Capacity], size_t Written)
{
    std::memset(List, 0, std::min(Written, Capacity) * sizeof(Entry));
}

bool IsZero(const VQ_CTRL_DNSMASQ_CONF &Conf)
{
    const auto *First = reinterpret_cast<const char *>(&Conf);
    return First[0] == 0 && std::memcmp(First, First + 1, sizeof(Conf) - 1) == 0;
}

bool Same(const char *One, const char *Other)
{
    return std::strcmp(One, Other) == 0;
}

bool SameEntry(const VQ_CTRL_DNS_HOST_CONF &One, const VQ_CTRL_DNS_HOST_CONF &Other)
{
    return One.Ip == Other.Ip && Same(One.Domain, Other.Domain);
}

bool SameEntry(const VQ_CTRL_DNS_MX_HOST_CONF &One, const VQ_CTRL_DNS_MX_HOST_CONF &Other)
{
    return Same(One.TargetDomain, Other.TargetDomain) && Same(One.SourceDomain, Other.SourceDomain) &&
           One.Preference == Other.Preference;
}

bool SameEntry(const VQ_CTRL_DNS_SERVER_CONF &One, const VQ_CTRL_DNS_SERVER_CONF &Other)
{
    return One.DnsServerIp == Other.DnsServerIp && Same(One.Ifname, Other.Ifname);
}

bool SameEntry(const VQ_CTRL_DNS_PROXY_CONF &One, const VQ_CTRL_DNS_PROXY_CONF &Other)
{
    return One.ServerIp == Other.ServerIp && Same(One.Domain, Other.Domain);
}

template <typename Entry, size_t Capacity>
bool SameList(const Entry (&One)[Capacity], size_t OneNum, const Entry (&Other)[Capacity], size_t OtherNum)
{
    return OneNum == OtherNum &&
           std::equal(One, One + OneNum, Other, [](const Entry &A, const Entry &B) { return SameEntry(A, B); });
}

} // namespace

Extent ExtentOf(const VQ_CTRL_DNSMASQ_CONF &Conf)
{
    const VQ_CTRL_DNS_PROXY_CONF &First = Conf.DnsProxy[0];
    const bool MayBeFull = Conf.DnsProxyNum == 0 && (First.ServerIp != 0 || First.Domain[0] != '\0');
    return {Conf.DnsHostNum, Conf.DnsMxHostNum, Conf.DnsServerNum,
            MayBeFull ? size_t{VQ_DNS_PROXY_MAX} : Conf.DnsProxyNum};
}

void ReusedRecord::Free::operator()(VQ_CTRL_DNSMASQ_CONF *Record) const
{
    std::free(Record);
}

ReusedRecord::ReusedRecord()
    : m_Record(static_cast<VQ_CTRL_DNSMASQ_CONF *>(std::calloc(1, sizeof(VQ_CTRL_DNSMASQ_CONF))))
{
    Require(m_Record != nullptr, "no memory for a record");
}

void ReusedRecord::Clear(const Extent &Written, bool Check)
{
    VQ_CTRL_DNSMASQ_CONF &Conf = *m_Record;
    ClearList(Conf.DnsHost, Written.Hosts);
    ClearList(Conf.DnsMxHost, Written.Mxs);
    ClearList(Conf.DnsServer, Written.Servers);
    ClearList(Conf.DnsProxy, Written.Proxies);
    std::memset(&Conf, 0, offsetof(VQ_CTRL_DNSMASQ_CONF, DnsHost));
    Conf.LocalIp = 0;
    if (Check) {
        Require(IsZero(Conf), "an entry behind the end of its list was written");
    }
}

void RequireCountsWithinCapacity(const VQ_CTRL_DNSMASQ_CONF &Conf)
{
    Require(Conf.DnsHostNum <= VQ_DNS_HOST_MAX, "the number of hosts is above the size of the table");
    Require(Conf.DnsMxHostNum <= VQ_DNS_MX_HOST_MAX, "the number of MX hosts is above the size of the table");
    Require(Conf.DnsServerNum <= VQ_DNS_SERVER_MAX, "the number of servers is above the size of the table");
}

bool SameContent(const VQ_CTRL_DNSMASQ_CONF &One, const VQ_CTRL_DNSMASQ_CONF &Other)
{
    return One.Enable == Other.Enable && One.VpnId == Other.VpnId && One.LocalIp == Other.LocalIp &&
           SameList(One.DnsHost, One.DnsHostNum, Other.DnsHost, Other.DnsHostNum) &&
           SameList(One.DnsMxHost, One.DnsMxHostNum, Other.DnsMxHost, Other.DnsMxHostNum) &&
           SameList(One.DnsServer, One.DnsServerNum, Other.DnsServer, Other.DnsServerNum) &&
           SameList(One.DnsProxy, One.DnsProxyNum, Other.DnsProxy, Other.DnsProxyNum);
}

} // namespace fuzz
