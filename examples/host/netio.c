/* The interfaces of a VPN, as lists in the order of the command line. */
#include "host.h"

/* A list with its nodes in one piece of memory. The link is the first member of either kind of node. */
typedef struct {
    VQ_LIST_HEAD head;
    union {
        VQ_LIST_HEAD link;
        VQ_RTCWanListNode wan;
        VQ_RTCLanListNode lan;
    } nodes[kNameSize / 2];
} InterfaceList;

static VQ_LIST_HEAD *ListOf(uint32_t vpnId, bool isLan, uint32_t *count)
{
    const Vpn *vpn = FindVpn(vpnId);
    InterfaceList *list = vpn != NULL ? calloc(1, sizeof(*list)) : NULL;
    *count = 0;
    if (list == NULL) {
        return NULL;
    }
    CDS_INIT_LIST_HEAD(&list->head);
    for (const char *name = isLan ? vpn->lan : vpn->wan; *name != '\0' && strcmp(name, "none") != 0; ++*count) {
        const size_t length = strcspn(name, ",");
        if (isLan) {
            VQ_SNPrintf(list->nodes[*count].lan.LanConf.PhyIfName, VQ_IF_NAME_SIZE, "%.*s", (int)length, name);
        } else {
            list->nodes[*count].wan.WanConf.CommConf.SysRoute = vpn->sysRoute != 0;
        }
        cds_list_add_tail(&list->nodes[*count].link, &list->head);
        name += length + (name[length] == ',');
    }
    return &list->head;
}

VQ_LIST_HEAD *VQ_RtcNetioWanGetAllByVpnId(uint32_t *count, uint32_t vpnId)
{
    return ListOf(vpnId, false, count);
}

VQ_LIST_HEAD *VQ_RtcNetioLanGetAllByVpnId(uint32_t *count, uint32_t vpnId)
{
    return ListOf(vpnId, true, count);
}

void VQ_RtcNetioNodeListRelease(VQ_LIST_HEAD *list)
{
    free(list);
}
