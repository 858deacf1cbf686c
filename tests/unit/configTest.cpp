#include "configTest.h"

#include "vqRule.h"

void ConfigTest::SetUp()
{
    ModuleTest::SetUp();
    VQCtrl_AgentSetCPEAdvancedDnsOps();
    Host.Files.PutInstance(7);
    Host.Netio.SetWans(7, {{false}});
    Host.Netio.SetLans(7, {{"lan0"}});
}

void ConfigTest::FillMessage()
{
    Message.AddHost("nas.example.com", Ip(10, 0, 0, 1));
    Message.AddMx("mx.example.com", "example.com", 10);
    Message.AddServer(Ip(10, 1, 1, 1), "eth0");
    Message.AddProxy({"corp.example.com"}, {Ip(10, 1, 1, 2)});
}

void ConfigTest::AskForPersistence(bool Flag)
{
    Message.Pb().has_persistentflag = 1;
    Message.Pb().persistentflag = Flag ? 1 : 0;
}

void ConfigTest::RunInstance(uint32_t VpnId)
{
    Host.Proc.AddInstance(kPid, VpnId);
    Host.Proc.PutPidFile(VpnId, std::to_string(kPid) + '\n');
}

void ConfigTest::SteerToInstance(uint32_t VpnId)
{
    Host.Rules.Put({VQ_CONF_RULE_TBL_TYPE_DNS, 0, VpnId + 2, Host.Rules.PlatformCustomer});
}

VQ_ERR_T ConfigTest::Configure()
{
    const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = Message.Carrier();
    return VQCtrl_ConfigAdvancedDns(&Carrier);
}

std::vector<std::string> ConfigTest::Errors() const
{
    std::vector<std::string> Out = Logs();
    std::erase_if(Out, [](const std::string &Line) { return Line[0] != '4'; });
    return Out;
}

void PopConfigTest::SetUp()
{
    ConfigTest::SetUp();
    VQCtrl_AgentSetPOPAdvancedDnsOps();
    RunInstance(0);
}

VQ_ERR_T PopConfigTest::Configure(PopMessage &Pop)
{
    const VQ_CTRL_DNSMASQ_CONFIG_PB Carrier = Pop.Carrier();
    return VQCtrl_ConfigAdvancedDns(&Carrier);
}

VQ_ERR_T PopConfigTest::Enable()
{
    PopMessage Pop({Ip(10, 1, 1, 1), Ip(10, 1, 1, 2)}, kLocalIp);
    return Configure(Pop);
}

VQ_ERR_T PopConfigTest::Disable()
{
    PopMessage Pop({}, kLocalIp, false);
    return Configure(Pop);
}
