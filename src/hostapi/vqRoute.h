/* Routes of a VPN. */
#ifndef VQ_ROUTE_H
#define VQ_ROUTE_H

#include "vqNetio.h"
#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

#define VQ_RTC_NEXTHOP_MAX 128

typedef enum VQ_ENUM32 {
    VQ_IN_ADDR_TYPE_IPV4 = 0,
    VQ_IN_ADDR_TYPE_IPV6 = 1,
    VQ_IN_ADDR_TYPE_INVALID = 2
} VQ_IN_ADDR_TYPE;

/* A prefix. An IPv4 address is a number in host byte order. */
typedef struct {
    union {
        uint32_t Ip;
        uint8_t Ip6[16];
    };
    uint8_t IpType; /* VQ_IN_ADDR_TYPE */
    uint8_t Mask;   /* prefix length in bits */
} VQ_CONF_IP_MASK;

typedef struct {
    uint32_t TableId;
    VQ_CONF_IP_MASK TargetIp;
    uint16_t NexthopNum;                         /* valid entries of the two arrays below */
    VQ_CONF_IP_MASK Nexthop[VQ_RTC_NEXTHOP_MAX]; /* all zero: bound to the interface only */
    char IfName[VQ_RTC_NEXTHOP_MAX][VQ_IF_NAME_SIZE];
} VQ_RTC_ROUTE_CONF;

/* Installs `Route` in the VPN; -17 when it is already there. */
VQ_ERR_T VQ_RTCRouteAdd(uint32_t VpnId, const VQ_RTC_ROUTE_CONF *Route);

/* Removes what `Route` selects in the VPN; -2 when there is nothing to remove. A description that holds nothing but its
 * table selects every IPv4 route of that table. */
VQ_ERR_T VQ_RTCRouteDel(uint32_t VpnId, const VQ_RTC_ROUTE_CONF *Route);

VQ_EXTERN_C_END

#endif
