// The row of the record in the host's store. Failures are not logged here, because the callers log them or ignore them.
#include "vqCtrlAdvancedDns.h"

#include "vqErrno.h"
#include "vqStore.h"

// The row key is a parameter of type BOOL.
static BOOL _VQCtrl_RowKey(const VQ_CTRL_DNSMASQ_CONF *Dnsmasq)
{
    return static_cast<BOOL>(Dnsmasq->VpnId);
}

VQ_ERR_T VQCtrl_AdvancedDnsmasqAddPersistentConf(const VQ_CTRL_DNSMASQ_CONF *Dnsmasq, VQ_SQL_CONF_TBL Table)
{
    const VQ_DATA_CONTENT_TRANS_OP *Trans = VQ_GetDbDataTransOp();
    if (Trans->DnsmasqConfToStr == nullptr) {
        return VQ_ERR_OK;
    }
    char *Text = Trans->DnsmasqConfToStr(Dnsmasq);
    if (Text == nullptr) {
        return VQ_ERR_NO_MEMORY;
    }
    const VQ_ERR_T Result = VQ_SqliteDnsMasqConfOp(_VQCtrl_RowKey(Dnsmasq), Text, VQ_SQL_CONF_OP_ADD, Table);
    if (Trans->DataTransJsonStrFree != nullptr) {
        Trans->DataTransJsonStrFree(Text);
    }
    return Result;
}

VQ_ERR_T VQCtrl_AdvancedDnsmasqUpdatePersistentConf(const VQ_CTRL_DNSMASQ_CONF *Dnsmasq, VQ_SQL_CONF_TBL Table)
{
    return VQCtrl_AdvancedDnsmasqAddPersistentConf(Dnsmasq, Table);
}

VQ_ERR_T VQCtrl_AdvancedDnsmasqDelPersistentconf(const VQ_CTRL_DNSMASQ_CONF *Dnsmasq, VQ_SQL_CONF_TBL Table)
{
    return VQ_SqliteDnsMasqConfOp(_VQCtrl_RowKey(Dnsmasq), nullptr, VQ_SQL_CONF_OP_DEL, Table);
}

VQ_PersistentConfList *VQCtrl_AdvancedDnsmasqGetAllPersistentconf(VQ_SQL_CONF_TBL Table)
{
    return VQ_SqliteGetDnsMasqConf(Table);
}
