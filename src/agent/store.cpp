// The persistent store: this agent keeps none, and says so to the module.
#include "vqStore.h"

#include <cerrno>

extern "C" {

BOOL VQ_IsPersistentConfEnable(void)
{
    return FALSE;
}

VQ_DATA_CONTENT_TRANS_OP *VQ_GetDbDataTransOp(void)
{
    static VQ_DATA_CONTENT_TRANS_OP operations = {};
    return &operations;
}

VQ_ERR_T VQ_SqliteDnsMasqConfOp(BOOL /*VpnId*/, char * /*Text*/, VQ_SQL_CONF_OP /*Op*/, VQ_SQL_CONF_TBL /*Table*/)
{
    return -EOPNOTSUPP;
}

VQ_PersistentConfList *VQ_SqliteGetDnsMasqConf(VQ_SQL_CONF_TBL /*Table*/)
{
    return nullptr;
}

void VQ_SqliteConfListRelease(VQ_PersistentConfList * /*List*/) {}
}
