#include "base/per_namespace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <set>
#include <stdexcept>
#include <vector>

#include "failure.h"
#include "scratch.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// What the tests observe: each test resets it.
struct Observed {
    std::vector<std::uint32_t> created; // the VPN whose namespace the thread was in
    std::vector<std::uint32_t> destroyed;
    std::uint32_t inside = 0; // 0: the box's own
    bool refusesCreation = false;
};

Observed s_observed;

class FakeNamespaces {
  public:
    [[nodiscard]] std::optional<NamespaceId> IdOf(std::uint32_t vpnId) const
    {
        ++lookUps;
        const auto found = inodes.find(vpnId);
        return found == inodes.end() ? std::nullopt : std::optional(NamespaceId{1, found->second});
    }
    [[nodiscard]] std::uint64_t CurrentRequest() const { return request; }

    std::map<std::uint32_t, ino_t> inodes;
    std::uint64_t request = 1;
    mutable int lookUps = 0;
};

class FakeSwitch {
  public:
    FakeSwitch(const FakeNamespaces &namespaces, std::uint32_t vpnId)
    {
        if (!namespaces.inodes.contains(vpnId)) {
            ThrowErrno(ENOENT, "vpn " + std::to_string(vpnId));
        }
        s_observed.inside = vpnId;
    }
    FakeSwitch(const FakeSwitch &) = delete;
    FakeSwitch &operator=(const FakeSwitch &) = delete;
    ~FakeSwitch() { s_observed.inside = 0; }
};

class FakeSocket {
  public:
    FakeSocket() : vpn_(s_observed.inside)
    {
        if (s_observed.refusesCreation) {
            ThrowErrno(EMFILE, "socket");
        }
        s_observed.created.push_back(vpn_);
    }
    FakeSocket(const FakeSocket &) = delete;
    FakeSocket &operator=(const FakeSocket &) = delete;
    ~FakeSocket() { s_observed.destroyed.push_back(vpn_); }

    [[nodiscard]] std::uint32_t Vpn() const { return vpn_; }

  private:
    std::uint32_t vpn_;
};

class PerNamespaceTest : public testing::Test {
  protected:
    PerNamespaceTest() { s_observed = {}; }

    // The next request sees the VPN's namespace replaced.
    void ReplaceNamespace(std::uint32_t vpnId)
    {
        namespaces_.inodes[vpnId] += 100;
        ++namespaces_.request;
    }

    FakeNamespaces namespaces_{.inodes = {{7, 70}, {8, 80}, {9, 90}}};
    PerNamespace<FakeSocket, FakeNamespaces, FakeSwitch> kept_{namespaces_, 2};
};

TEST_F(PerNamespaceTest, CreatesAnObjectInsideTheVpnsNamespace)
{
    EXPECT_EQ(kept_.Of(7).Vpn(), 7U);
    EXPECT_EQ(s_observed.inside, 0U);
}

TEST_F(PerNamespaceTest, CreatesOneObjectForEachVpn)
{
    FakeSocket *const first = &kept_.Of(7);
    EXPECT_NE(&kept_.Of(8), first);
    EXPECT_EQ(&kept_.Of(7), first);
    ++namespaces_.request;
    EXPECT_EQ(&kept_.Of(7), first);
    EXPECT_THAT(s_observed.created, ElementsAre(7, 8));
    EXPECT_THAT(s_observed.destroyed, IsEmpty());
}

TEST_F(PerNamespaceTest, DropsTheLeastRecentlyUsedObjectAtTheLimit)
{
    kept_.Of(7);
    kept_.Of(8);
    kept_.Of(7);
    kept_.Of(9);
    EXPECT_THAT(s_observed.destroyed, ElementsAre(8));
    kept_.Of(7);
    kept_.Of(9);
    EXPECT_THAT(s_observed.created, ElementsAre(7, 8, 9));
    kept_.Of(8);
    EXPECT_THAT(s_observed.created, ElementsAre(7, 8, 9, 8));
    EXPECT_THAT(s_observed.destroyed, ElementsAre(8, 7));
}

TEST_F(PerNamespaceTest, CreatesAnotherObjectForAnotherNamespace)
{
    kept_.Of(7);
    ReplaceNamespace(7);
    kept_.Of(7);
    EXPECT_THAT(s_observed.created, ElementsAre(7, 7));
    EXPECT_THAT(s_observed.destroyed, ElementsAre(7));
}

TEST_F(PerNamespaceTest, LooksTheNamespaceUpOncePerRequest)
{
    kept_.Of(7);
    EXPECT_EQ(namespaces_.lookUps, 1);
    kept_.Of(7);
    kept_.Of(7);
    EXPECT_EQ(namespaces_.lookUps, 1);
    ++namespaces_.request;
    kept_.Of(7);
    kept_.Of(7);
    EXPECT_EQ(namespaces_.lookUps, 2);
}

TEST_F(PerNamespaceTest, SeesAReplacedNamespaceInTheNextRequest)
{
    FakeSocket *const first = &kept_.Of(7);
    namespaces_.inodes[7] = 71;
    EXPECT_EQ(&kept_.Of(7), first);
    EXPECT_THAT(s_observed.created, ElementsAre(7));
    ++namespaces_.request;
    kept_.Of(7);
    EXPECT_THAT(s_observed.created, ElementsAre(7, 7));
}

TEST_F(PerNamespaceTest, DropsTheObjectOfANamespaceThatIsGone)
{
    kept_.Of(7);
    namespaces_.inodes.erase(7);
    ++namespaces_.request;
    EXPECT_EQ(FailureOf([&] { kept_.Of(7); }).error, ENOENT);
    EXPECT_THAT(s_observed.destroyed, ElementsAre(7));
}

TEST_F(PerNamespaceTest, KeepsNothingWhenTheCreationFails)
{
    s_observed.refusesCreation = true;
    EXPECT_EQ(FailureOf([&] { kept_.Of(7); }).error, EMFILE);
    EXPECT_EQ(s_observed.inside, 0U);
    kept_.DropStale();
    s_observed.refusesCreation = false;
    EXPECT_EQ(kept_.Of(7).Vpn(), 7U);
    EXPECT_THAT(s_observed.created, ElementsAre(7));
}

TEST_F(PerNamespaceTest, DropsOneObjectOnRequest)
{
    kept_.Of(7);
    kept_.Of(8);
    kept_.Drop(7);
    kept_.Drop(7);
    kept_.Drop(1234);
    EXPECT_THAT(s_observed.destroyed, ElementsAre(7));
    kept_.Of(7);
    kept_.Of(8);
    EXPECT_THAT(s_observed.created, ElementsAre(7, 8, 7));
}

TEST_F(PerNamespaceTest, DropStaleDropsObjectsWhoseNamespaceWasReplacedOrIsGone)
{
    PerNamespace<FakeSocket, FakeNamespaces, FakeSwitch> kept(namespaces_, 3);
    kept.Of(7);
    kept.Of(8);
    kept.Of(9);
    namespaces_.inodes[7] = 71;
    namespaces_.inodes.erase(8);
    kept.DropStale();
    EXPECT_THAT(s_observed.destroyed, testing::UnorderedElementsAre(7, 8));
    kept.Of(9);
    EXPECT_THAT(s_observed.created, ElementsAre(7, 8, 9));
    kept.Of(7);
    EXPECT_THAT(s_observed.created, ElementsAre(7, 8, 9, 7));
}

TEST_F(PerNamespaceTest, DropStaleKeepsWhatIsCurrent)
{
    kept_.DropStale();
    kept_.Of(7);
    kept_.Of(8);
    kept_.DropStale();
    EXPECT_THAT(s_observed.destroyed, IsEmpty());
}

} // namespace
} // namespace kavel::agent
