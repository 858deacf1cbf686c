/* The WAN and LAN interfaces of a VPN, as lists in the host's order. */
#ifndef VQ_NETIO_H
#define VQ_NETIO_H

#include "vqPlatform.h"

VQ_EXTERN_C_BEGIN

/* Bytes of an interface name with its terminator. */
#define VQ_IF_NAME_SIZE 16

typedef struct {
    uint32_t SysRoute : 1; /* the box's own traffic is routed through this WAN */
} VQ_CONF_WAN_COMMON;

typedef struct {
    VQ_CONF_WAN_COMMON CommConf;
} VQ_CONF_WAN;

/* Node of a WAN list; the link comes first, so node and link share one address. */
typedef struct {
    VQ_LIST_HEAD list;
    VQ_CONF_WAN WanConf;
} VQ_RTCWanListNode;

typedef struct {
    char PhyIfName[VQ_IF_NAME_SIZE];
} VQ_CONF_LAN;

/* Node of a LAN list; the link comes first, so node and link share one address. */
typedef struct {
    VQ_LIST_HEAD list;
    VQ_CONF_LAN LanConf;
} VQ_RTCLanListNode;

/* A fresh list of VQ_RTCWanListNode and their number in `Count`; null, or a count of 0, when the VPN has none. The
 * caller releases a list that is not null, whatever its count. */
VQ_LIST_HEAD *VQ_RtcNetioWanGetAllByVpnId(uint32_t *Count, uint32_t VpnId);

/* The same for VQ_RTCLanListNode. */
VQ_LIST_HEAD *VQ_RtcNetioLanGetAllByVpnId(uint32_t *Count, uint32_t VpnId);

/* Releases a list of either kind with its nodes. */
void VQ_RtcNetioNodeListRelease(VQ_LIST_HEAD *List);

VQ_EXTERN_C_END

#endif
