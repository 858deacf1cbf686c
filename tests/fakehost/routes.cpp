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

std::string Prefix(uint32_t Target, uint8_t Mask, const std::string &Interface)
{
    return Dotted(Target) + '/' + std::to_string(Mask) + " dev " + (Interface.empty() ? "\"\"" : Interface);
}

// Whether every byte is zero that a route of ours leaves alone: all next hops, and the names after the first.
bool RestIsZero(const VQ_RTC_ROUTE_CONF &Description)
{
    const auto IsZero = [](char Byte) { return Byte == 0; };
    // Any object may be looked at as bytes.
    const auto *Hops = reinterpret_cast<const char *>(Description.Nexthop);
    const char *Names = Description.IfName[0];
    return std::all_of(Hops, Hops + sizeof(Description.Nexthop), IsZero) &&
           std::all_of(Names + sizeof(Description.IfName[0]), Names + sizeof(Description.IfName), IsZero);
}

} // namespace

void RouteText::AppendTo(std::string &Out) const
{
    Out += "table " + std::to_string(Description.TableId) + ' ' +
           Prefix(Description.TargetIp.Ip, Description.TargetIp.Mask, Description.IfName[0]) + " type " +
           std::to_string(Description.TargetIp.IpType) + " nexthops " + std::to_string(Description.NexthopNum);
    if (!RestIsZero(Description)) {
        Out += " and more";
    }
}

int RouteTable::Add(uint32_t VpnId, const VQ_RTC_ROUTE_CONF &Description)
{
    Route Added{VpnId, Description.TableId, Description.TargetIp.Ip, Description.TargetIp.Mask, Description.IfName[0]};
    return m_Routes.insert(std::move(Added)).second ? 0 : -EEXIST;
}

int RouteTable::Delete(uint32_t VpnId, const VQ_RTC_ROUTE_CONF &Description)
{
    const bool All = Description.TargetIp.Ip == 0 && Description.TargetIp.Mask == 0;
    const std::size_t Gone = std::erase_if(m_Routes, [&](const Route &Each) {
        return Each.VpnId == VpnId && Each.TableId == Description.TableId &&
               (All || (Each.Target == Description.TargetIp.Ip && Each.Mask == Description.TargetIp.Mask));
    });
    return Gone == 0 ? -ENOENT : 0;
}

std::vector<std::string> RouteTable::Of(uint32_t VpnId, uint32_t TableId) const
{
    std::vector<std::string> Out;
    for (const Route &Each : m_Routes) {
        if (Each.VpnId == VpnId && Each.TableId == TableId) {
            Out.push_back(Prefix(Each.Target, Each.Mask, Each.Interface));
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
    const int Result = Here.Routes.Add(VpnId, *Route);
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
    const int Result = Here.Routes.Delete(VpnId, *Route);
    return Result < 0 ? Result : Here.Success("VQ_RTCRouteDel");
}
