/* The persistent configuration store of the host, and its table of conversions between records and stored text. */
#ifndef VQ_STORE_H
#define VQ_STORE_H

#include "vqDnsmasqConf.h"
#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

/* The tables of the store that hold DNS records. */
typedef enum VQ_ENUM32 { VQ_SQL_CONF_CPE_DNSMASQ = 10, VQ_SQL_CONF_POP_DNSMASQ = 14 } VQ_SQL_CONF_TBL;

typedef enum VQ_ENUM32 {
    VQ_SQL_CONF_OP_USPEC = 0,
    VQ_SQL_CONF_OP_ADD = 1,
    VQ_SQL_CONF_OP_DEL = 2,
    VQ_SQL_CONF_OP_POLICY_RESET_BY_SUPER = 3,
    VQ_SQL_CONF_OP_POLICY_RESET_ALL = 4,
    VQ_SQL_CONF_OP_MAX = 5
} VQ_SQL_CONF_OP;

/* One stored record. The link is the first member, so node and link have the same address. */
typedef struct {
    VQ_LIST_HEAD List;
    VQ_DNSMASQ_CONF Dnsmasq;
} VQ_DnsmasqConfNode;

typedef struct {
    VQ_LIST_HEAD Head; /* of VQ_DnsmasqConfNode */
    int32_t Count;
} VQ_PersistentConfList;

/* The conversion table of the host. Any slot may be null. */
typedef struct {
    void (*DataTransJsonStrFree)(char *Text); /* releases the text of a ...ToStr conversion */
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
    char *(*DnsmasqConfToStr)(const VQ_DNSMASQ_CONF *Dnsmasq); /* new text, or null */
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

VQ_ASSERT_ENUM32(VQ_SQL_CONF_TBL);
VQ_ASSERT_ENUM32(VQ_SQL_CONF_OP);
VQ_ASSERT_OFFSET(VQ_DnsmasqConfNode, Dnsmasq, 2 * sizeof(void *));
VQ_ASSERT_OFFSET(VQ_PersistentConfList, Count, 2 * sizeof(void *));
VQ_ASSERT_OFFSET(VQ_DATA_CONTENT_TRANS_OP, DnsmasqConfToStr, 15 * sizeof(void *));
VQ_ASSERT_OFFSET(VQ_DATA_CONTENT_TRANS_OP, DnsmasqStrToConf, 16 * sizeof(void *));
VQ_ASSERT_SIZE(VQ_DATA_CONTENT_TRANS_OP, 32 * sizeof(void *));

/* TRUE if the host keeps configuration in its store. */
BOOL VQ_IsPersistentConfEnable(void);

/* The conversion table of the host; never null. The host keeps ownership. */
VQ_DATA_CONTENT_TRANS_OP *VQ_GetDbDataTransOp(void);

/* Adds or deletes the row of a VPN in `Table`. With VQ_SQL_CONF_OP_ADD, `Text` is the text of the row and an existing
 * row is replaced. With VQ_SQL_CONF_OP_DEL, `Text` is null. `VpnId` is the row key: its type is BOOL, its value is any
 * 32-bit number. `Text` stays the property of the caller. 0 or more on success. -2: there is no row to delete. */
VQ_ERR_T VQ_SqliteDnsMasqConfOp(BOOL VpnId, char *Text, VQ_SQL_CONF_OP Op, VQ_SQL_CONF_TBL Table);

/* Returns a new list with one node for each row of the table that could be converted. Null if the table could not be
 * read. The caller releases the list with VQ_SqliteConfListRelease. */
VQ_PersistentConfList *VQ_SqliteGetDnsMasqConf(VQ_SQL_CONF_TBL Table);

/* Releases such a list and its nodes. */
void VQ_SqliteConfListRelease(VQ_PersistentConfList *List);

VQ_EXTERN_C_END

#endif
