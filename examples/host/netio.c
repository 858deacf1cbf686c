/* The interfaces of a VPN, as lists in the order of the command line. */
#include "host.h"

/* A node of either kind of list. The link is the first member of both. */
typedef union {
    VQ_LIST_HEAD link;
    VQ_RTCWanListNode wan;
    VQ_RTCLanListNode lan;
} Node;

/* `vpn` may be null. */
static VQ_LIST_HEAD *ListOf(const Vpn *vpn, const char *names, bool isLan, uint32_t *count)
{
    VQ_LIST_HEAD *list = malloc(sizeof(*list));
    Node *node = NULL;
    *count = 0;
    if (list != NULL) {
        CDS_INIT_LIST_HEAD(list);
    }
    while (list != NULL && strcmp(names, "none") != 0 && names[0] != '\0' &&
           (node = calloc(1, sizeof(*node))) != NULL) {
        const size_t length = strcspn(names, ",");
        if (isLan) {
            VQ_SNPrintf(node->lan.LanConf.PhyIfName, VQ_IF_NAME_SIZE, "%.*s", (int)length, names);
        } else {
            node->wan.WanConf.CommConf.SysRoute = vpn->sysRoute != 0;
        }
        cds_list_add_tail(&node->link, list);
        ++*count;
        names += length + (names[length] == ',');
    }
    return list;
}

VQ_LIST_HEAD *VQ_RtcNetioWanGetAllByVpnId(uint32_t *count, uint32_t vpnId)
{
    const Vpn *vpn = FindVpn(vpnId);
    return ListOf(vpn, vpn != NULL ? vpn->wan : "none", false, count);
}

VQ_LIST_HEAD *VQ_RtcNetioLanGetAllByVpnId(uint32_t *count, uint32_t vpnId)
{
    const Vpn *vpn = FindVpn(vpnId);
    return ListOf(vpn, vpn != NULL ? vpn->lan : "none", true, count);
}

void VQ_RtcNetioNodeListRelease(VQ_LIST_HEAD *list)
{
    for (VQ_LIST_HEAD *node = list->next, *next; node != list; node = next) {
        next = node->next;
        free(node);
    }
    free(list);
}
