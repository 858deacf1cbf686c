/* The routes of a VPN. */
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

/* An address prefix. An IPv4 address is a number in host byte order. */
typedef struct {
    union {
        uint32_t Ip;
        uint8_t Ip6[16];
    };
    uint8_t IpType; /* VQ_IN_ADDR_TYPE */
    uint8_t Mask;   /* prefix length in bits, 0 to 32 for IPv4 */
} VQ_CONF_IP_MASK;

typedef struct {
    uint32_t TableId;
    VQ_CONF_IP_MASK TargetIp;
    uint16_t NexthopNum;                         /* number of valid entries in the two arrays below, 0 to 128 */
    VQ_CONF_IP_MASK Nexthop[VQ_RTC_NEXTHOP_MAX]; /* all zero: no gateway, the route leads to the interface */
    char IfName[VQ_RTC_NEXTHOP_MAX][VQ_IF_NAME_SIZE];
} VQ_RTC_ROUTE_CONF;

VQ_ASSERT_ENUM32(VQ_IN_ADDR_TYPE);
VQ_ASSERT_OFFSET(VQ_CONF_IP_MASK, IpType, 16);
VQ_ASSERT_OFFSET(VQ_CONF_IP_MASK, Mask, 17);
VQ_ASSERT_SIZE(VQ_CONF_IP_MASK, 20);
VQ_ASSERT_OFFSET(VQ_RTC_ROUTE_CONF, TargetIp, 4);
VQ_ASSERT_OFFSET(VQ_RTC_ROUTE_CONF, NexthopNum, 24);
VQ_ASSERT_OFFSET(VQ_RTC_ROUTE_CONF, Nexthop, 28);
VQ_ASSERT_OFFSET(VQ_RTC_ROUTE_CONF, IfName, 28 + VQ_RTC_NEXTHOP_MAX * 20);
VQ_ASSERT_SIZE(VQ_RTC_ROUTE_CONF, 28 + VQ_RTC_NEXTHOP_MAX * (20 + VQ_IF_NAME_SIZE));

/* Adds `Route` to the VPN. `Route` stays the property of the caller. 0 or more on success. -17: the VPN has this route
 * already. */
VQ_ERR_T VQ_RTCRouteAdd(uint32_t VpnId, const VQ_RTC_ROUTE_CONF *Route);

/* Removes the routes of the VPN that `Route` selects. `Route` stays the property of the caller. If `Route` is zero
 * except for its table (VQ_IN_ADDR_TYPE_IPV4 is 0), it selects all IPv4 routes of that table. 0 or more on success. -2:
 * there is nothing to remove. */
VQ_ERR_T VQ_RTCRouteDel(uint32_t VpnId, const VQ_RTC_ROUTE_CONF *Route);

VQ_EXTERN_C_END

#endif
