/* The WAN and LAN interfaces of a VPN, as lists in the order of the host. */
#ifndef VQ_NETIO_H
#define VQ_NETIO_H

#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

/* Size of an interface name in bytes, including the terminator. */
#define VQ_IF_NAME_SIZE 16

typedef struct {
    uint32_t SysRoute : 1; /* 1: the traffic of the box itself is routed through this WAN */
} VQ_CONF_WAN_COMMON;

typedef struct {
    VQ_CONF_WAN_COMMON CommConf;
} VQ_CONF_WAN;

/* Node of a WAN list. The link is the first member, so node and link have the same address. */
typedef struct {
    VQ_LIST_HEAD list;
    VQ_CONF_WAN WanConf;
} VQ_RTCWanListNode;

typedef struct {
    char PhyIfName[VQ_IF_NAME_SIZE];
} VQ_CONF_LAN;

/* Node of a LAN list. The link is the first member, so node and link have the same address. */
typedef struct {
    VQ_LIST_HEAD list;
    VQ_CONF_LAN LanConf;
} VQ_RTCLanListNode;

VQ_ASSERT_SIZE(VQ_CONF_WAN, 4);
VQ_ASSERT_OFFSET(VQ_RTCWanListNode, list, 0);
VQ_ASSERT_OFFSET(VQ_RTCWanListNode, WanConf, 2 * sizeof(void *));
VQ_ASSERT_SIZE(VQ_CONF_LAN, VQ_IF_NAME_SIZE);
VQ_ASSERT_OFFSET(VQ_RTCLanListNode, list, 0);
VQ_ASSERT_OFFSET(VQ_RTCLanListNode, LanConf, 2 * sizeof(void *));

/* Returns a new list of VQ_RTCWanListNode and stores the number of nodes in `Count`. If the VPN has no WAN, the list is
 * null or the count is 0. The caller releases every list that is not null with VQ_RtcNetioNodeListRelease, whatever its
 * count. */
VQ_LIST_HEAD *VQ_RtcNetioWanGetAllByVpnId(uint32_t *Count, uint32_t VpnId);

/* The same for LANs and VQ_RTCLanListNode. */
VQ_LIST_HEAD *VQ_RtcNetioLanGetAllByVpnId(uint32_t *Count, uint32_t VpnId);

/* Releases a list of either kind and its nodes. */
void VQ_RtcNetioNodeListRelease(VQ_LIST_HEAD *List);

VQ_EXTERN_C_END

#endif
