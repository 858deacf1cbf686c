// Steering rules through nftables, and the customer ids from the configuration.
#include "services/rules_nftables.h"

#include <nftables/libnftables.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <linux/netlink.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "base/config.h"
#include "base/failure.h"
#include "base/log.h"
#include "base/per_namespace.h"
#include "services/rule_text.h"
#include "unique_fd.h"
#include "vqRule.h"

namespace kavel::agent {
namespace {

// What a context remembers of the tables it has met takes half a megabyte. Few at a time also means that each is closed
// long after its last transaction: closed right after it, its socket would wait for the kernel to clear away what the
// transaction replaced.
constexpr std::size_t kContextsMax = 16;

struct KernelAnswer {
    int result; // 0 or a negated errno
    std::string text;
};

// The library ends the whole process when it gets no socket, or one with a number that select() does not know. It will
// get the number that is free now.
void CheckSocket()
{
    const UniqueFd probe(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
    if (!probe) {
        ThrowLastFailure("nftables");
    }
    if (probe.Get() >= FD_SETSIZE) {
        throw std::system_error(EMFILE, std::system_category(), "nftables");
    }
}

class RuleContext {
  public:
    // In the calling thread's namespace.
    RuleContext() : context_(Open())
    {
        if (!context_ || nft_ctx_buffer_output(context_.get()) != 0 || nft_ctx_buffer_error(context_.get()) != 0) {
            throw std::bad_alloc();
        }
    }

    // Runs `commands` as one transaction. The text is what was listed, or the first line of what went wrong.
    KernelAnswer Run(const std::string &commands)
    {
        errno = 0;
        if (nft_run_cmd_from_buffer(context_.get(), commands.c_str()) == 0) {
            return {0, nft_ctx_get_output_buffer(context_.get())};
        }
        // The kernel's answer is left in errno; a socket that was read to its end stands for no answer at all.
        const int error = errno;
        std::string text = nft_ctx_get_error_buffer(context_.get());
        text.resize(std::min(text.find('\n'), text.size()));
        return {error == 0 || error == EAGAIN ? -EIO : -error, text};
    }

  private:
    struct Free {
        void operator()(nft_ctx *context) const { nft_ctx_free(context); }
    };

    static nft_ctx *Open()
    {
        CheckSocket();
        return nft_ctx_new(NFT_CTX_DEFAULT);
    }

    std::unique_ptr<nft_ctx, Free> context_;
};

PerNamespace<RuleContext> &Contexts()
{
    static PerNamespace<RuleContext> contexts(kContextsMax);
    return contexts;
}

KernelAnswer RunIn(std::uint32_t vpnId, const std::string &commands)
{
    KernelAnswer answer{0, ""};
    answer.result = WithoutExceptions([&] {
        answer = Contexts().Of(vpnId).Run(commands);
        return answer.result;
    });
    return answer;
}

std::string Describe(std::uint32_t vpnId, const RuleKey &key)
{
    return "vpn " + std::to_string(vpnId) + ": rule " + TableName(key);
}

int Report(const std::string &subject, const char *failed, int result, const std::string &why)
{
    Log(LogLevel::kError, "%s cannot be %s: %s", subject.c_str(), failed,
        why.empty() ? std::strerror(-result) : why.c_str());
    return result;
}

const std::vector<std::string> &LanOf(std::uint32_t vpnId)
{
    if (vpnId == 0) {
        return ActiveConfig().lan;
    }
    const Vpn *vpn = ActiveConfig().Find(vpnId);
    if (vpn == nullptr) {
        throw RuleError(-ENOENT, "the VPN is not configured");
    }
    return vpn->lan;
}

// Where a rule lives, and its text; by the operation code.
struct Plan {
    std::uint32_t vpnId;
    std::string text;
};

Plan PlanOf(const VQ_CONF_RULE &rule, std::uint16_t op)
{
    if (rule.OpType != VQ_CONF_RULE_OP_TYPE_INSERT) {
        throw RuleError(-EOPNOTSUPP, "it is not an insertion");
    }
    if (op == VQ_IMC_OP_TYPE_RULE_DNS_INSERT && rule.Table == VQ_CONF_RULE_TBL_TYPE_DNS) {
        return {rule.VpnId, InstallDnsText(rule, LanOf(rule.VpnId))};
    }
    if (op == VQ_IMC_OP_TYPE_RULE_DNAT_INSERT && rule.Table == VQ_CONF_RULE_TBL_TYPE_DNAT) {
        return {0, InstallDnatText(rule, ActiveConfig().c2p)};
    }
    throw RuleError(-EOPNOTSUPP,
                    "operation " + std::to_string(op) + " is not known for table " + std::to_string(rule.Table));
}

int Install(const VQ_CONF_RULE &rule, std::uint16_t op)
{
    const std::string subject = Describe(rule.VpnId, KeyOf(rule));
    try {
        const Plan plan = PlanOf(rule, op);
        const KernelAnswer answer = RunIn(plan.vpnId, plan.text);
        return answer.result < 0 ? Report(subject, "installed", answer.result, answer.text) : 0;
    } catch (const RuleError &refused) {
        return Report(subject, "installed", refused.result, refused.what());
    }
}

int Remove(std::uint32_t vpnId, const RuleKey &key, std::uint32_t customerId)
{
    const KernelAnswer answer = RunIn(vpnId, RemoveText(key, customerId));
    if (answer.result == -ENOENT) {
        Log(LogLevel::kNotice, "%s is not there for customer %u", Describe(vpnId, key).c_str(), customerId);
        return answer.result;
    }
    return answer.result < 0 ? Report(Describe(vpnId, key), "removed", answer.result, answer.text) : 0;
}

// Whether `name` stands in what "list tables" gave.
bool Lists(std::string_view tables, const std::string &name)
{
    return tables.find("table ip " + name + "\n") != std::string_view::npos;
}

} // namespace

std::optional<InstalledRules> FindInstalledRules(std::uint32_t vpnId)
{
    const KernelAnswer answer = RunIn(vpnId, "list tables ip\n");
    if (answer.result < 0) {
        Log(LogLevel::kWarning, "vpn %u: its rules cannot be read: %s", vpnId, std::strerror(-answer.result));
        return std::nullopt;
    }
    InstalledRules found;
    found.dns = Lists(answer.text, TableName({VQ_CONF_RULE_TBL_TYPE_DNS, 0, vpnId + kDnsRuleIdOffset}));
    found.dnat =
        vpnId == 0 && Lists(answer.text, TableName({VQ_CONF_RULE_TBL_TYPE_DNAT, 0, VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ}));
    return found;
}

void CloseStaleRuleContexts()
{
    Contexts().DropStale();
}

} // namespace kavel::agent

using namespace kavel::agent;

extern "C" {

VQ_ERR_T VQ_RtcRuleConfAdd(VQ_CONF_RULE *Rule, uint16_t Op, BOOL /*Flag1*/, BOOL /*Flag2*/)
{
    return Rule == nullptr ? -EINVAL : WithoutExceptions([&] { return Install(*Rule, Op); });
}

VQ_ERR_T VQ_RtcRuleConfDel(uint8_t Zone, uint32_t RuleId, uint32_t CustomerId, uint16_t Op, BOOL /*Flag*/)
{
    return WithoutExceptions([&] {
        switch (Op) {
        case VQ_IMC_OP_TYPE_RULE_DNS_DELETE:
            return Remove(RuleId - kDnsRuleIdOffset, {VQ_CONF_RULE_TBL_TYPE_DNS, Zone, RuleId}, CustomerId);
        case VQ_IMC_OP_TYPE_RULE_DNAT_DELETE:
            return Remove(0, {VQ_CONF_RULE_TBL_TYPE_DNAT, Zone, RuleId}, CustomerId);
        default:
            Log(LogLevel::kError, "rule %u cannot be removed: operation %u is not known", RuleId, unsigned{Op});
            return -EOPNOTSUPP;
        }
    });
}

uint32_t VQ_PlatformGetCustomerId(void)
{
    return ActiveConfig().customer;
}

VQ_ERR_T VQ_GetCustomerIdByVpnId(uint32_t VpnId, uint32_t *CustomerId)
{
    if (CustomerId == nullptr) {
        return -EINVAL;
    }
    const Vpn *vpn = ActiveConfig().Find(VpnId);
    if (vpn == nullptr || !vpn->customer) {
        return -ENOENT;
    }
    *CustomerId = *vpn->customer;
    return 0;
}
}
