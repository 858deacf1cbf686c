/* The store: one file for each row, named by table and VPN. */
#include "host.h"

const char *g_store = "/var/lib/example-host";
static const char kRowFormat[] = "%s/%u_%u";

BOOL VQ_IsPersistentConfEnable(void)
{
    return TRUE;
}

static void FreeText(char *text)
{
    VQ_AgentMemFree(text);
}

/* main.c fills in the module's own conversions. */
VQ_DATA_CONTENT_TRANS_OP *VQ_GetDbDataTransOp(void)
{
    static VQ_DATA_CONTENT_TRANS_OP conversions = {.DataTransJsonStrFree = FreeText};
    return &conversions;
}

VQ_ERR_T VQ_SqliteDnsMasqConfOp(BOOL vpnId, char *text, VQ_SQL_CONF_OP op, VQ_SQL_CONF_TBL table)
{
    char path[kTextSize];
    VQ_SNPrintf(path, sizeof(path), kRowFormat, g_store, (unsigned)table, (unsigned)vpnId);
    if (op == VQ_SQL_CONF_OP_ADD && text != NULL) {
        return VQ_WriteSyncWithFilePath(path, text, strlen(text));
    }
    return op != VQ_SQL_CONF_OP_DEL ? -EINVAL : unlink(path) != 0 ? -errno : 0;
}

/* Appends the record of a VPN, if there is one that the module can read. The module needs a zeroed record. */
static void AppendRecord(VQ_PersistentConfList *list, VQ_SQL_CONF_TBL table, uint32_t vpnId)
{
    char path[kTextSize];
    char *text = NULL;
    size_t size = 0;
    VQ_SNPrintf(path, sizeof(path), kRowFormat, g_store, (unsigned)table, vpnId);
    FILE *file = fopen(path, "re");
    VQ_DnsmasqConfNode *node = file != NULL ? calloc(1, sizeof(*node)) : NULL;
    if (node != NULL && getdelim(&text, &size, '\0', file) > 0 &&
        VQ_GetDbDataTransOp()->DnsmasqStrToConf(&node->Dnsmasq, text) >= 0) {
        cds_list_add_tail(&node->List, &list->Head);
        ++list->Count;
        node = NULL;
    }
    free(text);
    free(node);
    if (file != NULL) {
        fclose(file);
    }
}

VQ_PersistentConfList *VQ_SqliteGetDnsMasqConf(VQ_SQL_CONF_TBL table)
{
    VQ_PersistentConfList *list = calloc(1, sizeof(*list));
    if (list != NULL) {
        CDS_INIT_LIST_HEAD(&list->Head);
    }
    for (unsigned each = 0; list != NULL && each < g_vpnCount; ++each) {
        AppendRecord(list, table, g_vpns[each].id);
    }
    return list;
}

void VQ_SqliteConfListRelease(VQ_PersistentConfList *list)
{
    for (VQ_LIST_HEAD *node = list->Head.next, *next; node != &list->Head; node = next) {
        next = node->next;
        free(node);
    }
    free(list);
}
