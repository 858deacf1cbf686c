#include <algorithm>
#include <cerrno>

#include "host.h"
#include "routeTable.h"

namespace fakehost {

namespace {

std::string Dotted(uint32_t Ip)
{
    return std::to_string(Ip >> 24U) + '.' + std::to_string((Ip >> 16U) & 255U) + '.' +
           std::to_string((Ip >> 8U) & 255U) + '.' + std::to_string(Ip & 255U);
}

std::string Prefix(uint32_t Target, uint8_t Mask)
{
    return Dotted(Target) + '/' + std::to_string(Mask);
}

std::string Device(const std::string &Interface)
{
    return " dev " + (Interface.empty() ? "\"\"" : Interface);
}

std::vector<NextHop> HopsOf(const VQ_RTC_ROUTE_CONF &Description)
{
    std::vector<NextHop> Hops;
    for (std::size_t i = 0; i < Description.NexthopNum; ++i) {
        Hops.push_back({Description.Nexthop[i].Ip, Description.IfName[i]});
    }
    return Hops;
}

bool Selects(const NextHop &Wanted, const NextHop &Found)
{
    return (Wanted.Gateway == 0 || Wanted.Gateway == Found.Gateway) &&
           (Wanted.Interface.empty() || Wanted.Interface == Found.Interface);
}

// Whether all bytes that the module must leave zero are zero: all next hops, and the names after the first.
bool RestIsZero(const VQ_RTC_ROUTE_CONF &Description)
{
    const auto IsZero = [](char Byte) { return Byte == 0; };
    // Any object may be read as bytes.
    const auto *Hops = reinterpret_cast<const char *>(Description.Nexthop);
    const char *Names = Description.IfName[0];
    return std::all_of(Hops, Hops + sizeof(Description.Nexthop), IsZero) &&
           std::all_of(Names + sizeof(Description.IfName[0]), Names + sizeof(Description.IfName), IsZero);
}

} // namespace

void RouteText::AppendTo(std::string &Out) const
{
    Out += "table " + std::to_string(Description.TableId) + ' ' +
           Prefix(Description.TargetIp.Ip, Description.TargetIp.Mask) + Device(Description.IfName[0]) + " type " +
           std::to_string(Description.TargetIp.IpType) + " nexthops " + std::to_string(Description.NexthopNum);
    if (!RestIsZero(Description)) {
        Out += " and more";
    }
}

int RouteTable::Add(uint32_t VpnId, const VQ_RTC_ROUTE_CONF &Description)
{
    Route Added{VpnId, Description.TableId, Description.TargetIp.Ip, Description.TargetIp.Mask, HopsOf(Description)};
    return m_Routes.insert(std::move(Added)).second ? 0 : -EEXIST;
}

int RouteTable::Delete(uint32_t VpnId, const VQ_RTC_ROUTE_CONF &Description)
{
    const std::vector<NextHop> Hops = HopsOf(Description);
    const bool All = Description.TargetIp.Ip == 0 && Description.TargetIp.Mask == 0 && Hops.empty();
    const auto HasTarget = [&](const Route &Each) {
        return Each.Target == Description.TargetIp.Ip && Each.Mask == Description.TargetIp.Mask;
    };
    const auto HasHops = [&](const Route &Each) {
        return Hops.empty() || std::equal(Hops.begin(), Hops.end(), Each.Hops.begin(), Each.Hops.end(), Selects);
    };
    const std::size_t Gone = std::erase_if(m_Routes, [&](const Route &Each) {
        return Each.VpnId == VpnId && Each.TableId == Description.TableId &&
               (All || (HasTarget(Each) && HasHops(Each)));
    });
    return Gone == 0 ? -ENOENT : 0;
}

std::vector<std::string> RouteTable::Of(uint32_t VpnId, uint32_t TableId) const
{
    std::vector<std::string> Out;
    for (const Route &Each : m_Routes) {
        if (Each.VpnId != VpnId || Each.TableId != TableId) {
            continue;
        }
        Out.push_back(Prefix(Each.Target, Each.Mask));
        for (const NextHop &Hop : Each.Hops) {
            Out.back() += (Hop.Gateway == 0 ? "" : " via " + Dotted(Hop.Gateway)) + Device(Hop.Interface);
        }
    }
    return Out;
}

} // namespace fakehost

using fakehost::EntryKind;
using fakehost::ErrnoKept;
using fakehost::Host;
using fakehost::RouteText;

VQ_ERR_T VQ_RTCRouteAdd(uint32_t VpnId, const VQ_RTC_ROUTE_CONF *Route)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    const std::optional<int> Error = Here.Enter(EntryKind::World, "VQ_RTCRouteAdd", VpnId, RouteText{*Route});
    if (Error.has_value()) {
        return *Error;
    }
    const int Result = Here.Netns.Knows(VpnId) ? Here.Routes.Add(VpnId, *Route) : -ENOENT;
    return Result < 0 ? Result : Here.Success("VQ_RTCRouteAdd");
}

VQ_ERR_T VQ_RTCRouteDel(uint32_t VpnId, const VQ_RTC_ROUTE_CONF *Route)
{
    const ErrnoKept Kept;
    Host &Here = Host::Current();
    const std::optional<int> Error = Here.Enter(EntryKind::World, "VQ_RTCRouteDel", VpnId, RouteText{*Route});
    if (Error.has_value()) {
        return *Error;
    }
    const int Result = Here.Netns.Knows(VpnId) ? Here.Routes.Delete(VpnId, *Route) : -ENOENT;
    return Result < 0 ? Result : Here.Success("VQ_RTCRouteDel");
}
