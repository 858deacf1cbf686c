#include "module_content.h"

#include <algorithm>
#include <cstring>

#include "vqMemory.h"

namespace kavel::bench {

namespace {

constexpr std::uint32_t kFirstIp = 10U << 24U;
constexpr std::size_t kDomainsPerItem = 8;

std::string NameOf(const char *kind, std::size_t index)
{
    return std::string(kind) + '-' + std::to_string(index) + ".branch.example.com";
}

std::uint32_t IpOf(std::size_t index)
{
    return kFirstIp + static_cast<std::uint32_t>(index);
}

std::string Dotted(std::uint32_t ip)
{
    return std::to_string(ip >> 24U) + '.' + std::to_string(ip >> 16U & 255U) + '.' + std::to_string(ip >> 8U & 255U) +
           '.' + std::to_string(ip & 255U);
}

RecordOwner NewRecord()
{
    return RecordOwner(static_cast<VQ_CTRL_DNSMASQ_CONF *>(std::calloc(1, sizeof(VQ_CTRL_DNSMASQ_CONF))));
}

template <std::size_t Size>
void CopyText(char (&target)[Size], const std::string &text)
{
    target[text.copy(target, Size - 1)] = '\0';
}

} // namespace

Content::Content(const Amount &amount) : record(NewRecord())
{
    FillMessage(amount);
    message.Pb().has_persistentflag = 1;
    message.Pb().persistentflag = amount.stored ? 1 : 0;
    carrier = message.Carrier();
    Expect(VQCtrl_PbToAdvancedDnsConfPlatformCPE(&carrier, record.get()) == 0, "translating the message failed");
    FillTexts();
}

void Content::FillMessage(const Amount &amount)
{
    for (std::size_t i = 0; i < amount.hosts; ++i) {
        message.AddHost(names.emplace_back(NameOf("host", i)), IpOf(i));
    }
    for (std::size_t i = 0; i < amount.mxs; ++i) {
        const std::string target = names.emplace_back(NameOf("mx", i));
        message.AddMx(target, names.emplace_back(NameOf("mail", i)), 10);
    }
    for (std::size_t i = 0; i < amount.servers; ++i) {
        message.AddServer(IpOf(i), "lan" + std::to_string(i));
    }
    FillProxies(amount);
}

void Content::FillProxies(const Amount &amount)
{
    for (std::size_t first = 0; first < amount.proxyDomains; first += kDomainsPerItem) {
        const std::size_t last = std::min(first + kDomainsPerItem, amount.proxyDomains);
        const bool wouldFillTable = last * amount.serversPerDomain == VQ_DNS_PROXY_MAX;
        std::vector<CpeMessage::Text> domains;
        for (std::size_t i = first; i < last; ++i) {
            domains.emplace_back(names.emplace_back(NameOf("forward", i)));
        }
        std::vector<std::uint32_t> ips;
        for (std::size_t i = wouldFillTable ? 1 : 0; i < amount.serversPerDomain; ++i) {
            ips.push_back(IpOf(first * amount.serversPerDomain + i));
        }
        message.AddProxy(domains, ips);
    }
}

void Content::FillTexts()
{
    const VQ_CTRL_DNSMASQ_CONF &conf = *record;
    for (std::size_t i = 0; i < conf.DnsHostNum; ++i) {
        hostIps.push_back(Dotted(conf.DnsHost[i].Ip));
    }
    for (std::size_t i = 0; i < conf.DnsServerNum; ++i) {
        serverIps.push_back(Dotted(conf.DnsServer[i].DnsServerIp));
    }
    for (std::size_t i = 0; i < conf.DnsProxyNum; ++i) {
        proxyIps.push_back(Dotted(conf.DnsProxy[i].ServerIp));
    }
    char *stored = VQCtrl_AdvancedDnsConfToJsonStr(&conf);
    Expect(stored != nullptr, "converting the record to text failed");
    text = stored;
    VQ_AgentMemFree(stored);
}

RecordOwner RecordOf(std::size_t count)
{
    auto conf = NewRecord();
    conf->VpnId = kVpnId;
    conf->DnsHostNum = static_cast<std::uint16_t>(std::min<std::size_t>(count, VQ_DNS_HOST_MAX));
    conf->DnsMxHostNum = static_cast<std::uint16_t>(std::min<std::size_t>(count, VQ_DNS_MX_HOST_MAX));
    conf->DnsServerNum = static_cast<std::uint8_t>(std::min<std::size_t>(count, VQ_DNS_SERVER_MAX));
    conf->DnsProxyNum = static_cast<std::uint16_t>(std::min<std::size_t>(count, VQ_DNS_PROXY_MAX - 1));
    for (std::size_t i = 0; i < conf->DnsHostNum; ++i) {
        conf->DnsHost[i].Ip = IpOf(i);
        CopyText(conf->DnsHost[i].Domain, NameOf("host", i));
    }
    for (std::size_t i = 0; i < conf->DnsMxHostNum; ++i) {
        CopyText(conf->DnsMxHost[i].TargetDomain, NameOf("mx", i));
        CopyText(conf->DnsMxHost[i].SourceDomain, NameOf("mail", i));
    }
    for (std::size_t i = 0; i < conf->DnsServerNum; ++i) {
        conf->DnsServer[i].DnsServerIp = IpOf(i);
        CopyText(conf->DnsServer[i].Ifname, "lan" + std::to_string(i));
    }
    for (std::size_t i = 0; i < conf->DnsProxyNum; ++i) {
        conf->DnsProxy[i].ServerIp = IpOf(i);
        CopyText(conf->DnsProxy[i].Domain, NameOf("forward", i));
    }
    return conf;
}

} // namespace kavel::bench
