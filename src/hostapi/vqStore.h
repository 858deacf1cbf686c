/* The host's persistent configuration store and its table of conversions between records and stored text. */
#ifndef VQ_STORE_H
#define VQ_STORE_H

#include "vqDnsmasqConf.h"
#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

/* Tables of the store that hold DNS records. */
typedef enum VQ_ENUM32 { VQ_SQL_CONF_CPE_DNSMASQ = 10, VQ_SQL_CONF_POP_DNSMASQ = 14 } VQ_SQL_CONF_TBL;

typedef enum VQ_ENUM32 {
    VQ_SQL_CONF_OP_USPEC = 0,
    VQ_SQL_CONF_OP_ADD = 1,
    VQ_SQL_CONF_OP_DEL = 2,
    VQ_SQL_CONF_OP_POLICY_RESET_BY_SUPER = 3,
    VQ_SQL_CONF_OP_POLICY_RESET_ALL = 4,
    VQ_SQL_CONF_OP_MAX = 5
} VQ_SQL_CONF_OP;

/* One stored record; the link comes first, so node and link share one address. */
typedef struct {
    VQ_LIST_HEAD List;
    VQ_DNSMASQ_CONF Dnsmasq;
} VQ_DnsmasqConfNode;

typedef struct {
    VQ_LIST_HEAD Head; /* of VQ_DnsmasqConfNode */
    int32_t Count;
} VQ_PersistentConfList;

/* The host-wide conversion table. A slot may be null. */
typedef struct {
    void (*DataTransJsonStrFree)(char *Text); /* releases what a ...ToStr conversion gave */
    void *LinkConfToStr;
    void *LinkStrToConf;
    void *LinkIpConfToStr;
    void *LinkIpStrToConf;
    void *ConnConfToStr;
    void *ConnStrToConf;
    void *DupConnConfToStr;
    void *DupConnStrToConf;
    void *WanConfToStr;
    void *WanStrToConf;
    void *LanConfToStr;
    void *LanStrToConf;
    void *RatelimitConfToStr;
    void *RatelimitStrToConf;
    char *(*DnsmasqConfToStr)(const VQ_DNSMASQ_CONF *Dnsmasq); /* newly allocated text; null on failure */
    VQ_ERR_T (*DnsmasqStrToConf)(VQ_DNSMASQ_CONF *Dnsmasq, const char *Text);
    void *RuleConfToStr;
    void *RuleStrToConf;
    void *AcsNameStrToConf;
    void *DpGlobalArgStrToConf;
    void *DpGlobalArgConfToStr;
    void *ShaperStrToConf;
    void *ShaperConfToStr;
    void *IpsetContentStrToConf;
    void *IpsetContentConfToStr;
    void *WanSubIfConfToStr;
    void *WanSubIfStrToConf;
    void *EngineConfToStr;
    void *EngineStrToConf;
    void *IpMacConfToStr;
    void *IpMacStrToConf;
} VQ_DATA_CONTENT_TRANS_OP;

/* TRUE when the host keeps configuration in its store at all. */
BOOL VQ_IsPersistentConfEnable(void);

/* The host's conversion table; never null. */
VQ_DATA_CONTENT_TRANS_OP *VQ_GetDbDataTransOp(void);

/* Adds (`Text` given; an existing row is replaced) or deletes (`Text` null) the row of a VPN. The row key travels in a
 * parameter declared BOOL and may be any 32-bit value. `Text` stays the caller's. */
VQ_ERR_T VQ_SqliteDnsMasqConfOp(BOOL VpnId, char *Text, VQ_SQL_CONF_OP Op, VQ_SQL_CONF_TBL Table);

/* Every row of a table, each parsed into a node; null when nothing could be read. The caller releases the list. */
VQ_PersistentConfList *VQ_SqliteGetDnsMasqConf(VQ_SQL_CONF_TBL Table);

/* Releases such a list with its nodes. */
void VQ_SqliteConfListRelease(VQ_PersistentConfList *List);

VQ_EXTERN_C_END

#endif
