#include "box.h"

#include <algorithm>

#include "vqCtrlAdvancedDns.h"
#include "vqLog.h"
#include "vqMemory.h"
#include "vqRule.h"

namespace fuzz {

namespace {

void FreeText(char *Text)
{
    VQ_AgentMemFree(Text);
}

} // namespace

Box::Box(uint32_t VpnId) : m_VpnId(VpnId)
{
    Host.Calls.RecordNothing();
    Host.Log.KeepLines(false);
    // At this level the module logs the complete stored text.
    Host.Log.LevelEnabled[VQ_LOG_LEVEL_VERBOSE] = false;
    Host.Memory.FillFreshBytes(false);
    Host.Memory.ReuseRecords();
    Host.Files.PutInstance(VpnId);
    Host.Netio.SetWans(VpnId, {{false}});
    Host.Netio.SetLans(VpnId, {{kInterface}});
    Host.Proc.AddInstance(kPid, VpnId);
    Host.Proc.PutPidFile(VpnId, std::to_string(kPid));
    Host.Rules.Put({VQ_CONF_RULE_TBL_TYPE_DNS, 0, VpnId + 2, Host.Rules.PlatformCustomer});
    Host.Rules.Put({VQ_CONF_RULE_TBL_TYPE_DNAT, 0, VQ_DNAT_TBL_ZONE0_RULE_ID_DNSMASQ, 0});
    Host.Rows.Enabled = true;
    Host.Rows.Conversions.DataTransJsonStrFree = FreeText;
    Host.Rows.Conversions.DnsmasqConfToStr = VQCtrl_AdvancedDnsConfToJsonStr;
    Host.Rows.Conversions.DnsmasqStrToConf = VQCtrl_AdvancedDnsJsonStrToConf;
}

std::vector<std::string> Box::LinesOf(const std::string &Path) const
{
    const std::optional<std::string> Content = Host.Files.Content(Path);
    if (!Content.has_value()) {
        Fail(Path + " does not exist");
    }
    return Lines(*Content);
}

bool Box::IsSteered(uint32_t VpnId) const
{
    return Host.Rules.InForce().contains({VQ_CONF_RULE_TBL_TYPE_DNS, 0, VpnId + 2, Host.Rules.PlatformCustomer});
}

void Box::RequireNoViolations(Bytes Data)
{
    // Known: the module does not release the pattern for a name with a blank.
    if (std::ranges::find(Data, ' ') != Data.end()) {
        Host.Regex.ExpectUnreleased(Host.Regex.Unreleased());
    }
    RequireNone("violations of the host's rules", Host.Verify());
}

} // namespace fuzz
