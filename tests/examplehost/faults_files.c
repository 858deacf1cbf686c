/* The faults of files and of the store. */
#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "faults.h"
#include "vqFile.h"
#include "vqMemory.h"
#include "vqStore.h"

/* ---- Files ---- */

REAL(VQ_WriteSyncWithFilePath);
REAL(VQ_WriteWithFilePath);
REAL(VQ_CreateFilePath);
REAL(VQ_RemoveDirRecursion);

static void SyncDirectoryOf(const char *path)
{
    char copy[1024];
    snprintf(copy, sizeof(copy), "%s", path);
    const int directory = open(dirname(copy), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    fsync(directory);
    close(directory);
}

/* Writes a temporary file and renames it, without what the faults leave out. */
static int32_t ReplaceFile(const char *path, const char *text, size_t length)
{
    char copy[1024];
    char temporary[1100];
    snprintf(copy, sizeof(copy), "%s", path);
    snprintf(temporary, sizeof(temporary), "%s/.example.tmp", dirname(copy));
    const int file = open(temporary, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file < 0) {
        return -errno;
    }
    const ssize_t written = length > 0 ? write(file, text, length) : 0;
    bool isGood = written == (ssize_t)length || HasFault("write-short-is-success");
    isGood = (fchmod(file, HasFault("write-private") ? 0600 : 0644) == 0) && isGood;
    isGood = (HasFault("write-without-sync") || fsync(file) == 0) && isGood;
    close(file);
    isGood = isGood && rename(temporary, path) == 0;
    const int32_t result = isGood ? 0 : -(errno != 0 ? errno : EIO);
    if (!isGood) {
        unlink(temporary);
    } else if (!HasFault("write-without-directory-sync")) {
        SyncDirectoryOf(path);
    }
    return result;
}

/* `flags` are O_TRUNC or 0, which leaves what the file had behind the new bytes. */
static int32_t WriteInPlace(const char *path, const char *text, size_t length, int flags)
{
    const int file = open(path, O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0600);
    if (file < 0) {
        return -errno;
    }
    bool isGood =
        length == 0 || write(file, text, length) == (ssize_t)length || HasFault("plain-write-short-is-success");
    isGood = isGood && (HasFault("plain-write-private") || fchmod(file, 0644) == 0) && fsync(file) == 0;
    const int32_t result = isGood ? 0 : -(errno != 0 ? errno : EIO);
    close(file);
    SyncDirectoryOf(path);
    return result;
}

int32_t VQ_WriteSyncWithFilePath(const char *path, const char *text, size_t length)
{
    if (HasFault("write-in-place") || HasFault("write-keeps-the-rest")) {
        return WriteInPlace(path, text, length, HasFault("write-in-place") ? O_TRUNC : 0);
    }
    if (HasFault("write-needs-text") && text == NULL) {
        return -EINVAL;
    }
    if (HasFault("write-empties-first")) {
        (void)!truncate(path, 0);
    }
    if (HasFault("write-without-sync") || HasFault("write-without-directory-sync") || HasFault("write-private") ||
        HasFault("write-short-is-success")) {
        return ReplaceFile(path, text, length);
    }
    if (HasFault("write-leaves-temporary")) {
        char left[1100];
        snprintf(left, sizeof(left), "%s.conf", path);
        close(open(left, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    }
    if (HasFault("write-leaks-descriptor")) {
        (void)open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    const int32_t result = Real_VQ_WriteSyncWithFilePath(path, text, length);
    return HasFault("write-error-is-eio") && result < 0 ? -EIO : result;
}

int32_t VQ_WriteWithFilePath(const char *path, const char *text, size_t length)
{
    if (HasFault("plain-write-private") || HasFault("plain-write-short-is-success")) {
        return WriteInPlace(path, text, length, O_TRUNC);
    }
    return HasFault("plain-write-keeps-the-rest") ? WriteInPlace(path, text, length, 0)
                                                  : Real_VQ_WriteWithFilePath(path, text, length);
}

VQ_ERR_T VQ_CreateFilePath(const char *path)
{
    if (HasFault("create-private") && access(path, F_OK) != 0) {
        const int file = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        close(file);
        return file < 0 ? -errno : 0;
    }
    const VQ_ERR_T result =
        HasFault("create-truncates") ? Real_VQ_WriteSyncWithFilePath(path, NULL, 0) : Real_VQ_CreateFilePath(path);
    return HasFault("create-failure-is-success") ? 0 : result;
}

VQ_ERR_T VQ_RemoveDirRecursion(char *path)
{
    if (HasFault("remove-keeps-directories")) {
        return rmdir(path) == 0 || errno == ENOTEMPTY ? 0 : -errno;
    }
    if (HasFault("remove-by-prefix") && access(path, F_OK) == 0) {
        char command[1100];
        snprintf(command, sizeof(command), "rm -rf '%s'*", path);
        return system(command) == 0 ? 0 : -EIO;
    }
    const VQ_ERR_T result = Real_VQ_RemoveDirRecursion(path);
    return HasFault("remove-missing-is-success") && result == -ENOENT ? 0 : result;
}

/* ---- Store ---- */

REAL(VQ_IsPersistentConfEnable);
REAL(VQ_GetDbDataTransOp);
REAL(VQ_SqliteDnsMasqConfOp);
REAL(VQ_SqliteGetDnsMasqConf);
REAL(VQ_SqliteConfListRelease);

BOOL VQ_IsPersistentConfEnable(void)
{
    static int calls;
    return HasFault("store-flag-changes") && ++calls % 2 == 0 ? FALSE : Real_VQ_IsPersistentConfEnable();
}

static void KeepText(char *text)
{
    (void)text;
}

VQ_DATA_CONTENT_TRANS_OP *VQ_GetDbDataTransOp(void)
{
    static VQ_DATA_CONTENT_TRANS_OP faulty;
    faulty = *Real_VQ_GetDbDataTransOp();
    if (HasFault("conversions-missing")) {
        faulty.DnsmasqConfToStr = NULL;
        faulty.DnsmasqStrToConf = NULL;
        return &faulty;
    }
    if (HasFault("conversion-text-kept")) {
        faulty.DataTransJsonStrFree = KeepText;
        return &faulty;
    }
    return Real_VQ_GetDbDataTransOp();
}

extern const char *g_store;

static bool s_hasBadRow; /* a row that cannot be converted was added */
static VQ_ERR_T (*s_readRecord)(VQ_DNSMASQ_CONF *record, const char *text);

/* As if the record had memory that was used before. */
static VQ_ERR_T ReadIntoUsedRecord(VQ_DNSMASQ_CONF *record, const char *text)
{
    record->DnsProxyNum = 1;
    return s_readRecord(record, text);
}

static VQ_SQL_CONF_TBL TableOf(VQ_SQL_CONF_TBL table)
{
    return HasFault("store-one-table") ? VQ_SQL_CONF_CPE_DNSMASQ : table;
}

/* Writes a row without synchronising it. */
static VQ_ERR_T AddUnsynchronised(BOOL vpnId, const char *text, VQ_SQL_CONF_TBL table)
{
    char path[1024];
    snprintf(path, sizeof(path), "%s/%u_%u", g_store, (unsigned)table, (unsigned)vpnId);
    FILE *file = fopen(path, "we");
    const bool isWritten = file != NULL && fputs(text, file) >= 0;
    return file != NULL && fclose(file) == 0 && isWritten ? 0 : -EIO;
}

static bool HasRow(BOOL vpnId, VQ_SQL_CONF_TBL table)
{
    bool isFound = false;
    VQ_DnsmasqConfNode *node;
    VQ_PersistentConfList *list = Real_VQ_SqliteGetDnsMasqConf(table);
    cds_list_for_each_entry(node, &list->Head, List)
    {
        isFound = isFound || node->Dnsmasq.VpnId == (uint32_t)vpnId;
    }
    Real_VQ_SqliteConfListRelease(list);
    return isFound;
}

VQ_ERR_T VQ_SqliteDnsMasqConfOp(BOOL vpnId, char *text, VQ_SQL_CONF_OP op, VQ_SQL_CONF_TBL table)
{
    const BOOL key = HasFault("store-key-is-boolean") ? (BOOL)(vpnId != FALSE) : vpnId;
    if (HasFault("store-add-forgotten") && op == VQ_SQL_CONF_OP_ADD) {
        return 0;
    }
    if (HasFault("store-delete-forgotten") && op == VQ_SQL_CONF_OP_DEL) {
        return HasRow(vpnId, table) ? 0 : -ENOENT;
    }
    if (HasFault("store-add-without-sync") && op == VQ_SQL_CONF_OP_ADD) {
        return AddUnsynchronised(vpnId, text, table);
    }
    s_hasBadRow = s_hasBadRow || (text != NULL && strcmp(text, "{\"broken") == 0);
    if (HasFault("store-add-keeps-row") && op == VQ_SQL_CONF_OP_ADD && HasRow(key, TableOf(table))) {
        return 0;
    }
    if (HasFault("store-add-cut") && op == VQ_SQL_CONF_OP_ADD && text != NULL && strlen(text) > 65535) {
        char *cut = strndup(text, 65535);
        const VQ_ERR_T result = Real_VQ_SqliteDnsMasqConfOp(key, cut, op, table);
        free(cut);
        return result;
    }
    const VQ_ERR_T result = Real_VQ_SqliteDnsMasqConfOp(key, text, op, TableOf(table));
    return HasFault("store-missing-is-success") && result == -ENOENT ? 0 : result;
}

/* Releases the rows. */
static void Empty(VQ_PersistentConfList *list)
{
    while (!cds_list_empty(&list->Head)) {
        VQ_LIST_HEAD *node = list->Head.next;
        cds_list_del(node);
        free(node);
    }
    list->Count = 0;
}

VQ_PersistentConfList *VQ_SqliteGetDnsMasqConf(VQ_SQL_CONF_TBL table)
{
    VQ_DATA_CONTENT_TRANS_OP *conversions = Real_VQ_GetDbDataTransOp();
    if (HasFault("store-record-used-again") && conversions->DnsmasqStrToConf != ReadIntoUsedRecord) {
        s_readRecord = conversions->DnsmasqStrToConf;
        conversions->DnsmasqStrToConf = ReadIntoUsedRecord;
    }
    VQ_PersistentConfList *list = Real_VQ_SqliteGetDnsMasqConf(TableOf(table));
    if (HasFault("store-list-empty-is-null") && list->Count == 0) {
        Real_VQ_SqliteConfListRelease(list);
        return NULL;
    }
    if (HasFault("store-list-forgotten") || (HasFault("store-bad-row-ends-list") && s_hasBadRow)) {
        Empty(list);
    }
    list->Count += HasFault("store-count-of-rows") ? 1 : 0;
    return list;
}

void VQ_SqliteConfListRelease(VQ_PersistentConfList *list)
{
    if (!HasFault("store-list-kept")) {
        Real_VQ_SqliteConfListRelease(list);
    }
}
