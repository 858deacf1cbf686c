/* The promises of vqRoute.h. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "checks.h"
#include "probe.h"
#include "vqNetio.h"
#include "vqRoute.h"

enum { kTable = 199, kOtherTable = 200, kManyRoutes = 300, kHostBits = 32 };

/* Of the addresses for tests of networks. Reversed it is another address. */
static const uint32_t kTarget = 0xC6120102U; /* 198.18.1.2 */

static VQ_RTC_ROUTE_CONF *NewRoute(uint32_t table)
{
    VQ_RTC_ROUTE_CONF *route = calloc(1, sizeof(*route));
    route->TableId = table;
    return route;
}

/* The route to a server as the module describes it: over the first LAN interface. */
static VQ_RTC_ROUTE_CONF *RouteTo(uint32_t target, uint32_t table)
{
    static char name[VQ_IF_NAME_SIZE];
    uint32_t count = 0;
    VQ_LIST_HEAD *list = *name == '\0' ? VQ_RtcNetioLanGetAllByVpnId(&count, g_settings.vpnId) : NULL;
    if (list != NULL && count > 0) {
        memcpy(name, ((const VQ_RTCLanListNode *)(const void *)list->next)->LanConf.PhyIfName, sizeof(name));
    }
    VQ_RTC_ROUTE_CONF *route = NewRoute(table);
    route->TargetIp.Ip = target;
    route->TargetIp.Mask = kHostBits;
    route->NexthopNum = 1;
    memcpy(route->IfName[0], name, sizeof(name));
    return route;
}

static VQ_ERR_T Add(uint32_t target, uint32_t table)
{
    return VQ_RTCRouteAdd(g_settings.vpnId, RouteTo(target, table));
}

static VQ_ERR_T DeleteTable(uint32_t table)
{
    return VQ_RTCRouteDel(g_settings.vpnId, NewRoute(table));
}

/* Empties the tables that are used. False, and the check is skipped, if there is no VPN for routes. */
static bool Prepare(Check *check)
{
    if (g_settings.vpnId == 0) {
        Skipped(check, "the module changes no routes of VPN 0; name a VPN with --vpn");
        return false;
    }
    DeleteTable(kTable);
    DeleteTable(kOtherTable);
    return true;
}

/* Adds the route; false, with the reason recorded, if it is refused. */
static bool IsAdded(Check *check, uint32_t target, uint32_t table)
{
    const VQ_ERR_T result = Add(target, table);
    if (result < 0) {
        Broken(check, "a route to %u.%u.%u.%u in table %u is refused with %d", target >> 24U, target >> 16U & 255U,
               target >> 8U & 255U, target & 255U, table, result);
    }
    return result >= 0;
}

void CheckRouteAdd(Check *check)
{
    if (!Prepare(check) || !IsAdded(check, kTarget, kTable)) {
        return;
    }
    const int count = CountRoutes(g_settings.vpnId, kTable, kTarget);
    if (count < 0) {
        Skipped(check, "routes cannot be seen");
    } else if (count != 1) {
        const int reversed = CountRoutes(g_settings.vpnId, kTable, 0x020112C6U);
        Broken(check, "%d routes to 198.18.1.2, %d to 2.1.18.198 in table %d of VPN %u%s", count, reversed, kTable,
               g_settings.vpnId, AreRoutesOfKernel() ? " of the kernel; name another data plane with --probe" : "");
    }
    DeleteTable(kTable);
}

void CheckRouteAddNamespace(Check *check)
{
    if (!Prepare(check) || !IsAdded(check, kTarget, kTable)) {
        return;
    }
    const int count = CountRoutes(0, kTable, kTarget);
    if (count < 0) {
        Skipped(check, "routes cannot be seen");
    } else if (count > 0) {
        Broken(check, "the box has the route to 198.18.1.2 in its table %d", kTable);
    }
    DeleteTable(kTable);
}

void CheckRouteAddExists(Check *check)
{
    if (Prepare(check) && IsAdded(check, kTarget, kTable)) {
        const VQ_ERR_T result = Add(kTarget, kTable);
        if (result != -EEXIST) {
            Broken(check, "result %d for the same route", result);
        }
        DeleteTable(kTable);
    }
}

void CheckRouteAddAny(Check *check)
{
    const uint32_t targets[] = {1, 0x7F000001U, 0xA9FE0101U, 0xE0000001U, 0xFFFFFFFFU};
    if (!Prepare(check)) {
        return;
    }
    for (size_t i = 0; i < sizeof(targets) / sizeof(targets[0]); ++i) {
        IsAdded(check, targets[i], kTable);
    }
    DeleteTable(kTable);
}

void CheckRouteAddUnknown(Check *check)
{
    const VQ_ERR_T result = VQ_RTCRouteAdd(kUnknownVpn, RouteTo(kTarget, kTable));
    if (result >= 0) {
        Broken(check, "result %d for VPN %u", result, kUnknownVpn);
        VQ_RTCRouteDel(kUnknownVpn, NewRoute(kTable));
    }
}

/* If routes cannot be seen: what can be added again was removed. */
static int CountLeft(void)
{
    const int count = CountRoutes(g_settings.vpnId, kTable, 0);
    int left = 0;
    for (uint32_t i = 0; count < 0 && i < kManyRoutes; ++i) {
        left += Add(kTarget + i, kTable) == -EEXIST ? 1 : 0;
    }
    return count < 0 ? left : count;
}

void CheckRouteDeleteTable(Check *check)
{
    if (!Prepare(check)) {
        return;
    }
    for (uint32_t i = 0; i < kManyRoutes; ++i) {
        if (!IsAdded(check, kTarget + i, kTable)) {
            return;
        }
    }
    const VQ_ERR_T result = DeleteTable(kTable);
    const int left = CountLeft();
    if (result < 0 || left > 0) {
        Broken(check, "of %d routes %d are left; the result is %d", kManyRoutes, left, result);
    }
    /* Leaves nothing behind in a host that removes a few at a time. */
    for (int i = 0; i < kManyRoutes && DeleteTable(kTable) >= 0; ++i) {
    }
}

void CheckRouteDeleteOther(Check *check)
{
    enum { kMainTable = 254 };
    if (!Prepare(check)) {
        return;
    }
    const int before = CountRoutes(g_settings.vpnId, kMainTable, 0);
    if (!IsAdded(check, kTarget, kTable) || !IsAdded(check, kTarget, kOtherTable)) {
        return;
    }
    DeleteTable(kTable);
    const int after = CountRoutes(g_settings.vpnId, kMainTable, 0);
    if (Add(kTarget, kOtherTable) != -EEXIST) {
        Broken(check, "table %d was emptied, and the route of table %d is gone", kTable, kOtherTable);
    } else if (after < before) {
        Broken(check, "table %d was emptied, and the main table of the VPN has %d routes instead of %d", kTable, after,
               before);
    }
    DeleteTable(kOtherTable);
}

void CheckRouteDeleteMissing(Check *check)
{
    if (Prepare(check)) {
        const VQ_ERR_T result = DeleteTable(kTable);
        if (result != -ENOENT) {
            Broken(check, "result %d for an empty table", result);
        }
    }
}

void CheckRouteDeleteOne(Check *check)
{
    if (!Prepare(check) || !IsAdded(check, kTarget, kTable) || !IsAdded(check, kTarget + 1, kTable)) {
        return;
    }
    const VQ_ERR_T result = VQ_RTCRouteDel(g_settings.vpnId, RouteTo(kTarget, kTable));
    const VQ_ERR_T other = Add(kTarget + 1, kTable);
    const VQ_ERR_T again = Add(kTarget, kTable);
    if (result < 0 || other != -EEXIST || again < 0) {
        Broken(check, "result %d; the route was %s, the other one was %s", result, again < 0 ? "kept" : "removed",
               other == -EEXIST ? "kept" : "removed");
    }
    DeleteTable(kTable);
}
