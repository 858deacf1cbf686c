#include "supervision/namespace_events.h"

#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <initializer_list>
#include <utility>

#include "base/netlink.h"
#include "failure.h"

namespace kavel::agent {
namespace {

// A member of these groups, in the calling thread's namespace.
UniqueFd OpenGroups(int protocol, std::initializer_list<int> groups)
{
    UniqueFd socket = OpenNetlink(protocol);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    if (::bind(socket.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        ThrowLastErrno("netlink");
    }
    for (const int group : groups) {
        if (::setsockopt(socket.Get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0) {
            ThrowLastErrno("netlink group");
        }
    }
    return socket;
}

} // namespace

NamespaceEvents::NamespaceEvents(EventLoop &loop, const Namespaces &namespaces, std::uint32_t vpnId,
                                 std::function<void()> onChange)
    : onChange_(std::move(onChange))
{
    {
        const NamespaceSwitch inside(namespaces, vpnId);
        routes_ = OpenGroups(NETLINK_ROUTE, {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV4_RULE});
        rules_ = OpenGroups(NETLINK_NETFILTER, {NFNLGRP_NFTABLES});
    }
    routesSource_ = loop.AddIo(routes_.Get(), EPOLLIN, [this](std::uint32_t /*events*/) { Read(); });
    rulesSource_ = loop.AddIo(rules_.Get(), EPOLLIN, [this](std::uint32_t /*events*/) { Read(); });
}

// What has changed is not read from the messages: they can be lost, and the look that follows sees it.
bool NamespaceEvents::Drain(const UniqueFd &socket)
{
    bool hasRead = false;
    for (;;) {
        std::array<char, 512> beginning; // NOLINT(cppcoreguidelines-pro-type-member-init): not looked at
        const ssize_t size = ::recv(socket.Get(), beginning.data(), beginning.size(), MSG_DONTWAIT | MSG_TRUNC);
        if (size < 0 && errno != ENOBUFS && errno != EINTR) {
            return hasRead;
        }
        hasRead = true;
    }
}

void NamespaceEvents::Read()
{
    const bool haveRoutesChanged = Drain(routes_);
    const bool hasRulesetChanged = Drain(rules_);
    hasRulesetChange_ = hasRulesetChange_ || hasRulesetChanged;
    if (haveRoutesChanged || hasRulesetChanged) {
        onChange_();
    }
}

void NamespaceEvents::Forget()
{
    (void)Drain(routes_);
    hasRulesetChange_ = Drain(rules_) || hasRulesetChange_;
}

} // namespace kavel::agent
