// The routes of the VPNs.
#ifndef FAKEHOST_ROUTE_TABLE_H
#define FAKEHOST_ROUTE_TABLE_H

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "vqRoute.h"

namespace fakehost {

struct NextHop {
    uint32_t Gateway; // 0: bound to the interface only
    std::string Interface;
};

struct Route {
    uint32_t VpnId;
    uint32_t TableId;
    uint32_t Target;
    uint8_t Mask;
    std::vector<NextHop> Hops;

    // Two routes to one target in one table are the same route.
    bool operator<(const Route &Other) const
    {
        return std::tie(VpnId, TableId, Target, Mask) < std::tie(Other.VpnId, Other.TableId, Other.Target, Other.Mask);
    }
};

// A route description as one line.
struct RouteText {
    const VQ_RTC_ROUTE_CONF &Description;

    void AppendTo(std::string &Out) const;
};

class RouteTable {
  public:
    int Add(uint32_t VpnId, const VQ_RTC_ROUTE_CONF &Description);
    // A next hop in the description selects routes with that hop. A description without target and hop selects the
    // whole table.
    int Delete(uint32_t VpnId, const VQ_RTC_ROUTE_CONF &Description);
    // Texts such as "10.1.1.1/32 dev lan0", sorted by address. A hop with a gateway has "via 10.7.0.2" before its
    // interface.
    [[nodiscard]] std::vector<std::string> Of(uint32_t VpnId, uint32_t TableId) const;

  private:
    std::set<Route> m_Routes;
};

} // namespace fakehost

#endif
