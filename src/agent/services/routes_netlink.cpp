#include "services/routes_netlink.h"

#include <arpa/inet.h>
#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "base/netlink.h"
#include "vqRoute.h"

namespace kavel::agent {
namespace {

constexpr std::uint32_t kRulePriority = 199;
constexpr std::uint8_t kHostMask = 32;

// The header's field has eight bits; the attribute tells the whole number.
std::uint8_t HeaderTable(std::uint32_t table)
{
    return table < RT_TABLE_COMPAT ? static_cast<std::uint8_t>(table) : std::uint8_t{RT_TABLE_UNSPEC};
}

std::uint32_t TableOf(const nlmsghdr &message)
{
    const auto *route = static_cast<const rtmsg *>(mnl_nlmsg_get_payload(&message));
    std::uint32_t table = route->rtm_table;
    const auto take = [](const nlattr *attribute, void *found) {
        if (mnl_attr_get_type(attribute) == RTA_TABLE && mnl_attr_validate(attribute, MNL_TYPE_U32) >= 0) {
            *static_cast<std::uint32_t *>(found) = mnl_attr_get_u32(attribute);
        }
        return MNL_CB_OK;
    };
    mnl_attr_parse(&message, sizeof(rtmsg), take, &table);
    return table;
}

int ForEachRoute(NetlinkSocket &socket, std::uint32_t table, const std::function<void(const nlmsghdr &)> &take)
{
    NetlinkMessage message(RTM_GETROUTE, NLM_F_DUMP);
    auto *route = message.PutExtra<rtmsg>();
    route->rtm_family = AF_INET;
    mnl_attr_put_u32(message.Header(), RTA_TABLE, table);
    const int result = socket.Dump(message, [&](const nlmsghdr &found) {
        if (found.nlmsg_type == RTM_NEWROUTE && TableOf(found) == table) {
            take(found);
        }
    });
    // A table without routes may not exist at all.
    return result == -ENOENT ? 0 : result;
}

bool IsIpv4(const VQ_CONF_IP_MASK &prefix)
{
    return prefix.IpType == VQ_IN_ADDR_TYPE_IPV4;
}

int Validate(const VQ_RTC_ROUTE_CONF &route)
{
    if (!IsIpv4(route.TargetIp)) {
        return -EAFNOSUPPORT;
    }
    if (route.TargetIp.Mask > kHostMask || route.NexthopNum > VQ_RTC_NEXTHOP_MAX) {
        return -EINVAL;
    }
    for (unsigned hop = 0; hop < route.NexthopNum; ++hop) {
        if (!IsIpv4(route.Nexthop[hop])) {
            return -EAFNOSUPPORT;
        }
    }
    return 0;
}

// 0 when the next hop names no interface, a negated errno when there is none of that name.
int IndexOfHop(NetlinkSocket &socket, const VQ_RTC_ROUTE_CONF &route, unsigned hop)
{
    const std::string name(route.IfName[hop], strnlen(route.IfName[hop], VQ_IF_NAME_SIZE));
    return name.empty() ? 0 : socket.InterfaceIndex(name);
}

int PutSingleHop(NetlinkSocket &socket, const VQ_RTC_ROUTE_CONF &route, nlmsghdr *message)
{
    const int index = IndexOfHop(socket, route, 0);
    if (index < 0) {
        return index;
    }
    if (route.Nexthop[0].Ip != 0) {
        mnl_attr_put_u32(message, RTA_GATEWAY, htonl(route.Nexthop[0].Ip));
    }
    if (index > 0) {
        mnl_attr_put_u32(message, RTA_OIF, static_cast<std::uint32_t>(index));
    }
    return 0;
}

int PutHops(NetlinkSocket &socket, const VQ_RTC_ROUTE_CONF &route, nlmsghdr *message)
{
    nlattr *hops = mnl_attr_nest_start(message, RTA_MULTIPATH);
    for (unsigned hop = 0; hop < route.NexthopNum; ++hop) {
        const int index = IndexOfHop(socket, route, hop);
        if (index < 0) {
            return index;
        }
        auto *next = static_cast<rtnexthop *>(mnl_nlmsg_get_payload_tail(message));
        *next = {.rtnh_len = sizeof(rtnexthop), .rtnh_flags = 0, .rtnh_hops = 0, .rtnh_ifindex = index};
        const std::uint32_t start = message->nlmsg_len;
        message->nlmsg_len += static_cast<std::uint32_t>(sizeof(rtnexthop));
        if (route.Nexthop[hop].Ip != 0) {
            mnl_attr_put_u32(message, RTA_GATEWAY, htonl(route.Nexthop[hop].Ip));
        }
        next->rtnh_len = static_cast<unsigned short>(message->nlmsg_len - start);
    }
    // RTA_MULTIPATH holds rtnexthop structures, not attributes: it does not bear the flag of a nest.
    mnl_attr_nest_end(message, hops);
    hops->nla_type = RTA_MULTIPATH;
    return 0;
}

bool HasGateway(const VQ_RTC_ROUTE_CONF &route)
{
    for (unsigned hop = 0; hop < route.NexthopNum; ++hop) {
        if (route.Nexthop[hop].Ip != 0) {
            return true;
        }
    }
    return false;
}

// What the module asks for in a VPN without LAN interfaces.
bool NamesNoWay(const VQ_RTC_ROUTE_CONF &route)
{
    const auto named = [](const auto &name) { return name[0] != '\0'; };
    return route.NexthopNum > 0 && !HasGateway(route) &&
           std::none_of(std::begin(route.IfName), std::begin(route.IfName) + route.NexthopNum, named);
}

int PutNextHops(NetlinkSocket &socket, const VQ_RTC_ROUTE_CONF &route, nlmsghdr *message)
{
    if (route.NexthopNum == 0) {
        return 0;
    }
    return route.NexthopNum == 1 ? PutSingleHop(socket, route, message) : PutHops(socket, route, message);
}

int RequestRoute(NetlinkSocket &socket, std::uint16_t type, std::uint16_t flags, const VQ_RTC_ROUTE_CONF &route)
{
    NetlinkMessage message(type, flags);
    auto *header = message.PutExtra<rtmsg>();
    header->rtm_family = AF_INET;
    header->rtm_dst_len = route.TargetIp.Mask;
    header->rtm_table = HeaderTable(route.TableId);
    if (type == RTM_NEWROUTE) {
        header->rtm_protocol = RTPROT_STATIC;
        header->rtm_scope = HasGateway(route) ? RT_SCOPE_UNIVERSE : RT_SCOPE_LINK;
        header->rtm_type = RTN_UNICAST;
        if (NamesNoWay(route)) {
            // Sends the search on to the ordinary routes, which know the way if anyone does.
            header->rtm_type = RTN_THROW;
            header->rtm_scope = RT_SCOPE_UNIVERSE;
        }
    } else {
        header->rtm_scope = RT_SCOPE_NOWHERE; // matches any
    }
    mnl_attr_put_u32(message.Header(), RTA_DST, htonl(route.TargetIp.Ip));
    mnl_attr_put_u32(message.Header(), RTA_TABLE, route.TableId);
    const int hops = PutNextHops(socket, route, message.Header());
    return hops < 0 ? hops : socket.Request(message);
}

// What the kernel dumped, turned into the request to delete just that.
void TurnIntoDeletion(nlmsghdr &route)
{
    route.nlmsg_type = RTM_DELROUTE;
    route.nlmsg_flags = NLM_F_REQUEST;
    route.nlmsg_pid = 0;
    static_cast<rtmsg *>(mnl_nlmsg_get_payload(&route))->rtm_flags = 0;
}

int FlushTable(NetlinkSocket &socket, std::uint32_t table)
{
    NetlinkBatch requests;
    const int dumped =
        ForEachRoute(socket, table, [&](const nlmsghdr &route) { TurnIntoDeletion(requests.Append(route)); });
    if (dumped < 0) {
        return dumped;
    }
    // A route that went meanwhile, with its interface, is gone all the same.
    return requests.IsEmpty() ? -ENOENT : socket.RequestAll(requests, -ESRCH);
}

bool SelectsWholeTable(const VQ_RTC_ROUTE_CONF &route)
{
    return route.TargetIp.Ip == 0 && route.TargetIp.Mask == 0 && route.NexthopNum == 0;
}

int DeleteRoute(NetlinkSocket &socket, const VQ_RTC_ROUTE_CONF &route)
{
    if (SelectsWholeTable(route)) {
        return FlushTable(socket, route.TableId);
    }
    const int result = RequestRoute(socket, RTM_DELROUTE, 0, route);
    return result == -ESRCH ? -ENOENT : result;
}

} // namespace

int EnsurePolicyRule(std::uint32_t vpnId)
{
    return WithNetlink(vpnId, [](NetlinkSocket &socket) {
        NetlinkMessage message(RTM_NEWRULE, NLM_F_CREATE | NLM_F_EXCL);
        auto *rule = message.PutExtra<fib_rule_hdr>();
        rule->family = AF_INET;
        rule->table = kDnsRouteTable;
        rule->action = FR_ACT_TO_TBL;
        mnl_attr_put_u32(message.Header(), FRA_PRIORITY, kRulePriority);
        mnl_attr_put_u32(message.Header(), FRA_TABLE, kDnsRouteTable);
        const int result = socket.Request(message);
        return result == -EEXIST ? 0 : result;
    });
}

int CountRoutes(std::uint32_t vpnId, std::uint32_t table)
{
    return WithNetlink(vpnId, [&](NetlinkSocket &socket) {
        int count = 0;
        const int result = ForEachRoute(socket, table, [&](const nlmsghdr &) { ++count; });
        return result < 0 ? result : count;
    });
}

} // namespace kavel::agent

using namespace kavel::agent;

extern "C" {

VQ_ERR_T VQ_RTCRouteAdd(uint32_t VpnId, const VQ_RTC_ROUTE_CONF *Route)
{
    const int valid = Route == nullptr ? -EINVAL : Validate(*Route);
    if (valid < 0) {
        return valid;
    }
    return WithNetlink(VpnId, [&](NetlinkSocket &socket) {
        return RequestRoute(socket, RTM_NEWROUTE, NLM_F_CREATE | NLM_F_EXCL, *Route);
    });
}

VQ_ERR_T VQ_RTCRouteDel(uint32_t VpnId, const VQ_RTC_ROUTE_CONF *Route)
{
    const int valid = Route == nullptr ? -EINVAL : Validate(*Route);
    if (valid < 0) {
        return valid;
    }
    return WithNetlink(VpnId, [&](NetlinkSocket &socket) { return DeleteRoute(socket, *Route); });
}
}
