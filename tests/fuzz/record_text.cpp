// A record that the module can write, made from the input: it must be the same after conversion to text and back.
#include <algorithm>
#include <cstring>
#include <memory>
#include <span>
#include <string>

#include "fuzz.h"
#include "host.h"
#include "record.h"
#include "vqCtrlAdvancedDns.h"
#include "vqLog.h"
#include "vqMemory.h"

namespace {

void PutText(std::span<char> Target, fuzz::Input &From)
{
    const std::string Text = From.Text(Target.size() - 1);
    // A zero byte ends a text. Entries are compared as texts, but the bytes after their ends must be zero.
    std::memcpy(Target.data(), Text.data(), std::min(Text.size(), Text.find('\0')));
}

// The text contains a signed number. Numbers that do not fit become the limits of its range.
uint32_t AnyVpnId(fuzz::Input &From)
{
    constexpr uint32_t Limit = 0x7fffffff;
    const uint32_t Any = From.Word();
    return Any == Limit || Any == Limit + 1 ? 0 : Any;
}

void FillLists(VQ_CTRL_DNSMASQ_CONF &Conf, fuzz::Input &From)
{
    constexpr uint32_t LargestPreference = 65536;
    constexpr uint8_t Kinds = 4;
    while (!From.IsEmpty()) {
        const uint8_t Kind = From.Byte() % Kinds;
        if (Kind == 0 && Conf.DnsHostNum < VQ_DNS_HOST_MAX) {
            VQ_CTRL_DNS_HOST_CONF &Host = Conf.DnsHost[Conf.DnsHostNum++];
            Host.Ip = From.Word();
            PutText(Host.Domain, From);
        } else if (Kind == 1 && Conf.DnsMxHostNum < VQ_DNS_MX_HOST_MAX) {
            VQ_CTRL_DNS_MX_HOST_CONF &Mx = Conf.DnsMxHost[Conf.DnsMxHostNum++];
            PutText(Mx.TargetDomain, From);
            PutText(Mx.SourceDomain, From);
            Mx.Preference = From.UpTo(LargestPreference);
        } else if (Kind == 2 && Conf.DnsServerNum < VQ_DNS_SERVER_MAX) {
            VQ_CTRL_DNS_SERVER_CONF &Server = Conf.DnsServer[Conf.DnsServerNum++];
            Server.DnsServerIp = From.Word();
            PutText(Server.Ifname, From);
        } else if (Kind == 3 && Conf.DnsProxyNum < UINT16_MAX) {
            VQ_CTRL_DNS_PROXY_CONF &Proxy = Conf.DnsProxy[Conf.DnsProxyNum++];
            PutText(Proxy.Domain, From);
            Proxy.ServerIp = From.Word();
        }
    }
}

void Fill(VQ_CTRL_DNSMASQ_CONF &Conf, fuzz::Input &From)
{
    const uint8_t Flags = From.Byte();
    Conf.Enable = (Flags & 1U) != 0 ? TRUE : FALSE;
    Conf.PersistentFlag = (Flags & 2U) != 0 ? TRUE : FALSE;
    Conf.Op = static_cast<VQ_CTRL_DNSMASQ_OPERATION>(Flags >> 2U);
    Conf.VpnId = AnyVpnId(From);
    Conf.LocalIp = From.Word();
    FillLists(Conf, From);
}

void CheckRoundTrip(const VQ_CTRL_DNSMASQ_CONF &Conf, bool CheckRest)
{
    static fuzz::ReusedRecord Read;
    char *Text = VQCtrl_AdvancedDnsConfToJsonStr(&Conf);
    fuzz::Require(Text != nullptr, "a record cannot be written");
    fuzz::RequireSame("the result of reading what was written", VQCtrl_AdvancedDnsJsonStrToConf(&*Read, Text), 0);
    VQ_AgentMemFree(Text);
    fuzz::Require(fuzz::SameContent(*Read, Conf), "the record that was read differs from the written one");
    fuzz::RequireSame("the operation", Read->Op, VQ_CTRL_DNSMASQ_OP_REBOOT);
    fuzz::RequireSame("the persistence flag", Read->PersistentFlag, FALSE);
    Read.Clear(fuzz::ExtentOf(*Read), CheckRest);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    constexpr uint32_t OneIn = 256;
    static fuzz::ReusedRecord Conf;
    fuzz::Input From({Data, Size});
    fakehost::Host Host;
    Host.RecordNothing();
    // At this level the module logs the complete text.
    Host.Log.LevelEnabled[VQ_LOG_LEVEL_VERBOSE] = false;

    Fill(*Conf, From);
    CheckRoundTrip(*Conf, fuzz::IsSampled({Data, Size}, OneIn));
    Conf.Clear(fuzz::ExtentOf(*Conf), false);
    fuzz::RequireNone("violations of the host's rules", Host.Verify());
    return 0;
}
