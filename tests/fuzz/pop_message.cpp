// A packed POP message: it is unpacked, translated, applied and stored, on the fake host.
#include <algorithm>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "advanced_dns.pb-c.h"
#include "box.h"
#include "cpe_model.h"
#include "fuzz.h"
#include "record.h"
#include "vqCtrlAdvancedDns.h"
#include "vqRule.h"

namespace {

using fuzz::Box;

constexpr const char *kResolver = "/etc/kavel/dnsmasq/resolv.conf";

struct FreeMessage {
    void operator()(PopDnsmasqConf *Message) const { pop_dnsmasq_conf__free_unpacked(Message, nullptr); }
};
using MessagePtr = std::unique_ptr<PopDnsmasqConf, FreeMessage>;

// A record has room for the first servers only.
std::span<const uint32_t> KeptServers(const PopDnsmasqConf &Message)
{
    return {Message.dns, std::min<size_t>(Message.n_dns, VQ_DNS_SERVER_MAX)};
}

int ExpectedResult(const PopDnsmasqConf &Message)
{
    constexpr size_t MostTold = 255;
    return Message.n_dns > MostTold ? -EOVERFLOW : 0;
}

VQ_CTRL_DNSMASQ_CONFIG_PB CarrierOf(const PopDnsmasqConf &Message)
{
    VQ_CTRL_DNSMASQ_CONFIG_PB Out{};
    Out.DnsmasqPbPOP = &Message;
    return Out;
}

void CheckTranslation(const PopDnsmasqConf &Message, fuzz::Bytes Data)
{
    constexpr uint32_t OneIn = 256;
    static fuzz::ReusedRecord Conf;
    Box Here(0);
    const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = CarrierOf(Message);
    const VQ_ERR_T Result = VQCtrl_PbToAdvancedDnsConfPlatformPOP(&Carrier, &*Conf);
    fuzz::RequireSame("the translation's result", Result, ExpectedResult(Message));
    fuzz::RequireCountsWithinCapacity(*Conf);
    if (Result == 0) {
        fuzz::RequireSame("the number of servers", Conf->DnsServerNum,
                          static_cast<int64_t>(KeptServers(Message).size()));
        fuzz::RequireSame("the operation", Conf->Op, VQ_CTRL_DNSMASQ_OP_REBOOT);
        fuzz::RequireSame("the VPN", Conf->VpnId, 0);
        fuzz::RequireSame("the local address", Conf->LocalIp, Message.localip);
    }
    Conf.Clear(fuzz::ExtentOf(*Conf), fuzz::IsSampled(Data, OneIn));
    Here.RequireNoViolations(Data);
}

std::vector<std::string> ExpectedLines(const PopDnsmasqConf &Message)
{
    std::vector<std::string> Out;
    for (const uint32_t Each : KeptServers(Message)) {
        Out.push_back("nameserver " + fuzz::AddressText(Each));
    }
    return Out;
}

// An enabled service has a DNAT rule to the local address; a disabled one has none.
void CheckRules(const Box &Here, const PopDnsmasqConf &Message)
{
    const bool Enabled = Message.enable != 0;
    fuzz::Require(Here.IsSteered(0) == Enabled, "the steering rule has the wrong state");
    const auto &InForce = Here.Host.Rules.InForce();
    const auto Dnat = InForce.find({VQ_CONF_RULE_TBL_TYPE_DNAT, 0, VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ, 0});
    fuzz::Require((Dnat != InForce.end()) == Enabled, "the DNAT rule has the wrong state");
    if (Enabled) {
        fuzz::RequireSame("the DNAT target", Dnat->second.Actions.NatInfo.Ip[0], Message.localip);
    }
}

// The stored row is read as the same record as the message.
void CheckRow(const Box &Here, const PopDnsmasqConf &Message)
{
    static fuzz::ReusedRecord Read;
    const bool IsStored = Message.has_persistentflag != 0 && Message.persistentflag != 0;
    fuzz::RequireSame("the number of rows", static_cast<int64_t>(Here.Host.Rows.Rows.size()), IsStored ? 1 : 0);
    if (!IsStored) {
        return;
    }
    const auto &[Key, Text] = *Here.Host.Rows.Rows.begin();
    fuzz::Require(Key == fakehost::Store::Key(VQ_SQL_CONF_POP_DNSMASQ, 0), "the row has another key");
    fuzz::RequireSame("the result of reading the row", VQCtrl_AdvancedDnsJsonStrToConf(&*Read, Text.c_str()), 0);
    const auto Servers = KeptServers(Message);
    const std::span<const VQ_CTRL_DNS_SERVER_CONF> Stored(Read->DnsServer, Read->DnsServerNum);
    const bool SameServers = std::ranges::equal(Stored, Servers, {}, &VQ_CTRL_DNS_SERVER_CONF::DnsServerIp);
    fuzz::Require(SameServers && Read->LocalIp == Message.localip && (Read->Enable != FALSE) == (Message.enable != 0),
                  "the row differs from the message");
    Read.Clear(fuzz::ExtentOf(*Read), false);
}

void Apply(const PopDnsmasqConf &Message, fuzz::Bytes Data)
{
    Box Here(0);
    Here.PutOld(kResolver);
    const auto Before = Here.Host.Files.All();
    VQCtrl_AgentSetPOPAdvancedDnsOps();
    const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = CarrierOf(Message);
    fuzz::RequireSame("the result", VQCtrl_ConfigAdvancedDns(&Carrier), ExpectedResult(Message));
    if (ExpectedResult(Message) != 0) {
        fuzz::Require(Here.Host.Files.All() == Before, "a refused message changed a file");
    } else {
        fuzz::RequireSame("the resolver file", Here.LinesOf(kResolver), ExpectedLines(Message));
        fuzz::RequireSame("the number of files written", static_cast<int64_t>(Here.Host.Files.Written().size()), 1);
        CheckRules(Here, Message);
        CheckRow(Here, Message);
    }
    Here.RequireNoViolations(Data);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    constexpr uint32_t OneInWhole = 8;
    const MessagePtr Message(pop_dnsmasq_conf__unpack(nullptr, Size, Data));
    if (Message == nullptr) {
        return 0;
    }
    const fuzz::Bytes Bytes(Data, Size);
    CheckTranslation(*Message, Bytes);
    // Nearly every message is accepted, and zeroing the record is the slowest part of a run.
    if (fuzz::IsSampled(Bytes, OneInWhole)) {
        Apply(*Message, Bytes);
    }
    return 0;
}
