// Measures adding and removing a steering rule. The floors are libnftables and the nft program with the same commands.
#include <nftables/libnftables.h>

#include <fstream>
#include <memory>
#include <string>

#include "base/config.h"
#include "base/netns.h"
#include "services.h"
#include "services/rule_text.h"
#include "services/rules_nftables.h"
#include "vqRule.h"

namespace kavel::bench {
namespace {

constexpr std::uint32_t kCustomer = 42;
constexpr std::uint32_t kRuleId = kVpn + agent::kDnsRuleIdOffset;
constexpr const char *kInstallFile = "/run/bench-install.nft";
constexpr const char *kRemoveFile = "/run/bench-remove.nft";

std::unique_ptr<VQ_CONF_RULE> SteeringRule()
{
    auto rule = std::make_unique<VQ_CONF_RULE>();
    rule->OpType = VQ_CONF_RULE_OP_TYPE_INSERT;
    rule->Table = VQ_CONF_RULE_TBL_TYPE_DNS;
    rule->VpnId = kVpn;
    rule->Id = kRuleId;
    rule->PreId = 1;
    rule->CustomerId = kCustomer;
    rule->Match.OutPortNum = 1;
    rule->Match.OutPort[0].Type = VQ_CONF_DP_IF_TYPE_LOCAL;
    rule->Actions.OutputNum = 1;
    rule->Actions.OutputArray[0].Type = VQ_CONF_DP_IF_TYPE_LOCAL;
    rule->Actions.OutputArray[0].Priority = 1;
    return rule;
}

void Add()
{
    const auto rule = SteeringRule();
    Expect(VQ_RtcRuleConfAdd(rule.get(), VQ_IMC_OP_TYPE_RULE_DNS_INSERT, FALSE, TRUE) == 0, "adding the rule failed");
}

void Remove()
{
    Expect(VQ_RtcRuleConfDel(0, kRuleId, kCustomer, VQ_IMC_OP_TYPE_RULE_DNS_DELETE, TRUE) == 0,
           "removing the rule failed");
}

void AddAndRemove()
{
    Add();
    Remove();
}

void ExpectRule(bool there)
{
    Expect(agent::FindInstalledRules(agent::Host::Current(), kVpn).dns == there, "the rule is in the wrong state");
}

// Checks before the timing that both functions have an effect.
template <typename Install, typename Withdraw>
void ExpectEffect(Install &&install, Withdraw &&withdraw)
{
    install();
    ExpectRule(true);
    withdraw();
    ExpectRule(false);
}

struct Commands {
    std::string install =
        agent::InstallDnsText(*SteeringRule(), agent::InterfacesOf(agent::Host::Current().config, kVpn));
    std::string remove = agent::RemoveText(agent::KeyOf(*SteeringRule()), kCustomer);
};

class BareLibrary {
  public:
    // Works on the calling thread's namespace.
    BareLibrary() : context_(nft_ctx_new(NFT_CTX_DEFAULT))
    {
        Expect(context_ && nft_ctx_buffer_output(context_.get()) == 0 && nft_ctx_buffer_error(context_.get()) == 0,
               "creating the nftables context failed");
    }

    void Run(const std::string &commands) const
    {
        Expect(nft_run_cmd_from_buffer(context_.get(), commands.c_str()) == 0, "nftables refused the commands");
    }

  private:
    struct Free {
        void operator()(nft_ctx *context) const { nft_ctx_free(context); }
    };

    std::unique_ptr<nft_ctx, Free> context_;
};

void WriteCommands(const char *path, const std::string &commands)
{
    std::ofstream file(path);
    file << commands;
    Expect(static_cast<bool>(file.flush()), "writing the commands failed");
}

} // namespace

std::vector<Comparison> CompareRules(const Setting &setting)
{
    const Commands commands;
    WriteCommands(kInstallFile, commands.install);
    WriteCommands(kRemoveFile, commands.remove);
    const std::string work = "steering rule added and removed";

    const agent::NamespaceSwitch inside(agent::Host::Current().namespaces, kVpn);
    const BareLibrary library;
    const auto bareAdd = [&] { library.Run(commands.install); };
    const auto bareRemove = [&] { library.Run(commands.remove); };
    const auto bare = [&] {
        bareAdd();
        bareRemove();
    };
    const auto program = [] {
        RunProgram({"nft", "-f", kInstallFile});
        RunProgram({"nft", "-f", kRemoveFile});
    };
    ExpectEffect(Add, Remove);
    ExpectEffect(bareAdd, bareRemove);
    return {Compare(setting, {work, 1, "s", "libnftables, same commands", 1.2, {}, {}}, AddAndRemove, bare),
            Compare(setting, {work, 1, "s", "nft -f", std::nullopt, {}, {}}, AddAndRemove, program)};
}

} // namespace kavel::bench
