/* Public header of the advanced DNS module: the configuration record, the table of platform operations and the exported
 * functions. C11 and C++20.
 *
 * Results: 0 or more on success, a negated errno value on failure; a host service's own code is passed up unchanged.
 * Threads: none of its own, no lock. Call every function on the process's main thread, in the box's own network
 * namespace, one at a time, and a platform entry before anything else. */
#ifndef VQ_CTRL_ADVANCED_DNS_H
#define VQ_CTRL_ADVANCED_DNS_H

#include <sys/types.h>

#include "vqDnsmasqConf.h"
#include "vqPlatform.h"
#include "vqStore.h"

VQ_EXTERN_C_BEGIN

#define VQ_CTRL_EXPORT __attribute__((visibility("default")))

/* The record and its items: the store's types under the module's names. */
typedef VQ_DNSMASQ_OPERATION VQ_CTRL_DNSMASQ_OPERATION;
#define VQ_CTRL_DNSMASQ_OP_RELOAD VQ_DNSMASQ_OP_RELOAD
#define VQ_CTRL_DNSMASQ_OP_REBOOT VQ_DNSMASQ_OP_REBOOT
#define VQ_CTRL_DNSMASQ_OP_MAX VQ_DNSMASQ_OP_MAX
typedef VQ_DNS_HOST_CONF VQ_CTRL_DNS_HOST_CONF;
typedef VQ_DNS_MX_HOST_CONF VQ_CTRL_DNS_MX_HOST_CONF;
typedef VQ_DNS_SERVER_CONF VQ_CTRL_DNS_SERVER_CONF;
typedef VQ_DNS_PROXY_CONF VQ_CTRL_DNS_PROXY_CONF;
typedef VQ_DNSMASQ_CONF VQ_CTRL_DNSMASQ_CONF;

/* Unpacked controller messages; the host's generated message code defines them. */
struct DnsmasqConf;
struct PopDnsmasqConf;

/* Carries one controller message. The platform whose operations are installed decides which member is valid. */
typedef union {
    const struct DnsmasqConf *DnsmasqPbCPE;
    const struct PopDnsmasqConf *DnsmasqPbPOP;
} VQ_CTRL_DNSMASQ_CONFIG_PB;

/* What differs between platforms. An empty slot is skipped, except `ReleaseDnsmasq`, which every table must set. */
typedef struct {
    /* Fills a zeroed record from a message. */
    VQ_ERR_T (*PbToConfDnsmasq)(const VQ_CTRL_DNSMASQ_CONFIG_PB *DnsmasqPb, VQ_CTRL_DNSMASQ_CONF *Conf);
    /* The five files, in the order in which they are written. */
    VQ_ERR_T (*SetDnsmasqHostConf)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    VQ_ERR_T (*SetDnsmasqMxHostConf)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    VQ_ERR_T (*SetDnsmasqDnsServerConf)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    VQ_ERR_T (*SetDnsmasqResolveConf)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    VQ_ERR_T (*SetDnsmasqDnsProxyConf)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    /* The default steering rule toward the instance. */
    VQ_ERR_T (*SetDnsmasqRule)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    VQ_ERR_T (*DelDnsmasqRule)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    /* Stops the instance. */
    VQ_ERR_T (*ReleaseDnsmasq)(uint32_t VpnId);
    /* The record's row in the persistent store, and all rows of it. */
    void (*DelDnsmasqDb)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    VQ_ERR_T (*AddDnsmasqDb)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    VQ_ERR_T (*RecoverDnsmasqConf)(void);
} VQ_CTRL_DNSMASQ_OPERATIONS;

/* ---- Platform, messages, recovery ---- */

/* Install the operations of a CPE or of a POP, replacing the whole table. */
VQ_CTRL_EXPORT void VQCtrl_AgentSetCPEAdvancedDnsOps(void);
VQ_CTRL_EXPORT void VQCtrl_AgentSetPOPAdvancedDnsOps(void);

/* Platforms without advanced DNS: the table stays as it is, and an empty one ignores every message. */
VQ_CTRL_EXPORT void VQCtrl_AgentSetApAdvancedDnsOps(void);
VQ_CTRL_EXPORT void VQCtrl_AgentSetAdAdvancedDnsOps(void);
VQ_CTRL_EXPORT void VQCtrl_AgentSetWinAdvancedDnsOps(void);
VQ_CTRL_EXPORT void VQCtrl_AgentSetMacAdvancedDnsOps(void);
VQ_CTRL_EXPORT void VQCtrl_AgentSetLinuxAdvancedDnsOps(void);

/* Translates, applies and, when the host's persistence is on, stores one controller message, which stays the caller's.
 * 0 or more: in force, or ignored for want of a platform. -12: no memory for a record, or for its stored text.
 * Otherwise the negative result of the translation (nothing was applied), of the apply sequence (earlier steps stay;
 * the store is untouched) or of the store (the configuration is in force). */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_ConfigAdvancedDns(const VQ_CTRL_DNSMASQ_CONFIG_PB *DnsmasqPb);

/* Applies every stored record of the platform again, skipping those that fail. 0, also without a platform. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_AgentRecoverAdvancedDnsConf(void);

/* ---- Translation ---- */

/* Checks the CPE message and fills `Conf`, which the caller has zeroed. Both pointers and the message are not null.
 * -22: a missing or bad element. -75: a list over its limit. On failure the record is half-filled and not to be used.
 */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_PbToAdvancedDnsConfPlatformCPE(const VQ_CTRL_DNSMASQ_CONFIG_PB *DnsmasqPb,
                                                              VQ_CTRL_DNSMASQ_CONF *Conf);

/* The same for the POP message, whose record always names VPN 0 and asks for a restart. Of more than 8 servers the
 * first 8 are kept, up to 255; -75: more than that. -22: servers are counted but missing. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_PbToAdvancedDnsConfPlatformPOP(const VQ_CTRL_DNSMASQ_CONFIG_PB *DnsmasqPb,
                                                              VQ_CTRL_DNSMASQ_CONF *Conf);

/* TRUE when `Domain` is a name that the module takes: alphanumeric runs of 1 to 63 characters joined by single
 * separators, ending in a dot and 2 to 63 letters, 254 characters at most. FALSE for null. */
VQ_CTRL_EXPORT BOOL VQCtrl_ValidateDomain(const char *Domain);

/* ---- Input files of an instance ---- */

/* Each replaces one file of `Conf->VpnId` (0: the box-wide one) whole, and empties it when its count is 0. Returns the
 * write's result; -75: path or content over its buffer; -12: no memory. On failure before the write the old file stays.
 */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_SetDnsHostConf(const VQ_CTRL_DNSMASQ_CONF *Conf);
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_SetDnsMxHostConf(const VQ_CTRL_DNSMASQ_CONF *Conf);
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_SetDnsServerConf(const VQ_CTRL_DNSMASQ_CONF *Conf);
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_SetDnsResolveConf(const VQ_CTRL_DNSMASQ_CONF *Conf);
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_SetDnsProxyConf(const VQ_CTRL_DNSMASQ_CONF *Conf);

/* VQCtrl_SetDnsHostConf for a bare array of `DnsHostNum` hosts. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_SetDnsHostByDnsHostConf(const VQ_CTRL_DNS_HOST_CONF *DnsHostConf,
                                                       const uint16_t DnsHostNum, const uint32_t VpnId);

/* ---- Routes ---- */

/* Makes route table 199 of the VPN hold one host route per server of `Conf`, through the VPN's first LAN interface.
 * Does nothing for VPN 0 or when a WAN of the VPN carries system routes. 0; -12; or the route service's code, with the
 * routes added so far left in place. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_AddDnsmasqRouteForVpn(const VQ_CTRL_DNSMASQ_CONF *Conf);

/* Empties route table 199 of the VPN; failures are logged only. Does nothing for VPN 0. */
VQ_CTRL_EXPORT void VQCtrl_DelDnsmasqRouteForVpn(uint32_t VpnId);

/* ---- Instances ---- */

/* Creates what is missing of the VPN's instance directory and writes its dnsmasq.conf anew. VPN 0 gets a vpn_0 of its
 * own. The write's result; -75; the negated errno of mkdir; or the file service's code. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_DnsmasqConfInitByVpnId(uint32_t VpnId);

/* Removes the VPN's instance directory; its instance should be stopped. The file service's result, or -75. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_DnsmasqConfRelaseByVpnId(uint32_t VpnId);

/* Stops the single system-wide service of an older release; a failure is logged only. */
VQ_CTRL_EXPORT void VQCtrl_StopOldVersionDnsmasqService(void);

/* Launches the VPN's instance in the background, in the VPN's namespace. Does not check that it came up, nor that none
 * is running. The launch's result; -22: the launch failed; -75: the command is too long; or the namespace service's
 * code. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_DnsmasqStart(uint32_t VpnId);

/* Ends the VPN's instance and removes its pid file. 0 also when there is no pid file. Otherwise the kill's code, or the
 * negated errno after a failed search for left-over processes. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_DnsmasqStop(uint32_t VpnId);

/* Sends the VPN's instance SIGHUP. 0 also when there is no pid file; the negated errno when the signal failed. The pid
 * file is trusted: one that holds 0 or -1 signals the caller's process group or every process. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_DnsmasqReload(uint32_t VpnId);

/* Stops and starts; a failed stop is logged only. The start's result. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_DnsmasqReboot(uint32_t VpnId);

/* Reads the VPN's pid file into `Pid`, as a decimal number that is not checked. -22: the file is empty; -75; or the
 * negated errno of opening it. `Pid` is untouched on failure. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_GetDnsServicePid(uint32_t VpnId, pid_t *Pid);

/* ---- Text form ---- */

/* `Conf` as JSON text, to be released with VQ_AgentMemFree; null on any failure. `PersistentFlag` is left out and `Op`
 * is always written as a restart. */
VQ_CTRL_EXPORT char *VQCtrl_AdvancedDnsConfToJsonStr(const VQ_CTRL_DNSMASQ_CONF *Conf);

/* Fills `Conf`, which the caller has zeroed, from such a text. Types, lengths and the tables' capacities are checked,
 * values are not. -22: not JSON, or a missing or bad member; -75: a text, a number or a list that is too long. On
 * failure the record is half-filled and not to be used. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_AdvancedDnsJsonStrToConf(VQ_CTRL_DNSMASQ_CONF *Conf, const char *DnsmasqStr);

/* ---- Store ---- */

/* Stores the record under its VPN id in `Table`, in place of what is there. 0, also when the host has no conversion to
 * text; -12: no text; or the store's code. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_AdvancedDnsmasqAddPersistentConf(const VQ_CTRL_DNSMASQ_CONF *Dnsmasq,
                                                                VQ_SQL_CONF_TBL Table);

/* The same: the store's add replaces. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_AdvancedDnsmasqUpdatePersistentConf(const VQ_CTRL_DNSMASQ_CONF *Dnsmasq,
                                                                   VQ_SQL_CONF_TBL Table);

/* Deletes the row of the record's VPN; the store's result. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_AdvancedDnsmasqDelPersistentconf(const VQ_CTRL_DNSMASQ_CONF *Dnsmasq,
                                                                VQ_SQL_CONF_TBL Table);

/* All stored records, to be released with VQ_SqliteConfListRelease; null when nothing could be read. */
VQ_CTRL_EXPORT VQ_PersistentConfList *VQCtrl_AdvancedDnsmasqGetAllPersistentconf(VQ_SQL_CONF_TBL Table);

/* ---- Steering rules ---- */

/* Each installs or removes one rule and returns the rule service's result. DNAT: UDP port 53 from CPE-to-POP
 * connections goes to `DnatIp`. Policy: the DNS traffic of the VPN goes to the box. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_ConfigAddDnsmasqDnat(uint32_t DnatIp);
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_ConfigDelDnsmasqDnat(void);
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_ConfigAddDnsmasqPolicy(uint32_t VpnId);
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_ConfigDelDnsmasqPolicy(uint32_t VpnId);

VQ_EXTERN_C_END

#endif
