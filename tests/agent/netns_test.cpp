// What needs no right to enter a namespace.
#include "base/netns.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "scratch.h"

namespace kavel::agent {
namespace {

using testing::Optional;

NamespaceId OwnNamespace()
{
    struct stat info {};
    EXPECT_EQ(::stat("/proc/self/ns/net", &info), 0);
    return {info.st_dev, info.st_ino};
}

// VPN 7 is configured; its namespace does not exist.
Config ConfigOfVpn7()
{
    Config config;
    Vpn vpn;
    vpn.id = 7;
    vpn.netns = "vqagent_test_missing";
    config.vpns = {vpn};
    return config;
}

class NetnsTest : public testing::Test {
  protected:
    Config config_ = ConfigOfVpn7();
    Namespaces namespaces_{config_};
};

TEST_F(NetnsTest, ANamespaceIsAFileBelowRunNetns)
{
    EXPECT_EQ(NamespacePath(config_.vpns.front()), "/run/netns/vqagent_test_missing");
}

TEST_F(NetnsTest, VpnZeroIsTheNamespaceOfTheStart)
{
    EXPECT_THAT(namespaces_.IdOf(0), Optional(OwnNamespace()));
}

TEST_F(NetnsTest, AVpnWithoutNamespaceHasNoId)
{
    EXPECT_EQ(namespaces_.IdOf(7), std::nullopt);
    EXPECT_EQ(namespaces_.IdOf(8), std::nullopt);
}

TEST_F(NetnsTest, EachHandleOfVpnZeroIsAnother)
{
    const UniqueFd first = namespaces_.Open(0);
    const UniqueFd second = namespaces_.Open(0);
    EXPECT_NE(first.Get(), second.Get());
    struct stat info {};
    ASSERT_EQ(::fstat(first.Get(), &info), 0);
    EXPECT_EQ((NamespaceId{info.st_dev, info.st_ino}), OwnNamespace());
    EXPECT_EQ(::fcntl(first.Get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(NetnsTest, OpenSaysWhatIsMissing)
{
    EXPECT_EQ(FailureOf([&] { (void)namespaces_.Open(7); }),
              (ThrownError{ENOENT, "/run/netns/vqagent_test_missing: No such file or directory"}));
    EXPECT_EQ(FailureOf([&] { (void)namespaces_.Open(8); }), (ThrownError{ENOENT, "vpn 8: No such file or directory"}));
}

TEST_F(NetnsTest, AThreadStaysInItsNamespaceWhenItCannotEnterAnother)
{
    EXPECT_EQ(FailureOf([&] { const NamespaceSwitch inside(namespaces_, 7); }).error, ENOENT);
    EXPECT_EQ(FailureOf([&] { const NamespaceSwitch inside(namespaces_, 8); }).error, ENOENT);
    const OrdinaryUser user;
    EXPECT_EQ(FailureOf([&] { const NamespaceSwitch inside(namespaces_, 0); }),
              (ThrownError{EPERM, "namespace of vpn 0: Operation not permitted"}));
    EXPECT_EQ(OwnNamespace(), namespaces_.IdOf(0));
}

TEST_F(NetnsTest, NumbersTheRequests)
{
    const std::uint64_t first = namespaces_.CurrentRequest();
    EXPECT_EQ(namespaces_.CurrentRequest(), first);
    namespaces_.BeginRequest();
    EXPECT_EQ(namespaces_.CurrentRequest(), first + 1);
}

TEST(NamespaceOfProcess, IsThatOfTheProcess)
{
    WaitingProcess child({});
    const pid_t pid = child.Pid();
    EXPECT_THAT(NamespaceOfProcess(pid), Optional(OwnNamespace()));
    child.Reap();
    EXPECT_EQ(NamespaceOfProcess(pid), std::nullopt);
}

} // namespace
} // namespace kavel::agent
