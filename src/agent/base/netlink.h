// One route netlink socket per VPN, opened inside the VPN's namespace and kept.
#ifndef KAVEL_AGENT_NETLINK_H
#define KAVEL_AGENT_NETLINK_H

#include <libmnl/libmnl.h>
#include <net/if.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include "base/per_namespace.h"
#include "unique_fd.h"

namespace kavel::agent {

inline constexpr std::size_t kNetlinkMessageMax = 8192;

// A message under construction.
class NetlinkMessage {
  public:
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): see bytes_
    NetlinkMessage(std::uint16_t type, std::uint16_t flags) : header_(mnl_nlmsg_put_header(bytes_.data()))
    {
        header_->nlmsg_type = type;
        header_->nlmsg_flags = static_cast<std::uint16_t>(flags | NLM_F_REQUEST);
    }
    ~NetlinkMessage() = default;
    NetlinkMessage(const NetlinkMessage &) = delete;
    NetlinkMessage &operator=(const NetlinkMessage &) = delete;

    template <typename Extra>
    Extra *PutExtra()
    {
        return static_cast<Extra *>(mnl_nlmsg_put_extra_header(header_, sizeof(Extra)));
    }
    nlmsghdr *Header() { return header_; }

  private:
    // Not zeroed: the library zeroes what it puts in, and most of it stays unused.
    alignas(nlmsghdr) std::array<char, kNetlinkMessageMax> bytes_;
    nlmsghdr *header_;
};

// Whole messages that are sent together, in pieces that a socket's buffer takes.
class NetlinkBatch {
  public:
    // The copy of it, which may be changed until the next is appended.
    nlmsghdr &Append(const nlmsghdr &message);
    [[nodiscard]] bool IsEmpty() const { return pieces_.empty(); }
    [[nodiscard]] std::vector<std::vector<char>> &Pieces() { return pieces_; }

  private:
    std::vector<std::vector<char>> pieces_;
    std::size_t inLast_ = 0;
};

// A netlink socket of the calling thread's namespace, with a descriptor that select() cannot use: there are several per
// VPN, and low descriptors are scarce. Throws std::system_error.
[[nodiscard]] UniqueFd OpenNetlink(int protocol);

// The kernel refused a request. The socket that carried it stays usable.
class KernelRefusal : public std::system_error {
  public:
    // `error` is a positive errno.
    explicit KernelRefusal(int error) : system_error(error, std::system_category(), "netlink") {}
};

// A request that the kernel refuses throws KernelRefusal. A socket that fails throws another std::system_error and must
// not be used again.
class NetlinkSocket {
  public:
    // In the calling thread's namespace.
    NetlinkSocket();

    void Request(NetlinkMessage &message);
    // The same, where the kernel's error `expected`, a positive errno, is no failure. Whether there was none at all.
    [[nodiscard]] bool RequestUnless(int expected, NetlinkMessage &message);

    // Calls `take` for every message of the answer.
    void Dump(NetlinkMessage &message, const std::function<void(const nlmsghdr &)> &take);

    // Sends messages with NLM_F_REQUEST set. Throws the first error among their answers that is not `ignored`, a
    // positive errno; all messages are sent.
    void RequestAll(NetlinkBatch &messages, int ignored);

    // The index of an interface of the namespace, read once per request. Throws KernelRefusal, with ENODEV when there
    // is no such interface.
    [[nodiscard]] int InterfaceIndex(const std::string &name);

    // The number of the request that is handled; see Namespaces.
    void BeginRequest(std::uint64_t request);

    // Any socket of a namespace answers the interface ioctls for it.
    [[nodiscard]] int Fd() const { return mnl_socket_get_fd(socket_.get()); }

  private:
    struct Close {
        void operator()(mnl_socket *socket) const { mnl_socket_close(socket); }
    };

    void Send(const void *bytes, std::size_t size);
    // Reads until `last` is acknowledged. The first error that is not `ignored`, as a positive errno; 0 for none.
    [[nodiscard]] int FirstError(std::uint32_t first, std::uint32_t last, int ignored);
    [[nodiscard]] std::size_t Receive(std::span<char> buffer);

    std::unique_ptr<mnl_socket, Close> socket_;
    std::uint32_t sequence_ = 0;
    std::uint64_t request_ = 0;
    struct {
        std::string name;
        int index = 0; // 0: none is cached
    } lastInterface_;  // thousands of routes in a row use the same one
};

// The argument of an interface ioctl.
[[nodiscard]] ifreq InterfaceRequest(const std::string &name);

// The sockets of all VPNs.
class RouteSockets {
  public:
    explicit RouteSockets(const Namespaces &namespaces);

    // Runs `work` with the VPN's socket, and returns its result. Throws what `work` throws, and std::system_error when
    // the socket cannot be opened. After a failure of the socket the next call opens another.
    template <typename Work>
    auto With(std::uint32_t vpnId, Work work)
    {
        NetlinkSocket &socket = sockets_.Of(vpnId);
        socket.BeginRequest(namespaces_.CurrentRequest());
        try {
            return work(socket);
        } catch (const KernelRefusal &) {
            throw;
        } catch (...) {
            sockets_.Drop(vpnId);
            throw;
        }
    }

    // Closes the sockets whose VPN has another namespace now, or none: an open one would keep the old namespace alive.
    void CloseStale() { sockets_.DropStale(); }

  private:
    const Namespaces &namespaces_;
    PerNamespace<NetlinkSocket> sockets_;
};

} // namespace kavel::agent

#endif
