#include "module_content.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "vqMemory.h"

namespace kavel::bench {

namespace {

constexpr std::uint32_t kFirstIp = 10U << 24U;
constexpr std::size_t kDomainsPerItem = 8;

std::string nameOf(const char *kind, std::size_t index)
{
    return std::string(kind) + '-' + std::to_string(index) + ".branch.example.com";
}

std::uint32_t ipOf(std::size_t index)
{
    return kFirstIp + static_cast<std::uint32_t>(index);
}

std::string dotted(std::uint32_t ip)
{
    return std::to_string(ip >> 24U) + '.' + std::to_string(ip >> 16U & 255U) + '.' + std::to_string(ip >> 8U & 255U) +
           '.' + std::to_string(ip & 255U);
}

RecordOwner newRecord()
{
    return RecordOwner(static_cast<VQ_CTRL_DNSMASQ_CONF *>(std::calloc(1, sizeof(VQ_CTRL_DNSMASQ_CONF))));
}

template <std::size_t Size>
void put(char (&target)[Size], const std::string &text)
{
    target[text.copy(target, Size - 1)] = '\0';
}

} // namespace

Content::Content(const Amount &amount) : record(newRecord())
{
    fillMessage(amount);
    message.Pb().has_persistentflag = 1;
    message.Pb().persistentflag = amount.stored ? 1 : 0;
    carrier = message.Carrier();
    require(VQCtrl_PbToAdvancedDnsConfPlatformCPE(&carrier, record.get()) == 0, "the message is not taken");
    fillTexts();
}

void Content::fillMessage(const Amount &amount)
{
    for (std::size_t i = 0; i < amount.hosts; ++i) {
        message.AddHost(names.emplace_back(nameOf("host", i)), ipOf(i));
    }
    for (std::size_t i = 0; i < amount.mxs; ++i) {
        const std::string target = names.emplace_back(nameOf("mx", i));
        message.AddMx(target, names.emplace_back(nameOf("mail", i)), 10);
    }
    for (std::size_t i = 0; i < amount.servers; ++i) {
        message.AddServer(ipOf(i), "lan" + std::to_string(i));
    }
    fillProxies(amount);
}

void Content::fillProxies(const Amount &amount)
{
    for (std::size_t first = 0; first < amount.proxyDomains; first += kDomainsPerItem) {
        const std::size_t last = std::min(first + kDomainsPerItem, amount.proxyDomains);
        const bool wouldFillTable = last * amount.serversPerDomain == VQ_DNS_PROXY_MAX;
        std::vector<CpeMessage::Text> domains;
        for (std::size_t i = first; i < last; ++i) {
            domains.emplace_back(names.emplace_back(nameOf("forward", i)));
        }
        std::vector<std::uint32_t> ips;
        for (std::size_t i = wouldFillTable ? 1 : 0; i < amount.serversPerDomain; ++i) {
            ips.push_back(ipOf(first * amount.serversPerDomain + i));
        }
        message.AddProxy(domains, ips);
    }
}

void Content::fillTexts()
{
    const VQ_CTRL_DNSMASQ_CONF &conf = *record;
    for (std::size_t i = 0; i < conf.DnsHostNum; ++i) {
        hostIps.push_back(dotted(conf.DnsHost[i].Ip));
    }
    for (std::size_t i = 0; i < conf.DnsServerNum; ++i) {
        serverIps.push_back(dotted(conf.DnsServer[i].DnsServerIp));
    }
    for (std::size_t i = 0; i < conf.DnsProxyNum; ++i) {
        proxyIps.push_back(dotted(conf.DnsProxy[i].ServerIp));
    }
    char *stored = VQCtrl_AdvancedDnsConfToJsonStr(&conf);
    require(stored != nullptr, "the record has no stored form");
    text = stored;
    VQ_AgentMemFree(stored);
}

RecordOwner recordOf(std::size_t count)
{
    auto conf = newRecord();
    conf->VpnId = kVpnId;
    conf->DnsHostNum = static_cast<std::uint16_t>(std::min<std::size_t>(count, VQ_DNS_HOST_MAX));
    conf->DnsMxHostNum = static_cast<std::uint16_t>(std::min<std::size_t>(count, VQ_DNS_MX_HOST_MAX));
    conf->DnsServerNum = static_cast<std::uint8_t>(std::min<std::size_t>(count, VQ_DNS_SERVER_MAX));
    conf->DnsProxyNum = static_cast<std::uint16_t>(std::min<std::size_t>(count, VQ_DNS_PROXY_MAX - 1));
    for (std::size_t i = 0; i < conf->DnsHostNum; ++i) {
        conf->DnsHost[i].Ip = ipOf(i);
        put(conf->DnsHost[i].Domain, nameOf("host", i));
    }
    for (std::size_t i = 0; i < conf->DnsMxHostNum; ++i) {
        put(conf->DnsMxHost[i].TargetDomain, nameOf("mx", i));
        put(conf->DnsMxHost[i].SourceDomain, nameOf("mail", i));
    }
    for (std::size_t i = 0; i < conf->DnsServerNum; ++i) {
        conf->DnsServer[i].DnsServerIp = ipOf(i);
        put(conf->DnsServer[i].Ifname, "lan" + std::to_string(i));
    }
    for (std::size_t i = 0; i < conf->DnsProxyNum; ++i) {
        conf->DnsProxy[i].ServerIp = ipOf(i);
        put(conf->DnsProxy[i].Domain, nameOf("forward", i));
    }
    return conf;
}

void require(bool condition, const char *what)
{
    if (!condition) {
        throw std::runtime_error(what);
    }
}

} // namespace kavel::bench
