/* The advanced DNS configuration record of one VPN, under the names that the host's store uses. The public header of
 * the module gives the same types their VQ_CTRL_ names. There is one definition, so the two cannot differ. */
#ifndef VQ_DNSMASQ_CONF_H
#define VQ_DNSMASQ_CONF_H

#include "vqNetio.h"
#include "vqPlatform.h"

/* Capacities of the tables, in entries. The 16-bit count of the proxy table holds 65535 at most: a record with all
 * 65536 slots filled has count 0, and every reader takes it for a record without proxies. */
#define VQ_DNS_HOST_MAX 1024
#define VQ_DNS_MX_HOST_MAX 1024
#define VQ_DNS_SERVER_MAX 8
#define VQ_DNS_PROXY_MAX 65536

/* Size of a domain field in bytes, including the terminator. */
#define VQ_DNS_DOMAIN_SIZE 256

/* How a running instance gets new content. A controller may send any 32-bit value. The module carries out 0 and 1 and
 * refuses an enabled record with any other value. */
typedef enum VQ_ENUM32 {
    VQ_DNSMASQ_OP_RELOAD = 0, /* SIGHUP: dnsmasq reads hosts again; the rules stay as they are */
    VQ_DNSMASQ_OP_REBOOT = 1, /* stop, start, then install the default steering rule */
    VQ_DNSMASQ_OP_MAX = 2
} VQ_DNSMASQ_OPERATION;

/* One address record that the instance serves itself. Here and below, an address is a number in host byte order with
 * the first dotted octet as the most significant byte. */
typedef struct {
    uint32_t Ip;
    char Domain[VQ_DNS_DOMAIN_SIZE];
} VQ_DNS_HOST_CONF;

/* One mail exchanger: `TargetDomain` receives the mail for `SourceDomain`. */
typedef struct {
    char TargetDomain[VQ_DNS_DOMAIN_SIZE];
    char SourceDomain[VQ_DNS_DOMAIN_SIZE];
    uint32_t Preference; /* 0 to 65536 from a controller; dnsmasq refuses 65536 */
} VQ_DNS_MX_HOST_CONF;

/* One upstream server. `Ifname` is empty if the server is not bound to an interface. */
typedef struct {
    uint32_t DnsServerIp;
    char Ifname[VQ_IF_NAME_SIZE];
} VQ_DNS_SERVER_CONF;

/* One conditional forward: queries for `Domain` and all names below it go to `ServerIp`. */
typedef struct {
    char Domain[VQ_DNS_DOMAIN_SIZE];
    uint32_t ServerIp;
} VQ_DNS_PROXY_CONF;

/* The record. It is about 17 MB, so it is always allocated on the heap. It has no pointers, so it can be zeroed with
 * one fill, copied as a block and embedded in a list node. Code that fills a record must keep each count within its
 * table, because readers do not check the counts. Readers ignore entries past a count. */
typedef struct {
    BOOL Enable;             /* TRUE: run the service with this content; FALSE: stop it and remove routes and rules */
    VQ_DNSMASQ_OPERATION Op; /* any 32-bit value */
    BOOL PersistentFlag;     /* TRUE: store the record after it is applied */
    uint32_t VpnId;          /* VPN id, any 32-bit value; 0: the box itself */
    uint16_t DnsHostNum;     /* valid entries of DnsHost; likewise below */
    uint16_t DnsMxHostNum;
    uint8_t DnsServerNum;
    uint16_t DnsProxyNum;
    VQ_DNS_HOST_CONF DnsHost[VQ_DNS_HOST_MAX];
    VQ_DNS_MX_HOST_CONF DnsMxHost[VQ_DNS_MX_HOST_MAX];
    VQ_DNS_SERVER_CONF DnsServer[VQ_DNS_SERVER_MAX];
    VQ_DNS_PROXY_CONF DnsProxy[VQ_DNS_PROXY_MAX];
    uint32_t LocalIp; /* target of the DNAT rule of a POP; 0 on a CPE */
} VQ_DNSMASQ_CONF;

VQ_ASSERT_ENUM32(VQ_DNSMASQ_OPERATION);
VQ_ASSERT_SIZE(VQ_DNS_HOST_CONF, 4 + VQ_DNS_DOMAIN_SIZE);
VQ_ASSERT_SIZE(VQ_DNS_MX_HOST_CONF, 2 * VQ_DNS_DOMAIN_SIZE + 4);
VQ_ASSERT_SIZE(VQ_DNS_SERVER_CONF, 4 + VQ_IF_NAME_SIZE);
VQ_ASSERT_SIZE(VQ_DNS_PROXY_CONF, VQ_DNS_DOMAIN_SIZE + 4);
VQ_ASSERT_OFFSET(VQ_DNSMASQ_CONF, VpnId, 12);
VQ_ASSERT_OFFSET(VQ_DNSMASQ_CONF, DnsHostNum, 16);
VQ_ASSERT_OFFSET(VQ_DNSMASQ_CONF, DnsMxHostNum, 18);
VQ_ASSERT_OFFSET(VQ_DNSMASQ_CONF, DnsServerNum, 20);
VQ_ASSERT_OFFSET(VQ_DNSMASQ_CONF, DnsProxyNum, 22);
VQ_ASSERT_OFFSET(VQ_DNSMASQ_CONF, DnsHost, 24);
VQ_ASSERT_OFFSET(VQ_DNSMASQ_CONF, DnsMxHost, 24 + VQ_DNS_HOST_MAX * 260);
VQ_ASSERT_OFFSET(VQ_DNSMASQ_CONF, DnsServer, 24 + VQ_DNS_HOST_MAX * 260 + VQ_DNS_MX_HOST_MAX * 516);
VQ_ASSERT_OFFSET(VQ_DNSMASQ_CONF, DnsProxy,
                 24 + VQ_DNS_HOST_MAX * 260 + VQ_DNS_MX_HOST_MAX * 516 + VQ_DNS_SERVER_MAX * 20);
VQ_ASSERT_OFFSET(VQ_DNSMASQ_CONF, LocalIp,
                 24 + VQ_DNS_HOST_MAX * 260 + VQ_DNS_MX_HOST_MAX * 516 + VQ_DNS_SERVER_MAX * 20 +
                     VQ_DNS_PROXY_MAX * 260);
VQ_ASSERT_SIZE(VQ_DNSMASQ_CONF, offsetof(VQ_DNSMASQ_CONF, LocalIp) + 4);

#endif
