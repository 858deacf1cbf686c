// A packed CPE message: it is unpacked, translated, applied and stored, on the fake host.
//
// A message that must be refused is only translated, which is fast. The module applies every other message, and a
// sample of the refused ones.
#include <algorithm>
#include <memory>
#include <string>

#include "advanced_dns.pb-c.h"
#include "box.h"
#include "cpe_model.h"
#include "dnsmasq_check.h"
#include "fuzz.h"
#include "record.h"
#include "vqCtrlAdvancedDns.h"

namespace {

using fuzz::Box;
using fuzz::CpeModel;

struct FreeMessage {
    void operator()(DnsmasqConf *Message) const { dnsmasq_conf__free_unpacked(Message, nullptr); }
};
using MessagePtr = std::unique_ptr<DnsmasqConf, FreeMessage>;

VQ_CTRL_DNSMASQ_CONFIG_PB CarrierOf(const DnsmasqConf &Message)
{
    VQ_CTRL_DNSMASQ_CONFIG_PB Out{};
    Out.DnsmasqPbCPE = &Message;
    return Out;
}

// The translation alone: its result, and which parts of the record it wrote.
void CheckTranslation(const DnsmasqConf &Message, const CpeModel &Model, fuzz::Bytes Data)
{
    constexpr size_t PairsOfItem = 64;
    constexpr uint32_t OneIn = 256;
    static fuzz::ReusedRecord Conf;
    Box Here(Model.VpnId());
    const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = CarrierOf(Message);
    const VQ_ERR_T Result = VQCtrl_PbToAdvancedDnsConfPlatformCPE(&Carrier, &*Conf);
    fuzz::RequireSame("the translation's result", Result, Model.Result());
    fuzz::RequireCountsWithinCapacity(*Conf);
    // If a list is refused, its entries are written but its count is not.
    Conf.Clear({Message.n_dnshosts, Message.n_dnsmxhost, Message.n_dnsservers, Message.n_dnsproxies * PairsOfItem},
               fuzz::IsSampled(Data, OneIn));
    Here.RequireNoViolations(Data);
}

// The first `Changed` files have the content of the message, the others their previous content.
void CheckFiles(const Box &Here, const CpeModel &Model, size_t Changed)
{
    for (size_t Each = 0; Each < Model.Files().size(); ++Each) {
        const auto &[Path, Expected] = Model.Files()[Each];
        // The extra lines of such a name are correct: the message asked for them.
        if (Each < Changed && Path.ends_with("ServerMap.conf") && Model.HasLineFeedInInterface()) {
            continue;
        }
        const std::vector<std::string> Old = fuzz::Lines(Box::kOld);
        fuzz::RequireSame(Path.c_str(), Here.LinesOf(Path), Each < Changed ? Expected : Old);
    }
}

void CheckInForce(const Box &Here, const DnsmasqConf &Message, const CpeModel &Model)
{
    CheckFiles(Here, Model, Model.Files().size());
    const bool Routed = Message.enable != 0 && Model.VpnId() != 0;
    fuzz::RequireSame("the route table", Here.Routes(),
                      Routed ? Model.Routes(Box::kInterface) : std::vector<std::string>());
    // Only a message that disables the service removes the rule.
    fuzz::Require(Here.IsSteered(Model.VpnId()) == (Message.enable != 0), "the steering rule has the wrong state");
}

// The stored row is read as the same record as the message.
void CheckRow(Box &Here, const DnsmasqConf &Message, const CpeModel &Model)
{
    static fuzz::ReusedRecord Translated;
    static fuzz::ReusedRecord Read;
    const bool IsStored = Message.has_persistentflag != 0 && Message.persistentflag != 0;
    fuzz::RequireSame("the number of rows", static_cast<int64_t>(Here.Host.Rows.Rows.size()), IsStored ? 1 : 0);
    // The text contains a signed number. Numbers that do not fit become the limits of its range.
    constexpr uint32_t Limit = 0x7fffffff;
    if (!IsStored || Model.VpnId() == Limit || Model.VpnId() == Limit + 1) {
        return;
    }
    const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = CarrierOf(Message);
    fuzz::RequireSame("the result of the second translation",
                      VQCtrl_PbToAdvancedDnsConfPlatformCPE(&Carrier, &*Translated), 0);
    const std::string &Text = Here.Host.Rows.Rows.begin()->second;
    fuzz::RequireSame("the result of reading the row", VQCtrl_AdvancedDnsJsonStrToConf(&*Read, Text.c_str()), 0);
    fuzz::Require(fuzz::SameContent(*Translated, *Read), "the row differs from the message");
    Translated.Clear(fuzz::ExtentOf(*Translated), false);
    Read.Clear(fuzz::ExtentOf(*Read), false);
}

std::string ForDnsmasq(const Box &Here, const CpeModel &Model)
{
    std::string Out;
    for (const auto &[Path, Lines] : Model.Files()) {
        if (Path.find("dnsmasq.d/") != std::string::npos) {
            Out += Here.Host.Files.Content(Path).value_or("");
        }
    }
    return Out;
}

// Applying the message again changes nothing.
void CheckAgain(Box &Here, const DnsmasqConf &Message, const CpeModel &Model)
{
    const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = CarrierOf(Message);
    fuzz::RequireSame("the second result", VQCtrl_ConfigAdvancedDns(&Carrier), Model.ApplyResult());
    CheckFiles(Here, Model, Model.Files().size());
}

void Apply(const DnsmasqConf &Message, const CpeModel &Model, fuzz::Bytes Data)
{
    constexpr uint32_t OneInAgain = 16;
    constexpr uint32_t OneInDnsmasq = 512;
    Box Here(Model.VpnId());
    for (const auto &[Path, Lines] : Model.Files()) {
        Here.PutOld(Path);
    }
    VQCtrl_AgentSetCPEAdvancedDnsOps();
    const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = CarrierOf(Message);
    const int Expected = Model.Result() != 0 ? Model.Result() : Model.ApplyResult();
    const auto Before = Here.Host.Files.All();
    fuzz::RequireSame("the result", VQCtrl_ConfigAdvancedDns(&Carrier), Expected);
    if (Model.Result() != 0) {
        fuzz::Require(Here.Host.Files.All() == Before, "a refused message changed a file");
    } else if (Expected != 0) {
        CheckFiles(Here, Model, Model.Files().size());
    } else {
        CheckInForce(Here, Message, Model);
        CheckRow(Here, Message, Model);
        if (fuzz::IsSampled(Data, OneInAgain)) {
            CheckAgain(Here, Message, Model);
        }
    }
    if (Model.Result() == 0 && Model.RefusedByDnsmasq().empty() && fuzz::IsSampled(Data, OneInDnsmasq)) {
        fuzz::RequireDnsmasqTakes(ForDnsmasq(Here, Model));
    }
    Here.RequireNoViolations(Data);
}

// One of the five writes fails: the files before it are new; that file and those after it are old.
void ApplyWithFailingWrite(const DnsmasqConf &Message, const CpeModel &Model, fuzz::Bytes Data)
{
    Box Here(Model.VpnId());
    for (const auto &[Path, Lines] : Model.Files()) {
        Here.PutOld(Path);
    }
    const size_t Failing = fuzz::Digest(Data) / 8 % Model.Files().size();
    Here.Host.Failures.Fail("VQ_WriteSyncWithFilePath", -ENOSPC, Failing + 1);
    VQCtrl_AgentSetCPEAdvancedDnsOps();
    const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = CarrierOf(Message);
    fuzz::RequireSame("the result", VQCtrl_ConfigAdvancedDns(&Carrier), -ENOSPC);
    CheckFiles(Here, Model, Failing);
    Here.RequireNoViolations(Data);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size)
{
    constexpr uint32_t OneInRefused = 64;
    constexpr uint32_t OneInFailing = 8;
    const MessagePtr Message(dnsmasq_conf__unpack(nullptr, Size, Data));
    if (Message == nullptr) {
        return 0;
    }
    const fuzz::Bytes Bytes(Data, Size);
    const CpeModel Model(*Message);
    CheckTranslation(*Message, Model, Bytes);
    if (Model.Result() == 0 || fuzz::IsSampled(Bytes, OneInRefused)) {
        Apply(*Message, Model, Bytes);
    }
    if (Model.Result() == 0 && fuzz::IsSampled(Bytes, OneInFailing)) {
        ApplyWithFailingWrite(*Message, Model, Bytes);
    }
    return 0;
}
