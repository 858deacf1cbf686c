// Measures adding and clearing the routes of a VPN. The floor is the ip program.
#include <cstring>
#include <fstream>
#include <string>

#include "base/netns.h"
#include "services.h"
#include "services/routes_netlink.h"
#include "vqRoute.h"
#include "vqSafeStr.h"

namespace kavel::bench {
namespace {

constexpr const char *kBatchFile = "/run/bench-routes";
constexpr std::uint32_t kFirstTarget = 10U << 24U | 64U << 16U;
constexpr std::uint32_t kMost = 65535;

void AddOurs(std::uint32_t count)
{
    VQ_RTC_ROUTE_CONF route;
    for (std::uint32_t i = 0; i < count; ++i) {
        // The module fills a new description for each route, too.
        std::memset(&route, 0, sizeof route);
        route.TableId = agent::kDnsRouteTable;
        route.TargetIp.Ip = kFirstTarget + i;
        route.TargetIp.Mask = 32;
        route.NexthopNum = 1;
        VQ_SafeStrCopy(route.IfName[0], sizeof route.IfName[0], kLan);
        Expect(VQ_RTCRouteAdd(kVpn, &route) == 0, "adding a route failed");
    }
}

void ClearOurs()
{
    VQ_RTC_ROUTE_CONF all{};
    all.TableId = agent::kDnsRouteTable;
    Expect(VQ_RTCRouteDel(kVpn, &all) == 0, "clearing the routes failed");
}

std::string AddressText(std::uint32_t address)
{
    char text[16];
    Expect(VQ_IPNum2IPStr(address, 0, text, sizeof text) >= 0, "formatting an address failed");
    return text;
}

void WriteBatch(std::uint32_t count)
{
    const std::string rest =
        std::string("/32 dev ") + kLan + " proto static scope link table " + std::to_string(agent::kDnsRouteTable);
    std::ofstream file(kBatchFile);
    for (std::uint32_t i = 0; i < count; ++i) {
        file << "route add " << AddressText(kFirstTarget + i) << rest << '\n';
    }
    Expect(static_cast<bool>(file.flush()), "writing the batch file failed");
}

void ExpectRoutes(std::uint32_t count)
{
    Expect(agent::CountRoutes(agent::Host::Current(), kVpn, agent::kDnsRouteTable) == count,
           "the table has the wrong number of routes");
}

void MeasureOurs(std::uint32_t count, Comparison &added, Comparison &cleared)
{
    added.ours.push_back(SecondsOf([count] { AddOurs(count); }));
    ExpectRoutes(count);
    cleared.ours.push_back(SecondsOf(ClearOurs));
    ExpectRoutes(0);
}

void MeasureFloor(std::uint32_t count, Comparison &added, Comparison &cleared)
{
    // Enter the namespace before the timing starts: the floor must not include it.
    const agent::NamespaceSwitch inside(agent::Host::Current().namespaces, kVpn);
    added.floor.push_back(SecondsOf([] { RunProgram({"ip", "-batch", kBatchFile}); }));
    ExpectRoutes(count);
    const std::string table = std::to_string(agent::kDnsRouteTable);
    cleared.floor.push_back(SecondsOf([&] { RunProgram({"ip", "route", "flush", "table", table}); }));
    ExpectRoutes(0);
}

void AppendComparisons(const Setting &setting, std::uint32_t count, std::vector<Comparison> &comparisons)
{
    const bool most = count == kMost;
    Comparison added{"routes added", count, "s", "ip -batch", most ? std::optional(0.6) : std::nullopt, {}, {}};
    Comparison cleared{
        "routes cleared", count, "s", "ip route flush", most ? std::optional(1.0) : std::nullopt, {}, {}};
    WriteBatch(count);
    for (std::size_t pair = 0; pair < setting.pairs; ++pair) {
        if (pair % 2 == 0) {
            MeasureOurs(count, added, cleared);
            MeasureFloor(count, added, cleared);
        } else {
            MeasureFloor(count, added, cleared);
            MeasureOurs(count, added, cleared);
        }
    }
    comparisons.push_back(added);
    comparisons.push_back(cleared);
}

} // namespace

std::vector<Comparison> CompareRoutes(const Setting &setting)
{
    std::vector<Comparison> comparisons;
    for (const std::uint32_t count : {1000U, 10000U, kMost}) {
        AppendComparisons(setting, count, comparisons);
    }
    return comparisons;
}

} // namespace kavel::bench
