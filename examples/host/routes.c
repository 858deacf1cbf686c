/* Routes, by iproute2. The module asks for routes with one next hop and without a gateway. */
#include "host.h"

/* Without an interface the lookup goes on in the other tables. */
VQ_ERR_T VQ_RTCRouteAdd(uint32_t vpnId, const VQ_RTC_ROUTE_CONF *route)
{
    char address[kNameSize];
    const bool hasName = route->NexthopNum > 0 && route->IfName[0][0] != '\0';
    VQ_IPNum2IPStr(route->TargetIp.Ip, 0, address, sizeof(address));
    return RunInVpn(vpnId,
                    "set -- %s/%u table %u\nip route show exact $* | grep -q . && exit %d\nip route add %s $* %s %s",
                    address, route->TargetIp.Mask, route->TableId, EEXIST, hasName ? "" : "throw", hasName ? "dev" : "",
                    hasName ? route->IfName[0] : "");
}

/* A description that has a table alone selects all routes of that table, however many there are. */
VQ_ERR_T VQ_RTCRouteDel(uint32_t vpnId, const VQ_RTC_ROUTE_CONF *route)
{
    char address[kNameSize];
    const bool isTable = route->TargetIp.Ip == 0 && route->TargetIp.Mask == 0 && route->NexthopNum == 0;
    VQ_IPNum2IPStr(route->TargetIp.Ip, 0, address, sizeof(address));
    return RunInVpn(vpnId, "set -- table %u %s %s/%u\nip route show $* | grep -q . || exit %d\nip route flush $*",
                    route->TableId, isTable ? "root" : "exact", address, route->TargetIp.Mask, ENOENT);
}
