#include "services/interfaces_netlink.h"

#include <linux/rtnetlink.h>
#include <sys/ioctl.h>
#include <urcu/list.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "base/netlink.h"
#include "failure.h"
#include "log.h"
#include "vqNetio.h"

namespace kavel::agent {
namespace {

constexpr unsigned kLowerUp = 1U << 16U; // IFF_LOWER_UP of linux/if.h, which cannot be included beside net/if.h

void ReleaseNodes(VQ_LIST_HEAD *list)
{
    // The link is the first member of both kinds of node: its address is the node's.
    for (VQ_LIST_HEAD *node = list->next; node != list;) {
        VQ_LIST_HEAD *next = node->next;
        std::free(node);
        node = next;
    }
    std::free(list);
}

// A list under construction, allocated with malloc: VQ_RtcNetioNodeListRelease frees it.
class NodeList {
  public:
    NodeList() : head_(static_cast<VQ_LIST_HEAD *>(std::malloc(sizeof(VQ_LIST_HEAD))))
    {
        if (head_ == nullptr) {
            throw std::bad_alloc();
        }
        CDS_INIT_LIST_HEAD(head_);
    }
    NodeList(const NodeList &) = delete;
    NodeList &operator=(const NodeList &) = delete;
    ~NodeList()
    {
        if (head_ != nullptr) {
            ReleaseNodes(head_);
        }
    }

    template <typename Node>
    Node &Append()
    {
        auto *node = static_cast<Node *>(std::calloc(1, sizeof(Node)));
        if (node == nullptr) {
            throw std::bad_alloc();
        }
        cds_list_add_tail(&node->list, head_);
        ++count_;
        return *node;
    }

    // Null when nothing was appended.
    VQ_LIST_HEAD *Release(std::uint32_t &count)
    {
        count = count_;
        return count_ == 0 ? nullptr : std::exchange(head_, nullptr);
    }

  private:
    VQ_LIST_HEAD *head_;
    std::uint32_t count_ = 0;
};

VQ_LIST_HEAD *WanList(Host & /*host*/, const Vpn &vpn, std::uint32_t &count)
{
    NodeList list;
    for (const Wan &wan : vpn.wan) {
        list.Append<VQ_RTCWanListNode>().WanConf.CommConf.SysRoute = wan.sysRoute ? 1U : 0U;
    }
    return list.Release(count);
}

VQ_LIST_HEAD *LanList(Host &host, const Vpn &vpn, std::uint32_t &count)
{
    NodeList list;
    for (const std::string &name : vpn.lan) {
        // A route through an interface that does not exist would be refused.
        try {
            (void)InterfaceIndex(host, vpn.id, name);
        } catch (const std::system_error &failure) {
            Log(LogLevel::kWarning, "vpn %u: LAN interface \"%s\" is left out: %s", vpn.id, name.c_str(),
                failure.code().message().c_str());
            continue;
        }
        char *target = list.Append<VQ_RTCLanListNode>().LanConf.PhyIfName;
        name.copy(target, VQ_IF_NAME_SIZE - 1);
    }
    return list.Release(count);
}

using BuildList = VQ_LIST_HEAD *(Host &host, const Vpn &vpn, std::uint32_t &count);

VQ_LIST_HEAD *ListOf(std::uint32_t vpnId, std::uint32_t *count, BuildList *build)
{
    if (count == nullptr) {
        return nullptr;
    }
    *count = 0;
    Host &host = Host::Current();
    const Vpn *vpn = host.config.Find(vpnId);
    if (vpn == nullptr) {
        return nullptr;
    }
    VQ_LIST_HEAD *list = nullptr;
    const std::int32_t result = ResultOf([&] {
        list = build(host, *vpn, *count);
        return 0;
    });
    if (result < 0) {
        Log(LogLevel::kError, "vpn %u: no interface list: %s", vpnId, std::strerror(-result));
    }
    return list;
}

std::string NameOfLink(const nlmsghdr &link)
{
    std::string name;
    const auto take = [](const nlattr *attribute, void *found) {
        if (mnl_attr_get_type(attribute) == IFLA_IFNAME && mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) >= 0) {
            *static_cast<std::string *>(found) = mnl_attr_get_str(attribute);
        }
        return MNL_CB_OK;
    };
    mnl_attr_parse(&link, sizeof(ifinfomsg), take, &name);
    return name;
}

// The carrier itself: the operational state follows it up to a second later.
LinkState StateOfLink(const nlmsghdr &link)
{
    const auto *info = static_cast<const ifinfomsg *>(mnl_nlmsg_get_payload(&link));
    if ((info->ifi_flags & IFF_UP) == 0) {
        return LinkState::kDown;
    }
    return (info->ifi_flags & kLowerUp) == 0 ? LinkState::kNoCarrier : LinkState::kUp;
}

} // namespace

int InterfaceIndex(Host &host, std::uint32_t vpnId, const std::string &name)
{
    return host.routeSockets.With(vpnId, [&](NetlinkSocket &socket) { return socket.InterfaceIndex(name); });
}

std::map<std::string, LinkState> LinksOf(Host &host, std::uint32_t vpnId)
{
    return host.routeSockets.With(vpnId, [](NetlinkSocket &socket) {
        NetlinkMessage message(RTM_GETLINK, 0);
        message.PutExtra<ifinfomsg>()->ifi_family = AF_UNSPEC;
        std::map<std::string, LinkState> links;
        socket.Dump(message, [&](const nlmsghdr &link) {
            if (link.nlmsg_type == RTM_NEWLINK) {
                links.emplace(NameOfLink(link), StateOfLink(link));
            }
        });
        return links;
    });
}

bool BringLoopbackUp(Host &host, std::uint32_t vpnId)
{
    return host.routeSockets.With(vpnId, [](const NetlinkSocket &socket) {
        ifreq request = InterfaceRequest("lo");
        if (::ioctl(socket.Fd(), SIOCGIFFLAGS, &request) != 0) {
            throw KernelRefusal(errno);
        }
        if ((request.ifr_flags & IFF_UP) != 0) {
            return false;
        }
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
        if (::ioctl(socket.Fd(), SIOCSIFFLAGS, &request) != 0) {
            throw KernelRefusal(errno);
        }
        return true;
    });
}

} // namespace kavel::agent

using namespace kavel::agent;

extern "C" {

VQ_LIST_HEAD *VQ_RtcNetioWanGetAllByVpnId(uint32_t *count, uint32_t vpnId)
{
    return ListOf(vpnId, count, WanList);
}

VQ_LIST_HEAD *VQ_RtcNetioLanGetAllByVpnId(uint32_t *count, uint32_t vpnId)
{
    return ListOf(vpnId, count, LanList);
}

void VQ_RtcNetioNodeListRelease(VQ_LIST_HEAD *list)
{
    if (list != nullptr) {
        ReleaseNodes(list);
    }
}
}
