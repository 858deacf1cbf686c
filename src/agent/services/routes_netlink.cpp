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
#include "failure.h"
#include "vqRoute.h"

namespace kavel::agent {
namespace {

constexpr std::uint32_t kRulePriority = 199;
constexpr std::uint8_t kHostMask = 32;

// The header's field has eight bits; the attribute has the whole number.
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

void ForEachRoute(NetlinkSocket &socket, std::uint32_t table, const std::function<void(const nlmsghdr &)> &take)
{
    NetlinkMessage message(RTM_GETROUTE, NLM_F_DUMP);
    auto *route = message.PutExtra<rtmsg>();
    route->rtm_family = AF_INET;
    mnl_attr_put_u32(message.Header(), RTA_TABLE, table);
    try {
        socket.Dump(message, [&](const nlmsghdr &found) {
            if (found.nlmsg_type == RTM_NEWROUTE && TableOf(found) == table) {
                take(found);
            }
        });
    } catch (const KernelRefusal &refusal) {
        // A table that never had a route does not exist.
        if (refusal.code().value() != ENOENT) {
            throw;
        }
    }
}

bool IsIpv4(const VQ_CONF_IP_MASK &prefix)
{
    return prefix.IpType == VQ_IN_ADDR_TYPE_IPV4;
}

void Validate(const VQ_RTC_ROUTE_CONF &route)
{
    const auto checkFamily = [](const VQ_CONF_IP_MASK &prefix) {
        if (!IsIpv4(prefix)) {
            ThrowErrno(EAFNOSUPPORT, "route");
        }
    };
    checkFamily(route.TargetIp);
    if (route.TargetIp.Mask > kHostMask || route.NexthopNum > VQ_RTC_NEXTHOP_MAX) {
        ThrowErrno(EINVAL, "route");
    }
    std::for_each(std::begin(route.Nexthop), std::begin(route.Nexthop) + route.NexthopNum, checkFamily);
}

// 0 when the next hop names no interface.
int IndexOfHop(NetlinkSocket &socket, const VQ_RTC_ROUTE_CONF &route, unsigned hop)
{
    const std::string name(route.IfName[hop], strnlen(route.IfName[hop], VQ_IF_NAME_SIZE));
    return name.empty() ? 0 : socket.InterfaceIndex(name);
}

void PutSingleHop(NetlinkSocket &socket, const VQ_RTC_ROUTE_CONF &route, nlmsghdr *message)
{
    const int index = IndexOfHop(socket, route, 0);
    if (route.Nexthop[0].Ip != 0) {
        mnl_attr_put_u32(message, RTA_GATEWAY, htonl(route.Nexthop[0].Ip));
    }
    if (index > 0) {
        mnl_attr_put_u32(message, RTA_OIF, static_cast<std::uint32_t>(index));
    }
}

void PutHops(NetlinkSocket &socket, const VQ_RTC_ROUTE_CONF &route, nlmsghdr *message)
{
    nlattr *hops = mnl_attr_nest_start(message, RTA_MULTIPATH);
    for (unsigned hop = 0; hop < route.NexthopNum; ++hop) {
        const int index = IndexOfHop(socket, route, hop);
        auto *next = static_cast<rtnexthop *>(mnl_nlmsg_get_payload_tail(message));
        *next = {.rtnh_len = sizeof(rtnexthop), .rtnh_flags = 0, .rtnh_hops = 0, .rtnh_ifindex = index};
        const std::uint32_t start = message->nlmsg_len;
        message->nlmsg_len += static_cast<std::uint32_t>(sizeof(rtnexthop));
        if (route.Nexthop[hop].Ip != 0) {
            mnl_attr_put_u32(message, RTA_GATEWAY, htonl(route.Nexthop[hop].Ip));
        }
        next->rtnh_len = static_cast<unsigned short>(message->nlmsg_len - start);
    }
    // RTA_MULTIPATH holds rtnexthop structures, not attributes: it does not have the flag of a nest.
    mnl_attr_nest_end(message, hops);
    hops->nla_type = RTA_MULTIPATH;
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

// Neither a gateway nor an interface: the module asks for such a route in a VPN without LAN interfaces.
bool LacksNextHop(const VQ_RTC_ROUTE_CONF &route)
{
    const auto isNamed = [](const auto &name) { return name[0] != '\0'; };
    return route.NexthopNum > 0 && !HasGateway(route) &&
           std::none_of(std::begin(route.IfName), std::begin(route.IfName) + route.NexthopNum, isNamed);
}

void PutNextHops(NetlinkSocket &socket, const VQ_RTC_ROUTE_CONF &route, nlmsghdr *message)
{
    if (route.NexthopNum == 1) {
        PutSingleHop(socket, route, message);
    } else if (route.NexthopNum > 1) {
        PutHops(socket, route, message);
    }
}

void RequestRoute(NetlinkSocket &socket, std::uint16_t type, std::uint16_t flags, const VQ_RTC_ROUTE_CONF &route)
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
        if (LacksNextHop(route)) {
            // Continues the lookup in the tables of the ordinary routes.
            header->rtm_type = RTN_THROW;
            header->rtm_scope = RT_SCOPE_UNIVERSE;
        }
    } else {
        header->rtm_scope = RT_SCOPE_NOWHERE; // matches any
    }
    mnl_attr_put_u32(message.Header(), RTA_DST, htonl(route.TargetIp.Ip));
    mnl_attr_put_u32(message.Header(), RTA_TABLE, route.TableId);
    PutNextHops(socket, route, message.Header());
    socket.Request(message);
}

// Turns a route from a dump into the request that deletes exactly this route.
void ConvertToDeletion(nlmsghdr &route)
{
    route.nlmsg_type = RTM_DELROUTE;
    route.nlmsg_flags = NLM_F_REQUEST;
    route.nlmsg_pid = 0;
    static_cast<rtmsg *>(mnl_nlmsg_get_payload(&route))->rtm_flags = 0;
}

void FlushTable(NetlinkSocket &socket, std::uint32_t table)
{
    NetlinkBatch requests;
    ForEachRoute(socket, table, [&](const nlmsghdr &route) { ConvertToDeletion(requests.Append(route)); });
    if (requests.IsEmpty()) {
        ThrowErrno(ENOENT, "route table " + std::to_string(table));
    }
    // ESRCH: the route was removed meanwhile, with its interface.
    socket.RequestAll(requests, ESRCH);
}

bool SelectsWholeTable(const VQ_RTC_ROUTE_CONF &route)
{
    return route.TargetIp.Ip == 0 && route.TargetIp.Mask == 0 && route.NexthopNum == 0;
}

void AddRoute(NetlinkSocket &socket, const VQ_RTC_ROUTE_CONF &route)
{
    RequestRoute(socket, RTM_NEWROUTE, NLM_F_CREATE | NLM_F_EXCL, route);
}

void DeleteRoute(NetlinkSocket &socket, const VQ_RTC_ROUTE_CONF &route)
{
    if (SelectsWholeTable(route)) {
        FlushTable(socket, route.TableId);
        return;
    }
    RequestRoute(socket, RTM_DELROUTE, 0, route);
}

// The kernel says ESRCH for a route that does not exist, the host interface ENOENT.
VQ_ERR_T DeletionResult(VQ_ERR_T result)
{
    return result == -ESRCH ? -ENOENT : result;
}

VQ_ERR_T ChangeRoute(std::uint32_t vpnId, const VQ_RTC_ROUTE_CONF *route,
                     void (*change)(NetlinkSocket &, const VQ_RTC_ROUTE_CONF &))
{
    if (route == nullptr) {
        return -EINVAL;
    }
    return ResultOf([&] {
        Validate(*route);
        Host::Current().routeSockets.With(vpnId, [&](NetlinkSocket &socket) { change(socket, *route); });
        return 0;
    });
}

// Whether the rule was changed; false if the kernel answered `expected`.
bool ChangePolicyRule(Host &host, std::uint32_t vpnId, std::uint16_t type, std::uint16_t flags, int expected)
{
    return host.routeSockets.With(vpnId, [&](NetlinkSocket &socket) {
        NetlinkMessage message(type, flags);
        auto *rule = message.PutExtra<fib_rule_hdr>();
        rule->family = AF_INET;
        rule->table = kDnsRouteTable;
        rule->action = FR_ACT_TO_TBL;
        mnl_attr_put_u32(message.Header(), FRA_PRIORITY, kRulePriority);
        mnl_attr_put_u32(message.Header(), FRA_TABLE, kDnsRouteTable);
        return socket.RequestUnless(expected, message);
    });
}

// The priority of a policy rule; 0 is that of the local table, which is always there.
std::uint32_t PriorityOf(const nlmsghdr &rule)
{
    std::uint32_t priority = 0;
    const auto take = [](const nlattr *attribute, void *found) {
        if (mnl_attr_get_type(attribute) == FRA_PRIORITY && mnl_attr_validate(attribute, MNL_TYPE_U32) >= 0) {
            *static_cast<std::uint32_t *>(found) = mnl_attr_get_u32(attribute);
        }
        return MNL_CB_OK;
    };
    mnl_attr_parse(&rule, sizeof(fib_rule_hdr), take, &priority);
    return priority;
}

} // namespace

bool EnsurePolicyRule(Host &host, std::uint32_t vpnId)
{
    return ChangePolicyRule(host, vpnId, RTM_NEWRULE, NLM_F_CREATE | NLM_F_EXCL, EEXIST);
}

bool HasPolicyRule(Host &host, std::uint32_t vpnId)
{
    return host.routeSockets.With(vpnId, [](NetlinkSocket &socket) {
        NetlinkMessage message(RTM_GETRULE, 0);
        message.PutExtra<fib_rule_hdr>()->family = AF_INET;
        bool isThere = false;
        socket.Dump(message, [&](const nlmsghdr &rule) { isThere = isThere || PriorityOf(rule) == kRulePriority; });
        return isThere;
    });
}

void RemovePolicyRule(Host &host, std::uint32_t vpnId)
{
    ChangePolicyRule(host, vpnId, RTM_DELRULE, 0, ENOENT);
}

std::uint32_t CountRoutes(Host &host, std::uint32_t vpnId, std::uint32_t table)
{
    return host.routeSockets.With(vpnId, [table](NetlinkSocket &socket) {
        std::uint32_t count = 0;
        ForEachRoute(socket, table, [&](const nlmsghdr &) { ++count; });
        return count;
    });
}

} // namespace kavel::agent

using namespace kavel::agent;

extern "C" {

VQ_ERR_T VQ_RTCRouteAdd(uint32_t vpnId, const VQ_RTC_ROUTE_CONF *route)
{
    return ChangeRoute(vpnId, route, AddRoute);
}

VQ_ERR_T VQ_RTCRouteDel(uint32_t vpnId, const VQ_RTC_ROUTE_CONF *route)
{
    return DeletionResult(ChangeRoute(vpnId, route, DeleteRoute));
}
}
