#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>

#include "contract_test.h"
#include "vqRoute.h"

namespace kavel::contract {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::uint32_t kTable = 199;
constexpr std::uint32_t kOtherTable = 200;

// Builds a route description. It is large, and so is on the heap.
class Description {
  public:
    explicit Description(std::uint32_t table = kTable) : route_(std::make_unique<VQ_RTC_ROUTE_CONF>())
    {
        route_->TableId = table;
    }

    Description &To(std::uint32_t address, std::uint8_t mask = 32)
    {
        route_->TargetIp.Ip = address;
        route_->TargetIp.Mask = mask;
        return *this;
    }
    Description &Through(const std::string &interface, std::uint32_t gateway = 0)
    {
        route_->Nexthop[route_->NexthopNum].Ip = gateway;
        interface.copy(route_->IfName[route_->NexthopNum], VQ_IF_NAME_SIZE - 1);
        ++route_->NexthopNum;
        return *this;
    }

    [[nodiscard]] VQ_ERR_T Add(std::uint32_t vpn = kVpn) const { return VQ_RTCRouteAdd(vpn, route_.get()); }
    [[nodiscard]] VQ_ERR_T Delete(std::uint32_t vpn = kVpn) const { return VQ_RTCRouteDel(vpn, route_.get()); }

  private:
    std::unique_ptr<VQ_RTC_ROUTE_CONF> route_;
};

class Routes : public ContractTest {
  protected:
    [[nodiscard]] std::vector<std::string> In(std::uint32_t vpn, std::uint32_t table = kTable) const
    {
        return world().Routes(vpn, table);
    }

    // The world clears the tables that were read.
    void SetUp() override
    {
        for (const std::uint32_t vpn : {kVpn, kOtherVpn, kLastVpn}) {
            ASSERT_THAT(In(vpn), IsEmpty());
            ASSERT_THAT(In(vpn, kOtherTable), IsEmpty());
        }
    }
};

TEST_F(Routes, HostRouteIsAddedToAnInterface)
{
    PROMISE(kRouteAdd);
    EXPECT_GE(Description().To(Ip(10, 1, 1, 1)).Through("lan0").Add(), 0);
    EXPECT_GE(Description().To(Ip(10, 1, 1, 2)).Through("lan1").Add(), 0);
    EXPECT_THAT(In(kVpn), ElementsAre("10.1.1.1/32 dev lan0", "10.1.1.2/32 dev lan1"));
}

TEST_F(Routes, RouteIsNotInTheBox)
{
    PROMISE(kRouteAddNamespace);
    EXPECT_GE(Description().To(Ip(10, 1, 1, 1)).Through("lan0").Add(), 0);
    EXPECT_THAT(In(kVpn), SizeIs(1));
    EXPECT_THAT(In(0), IsEmpty());
}

TEST_F(Routes, ExistingRouteIsReportedAndKept)
{
    PROMISE(kRouteAddExists);
    EXPECT_GE(Description().To(Ip(10, 1, 1, 1)).Through("lan0").Add(), 0);
    EXPECT_EQ(Description().To(Ip(10, 1, 1, 1)).Through("lan0").Add(), -EEXIST);
    EXPECT_EQ(Description().To(Ip(10, 1, 1, 1)).Through("lan1").Add(), -EEXIST);
    EXPECT_THAT(In(kVpn), ElementsAre("10.1.1.1/32 dev lan0"));
}

TEST_F(Routes, PrefixesOfDifferentLengthAreDifferentRoutes)
{
    EXPECT_GE(Description().To(Ip(10, 1, 1, 0), 24).Through("lan0").Add(), 0);
    EXPECT_GE(Description().To(Ip(10, 1, 1, 0), 32).Through("lan0").Add(), 0);
    EXPECT_THAT(In(kVpn), ElementsAre("10.1.1.0/24 dev lan0", "10.1.1.0/32 dev lan0"));
}

// A controller may configure any address as a server.
TEST_F(Routes, AcceptsAnyAddressAsTarget)
{
    PROMISE(kRouteAddAny);
    for (const std::uint32_t address : {Ip(0, 0, 0, 0), Ip(0, 0, 0, 1), Ip(10, 7, 0, 1), Ip(127, 0, 0, 1),
                                        Ip(169, 254, 1, 1), Ip(224, 0, 0, 1), Ip(255, 255, 255, 255)}) {
        EXPECT_GE(Description().To(address).Through("lan0").Add(), 0) << address;
    }
    EXPECT_THAT(In(kVpn), SizeIs(7));
}

TEST_F(Routes, AcceptsNextHops)
{
    EXPECT_GE(Description().To(Ip(10, 2, 0, 0), 24).Through("lan0", Ip(10, 7, 0, 2)).Add(), 0);
    EXPECT_GE(
        Description().To(Ip(10, 3, 0, 0), 24).Through("lan0", Ip(10, 7, 0, 2)).Through("lan0", Ip(10, 7, 0, 3)).Add(),
        0);
    EXPECT_GE(Description().To(Ip(10, 4, 0, 0), 24).Through("lan0").Through("lan1").Add(), 0);
    EXPECT_THAT(In(kVpn), ElementsAre("10.2.0.0/24 via 10.7.0.2 dev lan0",
                                      "10.3.0.0/24 via 10.7.0.2 dev lan0 via 10.7.0.3 dev lan0",
                                      "10.4.0.0/24 dev lan0 dev lan1"));
}

TEST_F(Routes, DeleteSelectsByTarget)
{
    PROMISE(kRouteDeleteOne);
    EXPECT_GE(Description().To(Ip(10, 1, 1, 1)).Through("lan0").Add(), 0);
    EXPECT_GE(Description().To(Ip(10, 1, 1, 2)).Through("lan0").Add(), 0);
    EXPECT_GE(Description().To(Ip(10, 1, 1, 1)).Delete(), 0);
    EXPECT_THAT(In(kVpn), ElementsAre("10.1.1.2/32 dev lan0"));
}

TEST_F(Routes, DeleteSelectsByInterface)
{
    EXPECT_GE(Description().To(Ip(10, 1, 1, 1)).Through("lan0").Add(), 0);
    EXPECT_EQ(Description().To(Ip(10, 1, 1, 1)).Through("lan1").Delete(), -ENOENT);
    EXPECT_THAT(In(kVpn), ElementsAre("10.1.1.1/32 dev lan0"));
    EXPECT_GE(Description().To(Ip(10, 1, 1, 1)).Through("lan0").Delete(), 0);
    EXPECT_THAT(In(kVpn), IsEmpty());
}

TEST_F(Routes, DeletingAMissingRouteIsNotFound)
{
    PROMISE(kRouteDeleteMissing);
    EXPECT_EQ(Description().Delete(), -ENOENT);
    EXPECT_EQ(Description().To(Ip(10, 1, 1, 1)).Delete(), -ENOENT);
    EXPECT_GE(Description().To(Ip(10, 1, 1, 1)).Through("lan0").Add(), 0);
    EXPECT_EQ(Description().To(Ip(10, 1, 1, 2)).Delete(), -ENOENT);
    EXPECT_EQ(Description().To(Ip(10, 1, 1, 0), 24).Delete(), -ENOENT);
    EXPECT_EQ(Description(kOtherTable).Delete(), -ENOENT);
    EXPECT_EQ(Description().Delete(kOtherVpn), -ENOENT);
    EXPECT_THAT(In(kVpn), ElementsAre("10.1.1.1/32 dev lan0"));
}

TEST_F(Routes, EmptyDescriptionDeletesOneTableOfOneVpn)
{
    PROMISE(kRouteDeleteOther);
    for (const std::uint32_t vpn : {kVpn, kOtherVpn, kLastVpn}) {
        EXPECT_GE(Description().To(Ip(10, 1, 1, 1)).Through("lan0").Add(vpn), 0);
        EXPECT_GE(Description(kOtherTable).To(Ip(10, 1, 1, 1)).Through("lan0").Add(vpn), 0);
    }
    EXPECT_GE(Description().To(Ip(0, 0, 0, 0)).Through("lan0").Add(), 0);
    EXPECT_GE(Description().To(Ip(0, 0, 0, 0), 0).Through("lan0", Ip(10, 7, 0, 2)).Add(), 0);
    EXPECT_GE(Description().To(Ip(10, 2, 0, 0), 16).Through("lan0").Through("lan1").Add(), 0);

    EXPECT_GE(Description().Delete(), 0);
    EXPECT_THAT(In(kVpn), IsEmpty());
    EXPECT_THAT(In(kVpn, kOtherTable), ElementsAre("10.1.1.1/32 dev lan0"));
    EXPECT_THAT(In(kOtherVpn), ElementsAre("10.1.1.1/32 dev lan0"));
    EXPECT_THAT(In(kLastVpn), ElementsAre("10.1.1.1/32 dev lan0"));
    EXPECT_EQ(Description().Delete(), -ENOENT);
}

// A description with an interface names one route, and selects only that one.
TEST_F(Routes, DeletingADefaultRouteKeepsTheOthers)
{
    EXPECT_GE(Description().To(Ip(0, 0, 0, 0), 0).Through("lan0").Add(), 0);
    EXPECT_GE(Description().To(Ip(10, 1, 1, 1)).Through("lan0").Add(), 0);
    EXPECT_GE(Description().To(Ip(0, 0, 0, 0), 0).Through("lan0").Delete(), 0);
    EXPECT_THAT(In(kVpn), ElementsAre("10.1.1.1/32 dev lan0"));
}

TEST_F(Routes, LargeTableIsDeletedAtOnce)
{
    PROMISE(kRouteDeleteTable);
    constexpr std::uint32_t kMany = 3000;
    for (std::uint32_t host = 0; host < kMany; ++host) {
        ASSERT_GE(Description().To(Ip(10, 100, 0, 0) + host).Through("lan0").Add(), 0) << host;
    }
    EXPECT_THAT(In(kVpn), SizeIs(kMany));
    EXPECT_GE(Description().Delete(), 0);
    EXPECT_THAT(In(kVpn), IsEmpty());
}

TEST_F(Routes, UnknownVpnIsRefused)
{
    PROMISE(kRouteAddUnknown);
    EXPECT_EQ(Description().To(Ip(10, 1, 1, 1)).Through("lan0").Add(kUnknownVpn), -ENOENT);
    EXPECT_EQ(Description().Delete(kUnknownVpn), -ENOENT);
}

} // namespace
} // namespace kavel::contract
