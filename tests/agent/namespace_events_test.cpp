// The events themselves need a namespace and root: what is tested here is what an ordinary user gets.
#include "supervision/namespace_events.h"

#include <cerrno>
#include <gtest/gtest.h>

#include "scratch.h"
#include "test_box.h"

namespace kavel::agent {
namespace {

class NamespaceEventsTest : public testing::Test {
  protected:
    // The errno of the failure to watch the VPN's namespace.
    int Failure(std::uint32_t vpnId)
    {
        return FailureOf([&] { const NamespaceEvents events(loop_, namespaces_, vpnId, [this] { ++changes_; }); })
            .error;
    }

    TestBox box_;
    const Config config_ = box_.Configuration();
    const Namespaces namespaces_{config_};
    EventLoop loop_;
    int changes_ = 0;
};

TEST_F(NamespaceEventsTest, ANamespaceThatDoesNotExistIsNotWatched)
{
    EXPECT_EQ(Failure(TestVpn(1)), ENOENT);
    EXPECT_EQ(Failure(TestVpn(9)), ENOENT) << "the VPN is not configured";
}

TEST_F(NamespaceEventsTest, NothingIsReportedAfterAFailure)
{
    EXPECT_EQ(Failure(0), EPERM) << "an ordinary user may not enter a namespace";
    DispatchReady(loop_);
    EXPECT_EQ(changes_, 0);
}

} // namespace
} // namespace kavel::agent
