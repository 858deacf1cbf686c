/* The store: one file for each row, named by table and VPN. */
#include <glob.h>

#include "host.h"

const char *g_store = "/var/lib/example-host";

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

/* The key is a BOOL by its type, and a VPN id by its value. */
VQ_ERR_T VQ_SqliteDnsMasqConfOp(BOOL vpnId, char *text, VQ_SQL_CONF_OP op, VQ_SQL_CONF_TBL table)
{
    char path[kTextSize];
    VQ_SNPrintf(path, sizeof(path), "%s/%u_%u", g_store, (unsigned)table, (unsigned)vpnId);
    if (op == VQ_SQL_CONF_OP_ADD && text != NULL) {
        return VQ_WriteSyncWithFilePath(path, text, strlen(text));
    }
    return op != VQ_SQL_CONF_OP_DEL ? -EINVAL : unlink(path) != 0 ? -errno : 0;
}

/* Appends the record of a file, or nothing if the module cannot read it. The module needs a zeroed record. */
static void AppendRecord(VQ_PersistentConfList *list, const char *path)
{
    char *text = NULL;
    size_t size = 0;
    FILE *file = fopen(path, "re");
    VQ_DnsmasqConfNode *node = calloc(1, sizeof(*node));
    if (file != NULL && node != NULL && getdelim(&text, &size, '\0', file) > 0 &&
        VQ_GetDbDataTransOp()->DnsmasqStrToConf(&node->Dnsmasq, text) >= 0) {
        cds_list_add_tail(&node->List, &list->Head);
        ++list->Count;
        node = NULL;
    }
    if (file != NULL) {
        fclose(file);
    }
    free(text);
    free(node);
}

VQ_PersistentConfList *VQ_SqliteGetDnsMasqConf(VQ_SQL_CONF_TBL table)
{
    char pattern[kTextSize];
    glob_t rows = {0};
    VQ_PersistentConfList *list = calloc(1, sizeof(*list));
    VQ_SNPrintf(pattern, sizeof(pattern), "%s/%u_*", g_store, (unsigned)table);
    if (list != NULL) {
        CDS_INIT_LIST_HEAD(&list->Head);
        (void)glob(pattern, 0, NULL, &rows);
    }
    for (size_t row = 0; row < rows.gl_pathc; ++row) {
        AppendRecord(list, rows.gl_pathv[row]);
    }
    globfree(&rows);
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
