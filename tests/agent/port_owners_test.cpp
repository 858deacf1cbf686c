#include "base/port_owners.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/config.h"
#include "unique_fd.h"

namespace kavel::agent {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// A socket on a port of the kernel's choice, or on `port`.
UniqueFd Bound(int kind, std::uint16_t &port)
{
    UniqueFd socket(::socket(AF_INET, kind | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(::bind(socket.Get(), reinterpret_cast<const sockaddr *>(&address), length), 0);
    EXPECT_EQ(::getsockname(socket.Get(), reinterpret_cast<sockaddr *>(&address), &length), 0);
    port = ntohs(address.sin_port);
    return socket;
}

class PortOwnersTest : public testing::Test {
  protected:
    std::vector<PortOwner> OwnersOf(std::uint16_t port) { return OwnersOfPort(namespaces_, 0, port); }

    Config config_;
    Namespaces namespaces_{config_};
};

TEST_F(PortOwnersTest, TheOwnerOfAUdpPort)
{
    std::uint16_t port = 0;
    {
        const UniqueFd socket = Bound(SOCK_DGRAM, port);
        EXPECT_THAT(OwnersOf(port), ElementsAre(PortOwner{::getpid(), false}));
    }
    EXPECT_THAT(OwnersOf(port), IsEmpty());
}

TEST_F(PortOwnersTest, ATcpPortHasAnOwnerOnceItIsListenedOn)
{
    std::uint16_t port = 0;
    const UniqueFd socket = Bound(SOCK_STREAM, port);
    EXPECT_THAT(OwnersOf(port), IsEmpty());
    ASSERT_EQ(::listen(socket.Get(), 1), 0);
    EXPECT_THAT(OwnersOf(port), ElementsAre(PortOwner{::getpid(), true}));
}

TEST_F(PortOwnersTest, AProcessWithBothIsToldForEach)
{
    std::uint16_t port = 0;
    const UniqueFd tcp = Bound(SOCK_STREAM, port);
    ASSERT_EQ(::listen(tcp.Get(), 1), 0);
    const UniqueFd udp = Bound(SOCK_DGRAM, port);
    EXPECT_THAT(OwnersOf(port), UnorderedElementsAre(PortOwner{::getpid(), false}, PortOwner{::getpid(), true}));
}

} // namespace
} // namespace kavel::agent
