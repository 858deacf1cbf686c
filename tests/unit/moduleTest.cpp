#include "moduleTest.h"

#include <cstring>
#include <span>

#include "vqMemory.h"

namespace {

void Store(std::span<char> Target, std::string_view Text)
{
    ASSERT_LT(Text.size(), Target.size());
    std::memcpy(Target.data(), Text.data(), Text.size());
}

} // namespace

Record NewRecord(uint32_t VpnId)
{
    Record Conf(static_cast<VQ_CTRL_DNSMASQ_CONF *>(std::calloc(1, sizeof(VQ_CTRL_DNSMASQ_CONF))));
    Conf->VpnId = VpnId;
    return Conf;
}

void AddHost(VQ_CTRL_DNSMASQ_CONF &Conf, uint32_t Address, std::string_view Domain)
{
    VQ_CTRL_DNS_HOST_CONF &Host = Conf.DnsHost[Conf.DnsHostNum++];
    Host.Ip = Address;
    Store(Host.Domain, Domain);
}

void AddMx(VQ_CTRL_DNSMASQ_CONF &Conf, std::string_view Target, std::string_view Source, uint32_t Preference)
{
    VQ_CTRL_DNS_MX_HOST_CONF &Mx = Conf.DnsMxHost[Conf.DnsMxHostNum++];
    Store(Mx.TargetDomain, Target);
    Store(Mx.SourceDomain, Source);
    Mx.Preference = Preference;
}

void AddServer(VQ_CTRL_DNSMASQ_CONF &Conf, uint32_t Address, std::string_view Interface)
{
    VQ_CTRL_DNS_SERVER_CONF &Server = Conf.DnsServer[Conf.DnsServerNum++];
    Server.DnsServerIp = Address;
    Store(Server.Ifname, Interface);
}

void AddProxy(VQ_CTRL_DNSMASQ_CONF &Conf, std::string_view Domain, uint32_t Address)
{
    VQ_CTRL_DNS_PROXY_CONF &Proxy = Conf.DnsProxy[Conf.DnsProxyNum++];
    Store(Proxy.Domain, Domain);
    Proxy.ServerIp = Address;
}

VQ_DATA_CONTENT_TRANS_OP ModuleConversions()
{
    VQ_DATA_CONTENT_TRANS_OP Out{};
    Out.DataTransJsonStrFree = [](char *Text) { VQ_AgentMemFree(Text); };
    Out.DnsmasqConfToStr = VQCtrl_AdvancedDnsConfToJsonStr;
    Out.DnsmasqStrToConf = VQCtrl_AdvancedDnsJsonStrToConf;
    return Out;
}

bool SameBytes(const void *One, const void *Other, std::size_t Size)
{
    return std::memcmp(One, Other, Size) == 0;
}

std::string DomainOfLength(std::size_t Length)
{
    const std::string Label(63, 'a');
    const std::string Head = Label + '.' + Label + '.' + Label + '.';
    const std::string Tail = ".com";
    return Head + std::string(Length - Head.size() - Tail.size(), 'b') + Tail;
}
