/* Routes. The module asks for routes with one next hop and without a gateway, for up to 65,535 in a message: they are
 * added through the kernel's route socket. */
#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include "host.h"

/* Without an interface the lookup goes on in the other tables (RTN_THROW). Returns the kernel's answer. */
static VQ_ERR_T AddRoute(const VQ_RTC_ROUTE_CONF *route)
{
    const bool hasName = route->NexthopNum > 0 && route->IfName[0][0] != '\0';
    const unsigned interface = hasName ? if_nametoindex(route->IfName[0]) : 0;
    const struct {
        struct nlmsghdr header;
        struct rtmsg route;
        struct {
            struct rtattr header;
            uint32_t value;
        } target, table, interface;
    } request = {{.nlmsg_len = sizeof(request),
                  .nlmsg_type = RTM_NEWROUTE,
                  .nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL},
                 {.rtm_family = AF_INET,
                  .rtm_dst_len = route->TargetIp.Mask,
                  .rtm_protocol = RTPROT_STATIC,
                  .rtm_scope = hasName ? RT_SCOPE_LINK : RT_SCOPE_UNIVERSE,
                  .rtm_type = hasName ? RTN_UNICAST : RTN_THROW},
                 {{RTA_LENGTH(4), RTA_DST}, htonl(route->TargetIp.Ip)},
                 {{RTA_LENGTH(4), RTA_TABLE}, route->TableId},
                 {{RTA_LENGTH(4), RTA_OIF}, interface}};
    struct {
        struct nlmsghdr header;
        struct nlmsgerr error;
    } answer = {.error.error = -ENODEV};
    const int netlink = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if ((!hasName || interface != 0) && (send(netlink, &request, sizeof(request), 0) < 0 ||
                                         recv(netlink, &answer, sizeof(answer), 0) < (ssize_t)sizeof(answer))) {
        answer.error.error = -errno;
    }
    close(netlink);
    return answer.error.error;
}

VQ_ERR_T VQ_RTCRouteAdd(uint32_t vpnId, const VQ_RTC_ROUTE_CONF *route)
{
    int saved;
    VQ_ERR_T result = VQ_RtcNetNsSaveAndSwitch(vpnId, &saved);
    if (result >= 0) {
        result = AddRoute(route);
        VQ_RtcNetNsSwitchToDefault(&saved);
    }
    return result;
}

/* A description that has a table alone selects all routes of that table, however many there are. */
VQ_ERR_T VQ_RTCRouteDel(uint32_t vpnId, const VQ_RTC_ROUTE_CONF *route)
{
    char address[kNameSize];
    char command[kTextSize];
    const bool isTable = route->TargetIp.Ip == 0 && route->TargetIp.Mask == 0 && route->NexthopNum == 0;
    VQ_IPNum2IPStr(route->TargetIp.Ip, 0, address, sizeof(address));
    VQ_SNPrintf(command, sizeof(command),
                "sh -c 'set -- table %u %s %s/%u; ip route show $* | grep -q . && ip route flush $*'", route->TableId,
                isTable ? "root" : "exact", address, route->TargetIp.Mask);
    return RunInVpn(vpnId, command) < 0 ? -ENOENT : 0;
}
