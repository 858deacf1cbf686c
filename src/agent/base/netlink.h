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
#include <string>
#include <vector>

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

// Kernel answers come back as results, 0 or a negated errno. A socket that fails throws std::system_error and is not to
// be used again.
class NetlinkSocket {
  public:
    // In the calling thread's namespace.
    NetlinkSocket();

    int Request(NetlinkMessage &message);

    // Calls `take` for every message of the answer.
    int Dump(NetlinkMessage &message, const std::function<void(const nlmsghdr &)> &take);

    // Messages with NLM_F_REQUEST set. The first error among them that is not `ignored`.
    int RequestAll(NetlinkBatch &messages, int ignored);

    // The index of an interface of the namespace, or a negated errno.
    int InterfaceIndex(const std::string &name);

    // Any socket of a namespace answers the interface ioctls for it.
    [[nodiscard]] int Fd() const { return mnl_socket_get_fd(socket_.get()); }

  private:
    struct Close {
        void operator()(mnl_socket *socket) const { mnl_socket_close(socket); }
    };

    void Send(const void *bytes, std::size_t size);
    // Reads on until `last` is acknowledged.
    int AwaitAcknowledgement(std::uint32_t first, std::uint32_t last, int ignored);
    std::size_t Receive();

    std::unique_ptr<mnl_socket, Close> socket_;
    std::uint32_t sequence_ = 0;
    struct {
        std::uint64_t round = 0;
        std::string name;
        int index = 0;
    } lastInterface_; // thousands of routes in a row go through the same
    std::vector<char> received_;
};

// What an interface ioctl asks for.
ifreq InterfaceRequest(const std::string &name);

// Runs `work` with the VPN's socket. The failures of opening or using it come back as a negated errno; the next call
// opens another.
int WithNetlink(std::uint32_t vpnId, const std::function<int(NetlinkSocket &)> &work);

// Closes the sockets whose VPN has another namespace now, or none: an open one would keep the old namespace alive.
void CloseStaleNetlink();

} // namespace kavel::agent

#endif
