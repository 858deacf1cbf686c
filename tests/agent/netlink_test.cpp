// What every user may ask the kernel: the interfaces of the namespace that the test runs in.
#include "base/netlink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sys/select.h>

#include <cerrno>
#include <set>
#include <string>

#include "emulator.h"
#include "scratch.h"

namespace kavel::agent {
namespace {

constexpr const char *kNotConverted = "messages through a duplicated descriptor do not get the kernel's byte order";

constexpr int kUnusedIndex = 0x7FFFFFFF;

// Asks for the interface with this index; the kernel refuses an unused one with ENODEV.
void PutLinkRequest(NetlinkMessage &message, int index)
{
    auto *const link = message.PutExtra<ifinfomsg>();
    link->ifi_family = AF_UNSPEC;
    link->ifi_index = index;
}

ThrownError RequestLink(NetlinkSocket &socket, int index)
{
    return FailureOf([&] {
        NetlinkMessage message(RTM_GETLINK, 0);
        PutLinkRequest(message, index);
        socket.Request(message);
    });
}

// Requests for an interface that does not exist.
NetlinkBatch RefusedRequests(std::size_t count)
{
    NetlinkBatch batch;
    NetlinkMessage message(RTM_GETLINK, 0);
    PutLinkRequest(message, kUnusedIndex);
    for (std::size_t i = 0; i < count; ++i) {
        batch.Append(*message.Header());
    }
    return batch;
}

TEST(NetlinkBatch, PutsAtMost64MessagesIntoAPiece)
{
    NetlinkBatch batch;
    EXPECT_TRUE(batch.IsEmpty());
    NetlinkMessage message(RTM_GETLINK, 0);
    PutLinkRequest(message, 1);
    const std::size_t size = MNL_ALIGN(message.Header()->nlmsg_len);
    for (std::size_t i = 0; i < 65; ++i) {
        nlmsghdr &copy = batch.Append(*message.Header());
        EXPECT_EQ(copy.nlmsg_type, RTM_GETLINK);
        copy.nlmsg_seq = static_cast<std::uint32_t>(i);
    }
    EXPECT_FALSE(batch.IsEmpty());
    ASSERT_EQ(batch.Pieces().size(), 2U);
    EXPECT_EQ(batch.Pieces()[0].size(), 64 * size);
    EXPECT_EQ(batch.Pieces()[1].size(), size);
    EXPECT_EQ(reinterpret_cast<const nlmsghdr *>(batch.Pieces()[1].data())->nlmsg_seq, 64U);
}

TEST(NetlinkSocket, UsesAHighDescriptor)
{
    const NetlinkSocket socket;
    EXPECT_GE(socket.Fd(), FD_SETSIZE);
}

TEST(NetlinkSocket, DumpsTheInterfacesOfTheNamespace)
{
    KAVEL_SKIP_IF_EMULATED_BIG_ENDIAN(kNotConverted);
    NetlinkSocket socket;
    std::set<int> indexes;
    NetlinkMessage message(RTM_GETLINK, 0);
    PutLinkRequest(message, 0);
    socket.Dump(message, [&](const nlmsghdr &answer) {
        EXPECT_EQ(answer.nlmsg_type, RTM_NEWLINK);
        indexes.insert(static_cast<const ifinfomsg *>(mnl_nlmsg_get_payload(&answer))->ifi_index);
    });
    EXPECT_THAT(indexes, testing::Contains(static_cast<int>(::if_nametoindex("lo"))));
}

TEST(NetlinkSocket, ADumpThatIsRefusedThrows)
{
    KAVEL_SKIP_IF_EMULATED_BIG_ENDIAN(kNotConverted);
    NetlinkSocket socket;
    int answers = 0;
    const ThrownError failure = FailureOf([&] {
        NetlinkMessage message(RTM_MAX + 1, 0); // no type of the kernel
        PutLinkRequest(message, 0);
        socket.Dump(message, [&](const nlmsghdr &) { ++answers; });
    });
    EXPECT_EQ(failure.error, EOPNOTSUPP);
    EXPECT_EQ(answers, 0);
}

TEST(NetlinkSocket, ARefusedRequestLeavesTheSocketUsable)
{
    KAVEL_SKIP_IF_EMULATED_BIG_ENDIAN(kNotConverted);
    NetlinkSocket socket;
    EXPECT_EQ(RequestLink(socket, kUnusedIndex), (ThrownError{ENODEV, "netlink: No such device"}));
    EXPECT_EQ(RequestLink(socket, static_cast<int>(::if_nametoindex("lo"))), ThrownError{});
    EXPECT_EQ(RequestLink(socket, kUnusedIndex).error, ENODEV);
}

TEST(NetlinkSocket, AnExpectedRefusalIsNoFailure)
{
    KAVEL_SKIP_IF_EMULATED_BIG_ENDIAN(kNotConverted);
    NetlinkSocket socket;
    const auto request = [&](int expected, int index) {
        NetlinkMessage message(RTM_GETLINK, 0);
        PutLinkRequest(message, index);
        return socket.RequestUnless(expected, message);
    };
    EXPECT_FALSE(request(ENODEV, kUnusedIndex));
    EXPECT_TRUE(request(ENODEV, static_cast<int>(::if_nametoindex("lo"))));
    EXPECT_THROW((void)request(ESRCH, kUnusedIndex), KernelRefusal);
}

TEST(NetlinkSocket, ABatchThrowsTheFirstErrorThatIsNotIgnored)
{
    KAVEL_SKIP_IF_EMULATED_BIG_ENDIAN(kNotConverted);
    NetlinkSocket socket;
    for (const std::size_t count : {1U, 64U, 65U, 200U}) {
        NetlinkBatch ignored = RefusedRequests(count);
        EXPECT_NO_THROW(socket.RequestAll(ignored, ENODEV)) << count;
        NetlinkBatch refused = RefusedRequests(count);
        EXPECT_EQ(FailureOf([&] { socket.RequestAll(refused, ESRCH); }).error, ENODEV) << count;
    }
    NetlinkBatch empty;
    EXPECT_NO_THROW(socket.RequestAll(empty, 0));
}

// The error stands in the first of two pieces, and between messages that are accepted.
TEST(NetlinkSocket, ABatchReportsAnErrorInItsMiddle)
{
    KAVEL_SKIP_IF_EMULATED_BIG_ENDIAN(kNotConverted);
    NetlinkSocket socket;
    NetlinkMessage accepted(RTM_GETLINK, 0);
    PutLinkRequest(accepted, static_cast<int>(::if_nametoindex("lo")));
    NetlinkMessage refused(RTM_GETLINK, 0);
    PutLinkRequest(refused, kUnusedIndex);
    NetlinkBatch batch;
    for (int i = 0; i < 70; ++i) {
        batch.Append(i == 30 ? *refused.Header() : *accepted.Header());
    }
    EXPECT_EQ(FailureOf([&] { socket.RequestAll(batch, ESRCH); }).error, ENODEV);
    EXPECT_EQ(RequestLink(socket, static_cast<int>(::if_nametoindex("lo"))), ThrownError{});
}

TEST(NetlinkSocket, FindsTheIndexOfAnInterface)
{
    KAVEL_SKIP_IF_EMULATED_BIG_ENDIAN(kNotConverted);
    NetlinkSocket socket;
    socket.BeginRequest(1);
    EXPECT_EQ(socket.InterfaceIndex("lo"), static_cast<int>(::if_nametoindex("lo")));
    EXPECT_EQ(socket.InterfaceIndex("lo"), static_cast<int>(::if_nametoindex("lo")));
    EXPECT_EQ(FailureOf([&] { (void)socket.InterfaceIndex("vq_missing"); }).error, ENODEV);
    socket.BeginRequest(2);
    EXPECT_EQ(socket.InterfaceIndex("lo"), static_cast<int>(::if_nametoindex("lo")));
}

TEST(InterfaceRequest, CutsANameThatIsTooLong)
{
    const ifreq whole = InterfaceRequest("lan0");
    EXPECT_STREQ(&whole.ifr_name[0], "lan0");
    const ifreq cut = InterfaceRequest("0123456789abcdefgh");
    EXPECT_STREQ(&cut.ifr_name[0], "0123456789abcde");
}

TEST(RouteSockets, AVpnThatIsNotConfiguredHasNone)
{
    const Config config;
    const Namespaces namespaces(config);
    RouteSockets sockets(namespaces);
    EXPECT_EQ(FailureOf([&] { sockets.With(7, [](NetlinkSocket &) { FAIL(); }); }),
              (ThrownError{ENOENT, "vpn 7: No such file or directory"}));
    EXPECT_NO_THROW(sockets.CloseStale());
}

} // namespace
} // namespace kavel::agent
