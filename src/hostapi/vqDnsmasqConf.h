/* The advanced DNS configuration record of one VPN, under the names that the host's store uses. The module's public
 * header gives the same types their VQ_CTRL_ names: there is one definition, so the two can never differ. */
#ifndef VQ_DNSMASQ_CONF_H
#define VQ_DNSMASQ_CONF_H

#include "vqNetio.h"
#include "vqPlatform.h"

/* Capacities. The proxy table has one slot more than its 16-bit count can tell: a record whose slots are all filled
 * holds the count 0 and is read everywhere as one without proxies. */
#define VQ_DNS_HOST_MAX 1024
#define VQ_DNS_MX_HOST_MAX 1024
#define VQ_DNS_SERVER_MAX 8
#define VQ_DNS_PROXY_MAX 65536

/* Bytes of a domain field with its terminator. */
#define VQ_DNS_DOMAIN_SIZE 256

/* How a running instance takes up new content. A controller may send any value; only 0 and 1 are carried out. */
typedef enum VQ_ENUM32 {
    VQ_DNSMASQ_OP_RELOAD = 0, /* read the files again; steering rules stay as they are */
    VQ_DNSMASQ_OP_REBOOT = 1, /* restart, then install the default steering rule again */
    VQ_DNSMASQ_OP_MAX = 2
} VQ_DNSMASQ_OPERATION;

/* One address record served locally. Addresses are numbers in host byte order, the first octet the most significant. */
typedef struct {
    uint32_t Ip;
    char Domain[VQ_DNS_DOMAIN_SIZE];
} VQ_DNS_HOST_CONF;

/* One mail exchanger: `TargetDomain` takes the mail of `SourceDomain`. */
typedef struct {
    char TargetDomain[VQ_DNS_DOMAIN_SIZE];
    char SourceDomain[VQ_DNS_DOMAIN_SIZE];
    uint32_t Preference;
} VQ_DNS_MX_HOST_CONF;

/* One upstream server; `Ifname` is empty when it is not bound to an interface. */
typedef struct {
    uint32_t DnsServerIp;
    char Ifname[VQ_IF_NAME_SIZE];
} VQ_DNS_SERVER_CONF;

/* One conditional forward: queries below `Domain` go to `ServerIp`. */
typedef struct {
    char Domain[VQ_DNS_DOMAIN_SIZE];
    uint32_t ServerIp;
} VQ_DNS_PROXY_CONF;

/* About 17 MB: always on the heap. Flat and free of pointers, so that it can be zeroed with one fill, copied as a block
 * and embedded in a list node. Whoever fills it keeps each count within its table; readers trust the counts. Entries
 * past a count are ignored. */
typedef struct {
    BOOL Enable;             /* TRUE: the service is to run with this content; FALSE: it is to be torn down */
    VQ_DNSMASQ_OPERATION Op; /* any 32-bit value */
    BOOL PersistentFlag;     /* TRUE: to be stored once it is applied */
    uint32_t VpnId;          /* 0: the box itself */
    uint16_t DnsHostNum;
    uint16_t DnsMxHostNum;
    uint8_t DnsServerNum;
    uint16_t DnsProxyNum;
    VQ_DNS_HOST_CONF DnsHost[VQ_DNS_HOST_MAX];
    VQ_DNS_MX_HOST_CONF DnsMxHost[VQ_DNS_MX_HOST_MAX];
    VQ_DNS_SERVER_CONF DnsServer[VQ_DNS_SERVER_MAX];
    VQ_DNS_PROXY_CONF DnsProxy[VQ_DNS_PROXY_MAX];
    uint32_t LocalIp; /* where a POP's DNAT rule sends DNS; 0 on a CPE */
} VQ_DNSMASQ_CONF;

#endif
