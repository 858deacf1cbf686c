// What the agent's route and namespace services refuse, and which descriptors they keep open.
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>

#include "contract_test.h"
#include "vqNetns.h"
#include "vqRoute.h"

namespace kavel::contract {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

constexpr std::uint32_t kTable = 199;

std::ptrdiff_t OpenDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

std::unique_ptr<VQ_RTC_ROUTE_CONF> HostRoute(std::uint32_t address, const std::string &interface)
{
    auto route = std::make_unique<VQ_RTC_ROUTE_CONF>();
    route->TableId = kTable;
    route->TargetIp.Ip = address;
    route->TargetIp.Mask = 32;
    route->NexthopNum = 1;
    interface.copy(route->IfName[0], VQ_IF_NAME_SIZE - 1);
    return route;
}

class AgentRoutes : public ContractTest {
  protected:
    void SetUp() override { ASSERT_THAT(world().Routes(kVpn, kTable), IsEmpty()); }
    void TearDown() override
    {
        EXPECT_THAT(world().Routes(kVpn, kTable), IsEmpty());
        ContractTest::TearDown();
    }
};

TEST_F(AgentRoutes, UnknownInterfaceIsRefused)
{
    EXPECT_EQ(VQ_RTCRouteAdd(kVpn, HostRoute(Ip(10, 1, 1, 1), "lan9").get()), -ENODEV);
    EXPECT_EQ(VQ_RTCRouteDel(kVpn, HostRoute(Ip(10, 1, 1, 1), "lan9").get()), -ENODEV);
}

TEST_F(AgentRoutes, RouteWithoutInterfaceUsesTheOrdinaryRoutes)
{
    const auto route = HostRoute(Ip(10, 1, 1, 1), "");
    EXPECT_EQ(VQ_RTCRouteAdd(kVpn, route.get()), 0);
    EXPECT_EQ(VQ_RTCRouteAdd(kVpn, route.get()), -EEXIST);
    EXPECT_EQ(VQ_RTCRouteDel(kVpn, route.get()), 0);
    EXPECT_EQ(VQ_RTCRouteDel(kVpn, route.get()), -ENOENT);
}

TEST_F(AgentRoutes, OtherAddressFamiliesAreRefused)
{
    auto route = HostRoute(Ip(10, 1, 1, 1), "lan0");
    route->TargetIp.IpType = VQ_IN_ADDR_TYPE_IPV6;
    EXPECT_EQ(VQ_RTCRouteAdd(kVpn, route.get()), -EAFNOSUPPORT);
    EXPECT_EQ(VQ_RTCRouteDel(kVpn, route.get()), -EAFNOSUPPORT);
    route = HostRoute(Ip(10, 1, 1, 1), "lan0");
    route->Nexthop[0].IpType = VQ_IN_ADDR_TYPE_IPV6;
    EXPECT_EQ(VQ_RTCRouteAdd(kVpn, route.get()), -EAFNOSUPPORT);
}

TEST_F(AgentRoutes, InvalidSizesAreRefused)
{
    auto route = HostRoute(Ip(10, 1, 1, 1), "lan0");
    route->TargetIp.Mask = 33;
    EXPECT_EQ(VQ_RTCRouteAdd(kVpn, route.get()), -EINVAL);
    route = HostRoute(Ip(10, 1, 1, 1), "lan0");
    route->NexthopNum = VQ_RTC_NEXTHOP_MAX + 1;
    EXPECT_EQ(VQ_RTCRouteAdd(kVpn, route.get()), -EINVAL);
    EXPECT_EQ(VQ_RTCRouteAdd(kVpn, nullptr), -EINVAL);
    EXPECT_EQ(VQ_RTCRouteDel(kVpn, nullptr), -EINVAL);
}

TEST_F(AgentRoutes, RoutesKeepNoDescriptorOpen)
{
    ASSERT_EQ(VQ_RTCRouteAdd(kVpn, HostRoute(Ip(10, 1, 1, 1), "lan0").get()), 0);
    const std::ptrdiff_t before = OpenDescriptors();
    for (std::uint32_t host = 2; host < 200; ++host) {
        ASSERT_EQ(VQ_RTCRouteAdd(kVpn, HostRoute(Ip(10, 1, 1, host), "lan0").get()), 0);
        ASSERT_EQ(VQ_RTCRouteAdd(kVpn, HostRoute(Ip(10, 1, 1, host), "lan0").get()), -EEXIST);
    }
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_THAT(world().Routes(kVpn, kTable), SizeIs(199));
    const auto all = std::make_unique<VQ_RTC_ROUTE_CONF>();
    all->TableId = kTable;
    EXPECT_EQ(VQ_RTCRouteDel(kVpn, all.get()), 0);
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(AgentRoutes, NamespaceSwitchLeavesNoDescriptorOpen)
{
    PROMISE(kNetnsSwitchHandles);
    const std::ptrdiff_t before = OpenDescriptors();
    for (int round = 0; round < 100; ++round) {
        int saved = -1;
        ASSERT_EQ(VQ_RtcNetNsSaveAndSwitch(kVpn, &saved), 0);
        ASSERT_EQ(OpenDescriptors(), before + 1);
        ASSERT_EQ(VQ_RtcNetNsSwitchToDefault(&saved), 0);
        int unknown = -1;
        ASSERT_EQ(VQ_RtcNetNsSaveAndSwitch(kUnknownVpn, &unknown), -ENOENT);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

} // namespace
} // namespace kavel::contract
