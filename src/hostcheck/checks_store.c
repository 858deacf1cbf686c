/* The promises of vqStore.h. The conversions that the store uses are the library's own: see conversions.c. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "checks.h"
#include "entries.h"
#include "lab.h"
#include "tracer.h"
#include "vqMemory.h"
#include "vqStore.h"

enum { kLargeText = 5 * 1024 * 1024, kLists = 12, kNodesMax = 100000, kGrowthKiB = 20000, kFrees = 2000 };

static VQ_SQL_CONF_TBL Table(void)
{
    return g_settings.isPop ? VQ_SQL_CONF_POP_DNSMASQ : VQ_SQL_CONF_CPE_DNSMASQ;
}

static VQ_SQL_CONF_TBL OtherTable(void)
{
    return g_settings.isPop ? VQ_SQL_CONF_CPE_DNSMASQ : VQ_SQL_CONF_POP_DNSMASQ;
}

/* A row's text; released by the end of the process. */
static char *RowText(uint32_t vpnId, const char *mark, size_t length)
{
    char *text = malloc(length + 256);
    int begin = snprintf(text, 256, kRowFormat, vpnId, mark);
    memset(text + begin, 'x', length);
    strcpy(text + begin + length, "\"}");
    return text;
}

static VQ_ERR_T AddTo(VQ_SQL_CONF_TBL table, uint32_t vpnId, char *text)
{
    return VQ_SqliteDnsMasqConfOp((BOOL)vpnId, text, VQ_SQL_CONF_OP_ADD, table);
}

static VQ_ERR_T Add(uint32_t vpnId, const char *mark)
{
    return AddTo(Table(), vpnId, RowText(vpnId, mark, 10));
}

static VQ_ERR_T DeleteFrom(VQ_SQL_CONF_TBL table, uint32_t vpnId)
{
    return VQ_SqliteDnsMasqConfOp((BOOL)vpnId, NULL, VQ_SQL_CONF_OP_DEL, table);
}

static VQ_ERR_T Delete(uint32_t vpnId)
{
    return DeleteFrom(Table(), vpnId);
}

/* False, and the check is skipped, if the host keeps no configuration. */
static bool Prepare(Check *check)
{
    if (VQ_IsPersistentConfEnable() == FALSE) {
        Skipped(check, "the host keeps no configuration");
        return false;
    }
    Delete(g_settings.vpnId);
    DeleteFrom(OtherTable(), g_settings.vpnId);
    return true;
}

/* What the next list says about the row of a VPN. */
typedef struct {
    int rows;      /* of the VPN */
    char mark[64]; /* of the last of them */
    uint32_t length;
} Found;

static Found FindIn(VQ_SQL_CONF_TBL table, uint32_t vpnId)
{
    Found found = {0, "", 0};
    VQ_PersistentConfList *list = VQ_SqliteGetDnsMasqConf(table);
    int count = 0;
    for (VQ_LIST_HEAD *link = list != NULL ? list->Head.next : NULL;
         link != NULL && link != &list->Head && count < kNodesMax; link = link->next, ++count) {
        const VQ_DNSMASQ_CONF *record = &((const VQ_DnsmasqConfNode *)(const void *)link)->Dnsmasq;
        if (record->VpnId == vpnId && record->DnsHostNum == 1) {
            ++found.rows;
            found.length = record->DnsHost[0].Ip;
            snprintf(found.mark, sizeof(found.mark), "%.63s", record->DnsHost[0].Domain);
        }
    }
    if (list != NULL) {
        VQ_SqliteConfListRelease(list);
    }
    return found;
}

static Found Find(uint32_t vpnId)
{
    return FindIn(Table(), vpnId);
}

void CheckStoreEnabled(Check *check)
{
    const BOOL first = VQ_IsPersistentConfEnable();
    const BOOL second = VQ_IsPersistentConfEnable();
    if (first != second || (first != TRUE && first != FALSE)) {
        Broken(check, "%u, then %u", (unsigned)first, (unsigned)second);
    }
}

static void CheckRow(Check *check, VQ_ERR_T added, const char *mark, size_t length)
{
    const Found found = Find(g_settings.vpnId);
    const size_t expected = strlen(RowText(g_settings.vpnId, mark, length));
    if (added < 0) {
        Broken(check, "result %d", added);
    } else if (found.rows != 1) {
        Broken(check, "result %d, and the list has %d rows of VPN %u", added, found.rows, g_settings.vpnId);
    } else if (strcmp(found.mark, mark) != 0 || found.length != expected) {
        Broken(check, "stored \"%s\" of %zu characters, and the list has \"%s\" of %u", mark, expected, found.mark,
               found.length);
    }
    Delete(g_settings.vpnId);
}

void CheckStoreAdd(Check *check)
{
    if (Prepare(check)) {
        CheckRow(check, Add(g_settings.vpnId, "first"), "first", 10);
    }
}

void CheckStoreAddReplaces(Check *check)
{
    if (Prepare(check)) {
        Add(g_settings.vpnId, "first");
        CheckRow(check, Add(g_settings.vpnId, "second"), "second", 10);
    }
}

void CheckStoreAddLarge(Check *check)
{
    if (Prepare(check)) {
        char *text = RowText(g_settings.vpnId, "large", kLargeText);
        CheckRow(check, AddTo(Table(), g_settings.vpnId, text), "large", kLargeText);
    }
}

static int AddRow(void)
{
    return Add(g_settings.vpnId, "durable");
}

void CheckStoreAddDurable(Check *check)
{
    const FileCalls *calls = Prepare(check) ? ObserveCalls(check, AddRow) : NULL;
    bool isSynchronised = false;
    for (int i = 0; calls != NULL && i < calls->count; ++i) {
        isSynchronised |= calls->calls[i].kind == kCallSync || calls->calls[i].isSynchronous;
    }
    if (calls != NULL && !isSynchronised) {
        Broken(check, "result %s, and nothing is synchronised during the call",
               calls->result < 0 ? "below 0" : "0 or more");
    }
    Delete(g_settings.vpnId);
}

/* Removals tell keys apart also where a host lists only the VPNs that it knows. */
void CheckStoreKey(Check *check)
{
    const uint32_t keys[] = {0, 7, 263, 65543, 0x7FFFFFF7U, 0x80000007U, 0xFFFFFFF7U};
    enum { kKeys = sizeof(keys) / sizeof(keys[0]) };
    if (!Prepare(check)) {
        return;
    }
    for (int i = 0; i < kKeys; ++i) {
        Delete(keys[i]);
    }
    for (int i = 0; i < kKeys; ++i) {
        const VQ_ERR_T result = Add(keys[i], "key");
        if (result < 0) {
            Broken(check, "a row of VPN %u is refused with %d", keys[i], result);
        }
    }
    for (int i = 0; i < kKeys; ++i) {
        const VQ_ERR_T first = Delete(keys[i]);
        const VQ_ERR_T second = Delete(keys[i]);
        if (first < 0 || second >= 0) {
            Broken(check, "the row of VPN %u is removed with %d, and once more with %d", keys[i], first, second);
        }
    }
}

void CheckStoreTables(Check *check)
{
    if (!Prepare(check)) {
        return;
    }
    Add(g_settings.vpnId, "mine");
    AddTo(OtherTable(), g_settings.vpnId, RowText(g_settings.vpnId, "other", 10));
    const Found mine = Find(g_settings.vpnId);
    const VQ_ERR_T other = DeleteFrom(OtherTable(), g_settings.vpnId);
    const Found kept = Find(g_settings.vpnId);
    if (mine.rows != 1 || strcmp(mine.mark, "mine") != 0) {
        Broken(check, "a row in table %d: the list of table %d has %d rows of the VPN, \"%s\"", OtherTable(), Table(),
               mine.rows, mine.mark);
    } else if (other < 0 || kept.rows != 1) {
        Broken(check, "removal from table %d: %d, and table %d has %d rows of the VPN", OtherTable(), other, Table(),
               kept.rows);
    }
    Delete(g_settings.vpnId);
}

void CheckStoreDelete(Check *check)
{
    const uint32_t other = g_settings.vpnId + 1000;
    if (!Prepare(check)) {
        return;
    }
    Delete(other);
    const VQ_ERR_T first = Add(g_settings.vpnId, "first");
    Add(other, "other");
    const VQ_ERR_T deleted = Delete(g_settings.vpnId);
    const Found found = Find(g_settings.vpnId);
    const VQ_ERR_T kept = Delete(other);
    if (first < 0 || deleted < 0 || found.rows != 0) {
        Broken(check, "add %d, removal %d, and the list has %d rows of the VPN", first, deleted, found.rows);
    } else if (kept < 0) {
        Broken(check, "the row of VPN %u was removed with that of VPN %u", other, g_settings.vpnId);
    }
}

void CheckStoreDeleteMissing(Check *check)
{
    if (Prepare(check)) {
        const VQ_ERR_T result = Delete(g_settings.vpnId);
        if (result != -ENOENT) {
            Broken(check, "result %d", result);
        }
    }
}

void CheckStoreList(Check *check)
{
    if (!Prepare(check)) {
        return;
    }
    Add(g_settings.vpnId, "first");
    VQ_PersistentConfList *list = VQ_SqliteGetDnsMasqConf(Table());
    int count = 0;
    for (VQ_LIST_HEAD *link = list != NULL ? list->Head.next : NULL; link != NULL && link != &list->Head;
         link = link->next) {
        if (link->prev == NULL || link->prev->next != link || ++count > kNodesMax) {
            Broken(check, "node %d is not linked both ways, or the list has no end", count);
            break;
        }
    }
    if (list == NULL || list->Count != count) {
        Broken(check, "%d nodes, and the count is %d", count, list == NULL ? -1 : (int)list->Count);
    }
    Delete(g_settings.vpnId);
}

void CheckStoreListEmpty(Check *check)
{
    if (Prepare(check) && VQ_SqliteGetDnsMasqConf(Table()) == NULL) {
        Broken(check, "null");
    }
}

void CheckStoreListBadRow(Check *check)
{
    const uint32_t bad = g_settings.vpnId == 0 ? 1 : 0;
    if (!Prepare(check)) {
        return;
    }
    char text[] = "{\"broken";
    AddTo(Table(), bad, text);
    Add(g_settings.vpnId, "good");
    const Found good = Find(g_settings.vpnId);
    if (good.rows != 1) {
        Broken(check, "a row of VPN %u cannot be converted, and the list has %d rows of VPN %u", bad, good.rows,
               g_settings.vpnId);
    }
    Delete(bad);
    Delete(g_settings.vpnId);
}

/* Twice: the second list may use the memory of the first. */
void CheckStoreListZeroed(Check *check)
{
    if (!Prepare(check)) {
        return;
    }
    Add(g_settings.vpnId, "first");
    for (int round = 0; round < 3; ++round) {
        Find(g_settings.vpnId);
    }
    if (g_conversions.foundUnzeroed) {
        Broken(check, "a record has bytes that are not zero when its conversion begins");
    } else if (g_conversions.toRecord == 0) {
        Skipped(check, "no record was converted");
    }
    Delete(g_settings.vpnId);
}

void CheckStoreRelease(Check *check)
{
    long before = 0;
    if (!Prepare(check)) {
        return;
    }
    Add(g_settings.vpnId, "first");
    for (int round = 0; round < kLists; ++round) {
        Find(g_settings.vpnId);
        before = round == 1 ? MappedKiB() : before;
    }
    /* A record that is not released need not be resident. */
    if (MappedKiB() - before > kGrowthKiB) {
        Broken(check, "%ld KiB more after %d lists of one row", MappedKiB() - before, kLists - 2);
    }
    Delete(g_settings.vpnId);
}

void CheckStoreConversions(Check *check)
{
    const VQ_DATA_CONTENT_TRANS_OP *table = VQ_GetDbDataTransOp();
    if (table == NULL || table->DnsmasqConfToStr == NULL || table->DnsmasqStrToConf == NULL) {
        Broken(check, "%s", table == NULL ? "the table is null" : "a conversion of a record is null");
        return;
    }
    VQ_DNSMASQ_CONF *record = calloc(1, sizeof(*record));
    record->VpnId = g_settings.vpnId;
    const char *text = table->DnsmasqConfToStr(record);
    VQ_DNSMASQ_CONF *again = calloc(1, sizeof(*again));
    const VQ_ERR_T result = text != NULL ? table->DnsmasqStrToConf(again, text) : -1;
    if (g_conversions.toText == 0 || g_conversions.toRecord == 0) {
        Broken(check, "a conversion of the table does not call that of the module");
    } else if (text == NULL || result < 0 || again->VpnId != record->VpnId) {
        Broken(check, "a record became %s, and is read with %d", text == NULL ? "null" : text, result);
    }
}

void CheckStoreConversionFree(Check *check)
{
    const VQ_DATA_CONTENT_TRANS_OP *table = VQ_GetDbDataTransOp();
    if (table == NULL || table->DataTransJsonStrFree == NULL) {
        Broken(check, "%s is null: texts of records are never released", table == NULL ? "the table" : "the slot");
        return;
    }
    long before = 0;
    for (int round = 0; round < kFrees; ++round) {
        char *text = VQ_AgentMemAlloc(kGrowthKiB);
        memset(text, 'x', kGrowthKiB);
        table->DataTransJsonStrFree(text);
        before = round == kFrees / 2 ? WrittenKiB() : before;
    }
    if (WrittenKiB() - before > kGrowthKiB / 4) {
        Broken(check, "%ld KiB more after %d releases of 20 KB", WrittenKiB() - before, kFrees / 2);
    }
}
