/* Public header of the advanced DNS module: the configuration record, the table of platform operations and all exported
 * functions. It compiles as C11 and as C++20, with the headers of the host interface alone.
 *
 * Results: 0 or more on success, a negated errno value on failure. Codes of host services are returned unchanged.
 * Threads: the module has no threads and takes no locks. Call its functions on the main thread of the process, in the
 * network namespace of the box, one at a time. Call a platform entry before any other function.
 * Pointers: they must not be null, except where null is mentioned. Arguments stay the property of the caller.
 * VpnId: any 32-bit value; 0 is the box itself. */
#ifndef VQ_CTRL_ADVANCED_DNS_H
#define VQ_CTRL_ADVANCED_DNS_H

#include <sys/types.h>

#include "vqDnsmasqConf.h"
#include "vqPlatform.h"
#include "vqStore.h"

VQ_EXTERN_C_BEGIN

#define VQ_CTRL_EXPORT __attribute__((visibility("default")))

/* The record and its items: the types of the store under the names of the module. */
typedef VQ_DNSMASQ_OPERATION VQ_CTRL_DNSMASQ_OPERATION;
#define VQ_CTRL_DNSMASQ_OP_RELOAD VQ_DNSMASQ_OP_RELOAD
#define VQ_CTRL_DNSMASQ_OP_REBOOT VQ_DNSMASQ_OP_REBOOT
#define VQ_CTRL_DNSMASQ_OP_MAX VQ_DNSMASQ_OP_MAX
typedef VQ_DNS_HOST_CONF VQ_CTRL_DNS_HOST_CONF;
typedef VQ_DNS_MX_HOST_CONF VQ_CTRL_DNS_MX_HOST_CONF;
typedef VQ_DNS_SERVER_CONF VQ_CTRL_DNS_SERVER_CONF;
typedef VQ_DNS_PROXY_CONF VQ_CTRL_DNS_PROXY_CONF;
typedef VQ_DNSMASQ_CONF VQ_CTRL_DNSMASQ_CONF;

/* Unpacked controller messages. The generated message code of the host defines them. */
struct DnsmasqConf;
struct PopDnsmasqConf;

/* Carries one controller message. The installed platform decides which member is valid. */
typedef union {
    const struct DnsmasqConf *DnsmasqPbCPE;
    const struct PopDnsmasqConf *DnsmasqPbPOP;
} VQ_CTRL_DNSMASQ_CONFIG_PB;

/* The operations that differ between platforms. Every table must set `ReleaseDnsmasq`. Any other slot may be null: the
 * module then skips that step, and without `PbToConfDnsmasq` it ignores every message. */
typedef struct {
    /* Fills a zeroed record from a message. A negative result ends the message. */
    VQ_ERR_T (*PbToConfDnsmasq)(const VQ_CTRL_DNSMASQ_CONFIG_PB *DnsmasqPb, VQ_CTRL_DNSMASQ_CONF *Conf);
    /* Write the five files, in this order. A negative result ends the sequence. */
    VQ_ERR_T (*SetDnsmasqHostConf)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    VQ_ERR_T (*SetDnsmasqMxHostConf)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    VQ_ERR_T (*SetDnsmasqDnsServerConf)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    VQ_ERR_T (*SetDnsmasqResolveConf)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    VQ_ERR_T (*SetDnsmasqDnsProxyConf)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    /* Install and remove the default steering rules toward the instance. */
    VQ_ERR_T (*SetDnsmasqRule)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    VQ_ERR_T (*DelDnsmasqRule)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    /* Stops the instance. */
    VQ_ERR_T (*ReleaseDnsmasq)(uint32_t VpnId);
    /* Delete and add the row of the record in the store; apply all stored records. */
    void (*DelDnsmasqDb)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    VQ_ERR_T (*AddDnsmasqDb)(const VQ_CTRL_DNSMASQ_CONF *Conf);
    VQ_ERR_T (*RecoverDnsmasqConf)(void);
} VQ_CTRL_DNSMASQ_OPERATIONS;

VQ_ASSERT_SIZE(VQ_CTRL_DNSMASQ_CONFIG_PB, sizeof(void *));
VQ_ASSERT_SIZE(VQ_CTRL_DNSMASQ_OPERATIONS, 12 * sizeof(void *));

/* ---- Platform, messages, recovery ---- */

/* Install the operations of a CPE or of a POP. Each replaces the whole table. */
VQ_CTRL_EXPORT void VQCtrl_AgentSetCPEAdvancedDnsOps(void);
VQ_CTRL_EXPORT void VQCtrl_AgentSetPOPAdvancedDnsOps(void);

/* The entries of platforms without advanced DNS. They do not change the table. While it is empty, messages are ignored.
 */
VQ_CTRL_EXPORT void VQCtrl_AgentSetApAdvancedDnsOps(void);
VQ_CTRL_EXPORT void VQCtrl_AgentSetAdAdvancedDnsOps(void);
VQ_CTRL_EXPORT void VQCtrl_AgentSetWinAdvancedDnsOps(void);
VQ_CTRL_EXPORT void VQCtrl_AgentSetMacAdvancedDnsOps(void);
VQ_CTRL_EXPORT void VQCtrl_AgentSetLinuxAdvancedDnsOps(void);

/* Translates and applies one controller message. If the host keeps configuration, it also deletes the stored row of the
 * VPN and stores the record if the message asks for that. The message stays the property of the caller.
 *   0 or more: the configuration is applied, or there is no platform and the message was ignored.
 *   -12: no memory for the record (nothing was applied), for a file or a route (see below), or for the stored text.
 *   Negative result of the translation: nothing was applied.
 *   Negative result of a step: the steps before it stay, the store is not changed.
 *   Negative result of the store: the configuration is applied. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_ConfigAdvancedDns(const VQ_CTRL_DNSMASQ_CONFIG_PB *DnsmasqPb);

/* Applies every stored record of the platform. A record that fails is logged, and the next one follows. Always 0. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_AgentRecoverAdvancedDnsConf(void);

/* ---- Translation ---- */

/* Checks the CPE message and fills `Conf`, which the caller has zeroed. A conditional forward with an invalid domain is
 * skipped with a warning; every other error ends the translation. 0 on success. -22: an element is missing or invalid.
 * -75: a list is longer than its limit. On failure the record is partly filled and must not be used. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_PbToAdvancedDnsConfPlatformCPE(const VQ_CTRL_DNSMASQ_CONFIG_PB *DnsmasqPb,
                                                              VQ_CTRL_DNSMASQ_CONF *Conf);

/* The same for the POP message. The record keeps VPN 0 and asks for a restart. If there are more than 8 servers, the
 * first 8 are used. -75: more than 255 servers. -22: the message has a number of servers but no array. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_PbToAdvancedDnsConfPlatformPOP(const VQ_CTRL_DNSMASQ_CONFIG_PB *DnsmasqPb,
                                                              VQ_CTRL_DNSMASQ_CONF *Conf);

/* TRUE if the module accepts `Domain`: runs of 1 to 63 letters and digits, joined by single dots, hyphens or
 * backslashes, then a dot and 2 to 63 letters, at most 254 characters together. FALSE for null, and if there is no
 * memory to compile the pattern. */
VQ_CTRL_EXPORT BOOL VQCtrl_ValidateDomain(const char *Domain);

/* ---- Input files of an instance ---- */

/* Each replaces one whole file of `Conf->VpnId`, for VPN 0 the file of the box. If the count is 0, the file is emptied.
 * Returns the result of the write. -75: path or content do not fit their buffers. -12: no memory (hosts, MX, forwards).
 * Otherwise the code of the address conversion (hosts, servers, resolver). If the function fails before the write, the
 * old file stays. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_SetDnsHostConf(const VQ_CTRL_DNSMASQ_CONF *Conf);
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_SetDnsMxHostConf(const VQ_CTRL_DNSMASQ_CONF *Conf);
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_SetDnsServerConf(const VQ_CTRL_DNSMASQ_CONF *Conf);
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_SetDnsResolveConf(const VQ_CTRL_DNSMASQ_CONF *Conf);
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_SetDnsProxyConf(const VQ_CTRL_DNSMASQ_CONF *Conf);

/* The same as VQCtrl_SetDnsHostConf for an array of `DnsHostNum` hosts. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_SetDnsHostByDnsHostConf(const VQ_CTRL_DNS_HOST_CONF *DnsHostConf,
                                                       const uint16_t DnsHostNum, const uint32_t VpnId);

/* ---- Routes ---- */

/* Empties route table 199 of the VPN and adds one host route for each upstream server and each server of a conditional
 * forward, through the first LAN interface of the VPN. Does nothing for VPN 0, and nothing if a WAN of the VPN carries
 * system routes. 0 on success. -12: no memory. Otherwise the code of the route service; the routes added so far stay.
 */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_AddDnsmasqRouteForVpn(const VQ_CTRL_DNSMASQ_CONF *Conf);

/* Empties route table 199 of the VPN. Failures are only logged. Does nothing for VPN 0. */
VQ_CTRL_EXPORT void VQCtrl_DelDnsmasqRouteForVpn(uint32_t VpnId);

/* ---- Instances ---- */

/* Creates the missing parts of the instance directory of the VPN and writes its dnsmasq.conf again. VPN 0 gets a
 * directory vpn_0. Returns the result of the write. -75: a path or the content does not fit. Otherwise the negated
 * errno of mkdir or the code of the file service. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_DnsmasqConfInitByVpnId(uint32_t VpnId);

/* Removes the instance directory of the VPN. Stop the instance before. Returns the result of the file service. -75: the
 * path does not fit. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_DnsmasqConfRelaseByVpnId(uint32_t VpnId);

/* Stops the single system-wide service of an older release. A failure is only logged. */
VQ_CTRL_EXPORT void VQCtrl_StopOldVersionDnsmasqService(void);

/* Launches the instance of the VPN in the background, in the namespace of the VPN. Does not check that it comes up, nor
 * that none is running. Returns the result of the launch. -22: the launch failed. -75: the command is too long.
 * Otherwise the code of the namespace service. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_DnsmasqStart(uint32_t VpnId);

/* Ends the process in the pid file of the VPN. If port 53 is still taken in the namespace of the VPN, ends all
 * processes whose command line has the tag of the VPN. Then removes the pid file. 0 also if the pid file is missing,
 * empty or unreadable; then nothing is done. Otherwise the code of the kill, or the negated errno after a failed search
 * for processes, which may be 0. -75: the path of the pid file does not fit. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_DnsmasqStop(uint32_t VpnId);

/* Sends SIGHUP to the process in the pid file of the VPN. 0 also if the pid file is missing, empty or unreadable; then
 * nothing is done. Otherwise the negated errno of the signal. The pid is not checked: with 0 the signal goes to the
 * process group of the caller, with -1 to every process. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_DnsmasqReload(uint32_t VpnId);

/* Stops the instance and starts it. A failed stop is only logged. Returns the result of the start. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_DnsmasqReboot(uint32_t VpnId);

/* Reads the decimal number in the pid file of the VPN into `Pid`. The number is not checked; text that is no number
 * gives 0. 0 on success. -22: the file is empty or cannot be read. -75: its path does not fit. Otherwise the negated
 * errno of opening it. On failure `Pid` is not changed. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_GetDnsServicePid(uint32_t VpnId, pid_t *Pid);

/* ---- Text form ---- */

/* Returns `Conf` as JSON text, which the caller releases with VQ_AgentMemFree, or null on any failure. The text has no
 * `PersistentFlag`, and its `Op` is always a restart. */
VQ_CTRL_EXPORT char *VQCtrl_AdvancedDnsConfToJsonStr(const VQ_CTRL_DNSMASQ_CONF *Conf);

/* Fills `Conf`, which the caller has zeroed, from such a text. Types, lengths and the capacities of the tables are
 * checked, values are not. A missing or bad `VpnId` gives VPN 0, a missing or bad count gives an empty list, and
 * `LocalIp` is optional. 0 on success. -22: the text is not JSON, or a member is missing or bad. -75: a text, a number
 * or a list is too long. On failure the record is partly filled and must not be used. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_AdvancedDnsJsonStrToConf(VQ_CTRL_DNSMASQ_CONF *Conf, const char *DnsmasqStr);

/* ---- Store ---- */

/* Stores the record under its VPN id in `Table` and replaces an existing row. Returns the result of the store, or 0 if
 * the host has no conversion to text. -12: the conversion gave no text. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_AdvancedDnsmasqAddPersistentConf(const VQ_CTRL_DNSMASQ_CONF *Dnsmasq,
                                                                VQ_SQL_CONF_TBL Table);

/* The same function under another name: the add replaces a row. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_AdvancedDnsmasqUpdatePersistentConf(const VQ_CTRL_DNSMASQ_CONF *Dnsmasq,
                                                                   VQ_SQL_CONF_TBL Table);

/* Deletes the row of the record's VPN id from `Table`. Returns the result of the store. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_AdvancedDnsmasqDelPersistentconf(const VQ_CTRL_DNSMASQ_CONF *Dnsmasq,
                                                                VQ_SQL_CONF_TBL Table);

/* Returns all stored records of `Table`, which the caller releases with VQ_SqliteConfListRelease, or null if nothing
 * could be read. */
VQ_CTRL_EXPORT VQ_PersistentConfList *VQCtrl_AdvancedDnsmasqGetAllPersistentconf(VQ_SQL_CONF_TBL Table);

/* ---- Steering rules ---- */

/* Each installs or removes one rule and returns the result of the rule service. DNAT: traffic to UDP port 53 from
 * CPE-to-POP connections goes to `DnatIp`. Policy: the DNS traffic of the VPN goes to the box. */
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_ConfigAddDnsmasqDnat(uint32_t DnatIp);
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_ConfigDelDnsmasqDnat(void);
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_ConfigAddDnsmasqPolicy(uint32_t VpnId);
VQ_CTRL_EXPORT VQ_ERR_T VQCtrl_ConfigDelDnsmasqPolicy(uint32_t VpnId);

VQ_EXTERN_C_END

#endif
